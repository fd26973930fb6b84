"""What the daemon uses: memory, descriptors, timers, children."""

import os
import re
import signal
import subprocess
from dataclasses import dataclass
from pathlib import Path

from process import children_of, resident_kib
from wait import wait_for

_ANSWER = re.compile(r"<DISPATCHER>: (\d+) timers and (\d+) inputs, (\d+) KiB of memory in use")


@dataclass
class Usage:
    resident_kib: int
    private_kib: int
    in_use_kib: int
    descriptors: int
    timers: int
    inputs: int
    children: int
    zombies: int

    @property
    def counts(self):
        """What has to be the same again, whatever was done in between."""
        return self.descriptors, self.timers, self.inputs, self.children, self.zombies

    def __str__(self):
        return (f"RSS {self.resident_kib} KiB, private {self.private_kib} KiB, in use {self.in_use_kib} KiB, "
                f"{self.descriptors} descriptors, {self.timers} timers, {self.inputs} inputs, {self.children} children, {self.zombies} zombies")


def usage(access_point):
    """Asks the daemon itself for what only it knows: its own log level has to be warning or more."""
    pid = access_point.daemon.pid
    timers, inputs, in_use = _answer(access_point, pid)
    found = children_of(pid)
    zombies = sum(map(_is_zombie, found))
    return Usage(resident_kib(pid), _private_kib(pid), in_use, _descriptors(pid), timers, inputs,
                 len(found) - zombies, zombies)


def wait_usual(access_point, usual, seconds=30):
    """The usage, once its counts are those of `usual`; as it is when they do not come to be that."""
    found = usage(access_point)

    def look():
        nonlocal found
        found = usage(access_point)
        return usual is None or found.counts == usual.counts

    try:
        wait_for(look, "the usual counts", seconds, every=0.2)
    except AssertionError:
        pass
    return found


def open_files(access_point):
    """A line for each descriptor; sockets with what ss knows of them."""
    pid = access_point.daemon.pid
    folder = Path(f"/proc/{pid}/fd")
    lines = [f"{number}: {os.readlink(folder / number)}" for number in sorted(os.listdir(folder), key=int)]
    sockets = subprocess.run(["ss", "-xapnH"], capture_output=True, text=True, check=False).stdout.splitlines()
    return lines + [" ".join(line.split()) for line in sockets if f"pid={pid}," in line]


def _answer(access_point, pid):
    mark = access_point.log.mark()

    def answered():  # asked again and again: its level may still hide the answer
        os.kill(pid, signal.SIGUSR1)
        return _ANSWER.search("\n".join(access_point.log.lines(mark)))

    return map(int, wait_for(answered, "the daemon tells its timers", 90, every=0.1).groups())


def _descriptors(pid):
    """Those above the standard ones: the first failed connection to the routing daemon closes descriptor 0 as well, as it
    has to."""
    return sum(int(number) > 2 for number in os.listdir(f"/proc/{pid}/fd"))


def _is_zombie(pid):
    try:
        text = Path(f"/proc/{pid}/stat").read_text(errors="replace")
    except OSError:
        return False
    return text[text.rindex(")") + 2] == "Z"


def _private_kib(pid):
    lines = Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines()
    return sum(int(line.split()[1]) for line in lines if line.startswith(("Private_Clean", "Private_Dirty")))
