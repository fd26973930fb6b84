"""A routing application that is absent, stopped, or does not read."""

import signal
import time

from fault import Fault
from link_records import vlan

from network import raise_queue_length

FAILED = "3 416 399816 <VYRWRAP>:vyrwrap_send_to_routing_app : Send to Routing APP(fd:"
SHORT_QUEUE = 64


class Unreached(Fault):
    """Sending to it fails, which the log says each time."""
    error = ""

    def meanwhile(self, world):
        self.world = world
        world.change()

    def promised(self, doing):
        if doing.starts:  # it follows nothing yet that it would tell
            self.world.ap.wait_ready(30)
            return []
        line = self.world.ap.log.wait(FAILED, self.world.mark, 30)
        descriptor = line.partition("(fd:")[2].partition(")")[0]
        return [f"{FAILED}{descriptor}) failed. rc: -1 errno: {self.error}"]


class Absent(Unreached):
    name, title, error = "application-absent", "application absent", "111 (Connection refused)"

    def strike(self, world):
        world.ap.application.kill()


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


class QueueFull(Unreached):
    name, title, error = "queue-full", "application's queue full", "11 (Resource temporarily unavailable)"
    more = range(4000, 4000 + SHORT_QUEUE)  # VLANs that are there as long as it lasts, so that nothing stands for two

    def prepare(self, world):
        raise_queue_length(SHORT_QUEUE)

    def strike(self, world):
        world.ap.application.process.signal(signal.SIGSTOP)

    def meanwhile(self, world):
        for number in self.more:
            world.ap.set_vlan(number)
        super().meanwhile(world)

    def end(self, world):
        for number in self.more:
            world.ap.delete_vlan(number)
        world.ap.application.process.signal(signal.SIGCONT)


FAULTS = [Absent, Stopped, QueueFull]
