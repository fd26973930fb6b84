"""The routing daemon as a child: how it may end, and what the daemon does then."""

import os
import signal
import time
from pathlib import Path

import pytest

from lab import child_of, is_running, route_key, wait_for
from process import children_of, wait_until_gone

LAUNCHES = Path("/tmp/vyr.launches")


@pytest.fixture(name="ap")
def fixture_ap(surroundings):
    """A default route in Redis: the routing daemon is launched at the start."""
    surroundings.start_redis()
    surroundings.set_route("0.0.0.0/0", "192.168.10.254")
    return surroundings


def stand_in(commands):
    """Takes vyr's place, and counts its starts."""
    vyr = Path("/korva/bin/vyr")
    vyr.unlink(missing_ok=True)
    vyr.write_text(f"#!/bin/sh\necho >> {LAUNCHES}\n{commands}\n")
    vyr.chmod(0o755)


def launches():
    return LAUNCHES.read_text().count("\n") if LAUNCHES.exists() else 0


def run_timer(ap):
    """A default route has the timer's handler run at once."""
    ap.set_route("0.0.0.0/0", "192.168.10.254")


def end_of_daemon(ap):
    """Its status, once the routing daemon has ended and the timer has run."""
    wait_for(lambda: child_of(ap.daemon.pid, "vyr") is None, "vyr has ended")
    run_timer(ap)
    return ap.daemon.wait()


def child_pid_record(pid):
    return Path(f"/tmp/vyrwrap.{pid}.chldpid").read_text()


@pytest.mark.parametrize("number", [signal.SIGHUP, signal.SIGINT, signal.SIGQUIT, signal.SIGILL, signal.SIGABRT,
                                    signal.SIGFPE, signal.SIGKILL, signal.SIGSEGV, signal.SIGPIPE, signal.SIGTERM])
def test_a_signal_that_kills_the_routing_daemon_is_the_exit_status(ap, number):
    # started by vyrwrap with SIGHUP ignored, which a shell cannot undo: python gives it its default action
    stand_in(f"exec /usr/bin/python3 -c 'import os, signal; n = {int(number)}; "
             "n in (9,) or signal.signal(n, signal.SIG_DFL); os.kill(os.getpid(), n)'")
    ap.start_daemon()
    wait_for(launches, "vyr has been launched")
    ap.wait_ready()
    wait_for(lambda: not children_of(ap.daemon.pid), "vyr has been reaped")
    assert end_of_daemon(ap) == number
    assert child_pid_record(ap.daemon.pid) == "0 vyrwrap\n"
    assert launches() == 1


@pytest.mark.parametrize("status", [0, 1, 99, 101, 255])
def test_an_exit_of_the_routing_daemon_ends_the_daemon_with_5(ap, status):
    stand_in(f"exit {status}")
    ap.start_daemon()
    wait_for(launches, "vyr has been launched")
    ap.wait_ready()
    wait_for(lambda: not children_of(ap.daemon.pid), "vyr has been reaped")
    assert end_of_daemon(ap) == 5
    assert child_pid_record(ap.daemon.pid) == "0 vyrwrap\n"
    assert launches() == 1


def test_the_timer_finds_the_end_by_itself(ap):
    ap.start_daemon()
    os.kill(ap.vyr(), signal.SIGABRT)
    assert ap.daemon.wait(7) == signal.SIGABRT


def test_an_exit_with_100_is_tried_again_at_each_run_of_the_timer(ap):
    stand_in("exit 100")
    ap.start_daemon()
    line = "3 416 399816 No Vlan IP found in kernel!! Some serious timing in play, try starting vyr again "
    ap.log.wait(line + "2", seconds=13)
    assert [each for each in ap.log.lines() if "No Vlan" in each] == [f"{line}{n}" for n in range(3)]
    assert launches() == 3
    began = time.monotonic()
    ap.log.wait(line + "3", seconds=7)
    assert time.monotonic() - began > 4
    for n in range(4, 24):
        run_timer(ap)
        ap.log.wait(line + str(n))
    assert ap.daemon.running
    assert not children_of(ap.daemon.pid)
    Path("/korva/bin/vyr").unlink()
    Path("/korva/bin/vyr").symlink_to(os.environ["LAB_BINARIES"] + "/vyr")
    ap.wait_route("0.0.0.0/0", ["192.168.10.254"], 1, seconds=8)


@pytest.mark.parametrize("damage, reason", [("missing", "No such file or directory"), ("locked", "Permission denied")])
def test_without_its_program_the_daemon_says_so_and_ends(ap, damage, reason):
    stand_in("exit 0")
    if damage == "missing":
        Path("/korva/bin/vyr").unlink()
    else:
        Path("/korva/bin/vyr").chmod(0o644)
    ap.start_daemon()
    ap.wait_ready()
    ap.log.wait(f"3 416 399816 Error starting VYR: execvp failed - {reason}")
    wait_for(lambda: not children_of(ap.daemon.pid), "the child has been reaped")
    assert end_of_daemon(ap) == 5


def test_children_inherit_nothing(ap):
    stand_in("ls -l /proc/$$/fd > /tmp/vyr.fds; grep -E 'SigBlk|SigIgn' /proc/self/status > /tmp/vyr.signals; exit 100")
    ap.start_daemon()
    ap.log.wait("No Vlan IP found")
    descriptors = [line.split()[-3] for line in Path("/tmp/vyr.fds").read_text().splitlines() if "->" in line]
    assert [fd for fd in descriptors if int(fd) < 10] == ["0", "1", "2"]  # the shell keeps its script above
    masks = dict(line.split(":\t") for line in Path("/tmp/vyr.signals").read_text().splitlines())
    assert int(masks["SigBlk"], 16) == 0
    assert int(masks["SigIgn"], 16) == 1 << (signal.SIGHUP - 1)


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGQUIT])
def test_an_ordinary_end(ap, number):
    ap.start_daemon()
    ap.wait_ready()
    vyr, bird = ap.vyr(), ap.bird()
    ap.daemon.signal(number)
    assert ap.daemon.wait() == 0
    wait_until_gone(vyr)
    wait_until_gone(bird)
    assert ap.log.lines()[-1] == "3 416 399816 I'M @ END OF VYRWRAP!!"
    assert ap.redis.client_list(_type="pubsub") == []


def test_an_ordinary_end_while_redis_hangs(ap):
    ap.start_daemon()
    ap.wait_ready()
    bird = ap.bird()
    ap.redis_server.signal(signal.SIGSTOP)
    try:
        assert ap.daemon.stop(5) == 0
        wait_until_gone(bird)
    finally:
        ap.redis_server.signal(signal.SIGCONT)


def test_the_routing_daemon_does_not_outlive_a_daemon_that_is_killed(ap):
    ap.start_daemon()
    vyr, bird = ap.vyr(), ap.bird()
    assert ap.daemon.kill() == -signal.SIGKILL
    wait_until_gone(vyr)
    wait_until_gone(bird)
    ap.start_daemon()
    ap.bird()
    ap.wait_ready()
    assert is_running(ap.daemon.pid)
    assert ap.redis.exists(route_key("0.0.0.0/0", "192.168.10.254"))
