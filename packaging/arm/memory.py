"""The daemon's private memory and stack on ARM, with as much as it can hold: in the lab's sandbox, under qemu.

qemu keeps the program's 4 GiB of addresses at a place of their own (QEMU_GUEST_BASE). What the kernel counts there are the
program's pages, as it would count them on a device; what qemu needs for itself lies elsewhere and is left out.
"""

import re
import signal
import socket
import struct
import threading
from pathlib import Path

import stand_in
from application_keys import ipv4_node
from lab import EXPORT_FILE, LEVEL_KEY, LIMIT_CHANNEL, LOG, QUEUE_LENGTH, AccessPoint, route_key, wait_for
from messages import ROUTE_LIMIT, SUCCESS, encode, frame
from network import raise_queue_length

BASE = 0x1_0000_0000
SIZE = 0x1_0000_0000
STACK = 8 * 1024 * 1024
LIMIT_KIB = 1024
BUFFER = 1024 * 1024
RESERVED = 1280 * 1024  # of stack, by the daemon when it starts, which makes use of the last page then
PAGE = 4096
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
    """KiB of pages that are the process's own, by part of the program: not those of files, whether written back or not."""
    parts, part = {}, None
    for line in Path(f"/proc/{pid}/smaps").read_text().splitlines():
        if head := _HEAD.fullmatch(line):
            start, end = int(head[1], 16), int(head[2], 16)
            part = part_of(head[3], end - start) if BASE <= start < BASE + SIZE else None
        elif part and line.startswith("Anonymous:"):
            parts[part] = parts.get(part, 0) + int(line.split()[1])
    return parts


