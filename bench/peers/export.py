#!/usr/bin/env python3
"""Route table export the straightforward way: on a trigger one request, and the answer's bytes into a file."""

import os
import socket
import struct

import redis

DAL = "/run/python.sock"
ROUTING_DAEMON = "/tmp/bird_data_exp.ctl"
FILE = "/tmp/.pythonp_mrt"
CHANNEL = "/ipc/event/vyrwrap/mrt"

REQUEST_CODES = (3, 23, 27, 29, 25, 44)  # by export type
RESULT, SUCCESS = 2, 2
VARINT, FIXED64, BYTES, FIXED32 = 0, 1, 2, 5


def varint(data: bytes, place: int) -> tuple[int, int]:
    """The number at a place, and the place behind it."""
    number = shift = 0
    while True:
        byte = data[place]
        place += 1
        number |= (byte & 0x7f) << shift
        shift += 7
        if byte < 0x80:
            return number, place


def result(answer: bytes) -> int:
    """The member `result` of a proto_resp_msg; 0 without one."""
    place = found = 0
    while place < len(answer):
        tag, place = varint(answer, place)
        if tag & 7 == VARINT:
            value, place = varint(answer, place)
            if tag >> 3 == RESULT:
                found = value
        elif tag & 7 == BYTES:
            length, place = varint(answer, place)
            place += length
        elif tag & 7 in (FIXED32, FIXED64):
            place += 4 if tag & 7 == FIXED32 else 8
        else:
            raise ValueError("no message")
    return found


def receive(connection: socket.socket, size: int) -> bytes:
    data = bytearray()
    while len(data) < size:
        piece = connection.recv(size - len(data))
        if not piece:
            raise ConnectionError("the routing daemon closed the connection")
        data += piece
    return bytes(data)


def export(connection: socket.socket, export_type: int) -> None:
    connection.sendall(bytes((0x08, REQUEST_CODES[export_type], 0x10, 0, 0x18, 0x80, 0x05, 0x20, 1, 0x2a, 0, 0x30, 0)))
    length, = struct.unpack("=I", receive(connection, 4))
    answer = receive(connection, length - 4)
    if result(answer) != SUCCESS:
        print("the routing daemon refused")
        return
    with open(os.open(FILE, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600), "wb") as file:
        file.write(answer)


def main() -> None:
    dal = redis.Redis(unix_socket_path=DAL)
    subscription = dal.pubsub(ignore_subscribe_messages=True)
    subscription.psubscribe(CHANNEL)
    connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    connection.connect(ROUTING_DAEMON)
    for message in subscription.listen():
        data = message["data"]
        export_type = struct.unpack("=I", data[:4])[0] if len(data) >= 4 else 0
        if export_type < len(REQUEST_CODES):
            export(connection, export_type)


if __name__ == "__main__":
    main()
