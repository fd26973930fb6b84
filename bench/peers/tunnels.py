#!/usr/bin/env python3
"""Tunnels the straightforward way: a record for each changed hash, and all of them in one datagram on request."""

import ipaddress
import os
import socket
import struct
import threading

import redis

DAL = "/run/python.sock"
OWN_SOCKET = "/tmp/.sock/RoutingProtocols_PYTHONP.sock"
APPLICATION_SOCKET = "/tmp/.sock/RoutingProtocols_APP_CMN.sock"
PATTERN = "/op/tunnel/*"
CHANNEL_PREFIX = "__keyspace@0__:"

TUNNEL_FAMILY, INTERFACE, REPLAY_ALL = 2, 1, 6
NEW_DOWN, DELETED, CHANGED, WENT_UP, WENT_DOWN, NEW_UP = 1, 2, 3, 4, 5, 9
IS_UP = 0x20
REQUEST = struct.Struct("=HHIII")
RECORD = struct.Struct("=HHIII200s6s12x40s34xi6IHBB8x")


def address(text: str) -> int:
    try:
        return int(ipaddress.IPv4Address(text))
    except ValueError:
        return 0


def record(opcode: int, tunnel: dict[str, str]) -> bytes:
    up = tunnel["tunnel_status"] == "1"
    return RECORD.pack(0, 0, TUNNEL_FAMILY, INTERFACE, opcode, tunnel["tunnel_name"].encode(),
                       bytes.fromhex(tunnel["dst_mac"].replace(":", "")), tunnel["pair_uuid"].encode(),
                       int(tunnel["tunnel_index"]), int(tunnel["mapid"]), address(tunnel["tunnel_ip"]),
                       address(tunnel["mask"]), address(tunnel["peer_tunnel_ip"]), address(tunnel["peer_public_ip"]),
                       int(tunnel["flags"]) | (IS_UP if up else 0), int(tunnel["vlan_id"]),
                       int(tunnel["link_priority"]), up)


class Tunnels:
    def __init__(self, dal: redis.Redis) -> None:
        self.dal = dal
        self.known: dict[str, dict[str, str]] = {}  # by key: the hash
        self.lock = threading.Lock()
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        if os.path.exists(OWN_SOCKET):
            os.unlink(OWN_SOCKET)
        self.socket.bind(OWN_SOCKET)

    def send(self, data: bytes) -> None:
        try:
            self.socket.sendto(data, APPLICATION_SOCKET)
        except OSError as error:
            print(f"{APPLICATION_SOCKET}: {error}")

    def replay(self) -> None:
        keys = list(self.dal.scan_iter(PATTERN, count=1000))
        with self.dal.pipeline(transaction=False) as pipeline:
            for key in keys:
                pipeline.hgetall(key)
            hashes = pipeline.execute()
        records = []
        with self.lock:
            self.known = dict(zip(keys, hashes))
            for key, tunnel in self.known.items():
                try:
                    records.append(record(NEW_UP if tunnel["tunnel_status"] == "1" else NEW_DOWN, tunnel))
                except (KeyError, ValueError, struct.error) as error:
                    print(f"{key}: {error!r}")
        self.send(b"".join(records))

    def change(self, key: str, event: str) -> None:
        with self.lock:
            before = self.known.get(key)
            if event == "hset":
                tunnel = self.dal.hgetall(key)
                self.send(record(self.opcode(before, tunnel), tunnel))
                self.known[key] = tunnel
            elif event == "del" and before:
                self.send(record(DELETED, before))
                del self.known[key]

    @staticmethod
    def opcode(before: dict[str, str] | None, tunnel: dict[str, str]) -> int:
        up = tunnel["tunnel_status"] == "1"
        if before is None:
            return NEW_UP if up else NEW_DOWN
        if (before["tunnel_status"] == "1") == up:
            return CHANGED
        return WENT_UP if up else WENT_DOWN

    def follow(self) -> None:
        subscription = self.dal.pubsub(ignore_subscribe_messages=True)
        subscription.psubscribe(CHANNEL_PREFIX + PATTERN)
        for message in subscription.listen():
            key = message["channel"].removeprefix(CHANNEL_PREFIX)
            try:
                self.change(key, message["data"])
            except (KeyError, ValueError, struct.error) as error:
                print(f"{key}: {error!r}")

    def answer(self) -> None:
        while True:
            request = self.socket.recv(1024).ljust(REQUEST.size, b"\0")
            if REQUEST.unpack_from(request)[2:] == (TUNNEL_FAMILY, INTERFACE, REPLAY_ALL):
                self.replay()


def main() -> None:
    tunnels = Tunnels(redis.Redis(unix_socket_path=DAL, decode_responses=True))
    threading.Thread(target=tunnels.follow, daemon=True).start()
    tunnels.answer()


if __name__ == "__main__":
    main()
