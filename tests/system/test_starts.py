"""Starts with routes in Redis, without Redis, and without a routing daemon."""

import os
import socket
from pathlib import Path

import pytest

from lab import LOG, Process, route_key, wait_for
from network import ip
from process import wait_until_gone

DEFAULT_ROUTE = route_key("0.0.0.0/0", "192.168.10.254")
FULL_TABLE = 272


def fill_table(ap):
    """A default route, which the scan finds first, launches the routing daemon while the others are being written."""
    with ap.redis.pipeline() as keys:
        keys.set(DEFAULT_ROUTE, 1)
        for n in range(FULL_TABLE - 1):
            keys.set(route_key(f"10.{n // 256}.{n % 256}.0/24", "192.168.10.2"), n % 9 + 1)
        keys.execute()


def test_twenty_starts_with_a_full_table(surroundings):
    surroundings.start_redis()
    fill_table(surroundings)
    for _ in range(20):
        errors, log = surroundings.errors.mark(), surroundings.log.mark()
        surroundings.start_daemon()
        vyr = surroundings.vyr()
        surroundings.wait_ready()
        assert surroundings.static_file().count("  route ") == FULL_TABLE
        bird = surroundings.bird()
        surroundings.reload_at_once()
        wait_for(lambda: len(surroundings.routes()) == FULL_TABLE, lambda: f"272 routes, not {len(surroundings.routes())}")
        assert surroundings.vyr() == vyr
        assert surroundings.daemon.stop() == 0
        assert not [line for line in surroundings.errors.lines(errors) if "error" in line or ", 0 left out" not in line
                    and "static routes taken" in line]
        assert len(surroundings.log.lines(log)) < 30
        wait_until_gone(bird)
        ip("route", "flush", "proto", "bird")


def test_the_timer_reloads_a_full_table_after_a_start(surroundings):
    surroundings.start_redis()
    fill_table(surroundings)
    surroundings.start_daemon()
    wait_for(lambda: len(surroundings.routes()) == FULL_TABLE, "272 routes in the kernel", 25, every=0.1)


def test_two_default_routes_at_start_launch_and_reload_without_harm(surroundings):
    surroundings.start_redis()
    surroundings.set_route("0.0.0.0/0", "192.168.10.254", 1)
    surroundings.set_route("0.0.0.0/0", "192.168.10.253", 1)
    for _ in range(10):
        surroundings.start_daemon()
        vyr = surroundings.vyr()
        surroundings.wait_ready()
        bird = surroundings.bird()
        surroundings.reload_at_once()
        surroundings.wait_route("0.0.0.0/0", ["192.168.10.253", "192.168.10.254"], 1)
        assert surroundings.vyr() == vyr
        assert surroundings.daemon.stop() == 0
        wait_until_gone(bird)
        ip("route", "flush", "proto", "bird")


def test_redis_may_come_later(surroundings):
    surroundings.start_daemon()
    surroundings.log.wait("<DAL>: cannot reach the server unix:///run/lab/redis.sock: No such file or directory")
    surroundings.start_redis()
    surroundings.set_route("10.1.0.0/16", "192.168.10.2", 5)
    surroundings.wait_static_file("  route 10.1.0.0/16 metric 5 via 192.168.10.2 ", seconds=20)
    surroundings.set_route("10.2.0.0/16", "192.168.10.2", 5)
    surroundings.wait_static_file("  route 10.2.0.0/16 metric 5 via 192.168.10.2 ")
    surroundings.delete_route("10.1.0.0/16", "192.168.10.2")
    surroundings.wait_static_file("via 192.168.10.2 ")
    surroundings.wait_static_file("  route 10.1.0.0/16 metric 5 via 192.168.10.2 ", present=False)


def test_notifications_are_turned_on_where_they_are_off(surroundings):
    surroundings.start_redis("--notify-keyspace-events", "El")
    surroundings.start_daemon()
    surroundings.wait_ready()
    assert set("EKlg$hxe") <= set(surroundings.redis.config_get("notify-keyspace-events")["notify-keyspace-events"])
    surroundings.set_route("10.1.0.0/16", "192.168.10.2", 5)
    surroundings.wait_static_file("  route 10.1.0.0/16 ")


