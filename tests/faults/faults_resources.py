"""A daemon without descriptors, without memory, without further processes."""

import os
import resource
import time
from pathlib import Path

from faults_files import Locked

from fault import Fault
from strike import LIBRARY
from world import DEFAULT_ROUTE

DAEMON = Path("/korva/bin/vyrwrap")
AT_START = 5  # 0 to 2, the lock and the template: none for the copy


def _first_free(pid):
    used = {int(number) for number in os.listdir(f"/proc/{pid}/fd")}
    return next(number for number in range(3, 1024) if number not in used)


class NoDescriptors(Locked):
    name, title, reason = "no-descriptors", "no descriptors left", "Too many open files"
    before = None

    def strike(self, world):
        if world.ap.daemon:
            before = resource.prlimit(world.pid, resource.RLIMIT_NOFILE)
            self.before, most = self.before or before, before[1]
            resource.prlimit(world.pid, resource.RLIMIT_NOFILE, (_first_free(world.pid), most))
        else:
            self.program = os.readlink(DAEMON)
            DAEMON.unlink()
            DAEMON.write_text(f"#!/bin/sh\nulimit -S -n {AT_START}\nLD_PRELOAD={LIBRARY} exec {self.program}\n")
            DAEMON.chmod(0o755)

    def meanwhile(self, world):
        if world.ap.daemon.running:
            time.sleep(0.5)
            self.strike(world)  # what it was doing has given one back
        super().meanwhile(world)

    def end(self, world):
        if world.ap.daemon.running:
            resource.prlimit(world.pid, resource.RLIMIT_NOFILE, self.before)
        else:
            DAEMON.unlink()
            DAEMON.symlink_to(self.program)


class NoMemory(Fault):
    """No more pages than it has: what fits into its heap still goes. Every single allocation is made to fail over the
    unit tests."""
    name, title = "no-memory", "no memory (no more than it has)"

    def strike(self, world):
        pages = int(Path(f"/proc/{world.pid}/statm").read_text().split()[0])
        self.before = resource.prlimit(world.pid, resource.RLIMIT_AS)
        resource.prlimit(world.pid, resource.RLIMIT_AS, (pages * resource.getpagesize(), self.before[1]))

    def meanwhile(self, world):
        world.change()
        time.sleep(6)

    def end(self, world):
        resource.prlimit(world.pid, resource.RLIMIT_AS, self.before)
        world.change()


class ForkRefused(Fault):
    name, title, before_start = "no-fork", "fork refused", True

    def strike(self, world):
        world.strike.refuse_forks(1)

    def meanwhile(self, world):
        world.change()
        world.ap.redis.set(DEFAULT_ROUTE, 3)  # reloads at once, with a command beside it
        time.sleep(6)
        assert world.strike.refused > 0

    def promised(self, doing):
        if doing.starts:
            return ["3 416 399816 Fork failed while starting VYR"]
        return ['3 416 0 <COMMAND>: cannot run "vyrc debug all off": Resource temporarily unavailable']

    def end(self, world):
        world.strike.refuse_forks(0)


FAULTS = [NoDescriptors, NoMemory, ForkRefused]
