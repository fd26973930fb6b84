"""What is measured, with what each needs: a Redis, programs, files. The names are those of subject.h."""

import contextlib
import os
import pathlib
import re
import signal
import subprocess
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
PEERS = ROOT / "bench" / "peers"
SUBJECTS = ("daemon", "floor", "python", "shell")
REDIS_SOCKETS = {"daemon": "/run/daemon.sock", "floor": "/run/floors.sock", "python": "/run/python.sock",
                 "shell": "/run/shells.sock"}
STATIC_FILES = {subject: pathlib.Path(f"/tmp/{name}_static.conf")
                for subject, name in zip(SUBJECTS, ("vyr", "flr", "pyt", "shl"))}
DAEMON_LOG = pathlib.Path("/run/vyrwrap.log")


class Failure(Exception):
    """Something did not come up or did not answer."""


def wait_for(condition, what, limit_s=20):
    end = time.monotonic() + limit_s
    while not condition():
        if time.monotonic() > end:
            raise Failure(f"{what}: not within {limit_s} s")
        time.sleep(0.005)


@contextlib.contextmanager
def running(*command, **options):
    """A process, and those that it starts, for as long as the block lasts; it must still be there at its end."""
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, start_new_session=True, **options)
    try:
        yield process
        if process.poll() is not None:
            raise Failure(f"{command[0]} ended with status {process.returncode}")
    finally:
        with contextlib.suppress(ProcessLookupError):
            os.killpg(process.pid, signal.SIGTERM)
        process.wait()


@contextlib.contextmanager
def redis_for_each():
    with contextlib.ExitStack() as stack:
        for path in REDIS_SOCKETS.values():
            stack.enter_context(running("redis-server", "--port", "0", "--unixsocket", path, "--save", "",
                                        "--appendonly", "no", "--notify-keyspace-events", "KA",
                                        stdout=subprocess.DEVNULL))
        for path in REDIS_SOCKETS.values():
            wait_for(pathlib.Path(path).exists, path)
        yield


def subscriptions(subject):
    """How many patterns are subscribed to at its Redis."""
    answer = subprocess.run(["redis-cli", "-s", REDIS_SOCKETS[subject], "PUBSUB", "NUMPAT"],
                            stdout=subprocess.PIPE, text=True, check=True)
    return int(answer.stdout)


class Programs:
    """The programs of a build folder, and the scripts."""

    def __init__(self, build):
        self.bench = pathlib.Path(build) / "bench"
        self.daemon = pathlib.Path(build) / "bin" / "vyrwrap"
        self.static = {"daemon": self.daemon, "floor": self.bench / "floor_static", "python": PEERS / "routes.py",
                       "shell": PEERS / "routes.sh"}
        self.tunnels = {"daemon": self.daemon, "floor": self.bench / "floor_tunnel", "python": PEERS / "tunnels.py"}
        self.exports = {"floor": self.bench / "floor_export", "python": PEERS / "export.py"}

    @contextlib.contextmanager
    def with_routes(self, routes, subjects):
        """Those subjects with that many routes in their files; gives their processes."""
        size = 0
        with contextlib.ExitStack() as stack:
            processes = {}
            for subject in subjects:  # the daemon first: the others' files become as large as its
                file = STATIC_FILES[subject]
                file.unlink(missing_ok=True)
                processes[subject] = stack.enter_context(
                    running(self.static[subject], str(size), stderr=subprocess.DEVNULL if subject == "daemon" else None))
                if not size:
                    wait_for(lambda file=file: shows_routes(file, routes), f"the daemon's file with {routes} routes")
                    size = file.stat().st_size
                wait_for(lambda file=file: file.exists() and file.stat().st_size == size, f"{file} of {size} bytes")
            yield processes


def shows_routes(file, routes):
    return file.exists() and file.read_text().count("\n  route ") == routes


def group_of(pid):
    """The processes of a process group."""
    for status in pathlib.Path("/proc").glob("[0-9]*/stat"):
        with contextlib.suppress(OSError):
            if int(status.read_text().rpartition(")")[2].split()[2]) == pid:
                yield status.parent


def usage(pid):
    """Voluntary context switches and processor time in ns so far, of a process group."""
    switches = nanoseconds = 0
    for process in group_of(pid):
        for task in (process / "task").iterdir():
            status = (task / "status").read_text()
            switches += int(re.search(r"^voluntary_ctxt_switches:\s*(\d+)", status, re.M)[1])
            nanoseconds += int((task / "schedstat").read_text().split()[0])
    return switches, nanoseconds


def resident_kib(pid):
    """Resident memory of a process group, and the part of it that is private to its processes."""
    sizes = {"Rss:": 0, "Private_Clean:": 0, "Private_Dirty:": 0}
    for process in group_of(pid):
        for line in (process / "smaps_rollup").read_text().splitlines():
            name, value = line.split()[:2]
            if name in sizes:
                sizes[name] += int(value)
    return sizes["Rss:"], sizes["Private_Clean:"] + sizes["Private_Dirty:"]
