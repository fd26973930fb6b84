"""The model itself: it agrees with a daemon that is right, and tells each way of being wrong."""

import pytest
from link_state import cluster_differences, quoted_text, tunnel_differences, tunnel_line, vlan_differences, vlan_line
from overlay_text import overlay_file
from route_state import file_differences, kernel_differences
from settings_state import log_file_differences, overlay_differences
from store_model import differences, read_store, wait_equal

from application_keys import (OVERLAY_KEY, REDISTRIBUTED_KEY, cluster_fields, cluster_key, ipv4_node, ipv6_node,
                              tunnel_fields, tunnel_key, vlan_key)
from lab import LEVEL_KEY, VYR_LEVEL_KEY, AccessPoint, route_key
from network import Route, ip

ROUTES = {route_key("10.1.0.0/16", "192.168.10.2"): b"5", route_key("10.1.0.0/16", "192.168.10.3"): b"5",
          route_key("10.2.0.0/16", "m", 2): b"7"}
FILE = (b"protocol static {\n  ipv4;\n"
        b"  route 10.1.0.0/16 metric 5 via 192.168.10.2 \n      via 192.168.10.3 {\n"
        b"        krt_metric = 5;\n        preference = 256;\n  };\n"
        b'  route 10.2.0.0/16 metric 7 via "m" {\n    krt_metric = 7;\n    preference = 256;\n  };\n}\n')
EMPTIED = b"  route 10.9.0.0/16 metric 1 via 0.0.0.0 {\n    krt_metric = 1;\n    preference = 256;\n  };\n"


def store_of(strings=(), hashes=()):
    store = {key.encode(): value for key, value in dict(strings).items()}
    for key, fields in dict(hashes).items():
        store[key.encode()] = {name.encode(): value if isinstance(value, bytes) else value.encode()
                               for name, value in fields.items()}
    return store


def test_a_file_that_is_right():
    assert file_differences(store_of(ROUTES), FILE) == []
    swapped = FILE.replace(b".2 \n", b".9 \n").replace(b".3 {", b".2 {").replace(b".9 \n", b".3 \n")
    assert file_differences(store_of(ROUTES), swapped) == []
    assert file_differences(store_of(ROUTES), FILE.replace(b"4;\n", b"4;\n" + EMPTIED, 1)) == []
    assert file_differences({}, b"") == []


@pytest.mark.parametrize("old, new, told", [
    (b"krt_metric = 7", b"krt_metric = 8", "malformed"),
    (b"preference = 256", b"preference = 255", "malformed"),
    (b"    krt_metric = 7", b"  krt_metric = 7", "malformed"),
    (b"};\n}\n", b"};\n", "malformed"),
    (b"192.168.10.3", b"192.168.10.4", "without a key"),
    (b"192.168.10.3", b"192.168.10.2", "lacks via 192.168.10.3"),
    (b" \n      via 192.168.10.3 {\n        krt_metric = 5;\n        pre", b" {\n    krt_metric = 5;\n    pre",
     "10.1.0.0/255.255.0.0 lacks via 192.168.10.3"),
    (b'"m"', b'"n"', "lacks via \"m\""),
    (b"10.2.0.0", b"10.3.0.0", "that the store does not have: 10.3.0.0/16"),
    (b"metric 5", b"metric 6", "malformed"),
    (b"4;\n", b"4;\n" + EMPTIED + EMPTIED.replace(b"10.9", b"10.8"), "2 routes without next hop"),
    (b"4;\n", b"4;\n" + FILE[26:FILE.index(b'  route 10.2')], "2 entries with metric 5"),
], ids=str)
def test_a_file_that_is_wrong(old, new, told):
    found = file_differences(store_of(ROUTES), FILE.replace(old, new))
    assert any(told in line for line in found), found


@pytest.mark.parametrize("value, metrics", [(b"0", b"1"), (b"", b"1"), (b"12345", b"1234"), (b"12345", b"12345"),
                                            (b"x", b"1"), (b"-1", b"4294967295")])
def test_a_metric_may_be_cut(value, metrics):
    store = store_of({route_key("10.2.0.0/16", "m", 2): value})
    data = b"protocol static {\n  ipv4;\n" + FILE[FILE.index(b"  route 10.2"):].replace(b"7", metrics)
    assert file_differences(store, data) == []
    assert file_differences(store, data.replace(metrics, b"77")) != []


def test_a_next_hop_without_gateway_may_take_the_place_of_a_named_one():
    store = store_of({**ROUTES, route_key("10.2.0.0/16", "x", 9): b"7"})
    assert file_differences(store, FILE) == []
    assert file_differences(store, FILE.replace(b'"m"', b"0.0.0.0")) == []
    assert file_differences(store, FILE.replace(b'"m"', b'"n"')) != []


