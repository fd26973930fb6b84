"""The figures: what each measures, and on whom."""

import contextlib
import dataclasses
import os
import pathlib
import subprocess
import time

from subjects import STATIC_FILES, SUBJECTS, Failure, Programs, resident_kib, running, subscriptions, usage, \
    wait_for

PROCESSORS = sorted(os.sched_getaffinity(0))
MAX_ROUTES = 272
MAX_TUNNELS = 200
RESYNC_SOCKET = "/run/resync.sock"
EXPORT_SIZES = ("1 KiB", "64 KiB", "1 MiB")  # by the export type that asks for it

# samples of the daemon
FULL = {"change": 1500, "burst": 12, "start": 25, "replay": 200, "hset": 2000, "export": 500, "idle_s": 10,
        "known_keys": 10000}
DISK = {"change": 500, "burst": 5, "start": 10, "export": 200}
QUICK = {"change": 3, "burst": 1, "start": 1, "replay": 3, "hset": 10, "export": 5, "idle_s": 1,
         "known_keys": 500}


def use_other_processor():
    os.sched_setaffinity(0, {PROCESSORS[-1]})


@dataclasses.dataclass
class Figure:
    """Samples in ns by subject; what a subject does not do has none."""
    title: str
    unit: str
    taken: dict[str, list[int]]


@dataclasses.dataclass
class Bench:
    programs: Programs
    samples: dict[str, int]
    notes: list[str] = dataclasses.field(default_factory=list)

    def measure(self, subjects, figure, *arguments):
        """Runs the measuring program; the samples in ns by subject."""
        command = [self.programs.bench / "measure", ",".join(subjects), figure, *map(str, arguments)]
        done = subprocess.run(command, stdout=subprocess.PIPE, text=True, check=False, preexec_fn=use_other_processor)
        if done.returncode != 0:
            raise Failure(f"measure {figure} failed")
        taken = {}
        for line in done.stdout.splitlines():
            name, number = line.split()
            taken.setdefault(name, []).append(int(number))
        return taken

    def static_routes(self):
        for routes in (16, MAX_ROUTES):
            self.measure(SUBJECTS, "fill-routes", routes)
            with self.programs.with_routes(routes, SUBJECTS):
                yield Figure(f"SET to new file, {routes} routes", "us",
                             self.measure(SUBJECTS, "change", self.samples["change"], routes))
                kind, count = ("burst", "1,000") if self.samples["burst"] > 1 else ("short-burst", "50")
                burst = self.measure(SUBJECTS, kind, self.samples["burst"], routes)
                self.note_writes(routes, {subject: burst.pop(f"{subject}.writes") for subject in SUBJECTS})
                yield Figure(f"burst of {count} SETs, {routes} routes", "ms", burst)
        # the files and their sizes are still those of all routes
        commands = [word for subject in SUBJECTS
                    for word in (self.programs.static[subject], STATIC_FILES[subject].stat().st_size)]
        yield Figure(f"start with {MAX_ROUTES} routes", "ms",
                     self.measure(SUBJECTS, "start", self.samples["start"], *commands))

    def note_writes(self, routes, writes):
        counts = ", ".join(f"{subject} {sum(counts) / len(counts):.0f}" for subject, counts in writes.items())
        self.notes.append(f"files written in a burst over {routes} routes: {counts}")

    def tunnels(self):
        subjects = tuple(self.programs.tunnels)
        self.measure(subjects, "fill-tunnels", MAX_TUNNELS)
        with contextlib.ExitStack() as stack:
            for program in self.programs.tunnels.values():
                stack.enter_context(running(program, stderr=subprocess.DEVNULL))
            for name in ("VYRWRAP", "FLOORPR", "PYTHONP"):
                path = pathlib.Path(f"/tmp/.sock/RoutingProtocols_{name}.sock")
                wait_for(path.exists, str(path))
            wait_for(lambda: subscriptions("python") == 1, "the Python peer's subscription")
            yield Figure(f"replay of {MAX_TUNNELS} tunnels", "us",
                         self.measure(subjects, "replay", self.samples["replay"], MAX_TUNNELS))
            yield Figure("HSET to record", "us", self.measure(subjects, "hset", self.samples["hset"], MAX_TUNNELS))

    def exports(self):
        subjects = ("daemon", *self.programs.exports)
        self.measure(subjects, "fill-routes", 1)
        with running(self.programs.bench / "export_server", preexec_fn=use_other_processor), \
                contextlib.ExitStack() as stack:
            wait_for(pathlib.Path("/tmp/bird_data_exp.ctl").exists, "the stand-in's socket")
            stack.enter_context(self.programs.with_routes(1, ("daemon",)))
            for subject, program in self.programs.exports.items():
                stack.enter_context(running(program))
                wait_for(lambda subject=subject: subscriptions(subject) == 1, f"the subscription of {subject}")
            for export_type, size in enumerate(EXPORT_SIZES):
                yield Figure(f"export of {size}", "us",
                             self.measure(subjects, "export", self.samples["export"], export_type))

    def resync(self):
        """What the DAL client's comparisons cost, as it prints it."""
        with running("redis-server", "--port", "0", "--unixsocket", RESYNC_SOCKET, "--save", "", "--appendonly", "no",
                     stdout=subprocess.DEVNULL, preexec_fn=use_other_processor):
            wait_for(pathlib.Path(RESYNC_SOCKET).exists, RESYNC_SOCKET)
            environment = {**os.environ, "DAL_URL": f"unix://{RESYNC_SOCKET}"}
            done = subprocess.run([self.programs.bench / "resync", str(self.samples["known_keys"])], env=environment,
                                  stdout=subprocess.PIPE, text=True, check=False)
        if done.returncode != 0:
            raise Failure("resync failed")
        return done.stdout.splitlines()

    def idle(self):
        """Wake-ups, processor time and memory at rest: titles, and a text for each subject."""
        seconds = self.samples["idle_s"]
        self.measure(SUBJECTS, "fill-routes", MAX_ROUTES)
        with self.programs.with_routes(MAX_ROUTES, SUBJECTS) as processes:
            # the routing daemon is started and told of its configuration in the longer time
            time.sleep(25 if seconds >= 10 else 1)
            before = {subject: usage(process.pid) for subject, process in processes.items()}
            time.sleep(seconds)
            after = {subject: usage(process.pid) for subject, process in processes.items()}
            memory = {subject: resident_kib(process.pid) for subject, process in processes.items()}
        spent = {subject: [(late - early) / seconds for early, late in zip(before[subject], after[subject])]
                 for subject in SUBJECTS}
        yield "wake-ups per second at rest", [f"{spent[subject][0]:.1f}" for subject in SUBJECTS]
        yield "processor time per second at rest", [f"{spent[subject][1] / 1000:.0f} us" for subject in SUBJECTS]
        yield "resident memory, all", [f"{memory[subject][0]} KiB" for subject in SUBJECTS]
        yield "resident memory, its own", [f"{memory[subject][1]} KiB" for subject in SUBJECTS]


def set_up_site():
    """What the daemon expects to find, with a stand-in for the routing daemon, which is not measured."""
    pathlib.Path("/etc/bird/vyr.conf").write_text('include "/tmp/vyr_static.conf";\n')
    pathlib.Path("/etc/bird/vyr_oap.conf").write_text("protocol oap {\n}\n")
    pathlib.Path("/run/bin").mkdir()
    for path, text in (("/korva/bin/vyr", "#!/bin/sh\nexec sleep infinity\n"), ("/run/bin/vyrc", "#!/bin/sh\n")):
        pathlib.Path(path).write_text(text)
        os.chmod(path, 0o755)
