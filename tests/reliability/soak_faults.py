"""Faults: what happens to the daemon's neighbours while the changes go on.

Each is a generator: it yields for how many seconds the load goes on before it does the next thing.
"""

import os
import signal
from pathlib import Path

from soak_changes import refill
from store_model import read_store

from lab import ADDRESSES, BRIDGE, LEVEL_KEY, STATUS_VYR_ENDED, wait_for
from network import ip

FILLER = Path("/tmp/filler")
_DUMP = "dump.rdb"
_MOST_QUEUED_REPLAYS = 60  # of up to 30 VLANs: far more than the queue holds
_END_SECONDS = 15
_WITHOUT_ADDRESS_SECONDS = 12  # two runs of the timer at least


class Faults:
    def __init__(self, access_point, server, dice, launch):
        """`launch` starts the daemon again and has it follow everything."""
        self._access_point, self._server, self._dice, self._launch = access_point, server, dice, launch

    def survived(self):
        """Those that the daemon lives through, each under its name."""
        return {name.replace("_", " "): getattr(self, name) for name in (
            "redis_killed_and_filled_again", "redis_killed_and_empty", "redis_back_with_older_data", "redis_restarted",
            "redis_stopped", "redis_clients_killed", "redis_flushed", "databases_swapped", "notifications_switched_off",
            "vlan_addresses_gone", "application_not_reading", "application_killed", "tmp_full")}

    def _seconds(self, least, most):
        return self._dice.uniform(least, most)

    # Redis

    def _kill_redis(self):
        self._access_point.redis_server.kill()

    def _start_redis(self, keep_dump=False):
        dump = Path("/run/lab", _DUMP)
        if not keep_dump:
            dump.unlink(missing_ok=True)
        self._access_point.start_redis()

    def redis_killed_and_filled_again(self):
        store = read_store(self._access_point.redis)
        self._kill_redis()
        yield self._seconds(0, 5)
        self._start_redis()
        yield self._dice.choice([0, self._seconds(0, 3)])
        refill(self._server, store)

    def redis_killed_and_empty(self):
        self._kill_redis()
        yield self._seconds(0, 5)
        self._start_redis()

    def redis_back_with_older_data(self):
        self._server.save()
        yield self._seconds(2, 5)
        self._kill_redis()
        yield self._seconds(0, 3)
        self._start_redis(keep_dump=True)

    def redis_restarted(self):
        """Ends in order, with all its data."""
        self._server.shutdown(save=True)
        self._access_point.redis_server.wait()
        yield self._seconds(0, 2)
        self._start_redis(keep_dump=True)

    def redis_stopped(self):
        self._access_point.redis_server.signal(signal.SIGSTOP)
        try:
            yield self._seconds(1, 10)
        finally:
            self._access_point.redis_server.signal(signal.SIGCONT)

    def redis_clients_killed(self):
        for _ in range(10):
            for kind in self._dice.sample(["normal", "pubsub"], self._dice.randrange(1, 3)):
                self._server.client_kill_filter(_type=kind, skipme=True)
            yield self._seconds(0, 0.5)

    def redis_flushed(self):
        store = read_store(self._access_point.redis)
        self._dice.choice([self._server.flushall, self._server.flushdb])()
        yield self._dice.choice([0, self._seconds(0, 3)])
        if self._dice.randrange(4):
            refill(self._server, store)

    def databases_swapped(self):
        self._server.execute_command("SWAPDB", 0, 1)
        yield self._seconds(0, 5)
        if self._dice.randrange(4):
            self._server.execute_command("SWAPDB", 0, 1)

    def notifications_switched_off(self):
        """The daemon itself has to notice, and to switch them on again."""
        self._server.config_set("notify-keyspace-events", "")
        yield self._seconds(1, 5)

    # The routing daemon

    def vlan_addresses_gone(self):
        """The routing daemon ends with 100, over and over, until there is an address."""
        vyr = self._access_point.vyr()
        ip("address", "flush", "dev", BRIDGE)
        try:
            os.kill(vyr, signal.SIGHUP)
            yield _WITHOUT_ADDRESS_SECONDS
        finally:
            for address in ADDRESSES:
                ip("address", "add", address, "dev", BRIDGE)

    def routing_daemon_killed(self):
        """The daemon ends with the signal's number, and says so; whatever supervises it starts it again."""
        daemon = self._access_point.daemon
        number = self._dice.choice([signal.SIGKILL, signal.SIGABRT, signal.SIGUSR1])
        os.kill(self._access_point.vyr(), number)
        for _ in range(_END_SECONDS):
            if not daemon.running:
                break
            yield 1
        status = daemon.wait(1)
        # the end of a reload's command behind that of vyr has had the signal forgotten
        assert status in (number, STATUS_VYR_ENDED), f"the daemon ended with {status}, not {number}"
        assert Path(f"/tmp/vyrwrap.{daemon.pid}.chldpid").read_text() == "0 vyrwrap\n"
        self._server.set(LEVEL_KEY, "warning")
        self._launch()

    # The application

    def application_not_reading(self):
        """Its queue fills up."""
        application = self._access_point.application
        application.stop_reading()
        for _ in range(_MOST_QUEUED_REPLAYS):
            application.process.write("replay vlans")
        yield self._seconds(2, 6)
        application.read_again()

    def application_killed(self):
        """Its socket stays behind, and so, half of the times, is there nothing."""
        application = self._access_point.application
        application.kill() if self._dice.randrange(2) else application.quit()
        yield self._seconds(1, 6)
        application.start()

    # /tmp

    def tmp_full(self):
        with FILLER.open("wb", buffering=0) as filler:
            for size in (1 << 16, 1 << 12, 1):
                _write_all(filler, bytes(size))
        yield self._seconds(1, 6)
        FILLER.unlink()


def _write_all(file, data):
    try:
        while True:
            file.write(data)
    except OSError:
        pass


def wait_nothing_expires(server):
    wait_for(lambda: server.info("keyspace").get("db0", {}).get("expires", 0) == 0, "no key has a lifetime", 20)
