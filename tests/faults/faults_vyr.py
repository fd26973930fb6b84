"""A routing daemon that ends in every way it can, hangs, or is not there."""

import shutil
import signal
import time
from pathlib import Path

import idle_vyr
from fault import Fault
from strike import state

from lab import BINARIES, STATUS_VYR_ENDED
from wait import wait_for
from world import DEFAULT_ROUTE

PROGRAM = Path("/korva/bin/vyr")
ORDER = Path(idle_vyr.ORDER)

# What a process ignores if it does nothing about it, and what only stops it.
HARMLESS = {signal.SIGCHLD, signal.SIGCONT, signal.SIGURG, signal.SIGWINCH}
STOPPING = {signal.SIGSTOP, signal.SIGTSTP, signal.SIGTTIN, signal.SIGTTOU}


class StandIn(Fault):
    """Of a routing daemon that does as it is told; the true one takes its place when the fault is over."""
    idle_vyr = True

    def prepare(self, world):
        PROGRAM.unlink()
        shutil.copy(idle_vyr.__file__, PROGRAM)
        PROGRAM.chmod(0o755)

    def order(self, world, status):
        world.wait_vyr()
        ORDER.write_text(str(status))

    def expect_record(self, world):
        wait_for(lambda: not world.ap.daemon.running, "the daemon ends", 20)
        record = Path(f"/tmp/vyrwrap.{world.pid}.chldpid").read_text()
        assert record == "0 vyrwrap\n", record

    def end(self, world):
        ORDER.unlink(missing_ok=True)
        PROGRAM.unlink(missing_ok=True)
        PROGRAM.symlink_to(BINARIES / "vyr")
        world.idle_vyr = False


class Exits(StandIn):
    """The daemon ends too; who looks after it starts it again."""
    statuses = {"any": STATUS_VYR_ENDED}

    def __init__(self, vyr_status):
        self.vyr_status = vyr_status
        self.name = f"vyr-exit-{vyr_status}"
        self.title = f"vyr exiting {vyr_status}"

    def strike(self, world):
        self.order(world, self.vyr_status)

    def meanwhile(self, world):
        self.expect_record(world)


class ExitsWith100(StandIn):
    """Tried again at each run of the timer."""
    name, title = "vyr-exit-100", "vyr exiting 100, again and again"

    def strike(self, world):
        self.order(world, 100)

    def meanwhile(self, world):
        world.ap.log.wait(self.promised(None)[-1], world.mark, 30)

    def promised(self, doing):
        return [f"3 416 399816 No Vlan IP found in kernel!! Some serious timing in play, try starting vyr again {n}"
                for n in range(3)]


class Missing(StandIn):
    """Noticed when it is started: here again, after it has found no address."""
    name, title, before_start = "vyr-missing", "vyr's binary missing", True
    statuses = {"any": STATUS_VYR_ENDED}

    def strike(self, world):
        if world.ap.daemon:
            self.order(world, 100)
        PROGRAM.unlink()

    def meanwhile(self, world):
        self.expect_record(world)

    def promised(self, doing):
        return ["3 416 399816 Error starting VYR: execvp failed - No such file or directory"]


class Killed(StandIn):
    """By each signal in turn. The daemon ends with its number; who looks after it starts it again. After one that only
    stops it goes on at once; the row of a hanging one is that of a long stop."""
    name, title = "vyr-killed", "vyr killed by each signal"
    rounds = sorted(signal.valid_signals())

    def strike(self, world):
        world.wait_vyr()
        self.vyr = world.ap.vyr()
        world.signal_vyr(self.round)

    def meanwhile(self, world):
        if self.round in STOPPING:
            wait_for(lambda: state(self.vyr) == "T", "vyr is stopped")
            world.signal_vyr(signal.SIGCONT)
        if self.round in HARMLESS | STOPPING:
            return
        wait_for(lambda: state(self.vyr) is None, "vyr has been reaped")
        world.ap.redis.set(DEFAULT_ROUTE, 1)  # has the timer's handler run
        self.expect_record(world)

    def statuses_in(self, doing):
        if self.round in HARMLESS | STOPPING:
            return None
        # the end of a reload's command behind that of vyr has the signal forgotten
        return (int(self.round), STATUS_VYR_ENDED) if doing.reloads else (int(self.round),)


class Hangs(Fault):
    """Takes no reload and answers no export."""
    name, title = "vyr-hangs", "vyr hanging"

    def strike(self, world):
        world.wait_vyr()
        world.vyr_hangs = True
        world.signal_vyr(signal.SIGSTOP)

    def meanwhile(self, world):
        world.ap.ask_export(0)
        world.change()
        time.sleep(13)  # the wait for an answer, and a reload

    def promised(self, doing):
        return ["3 416 399816 vyrwrap message read error from vyr"]

    def end(self, world):
        world.vyr_hangs = False
        world.signal_vyr(signal.SIGCONT)


FAULTS = [Killed, lambda: Exits(0), lambda: Exits(1), ExitsWith100, Hangs, Missing]