def test_the_sixth_next_hop_and_the_273rd_route_may_be_missing():
    hops = {route_key("10.1.0.0/16", f"192.168.10.{n}"): b"5" for n in range(2, 8)}
    lines = b" \n      via ".join(b"192.168.10.%d" % n for n in range(2, 7))
    text = (b"  route 10.1.0.0/16 metric 5 via " + lines +
            b" {\n        krt_metric = 5;\n        preference = 256;\n  };\n")
    assert file_differences(store_of(hops), FILE[:26] + text + b"}\n") == []
    del hops[route_key("10.1.0.0/16", "192.168.10.6")]
    assert len(file_differences(store_of(hops), FILE[:26] + text + b"}\n")) == 2


def test_the_kernel_holds_the_lowest_metric_with_a_gateway():
    named = b'  route 10.1.0.0/16 metric 3 via "m" {\n    krt_metric = 3;\n    preference = 256;\n  };\n}\n'
    data = FILE[:-2] + named
    right = {"10.1.0.0/16": [Route("unicast", 5, ("192.168.10.3", "192.168.10.2"))]}
    assert kernel_differences(data, right) == []
    for wrong in ({}, {"10.1.0.0/16": [Route("unicast", 3, ("192.168.10.3", "192.168.10.2"))]},
                  {"10.1.0.0/16": [Route("unicast", 5, ("192.168.10.3",))]},
                  {**right, "10.2.0.0/16": [Route("unicast", 7, ("m",))]}):
        assert len(kernel_differences(data, wrong)) == 1


def test_the_overlay():
    on = store_of({OVERLAY_KEY: b"\1", REDISTRIBUTED_KEY: b"{10:4096:x:20}"})
    assert overlay_differences(on, "") != []
    assert overlay_differences(on, overlay_file([10, 20])) == []
    assert overlay_differences(on, overlay_file([10])) != []
    assert overlay_differences(on, overlay_file([10, 20]).replace("port 50050", "port 50051")) != []
    assert overlay_differences(store_of({OVERLAY_KEY: b"\1"}), overlay_file([7])) == []
    assert overlay_differences(store_of({OVERLAY_KEY: b"1"}), "") == []
    assert overlay_differences({}, overlay_file([7])) != []


def test_the_log_file():
    line = ('log "/var/log/korvalog/NETWORK.log" 40960 "/var/log/korvalog/NETWORK.log.1" '
            '{ warning, error, auth, fatal, bug  };\nlog "/var/log/korvalog/vyr.log" 81920 '
            '"/var/log/korvalog/vyr.log.1" { debug, trace, info, remote, warning, error, auth, fatal, bug };\n\n')
    store = store_of({VYR_LEVEL_KEY: b"warn", LEVEL_KEY: b"info"})
    assert log_file_differences(store, line) == []
    assert log_file_differences(store, line[:-1]) != []
    assert log_file_differences({**store, VYR_LEVEL_KEY.encode(): b"notice"}, line) != []
    assert log_file_differences({**store, VYR_LEVEL_KEY.encode(): b"x"}, line.replace(" warning,", "", 1)) == []


TUNNEL = {tunnel_key("a"): tunnel_fields("a", tunnel_status=1)}
LINE = tunnel_line(store_of(hashes=TUNNEL)[b"/op/tunnel/a"])


def test_tunnels():
    store = store_of(hashes=TUNNEL)
    assert LINE.startswith('tunnel added-up op=9 kind=1 name="a" mac=02:00:5e:20:00:01 ')
    assert "flags=0x21 vlan=40 priority=5 status=1" in LINE
    assert tunnel_differences(store, [LINE], ()) == []
    assert tunnel_differences(store, [], ()) == [f"replay: lacks {LINE}"]
    assert len(tunnel_differences(store, [LINE.replace("mapid=7", "mapid=8")], ())) == 2
    assert tunnel_differences({}, [LINE], ()) == [f"replay: has {LINE} without a key"]
    assert tunnel_differences({}, [LINE], ["a"]) == []
    incomplete = {b"/op/tunnel/a": {b"tunnel_name": b"a"}}
    assert tunnel_differences(incomplete, [LINE], ()) == tunnel_differences(incomplete, [], ()) == []
    assert quoted_text(b'a"\\\n\0b') == 'a\\"\\\\\\x0a'


