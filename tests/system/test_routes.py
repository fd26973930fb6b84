"""From a key in the DAL to a route in the kernel, with every part real."""

import os
import signal
import time

from lab import route_key, wait_for
from network import ip


def test_keys_become_routes(access_point):
    access_point.set_route("10.1.0.0/16", "192.168.10.2", 5)
    access_point.wait_static_file("route 10.1.0.0/16 metric 5 via 192.168.10.2")
    access_point.wait_route("10.1.0.0/16", ["192.168.10.2"], 5)
    access_point.set_route("10.1.0.0/16", "192.168.10.3", 5)
    access_point.wait_route("10.1.0.0/16", ["192.168.10.2", "192.168.10.3"], 5)
    access_point.redis.delete(*access_point.redis.keys("/op/staticroute/*"))
    access_point.wait_no_route("10.1.0.0/16")


def test_a_default_route_comes_at_once(access_point):
    began = time.monotonic()
    access_point.set_route("0.0.0.0/0", "192.168.10.254", 1)
    access_point.wait_route("0.0.0.0/0", ["192.168.10.254"], 1)
    assert time.monotonic() - began < 4


def test_two_default_routes_at_start_launch_and_reload_without_harm(surroundings):
    surroundings.start_redis()
    surroundings.set_route("0.0.0.0/0", "192.168.10.254", 1)
    surroundings.set_route("0.0.0.0/0", "192.168.10.253", 1)
    surroundings.start_daemon()
    vyr = surroundings.vyr()
    surroundings.wait_route("0.0.0.0/0", ["192.168.10.253", "192.168.10.254"], 1)
    assert surroundings.vyr() == vyr


def test_twenty_starts_with_a_full_table(surroundings):
    """A default route among 272 launches the routing daemon while the others are still being written."""
    surroundings.start_redis()
    with surroundings.redis.pipeline() as keys:
        keys.set(route_key("0.0.0.0/0", "192.168.10.254"), 1)
        for n in range(271):
            keys.set(route_key(f"10.{n // 256}.{n % 256}.0/24", "192.168.10.2"), n % 9 + 1)
        keys.execute()
    for _ in range(20):
        mark = surroundings.errors.mark()
        surroundings.start_daemon()
        surroundings.errors.wait("static routes taken, 0 left out", mark)
        surroundings.bird()
        assert not surroundings.errors.find("syntax error", mark)
        assert surroundings.daemon.stop() == 0
    surroundings.start_daemon()
    wait_for(lambda: len(surroundings.routes()) == 272, "272 routes in the kernel", 30)


def test_the_routing_daemons_death_ends_the_daemon_with_its_signal(access_point):
    bird = access_point.bird()
    os.kill(bird, signal.SIGABRT)
    assert access_point.daemon.wait() == signal.SIGABRT


def test_no_vlan_address_yet_is_tried_again(surroundings):
    ip("address", "flush", "dev", "br0")
    surroundings.start_redis()
    surroundings.start_daemon()
    surroundings.log.wait("No Vlan IP found in kernel!!", seconds=25)
    ip("address", "add", "192.168.10.1/24", "dev", "br0")
    surroundings.bird()
    assert surroundings.daemon.running
