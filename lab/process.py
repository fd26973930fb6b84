"""Processes: those that the lab starts, and those that these start."""

import os
import signal
import subprocess
from pathlib import Path

from wait import wait_for


class Process:
    """A program that was started. What it prints goes to a file."""

    def __init__(self, name, arguments, stderr, environment=None, commands=False, descriptors=()):
        """With `commands` its standard input is a pipe that `write` fills. It inherits the descriptors named."""
        self.name = name
        self.stderr = Path(stderr)
        with self.stderr.open("ab") as errors:
            self._popen = subprocess.Popen(arguments, stdin=subprocess.PIPE if commands else subprocess.DEVNULL,
                                           stdout=errors, stderr=errors, env=environment, start_new_session=True,
                                           pass_fds=descriptors)

    @property
    def pid(self):
        return self._popen.pid

    @property
    def running(self):
        return self._popen.poll() is None

    def write(self, line):
        self._popen.stdin.write(f"{line}\n".encode())
        self._popen.stdin.flush()

    def signal(self, number):
        if self.running:
            self._popen.send_signal(number)

    def wait(self, seconds=15):
        """The exit status; the negative signal number where a signal ended it."""
        return self._popen.wait(seconds)

    def stop(self, seconds=15):
        """Asks it to end, then makes it. Returns the status."""
        self.signal(signal.SIGTERM)
        try:
            return self.wait(seconds)
        except subprocess.TimeoutExpired:
            self._popen.kill()
            self._popen.wait()
            raise

    def kill(self):
        self.signal(signal.SIGKILL)
        return self.wait()

    def child(self, name, seconds=10):
        """The process id of its child of that name, once it is there."""
        return wait_for(lambda: child_of(self.pid, name), f"{self.name} has a child {name}", seconds)


def _stat(pid):
    """(name, state, parent) of a process, or None when it is gone."""
    try:
        text = Path(f"/proc/{pid}/stat").read_text(errors="replace")
    except OSError:
        return None
    state, parent = text[text.rindex(")") + 2:].split()[:2]
    return text[text.index("(") + 1:text.rindex(")")], state, int(parent)


def child_of(parent, name):
    """The process id of that process's living child of that name, or None."""
    for entry in os.listdir("/proc"):
        found = _stat(entry) if entry.isdigit() else None
        if found and found[0] == name and found[1] not in "ZX" and found[2] == parent:
            return int(entry)
    return None


def children_of(pid):
    """The process ids of that process's children, those that have ended and were not reaped included."""
    return [int(child) for child in Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]


def is_running(pid):
    found = _stat(pid)
    return found is not None and found[1] not in "ZX"


def wait_until_gone(pid, seconds=10):
    wait_for(lambda: not is_running(pid), f"process {pid} has ended", seconds)


def descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def processor_seconds(pid):
    """The processor time that a process has used."""
    text = Path(f"/proc/{pid}/stat").read_text(errors="replace")
    user, system = text[text.rindex(")") + 2:].split()[11:13]
    return (int(user) + int(system)) / os.sysconf("SC_CLK_TCK")


def resident_kib(pid):
    for line in Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1])
    raise ProcessLookupError(pid)
