"""The front for stock BIRD alone, with configuration files as the daemon writes them."""

import os
import signal
import socket
import time
from pathlib import Path

import pytest

from lab import is_running, wait_for
from network import add_bridge, ip, remove_bridge
from process import wait_until_gone
from vyr_files import route, write_static


def said(text):
    return text in Path("/tmp/vyr.err").read_text()


def reload(vyr):
    vyr.signal(signal.SIGHUP)


def test_installs_routes_with_their_metrics(lab, start):
    write_static(route("10.1.0.0/16", "192.168.10.2", metric=5), route("10.2.0.0/16", "192.168.10.3", metric=4000000000))
    start()
    lab.wait_route("10.1.0.0/16", ["192.168.10.2"], 5)
    lab.wait_route("10.2.0.0/16", ["192.168.10.3"], 4000000000)


def test_installs_several_next_hops_as_one_route(lab, start):
    hops = [f"192.168.10.{n}" for n in range(2, 7)]
    write_static(route("10.1.0.0/16", *hops), route("0.0.0.0/0", "192.168.10.9", "192.168.20.9", metric=2))
    start()
    lab.wait_route("10.1.0.0/16", hops, 1)
    lab.wait_route("0.0.0.0/0", ["192.168.10.9", "192.168.20.9"], 2)


def test_takes_drop_and_host_bits(lab, start):
    write_static("  route 10.3.0.0/16 drop;\n", route("10.4.5.6/16", "192.168.10.2"))
    start()
    lab.wait_route("10.3.0.0/16", kind="blackhole")
    lab.wait_route("10.4.0.0/16", ["192.168.10.2"], 1)


def test_leaves_out_what_bird_refuses_and_nothing_else(lab, start):
    write_static(route("10.1.0.0/16", "192.168.10.2"), route("10.2.0.0/33", "192.168.10.2"),
                 route("10.3.0.0/16", "NULL"), route("10.4.0.0/16", '"data-vpnc-00:11:22:33:44:55-x"'),
                 route("10.5.0.0/16", '"cluster_absent"'), route("10.6.0.0/16", "0.0.0.0"),
                 route("10.7.0.0/16", "192.168.10.2"))
    start()
    lab.wait_route("10.7.0.0/16", ["192.168.10.2"], 1)
    assert sorted(lab.routes()) == ["10.1.0.0/16", "10.7.0.0/16"]
    assert said("vyr: left out 10.2.0.0/33 via 192.168.10.2: Invalid prefix length 33\n")
    assert said("vyr: left out 10.3.0.0/16 via NULL: syntax error")
    assert said('vyr: left out 10.4.0.0/16 via "data-vpnc-00:11:22:33:44:55-x": no interface can have this name\n')
    assert said("vyr: 4 static routes taken, 3 left out\n")


def test_an_interface_may_come_later(lab, start):
    write_static(route("10.5.0.0/16", '"cluster_c1"', metric=3))
    start()
    wait_for(lambda: said("1 static routes taken"), "vyr has translated")
    add_bridge("cluster_c1", "192.168.30.1/24")
    try:
        lab.wait_route("10.5.0.0/16", ["cluster_c1"], 3)
    finally:
        remove_bridge("cluster_c1")


def test_reloads_on_sighup(lab, start):
    vyr = start()
    lab.wait_route("10.1.0.0/16", ["192.168.10.2"], 5)
    write_static(route("10.2.0.0/16", "192.168.10.3", metric=6))
    reload(vyr)
    lab.wait_route("10.2.0.0/16", ["192.168.10.3"], 6)
    lab.wait_no_route("10.1.0.0/16")


def test_a_new_metric_replaces_the_old_one(lab, start):
    vyr = start()
    lab.wait_route("10.1.0.0/16", ["192.168.10.2"], 5)
    for metric in (9, 2, 5):
        write_static(route("10.1.0.0/16", "192.168.10.2", metric=metric))
        reload(vyr)
        lab.wait_route("10.1.0.0/16", ["192.168.10.2"], metric)


def test_the_lower_of_two_metrics_wins(lab, start):
    both = [route("10.1.0.0/16", "192.168.10.2", metric=9), route("10.1.0.0/16", "192.168.10.3", metric=4)]
    write_static(*both)
    vyr = start()
    lab.wait_route("10.1.0.0/16", ["192.168.10.3"], 4)
    write_static(both[0])
    reload(vyr)
    lab.wait_route("10.1.0.0/16", ["192.168.10.2"], 9)
    write_static(*both)
    reload(vyr)
    lab.wait_route("10.1.0.0/16", ["192.168.10.3"], 4)


def test_routes_of_a_killed_predecessor_do_not_stay(lab, start):
    vyr = start()
    lab.wait_route("10.1.0.0/16", ["192.168.10.2"], 5)
    vyr.kill()
    write_static(route("10.1.0.0/16", "192.168.10.2", metric=8))
    start()
    lab.wait_route("10.1.0.0/16", ["192.168.10.2"], 8)


