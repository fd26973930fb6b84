"""An access point that does everything at once, and what is asked of it before, during and after a fault."""

import os
import signal
import time
from pathlib import Path
from typing import NamedTuple

import idle_vyr
import stand_in
from strike import Strike, state
from store_model import differences, read_store

from application_keys import cluster_fields, cluster_key, ipv4_node, tunnel_fields, tunnel_key, vlan_key
from lab import EXPORT_FILE, LEVEL_KEY, LIMIT_CHANNEL, VYR_LEVEL_KEY, AccessPoint, route_key
from logfile import LogFile
from process import children_of, descriptors, resident_kib
from wait import Timeout, wait_for

LOGS = Path("/run/lab-logs")
LOG = LOGS / "vyrwrap.log"
PERSISTENT = ("--appendonly", "yes", "--appendfsync", "always")  # what was acknowledged survives a kill
DEFAULT_ROUTE = route_key("0.0.0.0/0", "192.168.10.254")
NEXT_HOP = "192.168.10.2"

# The client comes back within 10 s, the daemon's timer runs every 5 s, a store found empty is looked at twice.
EQUAL_SECONDS = 75
MEMORY_KIB = 2048  # what one fault may leave in the heap's free lists


class Stock(NamedTuple):
    """What the daemon uses."""

    descriptors: int
    memory: int  # KiB
    to_come: int  # descriptors more: its connection to the routing daemon, where a stand-in gives no export