@pytest.mark.parametrize("options, reason", [
    (["--rename-command", "CONFIG", ""], "ERR unknown command 'CONFIG'"),
    (["--user", "default", "on", "nopass", "~*", "&*", "+@all", "-config"], "NOPERM"),
])
def test_a_server_that_refuses_config_is_used_and_the_log_says_so(surroundings, options, reason):
    surroundings.start_redis("--notify-keyspace-events", "KA", *options)
    surroundings.start_daemon()
    surroundings.log.wait("4 416 0 <DAL>: may not look after notify-keyspace-events, which has to contain Kg$hxe: "
                          + reason)
    surroundings.wait_ready()
    surroundings.set_route("10.1.0.0/16", "192.168.10.2", 5)
    surroundings.wait_static_file("  route 10.1.0.0/16 ")


def test_a_missing_template_ends_the_start(surroundings):
    Path("/etc/bird/vyr.conf").unlink()
    surroundings.start_daemon()
    assert surroundings.daemon.wait() == 255
    assert surroundings.log.lines() == [
        "3 416 399816 <VYRWRAP>: Failed to open /etc/bird/vyr.conf - No such file or directory"]
    assert not Path("/tmp/vyr.conf").exists()


def test_logging_to_stderr_gives_whole_lines_there(surroundings):
    surroundings.start_redis()
    surroundings.start_daemon(KORVA_LOG="stderr")
    surroundings.wait_ready()
    surroundings.redis.set("/op/staticroute/\n{10.1.0.0}", 1)
    surroundings.errors.wait("while setting")
    assert "3 416 399816 <VYRWRAP>: 73: Error in Path, no ':' symbol" in surroundings.errors.lines()
    assert surroundings.daemon.stop() == 0
    assert surroundings.errors.lines()[-1] == "3 416 399816 I'M @ END OF VYRWRAP!!"
    assert not LOG.exists()


def test_logging_to_syslog_is_the_default(surroundings):
    place = Path("/dev/log")
    if place.exists():
        pytest.skip("the machine's own system log is there")
    surroundings.start_redis()
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as log:
        log.bind(str(place))
        log.settimeout(10)
        try:
            surroundings.start_daemon(KORVA_LOG="")
            while b"/op/vyr/logging/vyr_log_level doesn't exist" not in (message := log.recv(4096)):
                pass
            assert message.startswith(b"<27>")  # error of a daemon
            assert b" vyr[%d]: 416 399816 <VYRWRAP>: " % surroundings.daemon.pid in message
        finally:
            place.unlink()


def test_no_descriptor_is_left_to_a_closed_standard_stream(surroundings):
    """Started with 0, 1 and 2 closed: what is opened later does not take their place."""
    surroundings.start_redis()
    shim = Path("/korva/bin/vyrwrap")
    program = os.readlink(shim)
    shim.unlink()
    shim.write_text(f"#!/bin/sh\nexec {program} <&- >&- 2>&-\n")
    shim.chmod(0o755)
    surroundings.start_daemon()
    surroundings.wait_ready()
    for number in (0, 1, 2):
        assert os.readlink(f"/proc/{surroundings.daemon.pid}/fd/{number}") == "/dev/null"
    surroundings.set_route("0.0.0.0/0", "192.168.10.254")
    surroundings.wait_route("0.0.0.0/0", ["192.168.10.254"], 1)


def test_a_second_instance_ends_before_it_touches_the_files_of_the_first(access_point):
    access_point.set_route("10.1.0.0/16", "192.168.10.2")
    access_point.wait_static_file("10.1.0.0/16")
    files = {path: (path.stat().st_ino, path.stat().st_mtime_ns) for path in Path("/tmp").glob("*vyr*.conf")}
    sockets = {path: path.stat().st_ino for path in (Path("/tmp/bird_event_exp.ctl"), Path("/tmp/.sock"))}
    assert len(files) == 5
    log = access_point.log.mark()
    second = Process("vyrwrap", ["/korva/bin/vyrwrap"], "/tmp/vyrwrap.err", access_point.environment())
    assert second.wait() == 69
    assert access_point.log.lines(log) == [
        f"3 416 0 <PROCESS>: another vyrwrap runs on this machine (process {access_point.daemon.pid} has locked "
        "/tmp/.vyrwrap.lock): this one ends"]
    assert {path: (path.stat().st_ino, path.stat().st_mtime_ns) for path in files} == files
    assert {path: path.stat().st_ino for path in sockets} == sockets
    access_point.daemon.kill()
    access_point.start_daemon()
    access_point.wait_ready()