def stack_depths(pid):
    """How far below the stack's upper end each of its pages is that has been used."""
    for line in Path(f"/proc/{pid}/maps").read_text().splitlines():
        start, end = (int(number, 16) for number in line.split()[0].split("-"))
        if BASE <= start < BASE + SIZE and end - start == STACK:
            with open(f"/proc/{pid}/pagemap", "rb") as pages:
                pages.seek(start // PAGE * 8)
                entries = struct.unpack(f"={STACK // PAGE}Q", pages.read(STACK // PAGE * 8))
            return [STACK - number * PAGE for number, entry in enumerate(entries) if entry >> 62]
    raise AssertionError("the stack is not told apart")


def show(what, pid, buffers=0):
    """Prints what is private, and fails when it is too much besides the buffers, which are bytes."""
    parts = private_kib(pid)
    total = sum(parts.values())
    print(f"{total:5} KiB private {what}: {', '.join(f'{kib} {part}' for part, kib in sorted(parts.items()))}", flush=True)
    assert "stack" in parts and len(parts) == 4, "the parts are not told apart"
    assert total < LIMIT_KIB + buffers // 1024, f"more than {LIMIT_KIB} KiB"


def show_stack(what, pid):
    """Prints how deep the stack was used, in whole pages, without the page that was used to reserve it."""
    depth = max(depth for depth in stack_depths(pid) if depth <= RESERVED)
    assert depth < RESERVED - PAGE, "more than was reserved"
    print(f"{depth // 1024:5} KiB of stack {what}", flush=True)


class Journal(threading.Thread):
    """The system log, which takes one line at a time: a daemon that is not let go on stands where it logs the next."""

    def __init__(self):
        super().__init__(daemon=True)
        raise_queue_length(0)
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        raise_queue_length(QUEUE_LENGTH)
        self._socket.bind("/dev/log")
        self._wanted = None
        self._held = threading.Event()
        self._go_on = threading.Event()
        self.start()

    def run(self):
        with LOG.open("ab", buffering=0) as log:
            while True:
                line = self._socket.recv(65536, socket.MSG_PEEK)
                if self._wanted and self._wanted in line:
                    self._held.set()
                    self._go_on.wait()
                log.write(self._socket.recv(65536) + b"\n")

    def hold_after(self, text):
        """The next line with that text will be the last one that is taken before go_on."""
        self._held.clear()
        self._go_on.clear()
        self._wanted = text

    def wait_until_held(self, pid):
        """Waits until the daemon stands at its next line."""
        assert self._held.wait(20), f"the daemon does not say {self._wanted}"
        wait_for(lambda: Path(f"/proc/{pid}/stat").read_text().rpartition(") ")[2].startswith("S"), "the daemon stands")

    def go_on(self):
        self._wanted = None
        self._go_on.set()


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


def answer(size):
    """The body of a successful answer, which takes that many bytes with its frame's length."""
    head = encode({1: 3, 2: SUCCESS})
    return head + encode({3: bytes(size - 4 - len(head) - 4)})


def export(ap, server, body):
    """One export, to the end."""
    mark = ap.log.mark()
    ap.ask_export(0)
    server.request()
    server.answer(frame(body))
    ap.log.wait(f"MRT data exported to {EXPORT_FILE} len {len(body)}", mark)


def show_exports(ap, journal):
    pid = ap.daemon.pid
    server = stand_in.DataServer()
    export(ap, server, answer(20000))
    export(ap, server, answer(20000))
    show("after two exports of 20 kB", pid)
    largest = answer(BUFFER - 1)
    for when in ("the first", "the second"):
        mark = ap.log.mark()
        journal.hold_after(b"Recieved data len")
        ap.ask_export(0)
        server.request()
        server.answer(frame(largest))
        journal.wait_until_held(pid)
        show(f"during {when} export of 1 MiB, in a buffer and once more by libprotobuf-c", pid, 2 * BUFFER)
        journal.go_on()
        ap.log.wait(f"MRT data exported to {EXPORT_FILE} len {len(largest)}", mark)
        ap.application.settle()
        show("after it", pid)
    server.close()


def show_event(ap, journal):
    pid = ap.daemon.pid
    show_stack("without an event of the routing daemon", pid)
    events = ap.subscribe(LIMIT_CHANNEL)
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as peer:
        peer.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 4 * BUFFER)
        # a machine that lets a socket hold less (net.core.wmem_max) has smaller events
        size = min(BUFFER, peer.getsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF) // 4)
        peer.connect(stand_in.EVENT_SOCKET)
        ap.log.wait("<VYRWRAP>: vyr server connected")
        head = encode({1: ROUTE_LIMIT, 4: encode({1: 1, 2: 900, 3: 1000})})
        event = head + encode({3: bytes(size - len(head) - 4)})
        ap.daemon.signal(signal.SIGSTOP)  # so that it reads all at once
        peer.sendall(event)
        journal.hold_after(b"buffer RECIEVED from VYR")
        ap.daemon.signal(signal.SIGCONT)
        journal.wait_until_held(pid)
        show(f"during an event of {len(event)} bytes, in a buffer and once more by libprotobuf-c", pid, 2 * BUFFER)
        journal.go_on()
        events.wait(1)
    ap.log.wait(f"buffer RECIEVED from VYR of length = {len(event)}")
    ap.application.settle()
    show("after it, the buffer's pages included", pid, BUFFER)
    show_stack("with an event of the routing daemon", pid)


def main():
    with AccessPoint(start=False) as ap:
        journal = Journal()
        stand_in.install_idle()
        ap.start_redis()
        ap.redis.set(LEVEL_KEY, "debug")
        ap.start_daemon(QEMU_GUEST_BASE=hex(BASE), KORVA_LOG="syslog")
        ap.wait_ready()
        ap.log.wait("<VYRWRAP>: Dirty flag set at main")
        show("after the start", ap.daemon.pid)
        fill(ap)
        show(f"with {ROUTES + 1} routes, {TUNNELS} tunnels, {CLUSTERS} clusters of {NODES} nodes", ap.daemon.pid)
        show_exports(ap, journal)
        show_event(ap, journal)


main()
