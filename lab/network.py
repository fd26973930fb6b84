"""The sandbox's network: the VLAN interface and the kernel's table."""

import json
import subprocess
from pathlib import Path
from typing import NamedTuple

MAIN_TABLE_OF_BIRD = ["ip", "-json", "-4", "route", "show", "table", "main", "proto", "bird"]


class Route(NamedTuple):
    """A route as the kernel holds it: type "unicast" or "blackhole", gateways or interfaces in order."""

    type: str
    metric: int
    via: tuple

    def __str__(self):
        target = " ".join(self.via) if self.via else self.type
        return f"{target} metric {self.metric}"


def ip(*arguments):
    subprocess.run(["ip", *arguments], check=True)


def add_bridge(name, *addresses):
    """A VLAN interface: one end of a pair, so that it has a carrier."""
    ip("link", "add", name, "type", "veth", "peer", "name", f"{name}-peer")
    for address in addresses:
        ip("address", "add", address, "dev", name)
    for end in (name, f"{name}-peer"):
        ip("link", "set", end, "up")


def remove_bridge(name):
    subprocess.run(["ip", "link", "delete", name], stderr=subprocess.DEVNULL, check=False)


def raise_queue_length(length):
    """How many datagrams a Unix socket holds that is not read. Belongs to this network namespace."""
    Path("/proc/sys/net/unix/max_dgram_qlen").write_text(f"{length}\n")


def add_foreign_routes(count):
    """Routes in the kernel that are not BIRD's: it learns them."""
    lines = "".join(f"route add 172.16.{n // 256}.{n % 256}/32 via 192.168.10.9\n" for n in range(count))
    subprocess.run(["ip", "-batch", "-"], input=lines, text=True, check=True)


def remove_foreign_routes():
    ip("route", "flush", "root", "172.16.0.0/16", "proto", "boot")


def kernel_routes():
    """BIRD's routes in the kernel: a list of routes for each destination, "0.0.0.0/0" for the default route."""
    shown = subprocess.run(MAIN_TABLE_OF_BIRD, check=True, capture_output=True, text=True).stdout
    table = {}
    for entry in json.loads(shown or "[]"):
        destination = "0.0.0.0/0" if entry["dst"] == "default" else entry["dst"]
        if "/" not in destination:
            destination += "/32"
        hops = entry.get("nexthops", [entry])
        via = tuple(hop.get("gateway") or hop["dev"] for hop in hops if "gateway" in hop or "dev" in hop)
        kind = entry.get("type", "unicast")
        table.setdefault(destination, []).append(Route(kind, entry.get("metric", 0), via if kind == "unicast" else ()))
    return table
