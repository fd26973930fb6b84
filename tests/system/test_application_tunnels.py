"""Tunnels: from a hash in the DAL to records at the routing application."""

import pytest
from link_records import Told, replayed, tunnel

from application_keys import tunnel_fields, tunnel_key

REFUSED = "vyrwrap_send_all_tunnels_to_vyr: total tunnels(201) exceeds max tunnels(200), needs rework"


def set_many(ap, count):
    with ap.redis.pipeline() as keys:
        for n in range(count):
            keys.hset(tunnel_key(f"t{n:03}"), mapping=tunnel_fields(f"t{n:03}", mapid=n + 1, tunnel_status=n % 3))
        keys.execute()


def many(count):
    return replayed(*[tunnel(9 if n % 3 == 1 else 1, f"t{n:03}", mapid=n + 1, tunnel_status=n % 3)
                      for n in range(count)])


def operations(lines):
    return [line.split(" ")[1] for line in lines]


def test_200_tunnels_are_replayed_as_one_datagram(access_point):
    set_many(access_point, 200)
    access_point.application.start()
    access_point.application.replay("tunnels")
    access_point.application.wait_records(many(200))
    assert access_point.application.records()[-1] == "datagram 69600 bytes, 200 records"


def test_201_tunnels_are_refused_whole(link, told):
    set_many(link, 201)
    assert len(told()) == 201
    mark = link.log.mark()
    assert told.replay("tunnels") == []
    assert link.log.find(f"3 416 399816 {REFUSED}", mark)
    link.delete_tunnel("t200")
    assert told() == [tunnel(2, "t200", mapid=201, tunnel_status=2)]
    assert told.replay("tunnels") == many(200)


def test_an_empty_table_sends_nothing(told):
    assert told.replay("tunnels") == []


def test_changes_have_the_operation_of_what_changed(link, told):
    for changes, operation in [({}, "added"), ({"tunnel_status": 1}, "went-up"), ({"flags": 64}, "updated"),
                               ({"tunnel_status": 2}, "went-down"), ({"tunnel_status": 0}, "went-down"),
                               ({"tunnel_status": 0}, "updated")]:
        link.change_tunnel("t1", **(changes or tunnel_fields("t1")))
        assert operations(told()) == [operation]
    link.delete_tunnel("t1")
    assert operations(told()) == ["deleted"]
    link.set_tunnel("t1", tunnel_status=1)
    assert operations(told()) == ["added-up"]


def test_the_record_holds_what_was_last_set(link, told):
    changes = {"dst_mac": "02:00:5e:ff:fe:fd", "pair_uuid": "u" * 39, "tunnel_index": -1, "mapid": 4000000,
               "flags": 16, "vlan_id": 65535, "link_priority": 255, "tunnel_status": 1, "tunnel_ip": "255.255.255.254"}
    link.set_tunnel("n" * 180, tunnel_name="n" * 199, **changes)
    assert told() == [tunnel(9, "n" * 199, **changes)]


def test_a_new_mapid_deletes_the_old_tunnel_first(link, told):
    link.set_tunnel("t1", mapid=7, tunnel_status=1)
    assert told() == [tunnel(9, "t1", mapid=7, tunnel_status=1)]
    link.change_tunnel("t1", mapid=8)
    assert told() == [tunnel(2, "t1", mapid=7, tunnel_status=1), tunnel(9, "t1", mapid=8, tunnel_status=1)]


def test_a_mapid_that_another_tunnel_has_deletes_that_one(link, told):
    link.set_tunnel("t1", mapid=7)
    link.set_tunnel("t2", mapid=7, tunnel_status=1)
    assert told() == [tunnel(1, "t1"), tunnel(2, "t1"), tunnel(9, "t2", tunnel_status=1)]
    # A replay reads what the DAL holds: the rule is one of notifications.
    assert told.replay("tunnels") == replayed(tunnel(9, "t2", tunnel_status=1), tunnel(1, "t1"))


@pytest.mark.parametrize("changes, message", [
    ({"mapid": 0}, "tun:/op/tunnel/t1, Error reading 1 fields(mapid,) from DAL"),
    ({"flags": ""}, "tun:/op/tunnel/t1, field(9):flags, value is zero lengh"),
])
def test_a_bad_field_leaves_the_last_copy(link, told, changes, message):
    link.set_tunnel("t1")
    assert told() == [tunnel(1, "t1")]
    link.change_tunnel("t1", **changes)
    assert told() == []
    assert link.log.find(message)
    assert told.replay("tunnels") == [tunnel(1, "t1")]


def test_a_deleted_field_leaves_the_last_copy(link, told):
    link.set_tunnel("t1")
    assert told() == [tunnel(1, "t1")]
    link.redis.hdel(tunnel_key("t1"), "flags", "vlan_id")
    link.change_tunnel("t1", mapid=9)
    assert told() == []
    assert link.log.find("action NOTIFY_HDEL(10) is unexpected")
    assert link.log.find("tun:/op/tunnel/t1, Error reading 2 fields(flags,vlan_id,) from DAL")
    assert told.replay("tunnels") == [tunnel(1, "t1")]


def test_a_tunnel_under_another_name_than_its_key_cannot_be_removed(link, told):
    link.set_tunnel("key", tunnel_name="other")
    assert told() == [tunnel(1, "other")]
    link.delete_tunnel("key")
    assert told() == [tunnel(2, "other")]
    assert link.log.find("Failed to remove tunnel other from hash table")
    assert told.replay("tunnels") == [tunnel(1, "other")]


def test_replays_and_changes_keep_one_record_a_name(link, told):
    for status in (0, 1, 0):
        link.set_tunnel("t1", tunnel_status=status)
        assert len(told()) == 1
        assert told.replay("tunnels") == [tunnel(9 if status else 1, "t1", tunnel_status=status)]
    link.delete_tunnel("t1")
    assert operations(told()) == ["deleted"]
    assert told.replay("tunnels") == []


def test_changes_are_followed_from_the_first_replay_on(access_point):
    access_point.application.start()
    access_point.application.replay("vlans")
    access_point.application.settle()
    told = Told(access_point)
    access_point.set_tunnel("t1")
    assert told() == []
    assert told.replay("tunnels") == [tunnel(1, "t1")]
    access_point.change_tunnel("t1", tunnel_status=1)
    assert told() == [tunnel(4, "t1", tunnel_status=1)]


@pytest.mark.parametrize("name", [b"", b"x" * 181, b"x" * 200, b"x" * 201, b"%s%n%d", b'quote"', b"new\nline",
                                  b"{}*?[a-z]", b"\xff\xfe\x80"], ids=len)
def test_odd_names_harm_nothing(link, told, name):
    link.redis.hset(b"/op/tunnel/" + name, mapping=tunnel_fields("odd", mapid=8))
    link.set_tunnel("t1")
    assert tunnel(1, "t1") in told()
    assert tunnel(1, "t1") in told.replay("tunnels")
    link.redis.delete(b"/op/tunnel/" + name)
    link.delete_tunnel("t1")
    assert told()[-1] == tunnel(2, "t1")


def test_a_key_of_another_type_is_skipped(link, told):
    link.redis.set(tunnel_key("t0"), "no hash")
    link.set_tunnel("t1")
    assert told() == [tunnel(1, "t1")]
    assert told.replay("tunnels") == [tunnel(1, "t1")]
