"""The routing application at the other end of the daemon's link: rpapp, which prints each record as one line.

    ap.application.start()
    ap.application.replay("tunnels")
    ap.application.wait('tunnel added op=1 kind=1 name="t1"')
"""

import itertools
import socket
import struct
from pathlib import Path

from logfile import LogFile
from process import Process
from wait import wait_for

OUTPUT = Path("/tmp/rpapp.out")
DAEMON_SOCKET = "/tmp/.sock/RoutingProtocols_VYRWRAP.sock"
APPLICATION_SOCKET = Path("/tmp/.sock/RoutingProtocols_APP_CMN.sock")

# What rpapp prints about itself; all other lines are records.
_OWN_LINES = ("bound ", "sent ", "not sent", "stopped reading", "reading", "error: ")


class Application:
    """Not running at first. What it prints stays when it ends; a mark is a place in it."""

    def __init__(self, daemon_log):
        self.process = None
        self.output = LogFile(OUTPUT)
        self._daemon_log = daemon_log
        self._unknown_families = itertools.count(1000000)

    def start(self):
        mark = self.mark()
        self.process = Process("rpapp", ["/korva/bin/rpapp"], OUTPUT, commands=True)
        self.output.wait(f"bound {APPLICATION_SOCKET}", mark)

    def quit(self):
        """Ends it; its socket is gone."""
        self.process.write("quit")
        assert self.process.wait() == 0

    def kill(self):
        """Ends it at once; its socket stays, with nobody behind it."""
        self.process.kill()

    def restart(self):
        self.kill()
        self.start()

    # Commands

    def command(self, line, answer):
        """Returns once it has answered."""
        mark = self.mark()
        self.process.write(line)
        return self.output.wait(answer, mark)

    def replay(self, what):
        """Asks for all "tunnels", "vlans" or "clusters", as soon as the daemon listens."""
        wait_for(_daemon_listens, "the daemon listens")
        self.command(f"replay {what}", "sent ")

    def follow_all(self):
        """Asks for everything once; from here on the daemon tells of changes."""
        for what in ("tunnels", "vlans", "clusters"):
            self.replay(what)
        self.settle()

    def settle(self):
        """Waits until the daemon has handled what was sent to it so far."""
        family = next(self._unknown_families)
        self.send(struct.pack("=4xI", family))
        self._daemon_log.wait(f"Unexpected msgType({family})")

    def send(self, datagram):
        wait_for(_daemon_listens, "the daemon listens")
        self.command(f"send {datagram.hex()}", f"sent {len(datagram)} bytes")

    def stop_reading(self):
        self.command("stop", "stopped reading")

    def read_again(self):
        self.command("go", "reading")

    # What it received

    def mark(self):
        return self.output.mark()

    def wait(self, text, since=0, seconds=10):
        """The first line with that text, once it is there."""
        return self.output.wait(text, since, seconds)

    def records(self, since=0):
        """A line for each record, and one for each datagram of several."""
        return [line for line in self.output.lines(since) if not line.startswith(_OWN_LINES)]

    def wait_records(self, wanted, since=0, seconds=10):
        """Waits for the last of these lines; then exactly these must be there."""
        wait_for(lambda: wanted[-1] in self.records(since),
                 lambda: f"rpapp receives {wanted[-1]!r}; it received {self.records(since)}", seconds)
        received = self.records(since)
        assert received == wanted, _first_difference(received, wanted)


def _daemon_listens():
    """Its socket is the last thing that it opens; a stale one refuses."""
    try:
        with Stranger():
            return True
    except OSError:
        return False


def _first_difference(received, wanted):
    for place, pair in enumerate(zip(received, wanted)):
        if pair[0] != pair[1]:
            return f"line {place}: received {pair[0]!r}, wanted {pair[1]!r}"
    return f"{len(received)} lines received, {len(wanted)} wanted"


class Stranger:
    """A socket that sends the daemon whatever it is told."""

    def __enter__(self):
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.connect(DAEMON_SOCKET)
        return self

    def __exit__(self, *exception):
        self._socket.close()

    def send(self, datagram):
        """Waits while the daemon's queue is full."""
        self._socket.send(datagram)