class World:
    """With `routes` and `tunnels` in the store."""

    def __init__(self, routes=20, tunnels=4):
        self.ap = AccessPoint(start=False)
        self.routes = routes
        self.tunnels = tunnels
        self.redis_options = PERSISTENT
        self.idle_vyr = False
        self.counter = 0
        self.vyr_hangs = False

    def __enter__(self):
        LOGS.mkdir()
        for name in ("vyrwrap.err", "redis.err", "rpapp.out"):  # /tmp is to be filled and locked
            Path("/tmp", name).symlink_to(LOGS / name)
            (LOGS / name).touch()
        self.ap.log = LogFile(LOG)
        self.ap.application._daemon_log = self.ap.log
        self.ap.set_up()
        self.strike = Strike()
        return self

    def __exit__(self, *exception):
        if self.ap.daemon and self.ap.daemon.running:
            self.ap.daemon.signal(signal.SIGCONT)
        self.ap.close()

    # Coming up

    def fill_store(self):
        with self.ap.redis.pipeline() as keys:
            keys.set(LEVEL_KEY, "info")
            keys.set(VYR_LEVEL_KEY, "notice")
            keys.set(DEFAULT_ROUTE, 1)
            for n in range(self.routes - 1):
                keys.set(route_key(f"10.{n // 256}.{n % 256}.0/24", NEXT_HOP), n % 9 + 1)
            for n in range(self.tunnels):
                keys.hset(tunnel_key(f"t{n}"), mapping=tunnel_fields(f"t{n}", mapid=n + 1, tunnel_status=n % 2))
            keys.set(vlan_key(12), "")
            keys.hset(cluster_key("c1"), mapping=cluster_fields(nodes=[ipv4_node("192.168.1.2")]))
            keys.execute()
        self.ap.set_overlay(1)
        self.ap.set_redistributed(10, 20)

    def start_redis(self, *options):
        self.ap.start_redis(*(options or self.redis_options))

    def start_daemon(self):
        self.mark = self.ap.log.mark()
        self.ap.start_daemon(KORVA_LOG=f"file:{LOG}", **self.strike.environment)

    def follow(self):
        """The application asks for everything, so that it is told of changes."""
        if not (self.ap.application.process and self.ap.application.process.running):
            self.ap.application.start()
        self.ap.application.follow_all()

    def come_up(self):
        """Until all is as the store says."""
        self.start_daemon()
        self.ap.wait_ready()
        self.follow()
        self.wait_vyr()
        self.wait_equal()

    def wait_vyr(self):
        """Until the routing daemon, or what stands in for it, is past its start."""
        if not self.idle_vyr:
            self.ap.bird()
            return
        ready = Path(idle_vyr.READY)
        wait_for(lambda: ready.exists() and ready.read_text() == str(self.ap.vyr()), "the stand-in is ready")

    # Activities

    def publish_event(self):
        """A route-limit event from the routing daemon to whoever listens on the DAL."""
        with_events = self.ap.subscribe(LIMIT_CHANNEL)
        self.send_event()
        return with_events.wait()

    def send_event(self):
        peer = stand_in.EventPeer()
        peer.report(1, 500, 512)
        peer.close()

    def export(self):
        """A new export file."""
        EXPORT_FILE.unlink(missing_ok=True)
        self.ap.ask_export(0)
        wait_for(lambda: EXPORT_FILE.exists() and EXPORT_FILE.stat().st_size, "an export", 12)

    def change(self):
        """A change of every kind; which, goes by how many there have been."""
        self.counter += 1
        n = self.counter
        ap = self.ap
        with ap.redis.pipeline() as keys:
            for gone in (n + 3, n + 100):  # where the table is full, a new metric takes a place of its own
                keys.delete(route_key(f"10.0.{gone}.0/24", NEXT_HOP))
            keys.set(route_key(f"10.200.{n}.0/24", NEXT_HOP), 5)
            keys.set(route_key("10.0.1.0/24", NEXT_HOP), 10 + n)
            keys.set(VYR_LEVEL_KEY, ("info", "warn", "debug")[n % 3])
            keys.set("/op/vlans/route_redistributed_vlans", f"{{10:{20 + n}}}")
            keys.hset(tunnel_key("t1"), mapping=tunnel_fields("t1", mapid=2, link_priority=n, tunnel_status=n % 2))
            keys.hset(tunnel_key(f"new{n}"), mapping=tunnel_fields(f"new{n}", mapid=1000 + n))
            keys.delete(tunnel_key("t2"))
            keys.set(vlan_key(100 + n), "")
            keys.delete(vlan_key(12))
            keys.hset(cluster_key("c1"), mapping=cluster_fields(nodes=[ipv4_node("192.168.1.2", n)]))
            keys.execute()

    # What is asked

    @property
    def pid(self):
        return self.ap.daemon.pid

    def stopped(self):
        return state(self.pid) == "T"

    def wait_stopped(self):
        wait_for(self.stopped, lambda: f"the daemon stops; it is {state(self.pid)}", 25, every=0.002)

    def signal_vyr(self, number):
        os.kill(self.ap.vyr(), number)

    def wait_children(self):
        wait_for(lambda: children_of(self.pid) == [self.ap.vyr(0.5)],
                 lambda: f"vyr is the only child; they are {[(c, state(c)) for c in children_of(self.pid)]}", 20)

    def wait_equal(self, seconds=EQUAL_SECONDS):
        """Until files, records and the kernel's table are what the store says. Nothing is changed for that."""
        deadline = time.monotonic() + seconds
        found = ["never compared"]
        while found:
            try:
                self.follow()
                found = differences(self.ap, read_store(self.ap.redis), kernel=not self.idle_vyr)
            except Timeout as late:
                found = [f"{late}"]
            if found and (time.monotonic() > deadline or not self.ap.daemon.running):
                raise Timeout(f"not as the store says: {len(found)} differences: {'; '.join(found[:5])}")
            time.sleep(0.3 if found else 0)

    def take_stock(self):
        """Descriptors and memory, once everything that is opened at first need has been used."""
        self.publish_event()
        if not self.idle_vyr:
            self.export()
        wait_for(lambda: state(self.pid) == "S" and not self.event_connections(), "the daemon is idle")
        return Stock(descriptors(self.pid), resident_kib(self.pid), int(self.idle_vyr))

    def event_connections(self):
        table = Path("/proc/net/unix").read_text()
        return [line for line in table.splitlines()
                if line.endswith("/tmp/bird_event_exp.ctl") and line.split()[5] == "03"]

    def expect_nothing_left(self, before):
        """No child but vyr; and where it is still the daemon that `before` was taken of, no more of anything."""
        self.wait_children()
        if not before:
            return
        most = before.descriptors + before.to_come
        wait_for(lambda: self.take_stock().descriptors <= most, lambda: f"{most} descriptors, not {self.listing()}", 20)
        sanitized = "libasan" in Path(f"/proc/{self.pid}/maps").read_text()
        memory = self.take_stock().memory
        assert sanitized or memory <= before.memory + MEMORY_KIB, f"{before.memory} KiB before, {memory} KiB after"

    def listing(self):
        folder = f"/proc/{self.pid}/fd"
        return [os.readlink(f"{folder}/{number}") for number in os.listdir(folder)]
