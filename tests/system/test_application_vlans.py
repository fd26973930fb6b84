"""VLANs: keys whose path is the record."""

import pytest
from link_records import Told, vlan

from application_keys import vlan_key
from lab import wait_for

NO_BRACE = "Error in extracting vlan parameters from path /op/vlans/route_redistributed_vlans"


def address(n):
    return f"10.{n // 200}.{n % 200}.1"


def set_many(ap, count):
    with ap.redis.pipeline() as keys:
        for n in range(1, count + 1):
            keys.set(vlan_key(n, address(n)), "")
        keys.execute()


def in_order_of_keys(count):
    return [vlan(4, n, address(n)) for n in sorted(range(1, count + 1), key=lambda n: vlan_key(n, address(n)))]


def test_300_vlans_are_replayed_as_300_datagrams(access_point):
    set_many(access_point, 300)
    access_point.application.start()
    access_point.application.replay("vlans")
    access_point.application.wait_records(in_order_of_keys(300))


def test_300_wait_for_an_application_that_is_slow(access_point):
    """As many as the application's queue holds, and the daemon's own buffer."""
    set_many(access_point, 300)
    access_point.application.start()
    access_point.application.stop_reading()
    access_point.application.replay("vlans")
    access_point.application.settle()
    access_point.application.read_again()
    access_point.application.wait_records(in_order_of_keys(300))


def test_announced_and_withdrawn(link, told):
    for number in (1, 12, 4095):
        link.set_vlan(number)
    link.delete_vlan(12)
    link.set_vlan(12, "192.168.20.1", "255.255.255.128")
    link.set_vlan(12, "192.168.20.1", "255.255.255.128")
    moved = vlan(4, 12, "192.168.20.1", "255.255.255.128")
    assert told() == [vlan(4, 1), vlan(4, 12), vlan(4, 4095), vlan(5, 12), moved, moved]
    link.delete_vlan(4095)
    assert told() == [vlan(5, 4095)]
    assert sorted(told.replay("vlans")) == [vlan(4, 1), moved]


@pytest.mark.parametrize("path, message", [
    ("{10.1.1.1:255.255.255.0:0}", "Invalid vlan 0"),
    ("{10.1.1.1:255.255.255.0:4096}", "Invalid vlan 4096"),
    ("{10.1.1.1:255.255.255.0:-1}", "Invalid vlan 4294967295"),
    ("{10.1.1.1:255.255.255.0:12", "Error in Path, no '}' symbol"),
    ("{10.1.1.1:255.255.255.0}", "82: Error in Path, no ':' symbol"),
    ("{10.1.1.1}", "68: Error in Path, no ':' symbol"),
    ("10.1.1.1:255.255.255.0:12}", "Error in Path, no '{' symbol"),
    ("{10.1.1.256:255.255.255.0:12}", "Error in Path, Invalid dest ip 10.1.1.256"),
    ("{10.1.1.1:255.255.255:x:12}", "Invalid vlan 0"),
    ("{10.1.1.1:mask:12}", "Error in Path, Invalid mask ip mask"),
    (":{10.1.1.1:255.255.255.0:12}", "Error in Path, Invalid dest ip "),
    ("{%n%s:%n:12}", "Error in Path, Invalid dest ip %n%s"),
    pytest.param("{" + "1" * 3000 + ":255.255.255.0:12}", "Error in Path", id="long"),
])
def test_a_bad_path_is_refused_and_stops_nothing(link, told, path, message):
    mark = link.log.mark()
    link.redis.set(f"/op/vlans/route{path}", "")
    link.set_vlan(12)
    assert told() == [vlan(4, 12)]
    assert link.log.find(message, mark)
    mark = link.log.mark()
    assert told.replay("vlans") == [vlan(4, 12)]
    assert link.log.find(message, mark)


def test_the_list_of_redistributed_vlans_is_no_vlan(link, told):
    link.set_redistributed(10, 20)
    assert told() == []
    assert link.log.find(f"vyrwrap_read_vlan_interface_info_from_notify_key:137: {NO_BRACE}")
    assert told.replay("vlans") == []
    assert link.log.find(f"vyrwrap_read_and_send_all_VlanIfaceInfo_from_dal:221: {NO_BRACE}")


def test_a_lifetime_is_no_change_and_its_end_withdraws(link, told):
    link.set_vlan(12)
    link.redis.pexpire(vlan_key(12), 100000)
    assert told() == [vlan(4, 12)]
    link.redis.pexpire(vlan_key(12), 20)
    wait_for(lambda: not link.redis.exists(vlan_key(12)), "the key has expired")
    link.application.wait("withdrawn op=5 kind=2 id=12")


def test_changes_are_followed_from_the_first_replay_on(access_point):
    access_point.application.start()
    access_point.set_vlan(12)
    access_point.delete_vlan(12)
    access_point.set_vlan(13)
    access_point.application.replay("vlans")
    access_point.application.settle()
    assert Told(access_point)() == []
    assert access_point.application.records()[:1] == [vlan(4, 13)]