def test_a_reload_that_cannot_be_read_changes_nothing(lab, start):
    vyr = start()
    lab.wait_route("10.1.0.0/16", ["192.168.10.2"], 5)
    Path("/tmp/vyr_static.conf").unlink()
    reload(vyr)
    wait_for(lambda: "include" in Path("/tmp/vyr.conf.stock").read_text(), "vyr has translated again")
    assert "master4" in lab.vyrc("show", "route")
    lab.wait_route("10.1.0.0/16", ["192.168.10.2"], 5, seconds=1)
    write_static(route("10.2.0.0/16", "192.168.10.3"))
    reload(vyr)
    lab.wait_route("10.2.0.0/16", ["192.168.10.3"], 1)


def test_sighup_at_any_moment_of_the_start_kills_nothing(lab, start):
    for delay in (0, 0.001, 0.002, 0.004, 0.008, 0.016, 0.032):
        vyr = start()
        time.sleep(delay)  # the moments that are tried, nothing is waited for
        wait_for(lambda: os.readlink(f"/proc/{vyr.pid}/exe").endswith("/vyr"), "vyr has been executed")
        wait_for(lambda: signals_blocked(vyr.pid, signal.SIGHUP), "vyr has set its signals up")
        reload(vyr)
        lab.wait_route("10.1.0.0/16", ["192.168.10.2"], 5)
        assert vyr.running
        bird = vyr.child("bird")
        assert vyr.kill() == -signal.SIGKILL
        wait_until_gone(bird)


def signals_blocked(pid, number):
    status = Path(f"/proc/{pid}/status").read_text()
    mask = int(next(line for line in status.splitlines() if line.startswith("SigBlk:")).split()[1], 16)
    return mask >> (number - 1) & 1


def test_twenty_starts(lab, start):
    write_static(*[route(f"10.{n // 256}.{n % 256}.0/24", "192.168.10.2") for n in range(272)])
    for _ in range(20):
        vyr = start()
        wait_for(lambda: len(lab.routes()) == 272, "272 routes in the kernel")
        bird = vyr.child("bird")
        vyr.kill()
        wait_until_gone(bird)
        ip("route", "flush", "proto", "bird")


def test_exits_100_without_a_vlan_address(lab, start):
    ip("address", "flush", "dev", "br0")
    assert start().wait() == 100


def test_exits_100_when_a_reload_finds_no_vlan_address_any_more(lab, start):
    vyr = start()
    lab.wait_route("10.1.0.0/16", ["192.168.10.2"], 5)
    bird = vyr.child("bird")
    remove_bridge("br0")
    reload(vyr)
    assert vyr.wait() == 100
    wait_until_gone(bird)


@pytest.mark.parametrize("damage", ["missing", "include", "cut", "empty"])
def test_exits_as_bird_does_when_the_configuration_cannot_be_used(start, damage):
    config, static = Path("/tmp/vyr.conf"), Path("/tmp/vyr_static.conf")
    if damage == "missing":
        config.unlink()
    elif damage == "include":
        static.unlink()
    elif damage == "cut":
        static.write_text(static.read_text()[:60])
    else:
        config.write_text("")
    assert start().wait() == 1


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGSEGV, signal.SIGABRT])
def test_ends_by_the_signal_that_ended_bird(lab, start, number):
    vyr = start()
    lab.wait_route("10.1.0.0/16", ["192.168.10.2"], 5)
    os.kill(vyr.child("bird"), number)
    assert vyr.wait() == -number


def test_ends_with_birds_status(lab, start):
    vyr = start()
    lab.wait_route("10.1.0.0/16", ["192.168.10.2"], 5)
    assert vyr.stop() == 0
    assert lab.routes() == {}


def test_takes_bird_along_when_it_is_killed(lab, start):
    vyr = start()
    bird = vyr.child("bird")
    vyr.kill()
    wait_until_gone(bird)
    assert not is_running(bird)


def test_the_client_reaches_bird(lab, start):
    start()
    lab.wait_route("10.1.0.0/16", ["192.168.10.2"], 5)
    lab.vyrc("debug", "all", "all")
    lab.vyrc("debug", "all", "off")
    assert "10.1.0.0/16" in lab.vyrc("show", "route")


def listen_as_another_bird():
    other = socket.socket(socket.AF_UNIX)
    other.bind("/tmp/vyr.ctl")
    other.listen()
    return other


def test_waits_for_the_end_of_another_bird(lab, start):
    write_static(route("10.1.0.0/16", "192.168.10.2"))
    other = listen_as_another_bird()
    vyr = start()
    wait_for(lambda: said("vyr: another BIRD answers on /tmp/vyr.ctl: waiting for its end\n"), "vyr waits")
    assert vyr.running and "10.1.0.0/16" not in lab.routes()
    other.close()
    lab.wait_route("10.1.0.0/16", ["192.168.10.2"], 1)


def test_does_not_wait_for_another_bird_for_ever(start):
    other = listen_as_another_bird()
    vyr = start()
    assert vyr.wait(15) == 1
    assert said("vyr: another BIRD answers on /tmp/vyr.ctl: waiting for its end\n")
    assert said("I found another BIRD running.")
    other.close()


def test_a_restart_in_the_same_instant_waits_for_the_dying_bird(access_point):
    access_point.set_route("0.0.0.0/0", "192.168.10.254")
    for _ in range(5):
        access_point.bird()
        access_point.daemon.kill()
        access_point.start_daemon()
        access_point.wait_ready()
    access_point.bird()
    access_point.wait_route("0.0.0.0/0", ["192.168.10.254"], 1)
