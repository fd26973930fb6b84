"""The files under /tmp: no room, something in their place, flags from outside, and the log file's levels."""

import os
import subprocess
from pathlib import Path

import pytest

from lab import LOG_CONFIG_FILE, STATIC_FILE, wait_for
from logfile import LogFile
from process import is_running

DIRTY_FLAG = Path("/tmp/vyr_config_dirty_flag")
LEVEL_KEY = "/op/syslog/facility/network/level"
FILLER = Path("/tmp/filler")
KORVA_LOG = LogFile("/run/vyrwrap.log")


@pytest.fixture(name="small_tmp")
def fixture_small_tmp():
    if os.environ["LAB_SANDBOX"] != "private":
        pytest.skip("the machine's own /tmp stays as it is")
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=4m", "small", "/tmp"], check=True)
    yield
    subprocess.run(["umount", "--lazy", "/tmp"], check=True)


def fill_tmp():
    with FILLER.open("wb", buffering=0) as filler:
        for size in (1 << 16, 1 << 12, 1):
            try:
                while True:
                    filler.write(bytes(size))
            except OSError:
                continue


@pytest.fixture(name="ap")
def fixture_ap(surroundings):
    """The routing daemon runs from the start, for a default route."""
    surroundings.start_redis()
    surroundings.set_route("0.0.0.0/0", "192.168.10.254")
    surroundings.start_daemon(KORVA_LOG=f"file:{KORVA_LOG.path}")
    surroundings.wait_ready()
    surroundings.bird()
    yield surroundings
    if surroundings.daemon.running:
        assert surroundings.daemon.stop() == 0
    KORVA_LOG.path.unlink()


def test_a_full_tmp_withdraws_no_route_and_the_change_follows(small_tmp, ap):
    ap.set_route("10.1.0.0/16", "192.168.10.2", 5)
    ap.wait_static_file("  route 10.1.0.0/16 ")
    ap.reload_at_once()
    ap.wait_route("10.1.0.0/16", ["192.168.10.2"], 5)
    before, routes = STATIC_FILE.read_bytes(), ap.routes()
    fill_tmp()
    mark = KORVA_LOG.mark()
    ap.set_route("10.2.0.0/16", "192.168.10.2", 6)
    KORVA_LOG.wait("3 416 399816 <VYRWRAP>: vyrwrapStaticRouteApply: Write into vyr configuration file failed - "
                   "No space left on device.Route add failed for 10.2.0.0/16 via ", mark)
    ap.delete_route("10.1.0.0/16", "192.168.10.2")
    KORVA_LOG.wait("3 416 399816 <VYRWRAP>: vyrwrapStaticRouteApply: Write into vyr configuration file failed - "
                   "No space left on device:10.1.0.0/16 via ", mark)
    DIRTY_FLAG.touch()
    ap.set_route("0.0.0.0/0", "192.168.10.253")
    KORVA_LOG.wait("Route add failed for 0.0.0.0/0 via ", mark)
    assert STATIC_FILE.read_bytes() == before
    assert not Path("/tmp/vyr_static.conf.new").exists()
    ap.reload_at_once()
    assert ap.routes() == routes
    wait_for(lambda: not DIRTY_FLAG.exists(), "the timer runs on", 7)
    assert ap.routes() == routes
    FILLER.unlink()
    ap.set_route("10.3.0.0/16", "192.168.10.2", 7)
    ap.wait_static_file("  route 10.3.0.0/16 metric 7 ")
    ap.wait_static_file("  route 10.2.0.0/16 metric 6 ")
    ap.wait_static_file("  route 10.1.0.0/16 ", present=False)
    ap.wait_route("10.2.0.0/16", ["192.168.10.2"], 6)
    ap.wait_no_route("10.1.0.0/16")
    ap.wait_route("0.0.0.0/0", ["192.168.10.253", "192.168.10.254"], 1)


@pytest.mark.parametrize("thing, reason", [("directory", "Is a directory"), ("fifo", "No such device or address"),
                                           ("link", "Too many levels of symbolic links")])
