"""What stands behind restarts: the wait before a start, and the init script's calls to procd."""

import subprocess
from pathlib import Path

import pytest

PACKAGING = Path(__file__).resolve().parents[2] / "packaging"
BACK_OFF = PACKAGING / "debian" / "back-off"
INIT_SCRIPT = PACKAGING / "openwrt" / "vyrwrap.init"


@pytest.fixture(name="clock")
def fixture_clock(tmp_path):
    """Programs in the place of date and sleep, and what time it is."""
    (tmp_path / "now").write_text("1000\n")
    for name, text in (("date", f"cat {tmp_path}/now"), ("sleep", f'echo "$1" >>{tmp_path}/slept')):
        program = tmp_path / name
        program.write_text(f"#!/bin/sh\n{text}\n")
        program.chmod(0o755)
    return tmp_path


def wait_before_start(clock, now):
    """How long the start at that time has to wait."""
    (clock / "now").write_text(f"{now}\n")
    (clock / "slept").unlink(missing_ok=True)
    subprocess.run([BACK_OFF], env={"PATH": f"{clock}:/usr/bin:/bin", "RUNTIME_DIRECTORY": str(clock)}, check=True)
    return int((clock / "slept").read_text())


def test_starts_in_a_row_wait_longer_each_time_and_a_minute_at_most(clock):
    now = 1000
    waits = []
    for _ in range(10):
        waits.append(wait_before_start(clock, now))
        now += waits[-1] + 15
    assert waits == [0, 1, 2, 4, 8, 16, 32, 60, 60, 60]


def test_a_daemon_that_ran_for_two_minutes_starts_at_once(clock):
    for now in (1000, 1001, 1010):
        wait_before_start(clock, now)
    started = 1012  # the last start waited for 2 s
    assert wait_before_start(clock, started + 120) == 0
    assert wait_before_start(clock, started + 120 + 119) == 1


@pytest.mark.parametrize("state", ["", "x y", "1000", "1000 ten", "9999999 4", "-1 -1", "1 2 3"])
def test_a_start_is_never_kept_by_what_the_file_holds(clock, state):
    (clock / "last-start").write_text(f"{state}\n")
    assert wait_before_start(clock, 1000) <= 1


def test_without_a_runtime_folder_nothing_waits():
    assert subprocess.run([BACK_OFF], env={"PATH": "/usr/bin:/bin"}, check=True, timeout=5).returncode == 0


def test_the_init_script_starts_the_daemon_with_its_configuration_and_starts_it_again_for_ever(tmp_path):
    script = f"""
config_load() {{ echo load "$@"; }}
config_get() {{ [ "$3" != dal_url ] || value=tcp://127.0.0.1:6379; eval "$1=\\${{value:-}}"; value=; }}
mkdir() {{ echo mkdir "$@"; }}
cat() {{ echo 512; }}
for name in procd_open_instance procd_set_param procd_append_param procd_close_instance procd_add_reload_trigger; do
    eval "$name() {{ echo ${{name#procd_}} \\"\\$@\\"; }}"
done
. {INIT_SCRIPT}
start_service
service_triggers
"""
    done = subprocess.run(["sh", "-eu", "-c", script], capture_output=True, text=True, check=True, cwd=tmp_path)
    assert done.stdout.splitlines() == [
        "mkdir -p /tmp/.sock /var/log/korvalog", "load vyrwrap", "open_instance", "set_param command /usr/sbin/vyrwrap",
        "append_param env DAL_URL=tcp://127.0.0.1:6379", "set_param respawn 120 5 0", "set_param term_timeout 60",
        "set_param stderr 1", "close_instance", "add_reload_trigger vyrwrap"]
