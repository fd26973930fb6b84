"""From a key in the DAL to a route in the kernel, with every part real."""

import os
import signal
import time

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
