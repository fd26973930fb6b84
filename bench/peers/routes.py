#!/usr/bin/env python3
"""Static routes the straightforward way: a dictionary of what the DAL holds, and the whole file at each change."""

import ipaddress
import os

import redis

DAL = "/run/python.sock"
FILE = "/tmp/pyt_static.conf"
PATTERN = "/op/staticroute/*"
CHANNEL_PREFIX = "__keyspace@0__:"

GATEWAY, IPSEC, CLUSTER, PPPOE = "1234"


def next_hop(kind: str, name: str) -> str:
    if kind == IPSEC:
        return f'"{name}"'
    if kind == CLUSTER:
        return f'"cluster_{name}"'
    if kind == PPPOE:
        vlan, gateway = name.split("-", 1)
        return f'"__pppoe__vlan{vlan}_{gateway}"'
    return name


def parse(key: str) -> tuple[str, str]:
    """Network and next hop of a key /op/staticroute/{DEST:MASK:TYPE:NEXTHOP}."""
    dest, mask, kind, name = key[key.index("{") + 1:key.rindex("}")].split(":", 3)
    network = ipaddress.IPv4Network((dest, mask), strict=False)
    return str(network), next_hop(kind, name)


class Routes:
    def __init__(self, dal: redis.Redis) -> None:
        self.dal = dal
        self.known: dict[str, tuple[str, int, str]] = {}  # by key: network, metric, next hop

    def put(self, key: str, value: str | None) -> None:
        try:
            network, hop = parse(key)
            self.known[key] = (network, int(value or 0) or 1, hop)
        except ValueError as error:
            print(f"{key}: {error}")

    def load(self) -> None:
        keys = list(self.dal.scan_iter(PATTERN, count=1000))
        if keys:
            for key, value in zip(keys, self.dal.mget(keys)):
                self.put(key, value)
        self.write()

    def change(self, key: str, event: str) -> None:
        if event in ("del", "expired", "evicted"):
            self.known.pop(key, None)
        else:
            self.put(key, self.dal.get(key))
        self.write()

    def write(self) -> None:
        routes: dict[tuple[str, int], list[str]] = {}
        for network, metric, hop in self.known.values():
            routes.setdefault((network, metric), []).append(hop)
        lines = ["protocol static {", "  ipv4;"]
        for (network, metric), hops in routes.items():
            indent = "    " if len(hops) == 1 else "        "
            vias = " \n      ".join(f"via {hop}" for hop in hops)
            lines += [f"  route {network} metric {metric} {vias} {{", f"{indent}krt_metric = {metric};",
                      f"{indent}preference = 256;", "  };"]
        lines += ["}", ""]
        with open(FILE + ".new", "w") as file:
            file.write("\n".join(lines))
        os.rename(FILE + ".new", FILE)


def main() -> None:
    dal = redis.Redis(unix_socket_path=DAL, decode_responses=True)
    routes = Routes(dal)
    subscription = dal.pubsub(ignore_subscribe_messages=True)
    subscription.psubscribe(CHANNEL_PREFIX + PATTERN)
    routes.load()
    for message in subscription.listen():
        routes.change(message["channel"].removeprefix(CHANNEL_PREFIX), message["data"])


if __name__ == "__main__":
    main()
