"""The access point for hours: ten changes a second of every kind, faults, replays, exports and events; every minute the
load pauses and the state is compared with what the store says.

    soak.py --hours 8 [--seed N]        a fault each minute
    soak.py --seconds 180               one every 6 s; it ends when each kind has come

Status 0: no difference was ever left, and at the end the daemon used what it had used after the first ten minutes.
"""

import argparse
import os
import random
import subprocess
import sys
import time
from pathlib import Path

import redis
from soak_changes import STRAY_NAMES, Changes, refill
from soak_checks import check_event, check_export, overflow
from soak_faults import Faults, wait_nothing_expires
from soak_watch import open_files, wait_usual
from store_model import read_store, wait_equal

from lab import LEVEL_KEY, REDIS_SOCKET, AccessPoint

CHANGES_PER_SECOND = 10
DEADLY = "routing daemon killed"  # the daemon ends with it
CHECK_EVERY = 60
WARM_UP = 600
OVERFLOW_EVERY = 10  # checks
SETTLE_SECONDS = 150  # audits once a minute, 10 s until a second one agrees, attempts up to 10 s apart, a reload
ROOM_KIB = 1024  # of private memory: the C library keeps what was freed, an export's buffer of 1 MiB among it
ROOM_IN_USE_KIB = 64  # while the store is empty: each of four connections keeps up to 16 KiB for answers
NO_THREAD_CACHE = "glibc.malloc.tcache_count=0"  # what is freed into it would still count as in use
TMP_SIZE = "64m"
LOG = Path("/run/lab/soak.log")  # not where /tmp is full
_TRIMMED = (LOG, Path("/tmp/rpapp.out"), Path("/tmp/vyrwrap.err"))
_TELLING_LEVELS = ["warning", "notice", "info", "debug"]


class Failure(Exception):
    """The soak cannot go on."""


