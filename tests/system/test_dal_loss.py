"""Redis that goes away, hangs, drops connections and comes back: the routes follow afterwards."""

import signal
import threading
from pathlib import Path

import pytest
import redis

from lab import REDIS_SOCKET, AccessPoint, route_key, wait_for

DIRTY_FLAG = Path("/tmp/vyr_config_dirty_flag")
RETURN_SECONDS = 25  # up to 10 s between attempts, and a run of the timer


@pytest.fixture(name="ap")
def fixture_ap():
    with AccessPoint() as ap:
        ap.wait_ready()
        yield ap
        assert ap.daemon.stop() == 0


def line(prefix, metric=1):
    return f"  route {prefix} metric {metric} via 192.168.10.2 "


def prefixes(second, count):
    return [f"10.{second + n // 256}.{n % 256}.0/24" for n in range(count)]


def wait_routes(ap, wanted, metric=1):
    def missing():
        text = ap.static_file()
        return [prefix for prefix in wanted if line(prefix, metric) not in text]
    wait_for(lambda: not missing(), lambda: f"the file holds {missing()} at {metric}", RETURN_SECONDS)


def wait_timer_run():
    DIRTY_FLAG.touch()
    wait_for(lambda: not DIRTY_FLAG.exists(), "the timer runs", 8)


def test_redis_killed_and_started_with_other_data(ap):
    ap.set_route("10.1.0.0/16", "192.168.10.2")
    ap.wait_static_file(line("10.1.0.0/16"))
    before = ap.static_file()
    mark = ap.log.mark()
    ap.redis_server.kill()
    ap.log.wait("<DAL>: lost the server unix:///run/lab/redis.sock", mark)
    ap.log.wait("<DAL>: cannot reach the server", mark)
    assert ap.static_file() == before
    ap.start_redis()
    ap.set_route("10.2.0.0/16", "192.168.10.2", 7)
    ap.log.wait("<DAL>: the server unix:///run/lab/redis.sock answers again", mark, RETURN_SECONDS)
    ap.wait_static_file(line("10.2.0.0/16", 7))
    ap.set_route("10.3.0.0/16", "192.168.10.2", 8)
    ap.wait_static_file(line("10.3.0.0/16", 8))
    ap.delete_route("10.2.0.0/16", "192.168.10.2")
    ap.wait_static_file(line("10.2.0.0/16", 7), present=False)
    assert len([each for each in ap.log.lines(mark) if "lost the server" in each]) == 1
    assert len([each for each in ap.log.lines(mark) if "answers again" in each]) == 1


def test_redis_that_hangs_and_goes_on(ap):
    """More notifications than can be handled before Redis stops: a read is left without an answer."""
    wanted = prefixes(1, 250)
    with ap.redis.pipeline() as keys:
        for metric in range(1, 9):
            for prefix in wanted:
                keys.set(route_key(prefix, "192.168.10.2"), metric)
        keys.execute()
    ap.redis_server.signal(signal.SIGSTOP)
    try:
        ap.log.wait("<DAL>: lost the server unix:///run/lab/redis.sock: no answer")
        wait_timer_run()  # what was being handled at the loss has been written then
        before = ap.static_file()
        wait_timer_run()
        assert ap.static_file() == before
    finally:
        ap.redis_server.signal(signal.SIGCONT)
    wait_routes(ap, wanted, 8)
    ap.delete_route(wanted[0], "192.168.10.2")
    ap.wait_static_file(f"  route {wanted[0]} metric 8 via 192.168.10.2 ", present=False)


def named_client():
    return redis.Redis(unix_socket_path=str(REDIS_SOCKET), client_name="test")


class Writer(threading.Thread):
    """Sets one route after the other, over and over, each round with the next metric."""

    def __init__(self, wanted):
        super().__init__()
        self._wanted = wanted
        self._done = threading.Event()
        self._client = named_client()
        self._client.ping()  # has its name from here on, by which it is spared
        self.metric = 0

    def run(self):
        while not self._done.is_set():
            self.metric = self.metric % 9000 + 1
            for prefix in self._wanted:
                self._client.set(route_key(prefix, "192.168.10.2"), self.metric)
                self._done.wait(0.001)

    def end(self):
        self._done.set()
        self.join()


def kill_clients(kind, wanted):
    """Tries it a hundred times, with writes going on. Returns the number of the daemon's connections that were cut and
    the metric that all routes have at the end."""
    client = named_client()
    writer = Writer(wanted)
    writer.start()
    killed = 0
    try:
        for _ in range(100):
            for each in client.client_list(_type=kind):
                killed += client.client_kill_filter(_id=each["id"]) if each["name"] != "test" else 0
            threading.Event().wait(0.15)  # the moments that are tried, nothing is waited for
    finally:
        writer.end()
    return killed, writer.metric


def test_subscriptions_that_are_cut_lose_no_route(ap):
    wanted = prefixes(1, 100)
    mark = ap.log.mark()
    killed, metric = kill_clients("pubsub", wanted)
    assert killed >= 5
    wait_routes(ap, wanted, metric)
    assert len([each for each in ap.log.lines(mark) if "lost the server" in each]) >= 5
    assert ap.static_file().count("  route ") == len(wanted)


def test_readers_that_are_cut_lose_no_route(ap):
    wanted = prefixes(1, 100)
    mark = ap.log.mark()
    killed, metric = kill_clients("normal", wanted)
    assert not ap.log.find("lost the server", mark)
    assert killed >= 50
    wait_routes(ap, wanted, metric)
    assert ap.static_file().count("  route ") == len(wanted)
