"""Stand-ins for the routing daemon, so that a test decides what the daemon hears."""

import socket
from pathlib import Path

from messages import limit_report

PROGRAM = Path("/korva/bin/vyr")
DATA_SOCKET = Path("/tmp/bird_data_exp.ctl")
EVENT_SOCKET = "/tmp/bird_event_exp.ctl"
PATIENCE = 20


def install(script):
    """What the daemon launches as the routing daemon."""
    PROGRAM.unlink(missing_ok=True)
    PROGRAM.write_text(script)
    PROGRAM.chmod(0o755)


def install_idle():
    """A routing daemon that does nothing: its sockets are the test's."""
    install("#!/bin/sh\nexec sleep infinity\n")


class DataServer:
    """The routing daemon's end of the data-export socket."""

    def __init__(self):
        DATA_SOCKET.unlink(missing_ok=True)
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.settimeout(PATIENCE)
        self._listener.bind(str(DATA_SOCKET))
        self._listener.listen(10)
        self._connection = None

    def accept(self):
        self._connection, _ = self._listener.accept()
        self._connection.settimeout(PATIENCE)

    def request(self):
        """The next request, on the connection that is open or on a new one."""
        if self._connection is None:
            self.accept()
        data = self._connection.recv(65536)
        if data:
            return data
        self.hang_up()
        return self.request()

    def answer(self, data):
        self._connection.sendall(data)

    def hang_up(self):
        self._connection.close()
        self._connection = None

    def close(self):
        if self._connection:
            self.hang_up()
        self._listener.close()
        DATA_SOCKET.unlink(missing_ok=True)


class EventPeer:
    """The routing daemon's end of the event socket."""

    def __init__(self):
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._socket.settimeout(PATIENCE)
        self._socket.connect(EVENT_SOCKET)

    def send(self, data):
        self._socket.sendall(data)

    def report(self, event, route_count, max_routes):
        self.send(limit_report(event, route_count, max_routes))

    def close(self):
        self._socket.close()
