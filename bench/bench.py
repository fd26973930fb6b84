"""Measures the daemon beside its floors and prints one table. Runs inside the sandbox; bench/bench starts it."""

import argparse
import contextlib
import os
import pathlib
import signal
import statistics
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
PROCESSORS = sorted(os.sched_getaffinity(0))
SUBJECTS = ("daemon", "floor")
REDIS_SOCKETS = {"daemon": "/run/daemon.sock", "floor": "/run/floors.sock"}
STATIC_FILES = {"daemon": pathlib.Path("/tmp/vyr_static.conf"), "floor": pathlib.Path("/tmp/flr_static.conf")}
DAEMON_LOG = pathlib.Path("/run/vyrwrap.log")

MAX_ROUTES = 272
MAX_TUNNELS = 200
EXPORT_SIZES = ("1 KiB", "64 KiB", "1 MiB")  # by the export type that asks for it

# samples of each subject
FULL = {"change": 1500, "burst": 15, "start": 25, "replay": 200, "hset": 2000, "export": 500, "idle_s": 10}
QUICK = {"change": 10, "burst": 1, "start": 2, "replay": 3, "hset": 10, "export": 5, "idle_s": 1}


class Failure(Exception):
    """Something did not come up or did not answer."""


def use_other_processor():
    os.sched_setaffinity(0, {PROCESSORS[-1]})


def wait_for(condition, what, limit_s=20):
    end = time.monotonic() + limit_s
    while not condition():
        if time.monotonic() > end:
            raise Failure(f"{what}: not within {limit_s} s")
        time.sleep(0.005)


@contextlib.contextmanager
def running(*command, **options):
    """A process for as long as the block lasts; it must still be there at its end."""
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, **options)
    try:
        yield process
        if process.poll() is not None:
            raise Failure(f"{command[0]} ended with status {process.returncode}")
    finally:
        process.send_signal(signal.SIGTERM)
        process.wait()


def redis(subject):
    return running("redis-server", "--port", "0", "--unixsocket", REDIS_SOCKETS[subject], "--save", "",
                   "--appendonly", "no", "--notify-keyspace-events", "KA", stdout=subprocess.DEVNULL)


class Bench:
    def __init__(self, build, samples):
        self.programs = pathlib.Path(build) / "bench"
        self.daemon_program = pathlib.Path(build) / "bin" / "vyrwrap"
        self.samples = samples

    def measure(self, *arguments):
        """Runs the measuring program; the samples in ns by subject."""
        command = [self.programs / "measure", *map(str, arguments)]
        done = subprocess.run(command, stdout=subprocess.PIPE, text=True, check=False, preexec_fn=use_other_processor)
        if done.returncode != 0:
            raise Failure(f"measure {arguments[0]} failed")
        taken = {subject: [] for subject in SUBJECTS}
        for line in done.stdout.splitlines():
            subject, nanoseconds = line.split()
            taken[subject].append(int(nanoseconds))
        return taken

    def daemon(self):
        return running(self.daemon_program, stderr=subprocess.DEVNULL)

    @contextlib.contextmanager
    def static_subjects(self, routes):
        """Daemon and floor with that many routes in their files; gives both processes."""
        self.measure("fill-routes", routes)
        for file in STATIC_FILES.values():
            file.unlink(missing_ok=True)
        with self.daemon() as daemon:
            file = STATIC_FILES["daemon"]
            wait_for(lambda: file.exists() and file.read_text().count("\n  route ") == routes,
                     f"the daemon's file with {routes} routes")
            size = file.stat().st_size
            with running(self.programs / "floor_static", str(size)) as floor:
                file = STATIC_FILES["floor"]
                wait_for(lambda: file.exists() and file.stat().st_size == size, "the floor's file")
                yield daemon, floor

    def static_routes(self):
        for routes in (16, MAX_ROUTES):
            with self.static_subjects(routes):
                yield (f"SET to new file, {routes} routes", "us",
                       self.measure("change", self.samples["change"], routes))
                yield (f"burst of 1,000 SETs, {routes} routes", "ms",
                       self.measure("burst", self.samples["burst"], routes))
        # the files and their sizes are still those of all routes
        sizes = [STATIC_FILES[subject].stat().st_size for subject in SUBJECTS]
        yield (f"start with {MAX_ROUTES} routes to whole file", "ms",
               self.measure("start", self.samples["start"], *sizes, self.daemon_program,
                            self.programs / "floor_static"))

    def tunnels(self):
        self.measure("fill-tunnels", MAX_TUNNELS)
        with self.daemon(), running(self.programs / "floor_tunnel"):
            self.wait_for_sockets()
            yield (f"replay request to datagram, {MAX_TUNNELS} tunnels", "us",
                   self.measure("replay", self.samples["replay"], MAX_TUNNELS))
            yield "HSET to record", "us", self.measure("hset", self.samples["hset"], MAX_TUNNELS)

    @staticmethod
    def wait_for_sockets():
        for name in ("VYRWRAP", "FLOORPR"):
            path = pathlib.Path(f"/tmp/.sock/RoutingProtocols_{name}.sock")
            wait_for(path.exists, str(path))

    def exports(self):
        with running(self.programs / "export_server", preexec_fn=use_other_processor):
            wait_for(pathlib.Path("/tmp/bird_data_exp.ctl").exists, "the stand-in's socket")
            with self.static_subjects(1), running(self.programs / "floor_export"):
                wait_for(self.export_subscribed, "the floor's subscription")
                for export_type, size in enumerate(EXPORT_SIZES):
                    yield (f"trigger to finished file, {size}", "us",
                           self.measure("export", self.samples["export"], export_type))

    @staticmethod
    def export_subscribed():
        answer = subprocess.run(["redis-cli", "-s", REDIS_SOCKETS["floor"], "PUBSUB", "NUMPAT"],
                                stdout=subprocess.PIPE, text=True, check=True)
        return int(answer.stdout) == 2  # floor_static's and floor_export's

    def idle(self):
        """Wake-ups, processor time and memory of both at rest, as text lines."""
        seconds = self.samples["idle_s"]
        with self.static_subjects(MAX_ROUTES) as processes:
            if seconds >= 10:
                time.sleep(25)  # the routing daemon is started and told of its configuration in this time
            before = [usage(process.pid) for process in processes]
            time.sleep(seconds)
            after = [usage(process.pid) for process in processes]
            memory = [resident_kib(process.pid) for process in processes]
        wakeups, cpu_ns = ([(late[i] - early[i]) / seconds for early, late in zip(before, after)] for i in (0, 1))
        yield f"wake-ups per second at rest, over {seconds} s", [f"{value:.1f}" for value in wakeups]
        yield f"processor time per second at rest, over {seconds} s", [f"{ns / 1000:.0f} us" for ns in cpu_ns]
        yield "resident memory, all", [f"{sizes[0]} KiB" for sizes in memory]
        yield "resident memory, its own (not shared)", [f"{sizes[1]} KiB" for sizes in memory]


