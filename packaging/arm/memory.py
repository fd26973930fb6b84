"""The daemon's private memory on ARM, with as much as it can hold: in the lab's sandbox, under qemu.

qemu keeps the program's 4 GiB of addresses at a place of their own (QEMU_GUEST_BASE). What the kernel counts there are the
program's pages, as it would count them on a device; what qemu needs for itself lies elsewhere and is left out.
"""

import re
from pathlib import Path

from application_keys import ipv4_node
from lab import EXPORT_FILE, AccessPoint, route_key, wait_for

BASE = 0x1_0000_0000
SIZE = 0x1_0000_0000
STACK = 8 * 1024 * 1024
LIMIT_KIB = 1024
ROUTES = 271  # and the default route
TUNNELS = 200
CLUSTERS = 12
NODES = 12

_HEAD = re.compile(r"([0-9a-f]+)-([0-9a-f]+) \S+ \S+ \S+ \S+ *(.*)")


def part_of(name, size):
    """Which part of the program a mapping belongs to. qemu gives each program 8 MiB of stack, in one piece."""
    if name:
        return "data of the program" if name.endswith("/vyrwrap") else "data of the libraries"
    return "stack" if size == STACK else ".bss and heap"


def private_kib(pid):
    """KiB of private pages, by part of the program."""
    parts, part = {}, None
    for line in Path(f"/proc/{pid}/smaps").read_text().splitlines():
        if head := _HEAD.fullmatch(line):
            start, end = int(head[1], 16), int(head[2], 16)
            part = part_of(head[3], end - start) if BASE <= start < BASE + SIZE else None
        elif part and line.startswith("Private_Dirty:"):
            parts[part] = parts.get(part, 0) + int(line.split()[1])
    return parts


def show(what, pid):
    parts = private_kib(pid)
    total = sum(parts.values())
    print(f"{total:5} KiB private {what}: {', '.join(f'{kib} {part}' for part, kib in sorted(parts.items()))}", flush=True)
    assert "stack" in parts and len(parts) == 4, "the parts are not told apart"
    assert total < LIMIT_KIB, f"more than {LIMIT_KIB} KiB"


def fill(ap):
    """As many of everything as there may be, with names where these cost most."""
    with ap.redis.pipeline(transaction=False) as keys:
        for n in range(ROUTES):
            kind, hop = (1, "192.168.10.2") if n % 2 else (2, f"map-{n:03}")
            keys.set(route_key(f"10.{n // 250 + 1}.{n % 250}.0/24", hop, kind), n % 9 + 1)
        keys.execute()
    ap.set_route("0.0.0.0/0", "192.168.10.254")
    ap.wait_static_file("route 0.0.0.0/0 ", seconds=60)
    ap.wait_static_file("route 10.2.20.0/24 ", seconds=60)
    for n in range(TUNNELS):
        ap.set_tunnel(f"tunnel-{n:03}", tunnel_index=n + 1, peer_tunnel_ip=f"10.250.{n}.2")
    for n in range(CLUSTERS):
        ap.set_cluster(f"cluster-{n:02}", nodes=[ipv4_node(f"10.0.{n}.{node}") for node in range(1, NODES + 1)])
    ap.application.start()
    ap.application.follow_all()
    for record, count in (("tunnel added", TUNNELS), ("cluster", CLUSTERS)):
        wait_for(lambda: told(ap, record) >= count, lambda: f"{count} of {record}; there are {told(ap, record)}")


def told(ap, record):
    return len([line for line in ap.application.records() if line.startswith(record)])


def main():
    with AccessPoint(start=False) as ap:
        ap.start_redis()
        ap.start_daemon(QEMU_GUEST_BASE=hex(BASE))
        ap.wait_ready()
        pid = ap.daemon.pid
        show("after the start", pid)
        fill(ap)
        show(f"with {ROUTES + 1} routes, {TUNNELS} tunnels, {CLUSTERS} clusters of {NODES} nodes", pid)
        ap.bird()
        ap.ask_export(0)
        wait_for(EXPORT_FILE.exists, "the routes are exported")
        ap.application.settle()
        show("after an export", pid)


main()
