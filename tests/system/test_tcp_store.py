"""A store on another machine: a network namespace of its own behind a cable that can be cut without a word."""

import subprocess
import time

import pytest
import redis

from lab import Process, route_key, wait_for, wait_for_redis
from network import ip

NAMESPACE = "store"
HERE = "10.99.0.1"
THERE = "10.99.0.2"
NOTICED_WITHIN = 45  # seconds; what the daemon asks by itself once a minute is not waited for


def over_there(*command):
    return ["nsenter", f"--net=/run/netns/{NAMESPACE}", *command]


def run_there(*command):
    subprocess.run(over_there(*command), check=True, capture_output=True)


def cut(how):
    """Whatever the other machine would send vanishes there: here nothing is ever told."""
    run_there("ip", "route", how, "blackhole", f"{HERE}/32")


@pytest.fixture(name="store")
def fixture_store(tmp_path):
    ip("netns", "add", NAMESPACE)
    ip("link", "add", "cable", "type", "veth", "peer", "name", "cable-there", "netns", NAMESPACE)
    ip("address", "add", f"{HERE}/24", "dev", "cable")
    ip("link", "set", "cable", "up")
    run_there("ip", "address", "add", f"{THERE}/24", "dev", "cable-there")
    for device in ("lo", "cable-there"):
        run_there("ip", "link", "set", device, "up")
    server = Process("redis-server", over_there("redis-server", "--bind", THERE, "--protected-mode", "no", "--save", "",
                                                "--dir", str(tmp_path)), tmp_path / "redis.err")
    client = redis.Redis(host=THERE, socket_timeout=5)
    wait_for_redis(client)
    yield client
    server.stop()
    ip("link", "delete", "cable")
    ip("netns", "delete", NAMESPACE)


def test_a_cable_that_is_cut_without_a_word_is_noticed_and_made_up_for(surroundings, store):
    ap = surroundings
    ap.start_daemon(DAL_URL=f"tcp://{THERE}:6379")
    wait_for(lambda: store.pubsub_numpat() >= 3, "vyrwrap has subscribed")
    store.set(route_key("10.1.0.0/16", "192.168.10.2"), 5)
    ap.wait_static_file("10.1.0.0/16")
    log = ap.log.mark()
    cut("add")
    began = time.monotonic()
    ap.log.wait("3 416 0 <DAL>: lost the server tcp://10.99.0.2:6379", log, NOTICED_WITHIN)
    assert time.monotonic() - began < NOTICED_WITHIN
    assert "10.1.0.0/16" in ap.static_file()
    run_there("redis-cli", "-h", THERE, "set", route_key("10.2.0.0/16", "192.168.10.2"), "1")
    cut("delete")
    ap.wait_static_file("10.2.0.0/16", seconds=40)