def usage(pid):
    """Voluntary context switches and processor time in ns so far."""
    status = pathlib.Path(f"/proc/{pid}/status").read_text()
    switches = next(int(line.split()[1]) for line in status.splitlines() if line.startswith("voluntary_ctxt"))
    return switches, int(pathlib.Path(f"/proc/{pid}/schedstat").read_text().split()[0])


def resident_kib(pid):
    """Resident memory, and the part of it that is private to the process."""
    sizes = {"Rss:": 0, "Private_Clean:": 0, "Private_Dirty:": 0}
    for line in pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines():
        name, value = line.split()[:2]
        if name in sizes:
            sizes[name] = int(value)
    return sizes["Rss:"], sizes["Private_Clean:"] + sizes["Private_Dirty:"]


def percentile(samples, share):
    ordered = sorted(samples)
    return ordered[min(len(ordered) - 1, int(len(ordered) * share))]


def print_figure(title, unit, taken):
    divisor = {"us": 1e3, "ms": 1e6}[unit]
    medians = [statistics.median(taken[subject]) for subject in SUBJECTS]
    columns = []
    for subject, median in zip(SUBJECTS, medians):
        columns += [f"{median / divisor:.1f}", f"{percentile(taken[subject], 0.99) / divisor:.1f}"]
    count = len(taken["daemon"])
    print("{:<44} {:>7} {:>4} {:>9} {:>9} {:>9} {:>9} {:>7.2f}".format(title, count, unit, *columns,
                                                                        medians[0] / medians[1]), flush=True)


def set_up():
    """What the daemon expects to find, with a stand-in for the routing daemon, which is not measured."""
    pathlib.Path("/etc/bird/vyr.conf").write_text('include "/tmp/vyr_static.conf";\n')
    pathlib.Path("/etc/bird/vyr_oap.conf").write_text("protocol oap {\n}\n")
    pathlib.Path("/tmp/.sock").mkdir()
    pathlib.Path("/run/bin").mkdir()
    for path, text in (("/korva/bin/vyr", "#!/bin/sh\nexec sleep infinity\n"), ("/run/bin/vyrc", "#!/bin/sh\n")):
        pathlib.Path(path).write_text(text)
        os.chmod(path, 0o755)
    os.environ.update(PATH=f"/run/bin:{os.environ['PATH']}", DAL_URL=f"unix://{REDIS_SOCKETS['daemon']}",
                      KORVA_LOG=f"file:{DAEMON_LOG}")


def run(bench, only):
    print(f"{'from ... to ...':<44} {'samples':>7} {'':>4} {'daemon':>9} {'p99':>9} {'floor':>9} {'p99':>9} {'ratio':>7}")
    with redis("daemon"), redis("floor"):
        for path in REDIS_SOCKETS.values():
            wait_for(pathlib.Path(path).exists, path)
        for figures in (bench.static_routes, bench.tunnels, bench.exports):
            if only in (None, figures.__name__):
                for title, unit, taken in figures():
                    print_figure(title, unit, taken)
        if only in (None, "idle"):
            for title, (daemon, floor) in bench.idle():
                print(f"{title:<56} {daemon:>9} {'':>9} {floor:>9}")
    print(f"\n{len(PROCESSORS)} processors. Medians; ratio = daemon / floor.")


def main():
    parser = argparse.ArgumentParser(prog="bench/bench", description=__doc__)
    parser.add_argument("--quick", action="store_true", help="few samples: shows that everything runs, in seconds")
    parser.add_argument("--only", choices=("static_routes", "tunnels", "exports", "idle"), help="one group of figures")
    parser.add_argument("build", nargs="?", default=ROOT / "build", help="build folder (default: build)")
    arguments = parser.parse_args()
    set_up()
    # Redis and what is measured share one processor, the measuring side has the other: where the scheduler puts them
    # makes more of a difference than what they do
    os.sched_setaffinity(0, {PROCESSORS[0]})
    try:
        run(Bench(arguments.build, QUICK if arguments.quick else FULL), arguments.only)
    except Failure as failure:
        print(f"bench: {failure}", file=sys.stderr)
        if DAEMON_LOG.exists():
            print("the daemon's last log lines:", *DAEMON_LOG.read_text().splitlines()[-10:], sep="\n",
                  file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
