"""A routing application that is absent, stopped, or does not read."""

import signal
import time

from fault import Fault
from link_records import vlan

from network import raise_queue_length

FAILED = "3 416 399816 <VYRWRAP>:vyrwrap_send_to_routing_app : Send to Routing APP(fd:{}) failed. rc: -1 errno: {}"
SHORT_QUEUE = 64


def _send_failed(world, error):
    """The line with the daemon's descriptor."""
    line = world.ap.log.find("Send to Routing APP(fd:", world.mark) or ""
    descriptor = line.partition("(fd:")[2].partition(")")[0]
    return FAILED.format(descriptor or "N", error)


class Absent(Fault):
    name, title = "application-absent", "application absent"

    def strike(self, world):
        world.ap.application.kill()

    def meanwhile(self, world):
        world.change()
        time.sleep(2)
        self.line = _send_failed(world, "111 (Connection refused)")

    def promised(self, doing):
        return [] if doing.starts else [self.line]  # it follows nothing yet that it would tell


class Stopped(Fault):
    """What is sent to it waits, and is there when it goes on."""
    name, title = "application-stopped", "application stopped"

    def strike(self, world):
        world.ap.application.process.signal(signal.SIGSTOP)

    def meanwhile(self, world):
        self.mark = world.ap.application.mark()
        world.change()
        time.sleep(3)
        self.told = bool(world.ap.redis.pubsub_numpat() >= 9)

    def end(self, world):
        world.ap.application.process.signal(signal.SIGCONT)
        if self.told:
            world.ap.application.wait(vlan(4, 100 + world.counter), self.mark)


class QueueFull(Fault):
    name, title = "queue-full", "application's queue full"

    def prepare(self, world):
        raise_queue_length(SHORT_QUEUE)

    def strike(self, world):
        world.ap.application.process.signal(signal.SIGSTOP)

    def meanwhile(self, world):
        for _ in range(SHORT_QUEUE):
            world.ap.set_vlan(4000)
            world.ap.delete_vlan(4000)
        world.change()
        time.sleep(2)
        self.line = _send_failed(world, "11 (Resource temporarily unavailable)")

    def promised(self, doing):
        return [] if doing.starts else [self.line]  # it follows nothing yet that it would tell

    def end(self, world):
        world.ap.application.process.signal(signal.SIGCONT)


FAULTS = [Absent, Stopped, QueueFull]