class Soak:
    def __init__(self, options):
        self._options = options
        self._dice = random.Random(options.seed)
        self._access_point = AccessPoint(start=False)
        self._access_point.log.path = LOG
        self._server = redis.Redis(unix_socket_path=str(REDIS_SOCKET), socket_timeout=30)
        impatient = redis.Redis(unix_socket_path=str(REDIS_SOCKET), socket_timeout=1)  # Redis may be stopped meanwhile
        self._changes = Changes(self._access_point, impatient, random.Random(options.seed))
        self._faults = Faults(self._access_point, self._server, self._dice, self._launch)
        self._turns = []
        self._kind_count = len(options.only or self._faults.survived())
        self._fault_count = self._check_count = self._difference_count = 0
        self._began = self._usual = self._usual_files = self._usual_in_use = None
        self._last_faults = []
        self._dying = False  # the daemon is about to end, and may

    def run(self):
        """Whether everything was as it should be."""
        with self._access_point:
            self._access_point.start_redis()
            self._launch()
            self._began = time.monotonic()
            found = self._minutes()
            ended_well = self._is_as_before(found)
            self._last_death()
            return ended_well and self._difference_count == 0

    def _launch(self):
        """Starts the daemon, and the application where it does not run; it tells that of everything."""
        self._access_point.start_daemon(KORVA_LOG=f"file:{LOG}", ASAN_OPTIONS="quarantine_size_mb=1",
                                        GLIBC_TUNABLES=NO_THREAD_CACHE)
        self._access_point.wait_ready()
        if not self._access_point.application.process:
            self._access_point.application.start()
        self._access_point.application.follow_all()

    @property
    def _age(self):
        return time.monotonic() - self._began

    # Load

    def _minutes(self):
        """Load and checks until the time is up; the last check's usage."""
        usage = None
        while usage is None or self._age < self._options.seconds or self._fault_count < self._kind_count:
            left = self._options.seconds - self._age
            self._load(min(self._options.check_every, left if left > 0 else self._options.check_every))
            usage = self._check()
            if self._usual is None and self._age >= self._options.warm_up:
                self._take_figures(usage)
        return usage

    def _take_figures(self, usage):
        """From here on it is one and the same daemon."""
        self._usual, self._usual_files = usage, open_files(self._access_point)
        self._usual_in_use = self._in_use_when_empty()
        self._turns = [turn for turn in self._turns if turn[0] != DEADLY]
        print(f"These are the figures to come back to: {usage}", flush=True)

    def _load(self, seconds):
        """Changes and faults for about that long: a fault is not cut off."""
        begin = self._age
        end = begin + seconds
        while self._age < end:
            self._go_on(min(self._options.fault_every * self._dice.uniform(0.1, 0.9), end - self._age))
            if self._age < end:
                self._run_fault()
                rest = self._options.fault_every - (self._age - begin) % self._options.fault_every
                self._go_on(min(rest, end - self._age))

    def _go_on(self, seconds):
        """The load for that long."""
        now = time.monotonic()
        end = now + seconds
        while (now := time.monotonic()) < end:
            self._changes.one()
            if not self._access_point.daemon.running and not self._dying:
                raise Failure(f"the daemon has ended with {self._access_point.daemon.wait()}")
            time.sleep(max(0.0, min(now + 1 / CHANGES_PER_SECOND, end) - time.monotonic()))

    def _run_fault(self):
        """Each kind in turn, the deadly one only while the daemon is still to be replaced."""
        if not self._turns:
            self._turns = [turn for turn in self._faults.survived().items() if turn[0] in (self._options.only or turn)]
            if self._usual is None and not self._options.only:
                self._turns.append((DEADLY, self._faults.routing_daemon_killed))
            self._dice.shuffle(self._turns)
        name, fault = self._turns.pop()
        self._dying = name == DEADLY
        self._fault_count += 1
        self._last_faults.append(name)
        for seconds in fault():
            self._go_on(seconds)
        self._dying = False

    def _last_death(self):
        """Behind the last measurement: what the daemon of the whole run leaves behind for the next one."""
        self._dying = True
        for seconds in self._faults.routing_daemon_killed():
            self._go_on(seconds)
        self._dying = False
        self._last_faults.append(DEADLY)
        self._check()
        status = self._access_point.daemon.stop()
        if status != 0:
            raise Failure(f"the daemon ended with {status} when it was asked to")

    # Checks

    def _check(self):
        self._server.set(LEVEL_KEY, self._dice.choice(_TELLING_LEVELS))
        wait_nothing_expires(self._server)
        begin = time.monotonic()
        found = self._settle("")
        settled = time.monotonic() - begin
        if not found:
            if self._check_count % OVERFLOW_EVERY == 0:
                found += overflow(self._access_point, self._server, self._settle)
            found += check_event(self._access_point) + check_export(self._access_point)
        self._check_count += 1
        self._difference_count += len(found)
        usage = wait_usual(self._access_point, self._usual)
        self._report(settled, found, usage)
        self._trim()
        return usage

    def _in_use_when_empty(self):
        """With nothing in the store, what is in use does not depend on what the dice have put there."""
        store = read_store(self._server)
        self._server.flushall()
        self._settle_or_fail()
        in_use = wait_usual(self._access_point, None).in_use_kib
        refill(self._server, store)
        self._settle_or_fail()
        return in_use

    def _settle_or_fail(self):
        if found := self._settle("store emptied and filled: "):
            raise Failure("; ".join(found))

    def _settle(self, what):
        found = wait_equal(self._access_point, SETTLE_SECONDS, kept_tunnels=STRAY_NAMES)
        return [f"{what}{line}" for line in found]

    def _report(self, settled, found, usage):
        print(f"{time.strftime('%H:%M:%S', time.gmtime(self._age))}  {self._changes.made} changes "
              f"({self._changes.refused} refused), {self._fault_count} faults ({', '.join(self._last_faults)}), settled in "
              f"{settled:.0f} s, {len(found)} differences, {usage}", flush=True)
        for line in found:
            print(f"          {line}", flush=True)
        self._last_faults = []

    def _trim(self):
        """So that hours of log fit; what a sanitizer said stays until the end."""
        for path in _TRIMMED:
            if path.exists() and b"Sanitizer" not in path.read_bytes() and b"runtime error" not in path.read_bytes():
                os.truncate(path, 0)

    def _is_as_before(self, usage):
        in_use = self._in_use_when_empty()
        print(f"first: {self._usual}, with an empty store {self._usual_in_use} KiB in use\n"
              f"last:  {usage}, with an empty store {in_use} KiB in use", flush=True)
        if usage.counts != self._usual.counts:
            print("FAILED: descriptors, timers, inputs, children or zombies are not what they were", flush=True)
            print(*self._usual_files, "now:", *open_files(self._access_point), sep="\n  ", flush=True)
            return False
        sanitized = "libasan" in Path(f"/proc/{self._access_point.daemon.pid}/maps").read_text()
        if not sanitized and usage.private_kib > self._usual.private_kib + ROOM_KIB:
            print(f"FAILED: more than {ROOM_KIB} KiB of memory above the first figure", flush=True)
            return False
        if in_use > self._usual_in_use + ROOM_IN_USE_KIB:
            print(f"FAILED: more than {ROOM_IN_USE_KIB} KiB more in use than at first", flush=True)
            return False
        return True


def mount_small_tmp():
    """So that filling /tmp fills no machine."""
    if os.environ.get("LAB_SANDBOX") == "private":
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={TMP_SIZE}", "small", "/tmp"], check=True)


def parse_options():
    parser = argparse.ArgumentParser()
    parser.add_argument("--hours", type=float, default=1)
    parser.add_argument("--seconds", type=float, help="instead of hours")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1 << 31))
    parser.add_argument("--fault-every", type=float, metavar="SECONDS", help="60 by default, less in less than half an hour")
    parser.add_argument("--check-every", type=float, default=CHECK_EVERY, metavar="SECONDS")
    parser.add_argument("--only", action="append", metavar="FAULT", help="may be given several times")
    options = parser.parse_args()
    options.seconds = options.seconds or options.hours * 3600
    options.fault_every = options.fault_every or min(60, options.seconds / 30)
    options.warm_up = min(WARM_UP, options.seconds / 3)
    return options


def main():
    options = parse_options()
    print(f"seed {options.seed}, {options.seconds / 60:g} minutes, a fault every {options.fault_every:g} s", flush=True)
    mount_small_tmp()
    soak = Soak(options)
    try:
        passed = soak.run()
    except (Failure, AssertionError) as failure:
        print(f"FAILED: {failure}", flush=True)
        passed = False
    print("Everything was as it should be." if passed else f"FAILED; again with --seed {options.seed}", flush=True)
    return 0 if passed else 1


if __name__ == "__main__":
    sys.exit(main())
