"""The overlay: its file follows the DAL."""

import random
from pathlib import Path

import pytest
from overlay_text import overlay_file

from application_keys import OVERLAY_KEY, REDISTRIBUTED_KEY
from lab import MAC, OVERLAY_FILE, wait_for

TEMPLATE = Path("/etc/bird/vyr_oap.conf")
READ = "vyrwrap_update_redistvlan_oap_config_from_key: DAL key:"


@pytest.fixture(name="overlay")
def fixture_overlay(access_point):
    """The overlay, switched on."""
    access_point.log.wait("write OAP conf file")
    access_point.set_overlay(1)
    access_point.wait_overlay_file(overlay_file())
    return access_point


def test_off_at_start_the_file_is_empty(access_point):
    access_point.log.wait("oapCfg_g.bEnable=0, write OAP conf file")
    access_point.wait_overlay_file("")


@pytest.mark.parametrize("vlans", [(), (10, 20)])
def test_on_at_start_the_file_has_the_templates_identity(surroundings, vlans):
    surroundings.start_redis()
    surroundings.set_overlay(1)
    surroundings.set_redistributed(*vlans)
    surroundings.start_daemon()
    surroundings.wait_overlay_file(overlay_file(vlans))


def test_a_bare_template_leaves_the_devices_own_identity(surroundings):
    TEMPLATE.write_text("protocol oap {\n}\n")
    surroundings.start_redis()
    surroundings.set_overlay(1)
    surroundings.start_daemon()
    surroundings.wait_overlay_file(overlay_file(site=MAC, template_part=""))


def test_a_template_sets_what_it_names(surroundings):
    TEMPLATE.write_text('local site id "s1"; keepalive 7;\nlocal tenant id "' + "t" * 70 + '";\n keepalive 0;\n'
                        "cbs_reconnect_timeout 4294967295;\n" + "x" * 5000 + "\n\tkeepalive 12 ;")
    surroundings.start_redis()
    surroundings.set_overlay(1)
    surroundings.start_daemon()
    wait_for(surroundings.overlay_file, "the overlay is on")
    text = surroundings.overlay_file()
    assert '\t local site id "s1";\n' in text
    assert '\t local tenant id "' + "t" * 64 + '";\n' in text
    assert "\t keepalive 12;\n" in text


def test_without_a_template_nothing_starts(surroundings):
    TEMPLATE.unlink()
    surroundings.start_redis()
    surroundings.start_daemon()
    assert surroundings.daemon.wait() == 255
    assert surroundings.log.find("<VYRWRAP>: fopen of /etc/bird/vyr_oap.conf failed - No such file or directory")


def test_on_off_on_and_deleted(overlay):
    overlay.set_overlay(0)
    overlay.wait_overlay_file("")
    overlay.set_overlay(1)
    overlay.wait_overlay_file(overlay_file())
    overlay.redis.delete(OVERLAY_KEY)
    overlay.wait_overlay_file("")
    assert overlay.log.find(f"DAL key {OVERLAY_KEY} is deleted")
    overlay.redis.delete(OVERLAY_KEY)
    overlay.set_overlay(1)
    overlay.wait_overlay_file(overlay_file())


@pytest.mark.parametrize("value", [b"\x02", b"1", b"0", b"\xff", b"\x02\x01", b"\x01\x00"])
def test_another_value_changes_nothing(overlay, value):
    mark = overlay.log.mark()
    overlay.redis.set(OVERLAY_KEY, value)
    overlay.log.wait("no change in oapCfg_g.bEnable(1)", mark)
    overlay.wait_overlay_file(overlay_file())


def test_an_empty_value_is_off(overlay):
    overlay.redis.set(OVERLAY_KEY, b"")
    overlay.wait_overlay_file("")


def test_a_lifetime_of_the_key_ends_the_overlay(overlay):
    overlay.redis.pexpire(OVERLAY_KEY, 30)
    wait_for(lambda: not overlay.redis.exists(OVERLAY_KEY), "the key has expired")
    overlay.wait_overlay_file("")


def test_another_key_beside_it_is_ignored(overlay):
    overlay.redis.set("/config/vyr/oap/other", bytes([0]))
    overlay.log.wait("invalid published_key /config/vyr/oap/other, ignore")
    overlay.wait_overlay_file(overlay_file())


@pytest.mark.parametrize("value, vlans", [
    ("{10:20}", [10, 20]), ("{20:10:10}", [20, 10, 10]), ("{4095}", [4095]), ("{10:4096:0:20}", [10, 20]), ("{}", []),
    ("{:::}", []), ("10:20", []), ("", []), ("{10:20", [10]), ("{", []), ("{10", []), ("x{7}", [7]),
    ("{1a:b2:-3:0x5}", [1]),
    ("{99999999999:5}", [5]), ("{5:}", [5]), ("{" + ":".join(["7"] * 4096) + "}", [7] * 4096),
    ("{" + ":".join(["7"] * 5000) + "}", [7] * 4096), ("{" + "9" * 30000 + "}", []),
])
def test_the_vlan_list(overlay, value, vlans):
    overlay.set_redistributed(1)
    overlay.wait_overlay_file(overlay_file([1]))
    mark = overlay.log.mark()
    overlay.redis.set(REDISTRIBUTED_KEY, value)
    overlay.log.wait("vyrwrap_update_redistvlan_oap_config_from_key", mark)
    overlay.wait_overlay_file(overlay_file(vlans))


def test_more_ids_than_there_is_room_for_are_said(overlay):
    overlay.set_redistributed(*[n % 999 + 1 for n in range(4100)])
    overlay.log.wait("vyrwrap_update_redistvlan_oap_config_from_key: 4 vlans beyond the first 4096 left out")
    overlay.wait_overlay_file(overlay_file([n % 999 + 1 for n in range(4096)]))


def test_the_list_stays_when_its_key_is_deleted(overlay):
    overlay.set_redistributed(10)
    overlay.wait_overlay_file(overlay_file([10]))
    OVERLAY_FILE.write_text("")
    overlay.redis.delete(REDISTRIBUTED_KEY)
    overlay.wait_overlay_file(overlay_file([10]))


def test_a_list_while_the_overlay_is_off_is_kept_for_later(access_point):
    access_point.set_redistributed(30, 40)
    access_point.log.wait(READ)
    access_point.wait_overlay_file("")
    access_point.set_overlay(1)
    access_point.wait_overlay_file(overlay_file([30, 40]))


def test_any_bytes_as_a_list_harm_nothing(overlay):
    seed = 7
    source = random.Random(seed)
    for length in (*range(0, 40), 1000, 19999, 20000, 20001, 60000):
        alphabet = source.choice([b"{:}0123456789", bytes(range(256)), b"\0{}:1"])
        overlay.redis.set(REDISTRIBUTED_KEY, bytes(source.choices(alphabet, k=length)))
    overlay.set_redistributed(50)
    overlay.wait_overlay_file(overlay_file([50]))


def test_the_routing_daemon_takes_the_file(overlay):
    overlay.set_redistributed(10, 20)
    overlay.set_route("10.1.0.0/16", "192.168.10.2", 5)
    overlay.wait_route("10.1.0.0/16", ["192.168.10.2"], 5)
    assert "master4" in overlay.vyrc("show", "route")