def test_something_else_in_the_place_of_the_file(ap, thing, reason):
    elsewhere = Path("/run/elsewhere")
    elsewhere.write_text("untouched")
    STATIC_FILE.unlink()
    {"directory": STATIC_FILE.mkdir, "fifo": lambda: os.mkfifo(STATIC_FILE),
     "link": lambda: STATIC_FILE.symlink_to(elsewhere)}[thing]()
    mark = KORVA_LOG.mark()
    ap.set_route("10.2.0.0/16", "192.168.10.2", 6)
    KORVA_LOG.wait(f"Write into vyr configuration file failed - {reason}.Route add failed for 10.2.0.0/16 via ", mark)
    assert elsewhere.read_text() == "untouched"
    STATIC_FILE.rmdir() if thing == "directory" else STATIC_FILE.unlink()
    ap.set_route("10.3.0.0/16", "192.168.10.2", 7)
    ap.wait_static_file("  route 10.3.0.0/16 metric 7 ")
    ap.wait_static_file("  route 10.2.0.0/16 metric 6 ")
    assert STATIC_FILE.stat().st_mode & 0o777 == 0o644


def test_a_file_left_by_a_killed_run_is_no_obstacle(ap):
    elsewhere = Path("/run/elsewhere")
    elsewhere.write_text("untouched")
    Path("/tmp/vyr_static.conf.new").symlink_to(elsewhere)
    ap.set_route("10.2.0.0/16", "192.168.10.2", 6)
    ap.wait_static_file("  route 10.2.0.0/16 metric 6 ")
    assert elsewhere.read_text() == "untouched"


def test_the_dirty_flag_has_the_routing_daemon_read_its_files_two_runs_later(ap):
    STATIC_FILE.write_text("protocol static {\n  ipv4;\n  route 10.9.0.0/16 metric 9 via 192.168.10.9 {\n"
                           "    krt_metric = 9;\n    preference = 256;\n  };\n}\n")
    DIRTY_FLAG.touch()
    wait_for(lambda: not DIRTY_FLAG.exists(), "the flag is taken", 7)
    assert "10.9.0.0/16" not in ap.routes()
    ap.wait_route("10.9.0.0/16", ["192.168.10.9"], 9, seconds=8)


def vyrc_calls():
    calls = Path("/run/vyrc.calls")
    return calls.read_text().splitlines() if calls.exists() else []


def test_the_debug_level_turns_the_routing_daemons_debug_logging_on_and_off(ap):
    vyrc = Path("/korva/bin/vyrc")
    vyrc.unlink()
    vyrc.write_text('#!/bin/sh\necho "$@" >> /run/vyrc.calls\n')
    vyrc.chmod(0o755)
    ap.redis.set(LEVEL_KEY, "debug")
    KORVA_LOG.wait("7 416 399814 Setting debug logging at timer handler", seconds=11)
    wait_for(lambda: "debug all all" in vyrc_calls(), "the command has run")
    assert LOG_CONFIG_FILE.read_text() == ('log "/var/log/korvalog/vyr.log" 10485760 "/var/log/korvalog/vyr.log.1" { debug, '
                                      "trace, info, remote, warning, error, auth, fatal, bug };\n")
    KORVA_LOG.wait("7 416 399814 Setting debug logging at sighup handler", seconds=16)
    ap.redis.set(LEVEL_KEY, "warning")
    wait_for(lambda: vyrc_calls()[-1:] == ["debug all off"], "the command to switch it off has run", 11)
    assert LOG_CONFIG_FILE.read_text() == 'log "/var/log/korvalog/NETWORK.log" { warning, error, auth, fatal, bug };\n'
    mark = KORVA_LOG.mark()
    ap.set_route("10.2.0.0/16", "192.168.10.2", 6)
    ap.wait_static_file("  route 10.2.0.0/16 metric 6 ")
    assert KORVA_LOG.lines(mark) == []
    assert is_running(ap.vyr())
