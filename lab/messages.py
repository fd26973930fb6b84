"""The messages of the routing daemon's sockets, and the platform's events, as numbers and bytes by member number."""

import socket
import struct

SUCCESS = 2
ROUTE_LIMIT = 73


def _varint(number):
    out = bytearray()
    while number > 127:
        out.append(number & 127 | 128)
        number >>= 7
    out.append(number)
    return bytes(out)


def _read_varint(data, place):
    number = shift = 0
    while True:
        byte = data[place]
        number |= (byte & 127) << shift
        place, shift = place + 1, shift + 7
        if byte < 128:
            return number, place


def decode(data):
    """A packed message as {member: number or bytes}."""
    members, place = {}, 0
    while place < len(data):
        tag, place = _read_varint(data, place)
        value, place = _read_varint(data, place)
        if tag & 7 == 2:
            value, place = data[place:place + value], place + value
        members[tag >> 3] = value
    return members


def request(code, offset=0, count=640):
    """An export request as the daemon sends it."""
    return b"".join(bytes([tag << 3]) + _varint(value) for tag, value in ((1, code), (2, offset), (3, count), (4, 1))) + \
        b"\x2a\x00\x30\x00"


class DataSocket:
    """A client of the routing daemon's data-export socket."""

    def __init__(self, path="/tmp/bird_data_exp.ctl"):
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._socket.settimeout(10)
        self._socket.connect(path)

    def send(self, data):
        self._socket.sendall(data)

    def answer(self):
        """The next answer's members."""
        length, = struct.unpack("=I", self._exactly(4))
        return decode(self._exactly(length - 4))

    def _exactly(self, count):
        data = b""
        while len(data) < count:
            part = self._socket.recv(count - len(data))
            assert part, "the routing daemon closed the connection"
            data += part
        return data

    def close(self):
        self._socket.close()
