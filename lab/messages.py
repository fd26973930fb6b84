"""The messages of the routing daemon's sockets, and the platform's events, as numbers and bytes by member number."""

import socket
import struct
from typing import NamedTuple

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


def encode(members):
    """A message, packed from {member: number or bytes}."""
    packed = b""
    for member, value in members.items():
        if isinstance(value, int):
            packed += _varint(member << 3) + _varint(value)
        else:
            packed += _varint(member << 3 | 2) + _varint(len(value)) + value
    return packed


def request(code, offset=0, count=640):
    """An export request as the daemon sends it."""
    return encode({1: code, 2: offset, 3: count, 4: 1, 5: b"", 6: 0})


def frame(body):
    """An answer on the data socket: the length, which counts its own bytes, and the body."""
    return struct.pack("=I", len(body) + 4) + body


def limit_report(event, route_count, max_routes):
    """What the routing daemon sends to the event socket when it holds too many routes."""
    return encode({1: ROUTE_LIMIT, 4: encode({1: event, 2: route_count, 3: max_routes})})


class LimitEvent(NamedTuple):
    """A route-limit event as it is published on the DAL."""

    event_id: int
    has_payload: int
    device_name: str
    event: int
    route_count: int
    max_routes: int


def decode_limit_event(data):
    """The envelope, and the platform event within. Its last byte carries nothing."""
    event_id, has_payload = struct.unpack_from("=HB", data)
    members = decode(data[3:-1])
    limit = decode(members[5])
    return LimitEvent(event_id, has_payload, decode(members[1]).get(3, b"").decode(), limit[1], limit[2], limit[3])


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
