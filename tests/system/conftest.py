"""What the system tests share."""

import shutil
from pathlib import Path

import pytest
import stand_in
from link_records import Told
from vyr_files import write_all

from lab import LEVEL_KEY, AccessPoint, Process
from network import ip


@pytest.fixture
def surroundings():
    """An access point without Redis and daemon: folders, programs, templates, network."""
    with AccessPoint(start=False) as ap:
        yield ap


@pytest.fixture
def access_point():
    """An access point whose daemon follows the DAL."""
    with AccessPoint() as ap:
        ap.wait_ready()
        yield ap


@pytest.fixture
def link(access_point):
    """An access point whose daemon tells a routing application of all changes."""
    access_point.application.start()
    access_point.application.follow_all()
    return access_point


@pytest.fixture
def told(link):
    return Told(link)


@pytest.fixture
def without_vyr():
    """An access point whose daemon tells everything and whose routing daemon does nothing: its sockets are the
    test's."""
    with AccessPoint(start=False) as ap:
        stand_in.install_idle()
        ap.start_redis()
        ap.redis.set(LEVEL_KEY, "debug")
        ap.start_daemon()
        ap.wait_ready()
        ap.log.wait("<VYRWRAP>: Dirty flag set at main")
        yield ap


@pytest.fixture(name="lab")
def fixture_lab(surroundings):
    """The surroundings, with the files that vyr reads."""
    shutil.copy("/etc/bird/vyr.conf", "/tmp/vyr.conf")
    write_all()
    yield surroundings


@pytest.fixture(name="start")
def fixture_start(lab):
    """Starts vyr; a test may start several, one after the other."""
    started = []

    def start():
        started.append(Process("vyr", ["/korva/bin/vyr", "-c", "/tmp/vyr.conf", "-s", "/tmp/vyr.ctl"], "/tmp/vyr.err"))
        return started[-1]

    yield start
    for vyr in started:
        if vyr.running:
            vyr.kill()
    ip("route", "flush", "proto", "bird")
    report = Path("/tmp/vyr.err").read_text()
    assert "Sanitizer" not in report and "runtime error" not in report, report
