"""The matrix's columns: what the daemon is doing when a fault strikes. Each stops it right there."""

import signal
import time

from lab import EXPORT_FILE, route_key
from messages import request
from strike import state
from wait import wait_for
from world import DEFAULT_ROUTE, NEXT_HOP

FIRST_EXPORT = 3  # request code of export type 0
SCANNED = "subscribed dal for (PSUBSCRIBE __keyspace@0__:/op/vlans/route_redistributed_vlans) done"  # right behind it


class Doing:
    name = title = ""
    routes, tunnels = 20, 4
    starts = False
    reloads = False  # at the same moment

    def enter(self, world):
        """Returns with the daemon stopped within it."""

    def leave(self, world):
        world.ap.daemon.signal(signal.SIGCONT)

    def finish(self, world):
        """Once the fault is over."""


class Starting(Doing):
    """In the middle of its start: the routes have been read and the routing daemon launched, the rest is to follow."""
    name, title, starts = "starting", "starting", True

    def enter(self, world):
        world.strike.at("write", b"route_redistributed_vlans")
        world.start_daemon()
        wait_for(lambda: not world.ap.daemon.running or world.stopped(), "the daemon stops, or ends", 15, every=0.002)


class Idle(Doing):
    name, title = "idle", "idle"


class Scanning(Doing):
    """The keys of a full table have been read and the first values asked for, their answer has not been read."""
    name, title, routes, reloads = "scanning", "scanning 272 routes", 272, True

    def enter(self, world):
        while not self.caught(world):
            world.strike.disarm()

    @staticmethod
    def caught(world):
        """Returns false where the timer ran by itself, before the daemon could be stopped."""
        mark = world.ap.log.mark()
        for kind in ("normal", "pubsub"):
            world.ap.redis.execute_command("CLIENT", "KILL", "TYPE", kind, "SKIPME", "yes")
        world.ap.log.wait("answers again", mark, 15)
        world.strike.at("write", b"MGET\r\n")
        world.ap.redis.set(DEFAULT_ROUTE, 1)  # has the timer's handler run, which subscribes and scans again
        wait_for(lambda: world.stopped() or world.ap.log.find(SCANNED, mark),
                 lambda: f"the daemon stops, or has scanned; it is {state(world.pid)}", 25, every=0.002)
        return world.stopped()


class Replaying(Doing):
    """The hundredth tunnel has been asked for."""
    name, title, tunnels = "replaying", "replaying 200 tunnels", 200

    def enter(self, world):
        world.strike.at("write", b"HGETALL\r\n", skip=99)
        world.ap.application.process.write("replay tunnels")
        world.wait_stopped()


class Exporting(Doing):
    """The request has been written, and the routing daemon has not answered yet."""
    name, title = "exporting", "exporting"

    def enter(self, world):
        EXPORT_FILE.unlink(missing_ok=True)
        world.strike.at("write", request(FIRST_EXPORT))
        self.held = not world.idle_vyr and world.ap.vyr()
        if self.held:
            world.signal_vyr(signal.SIGSTOP)
        world.ap.ask_export(0)
        world.wait_stopped()

    def leave(self, world):
        super().leave(world)
        if self.held and not world.vyr_hangs:
            time.sleep(0.3)  # it waits for the answer in the meantime
            world.signal_vyr(signal.SIGCONT)


class HandlingEvent(Doing):
    """The event has been read and is about to be published."""
    name, title = "event", "handling an event"

    def enter(self, world):
        world.strike.at("open", b"/tmp/name")
        world.send_event()
        world.wait_stopped()


class Changed(Doing):
    """The static routes have just been written; the reload is 5 to 10 s off."""
    name, title = "changed", "between a change and its reload"

    def enter(self, world):
        world.strike.at("rename", b"/tmp/vyr_static.conf")
        world.ap.redis.set(route_key("10.201.0.0/24", NEXT_HOP), 7)
        world.wait_stopped()


DOINGS = [Starting, Idle, Scanning, Replaying, Exporting, HandlingEvent, Changed]