def test_vlans_and_clusters():
    assert vlan_line(vlan_key(12).encode()) == "vlan announced op=4 kind=2 id=12 ip=10.1.1.1 mask=255.255.255.0"
    for text in (vlan_key(0), vlan_key(4096), "/op/vlans/route{10.1.1.1:255.255.255.0:1", "/op/vlans/route:{1:2:3}",
                 REDISTRIBUTED_KEY, vlan_key(1, address="10.1.1.256")):
        assert vlan_line(text.encode()) is None
    store = store_of({vlan_key(12): b"", vlan_key(13): b""})
    lines = [vlan_line(key) for key in store]
    assert vlan_differences(store, lines) == []
    assert vlan_differences(store, lines[::-1]) == ["replay: not in the order of the keys"]
    store = store_of(hashes={cluster_key("c"): cluster_fields(nodes=[ipv4_node("10.0.0.1", 5), ipv6_node("::1")])})
    line = ('cluster updated op=1 name="c" ddg_ip=10.250.0.2 state=1 mac=02:00:5e:20:00:01 nodes=2 '
            "node=10.0.0.1/family:2/flags:0x5 node=::1/family:10/flags:0x0")
    assert cluster_differences(store, [line], [LINE]) == []
    assert cluster_differences(store, [line], [LINE.replace("peer=10.250.0.2", "peer=10.250.0.3")]) != []


def fill(ap):
    for n in range(30):
        for hop in range(2, 2 + n % 5 + 1):
            ap.set_route(f"10.{n}.0.0/16", f"192.168.10.{hop}", 10 + n)
    for kind, hop in ((2, "map"), (3, "branch"), (4, "7-192.168.20.9"), (9, "x")):
        ap.set_route(f"10.{100 + kind}.0.0/16", hop, 12345, kind)
    ap.set_route("10.1.0.0/16", "192.168.20.5", 3)
    ap.redis.set("/op/staticroute/{broken", 1)
    ap.redis.rpush("/op/staticroute/{10.7.0.0:255.255.255.0:1:192.168.10.7}", "a list")
    for n in range(20):
        ap.set_tunnel(f"t{n}", mapid=n, tunnel_status=n % 3, flags=n, peer_tunnel_ip=f"10.250.0.{n}")
        ap.set_vlan(n)
        ap.set_cluster(f"c{n}", ddg_ip=f"10.250.0.{n}", state=n % 4, nodes=[ipv4_node("10.0.0.1", n)] * (n % 14))
    ap.set_overlay(1)
    ap.set_redistributed(10, 4096, 20)
    ap.redis.set(VYR_LEVEL_KEY, "notice")


@pytest.fixture(name="ap", scope="module")
def fixture_ap():
    with AccessPoint() as ap:
        ap.wait_ready()
        ap.application.start()
        ap.application.follow_all()
        ap.set_route("10.200.0.0/16", "192.168.10.2", 1)
        fill(ap)
        yield ap
        assert ap.daemon.stop() == 0


def test_a_running_daemon_is_as_the_store_says(ap):
    assert wait_equal(ap) == []
    assert len(read_store(ap.redis)) > 150


@pytest.mark.parametrize("key, value, told", [
    (route_key("10.3.0.0/16", "192.168.10.2"), b"99", "static file: 10.3.0.0/255.255.0.0 "),
    (route_key("10.3.0.0/16", "192.168.10.2"), None, "static file: 10.3.0.0/255.255.0.0 has via 192.168.10.2"),
    (route_key("10.99.0.0/16", "192.168.10.2"), b"1", "static file: 10.99.0.0/255.255.0.0 lacks via 192.168.10.2"),
    (tunnel_key("t5"), None, 'replay: has tunnel added op=1 kind=1 name="t5"'),
    (vlan_key(77), b"", "replay: lacks vlan announced op=4 kind=2 id=77"),
    (cluster_key("c5"), None, 'replay: has cluster updated op=1 name="c5"'),
    (REDISTRIBUTED_KEY, b"{5}", "overlay file: has the VLANs"),
    (VYR_LEVEL_KEY, b"debug", "log file: ")], ids=str)
def test_what_a_running_daemon_has_not_been_told_is_found(ap, key, value, told):
    """The other way round: a store that says something else."""
    assert wait_equal(ap) == []
    store = {**read_store(ap.redis), key.encode(): value}
    found = differences(ap, {each: held for each, held in store.items() if held is not None})
    assert found and all(line.startswith(told) for line in found), found


def test_a_route_that_the_kernel_lost_is_found(ap):
    assert wait_equal(ap) == []
    ip("route", "del", "10.2.0.0/16")
    found = differences(ap, read_store(ap.redis), replays=False)
    assert len(found) == 1 and found[0].startswith("kernel: 10.2.0.0/16 is None, not [('unicast', 12, ")
