"""What the daemon makes of the keys of static routes, and of whatever may happen to a key in Redis."""

import pytest

from lab import STATIC_FILE, AccessPoint, route_key, wait_for

FOLDER = b"/op/staticroute/"
ONLY_DEFAULT = """protocol static {
  ipv4;
  route 0.0.0.0/0 metric 1 via 192.168.10.254 {
    krt_metric = 1;
    preference = 256;
  };
}
"""


@pytest.fixture(name="ap", scope="module")
def fixture_ap():
    """A default route among the first keys: the routing daemon runs from the start."""
    with AccessPoint(start=False) as ap:
        ap.start_redis()
        ap.set_route("0.0.0.0/0", "192.168.10.254")
        ap.start_daemon()
        ap.wait_ready()
        ap.bird()
        yield ap
        assert ap.daemon.stop() == 0


@pytest.fixture(autouse=True)
def without_routes(ap):
    """Each test begins with the default route alone."""
    yield
    ap.redis.config_set("maxmemory", 0)
    default = route_key("0.0.0.0/0", "192.168.10.254")
    others = [key for key in ap.redis.keys("/op/staticroute/*") if key != default.encode()]
    if others:
        ap.redis.delete(*others)
    for metric in (2, 1):  # noticed after all that went before, malformed keys included
        ap.redis.set(default, metric)
        ap.wait_static_file(f"metric {metric} via 192.168.10.254 ", seconds=5)
    assert ap.static_file() == ONLY_DEFAULT


MALFORMED = {
    "{10.3.0.0:255.255.0.0:1:192.168.10.2": "<VYRWRAP>: Error in Path, no '}' symbol",
    "10.3.0.0:255.255.0.0:1:192.168.10.2}": "<VYRWRAP>: Error in Path, no '{' symbol",
    "{10.3.0.0}": "<VYRWRAP>: 73: Error in Path, no ':' symbol",
    "{10.3.0.0:255.255.0.0}": "<VYRWRAP>: 87: Error in Path, no ':' symbol",
    "{10.3.0.0:255.255.0.0:1}": "<VYRWRAP>: Error in Path, no ':' symbol",
    "{10.3.0.256:255.255.0.0:1:192.168.10.2}": "<VYRWRAP>: Error in Path, Invalid dest ip 10.3.0.256",
    "{10.3.0.0:255.255.0.0.0:1:192.168.10.2}": "<VYRWRAP>: Error in Path, Invalid mask ip 255.255.0.0.0",
    "{10.3.0.0:255.255.0.0:4:192.168.10.2}": "<VYRWRAP>: Error in format of PPPoE nexthop 192.168.10.2",
    "{10.3.0.0:255.255.0.0:4:7-nobody}": "<VYRWRAP>: Error in Path, Invalid PPPoE Gateway ip nobody",
    "{127.3.0.0:255.255.0.0:1:192.168.10.2}": "<VYRWRAP>: vyrwrapStaticRouteApply: Invalid network 127.3.0.0",
}


@pytest.mark.parametrize("text", MALFORMED)
def test_a_malformed_key_is_refused_and_the_log_says_why(ap, text):
    before = STATIC_FILE.read_bytes()
    mark = ap.log.mark()
    ap.redis.set(FOLDER + text.encode(), 1)
    wait_for(lambda: f"3 416 399816 {MALFORMED[text]}" in ap.log.lines(mark), f"the log says {MALFORMED[text]!r}")
    assert STATIC_FILE.read_bytes() == before


def test_a_control_character_cannot_forge_a_log_line(ap):
    mark = ap.log.mark()
    ap.redis.set(FOLDER + b"{10.1\n3 416 399816 forged\x1b[0m\x7f\xc2\x9b\t\x01\r:255.0.0.0:1:192.168.10.2}", 1)
    ap.log.wait("while setting", mark)
    assert ap.log.lines(mark) == [
        r"3 416 399816 <VYRWRAP>: Error in Path, Invalid dest ip "
        r"10.1\n3 416 399816 forged\033[0m\177\302\233\t\001\r",
        "3 416 399816 <VYRWRAP>: vyrwrap_static_route_subscribe_callback: 201: "
        "Error in extracting static cfg while setting"]


def test_a_key_with_a_nul_is_not_taken_for_the_text_before_it(ap):
    mark = ap.log.mark()
    ap.redis.set(route_key("10.4.0.0/16", "192.168.10.2").encode() + b"\0x", 1)
    ap.log.wait("a key with a NUL in it is not delivered", mark)
    ap.set_route("10.5.0.0/16", "192.168.10.2")
    ap.wait_static_file("route 10.5.0.0/16")
    assert "10.4.0.0" not in ap.static_file()


def test_host_bits_stay_in_the_file_and_the_route_stands_in_the_kernel(ap):
    ap.set_route("10.5.9.9/16", "192.168.10.2", 4)
    ap.set_route("10.6.0.0/16", "192.168.10.3", 4)
    ap.wait_static_file("  route 10.5.9.9/16 metric 4 via 192.168.10.2 {")
    ap.wait_static_file("  route 10.6.0.0/16 metric 4 via 192.168.10.3 {")
    ap.reload_at_once()
    ap.wait_route("10.5.0.0/16", ["192.168.10.2"], 4, seconds=5)
    ap.wait_route("10.6.0.0/16", ["192.168.10.3"], 4, seconds=5)


def test_the_273rd_route_is_refused_until_there_is_room(ap):
    for n in range(271):
        ap.set_route(f"10.{n // 256}.{n % 256}.0/24", "192.168.10.2")
    ap.wait_static_file("route 10.1.14.0/24")
    mark = ap.log.mark()
    ap.set_route("10.9.0.0/16", "192.168.10.2")
    ap.log.wait("3 416 399816 <VYRWRAP>: vyrwrapStaticRouteApply: No free slot to add route entry. Maximum routes 272. "
                "Route add failed for 10.9.0.0/16 via ", mark)
    assert ap.static_file().count("  route ") == 272
    assert "10.9.0.0" not in ap.static_file()
    ap.delete_route("10.1.0.0/24", "192.168.10.2")
    ap.set_route("10.9.0.0/16", "192.168.10.2")
    ap.wait_static_file("route 10.9.0.0/16")
    assert ap.static_file().count("  route ") == 272


def test_a_sixth_next_hop_is_refused(ap):
    for n in range(2, 7):
        ap.set_route("10.5.0.0/16", f"192.168.10.{n}")
    ap.wait_static_file("via 192.168.10.6 ")
    before = ap.static_file()
    mark = ap.log.mark()
    ap.set_route("10.5.0.0/16", "192.168.10.7")
    ap.log.wait(r"<VYRWRAP>: vyrwrapStaticRouteApply: Maximum Multi-path/ECMP routes allowed are 5. "
                r"Route add failed for 10.5.0.0/16 via \n", mark)
    assert ap.static_file() == before


# What happens to a key other than SET and DEL.

def has(ap, prefix, present=True):
    ap.wait_static_file(f"  route {prefix} metric 6 via 192.168.10.2 ", present)


def test_a_key_that_expires_is_a_route_withdrawn(ap):
    ap.redis.set(route_key("10.7.0.0/16", "192.168.10.2"), 6, px=300)
    has(ap, "10.7.0.0/16")
    has(ap, "10.7.0.0/16", present=False)


def test_evicted_keys_are_routes_withdrawn(ap):
    ap.set_route("10.7.0.0/16", "192.168.10.2", 6)
    has(ap, "10.7.0.0/16")
    ap.redis.config_set("maxmemory-policy", "allkeys-random")
    ap.redis.config_set("maxmemory", 1)
    has(ap, "10.7.0.0/16", present=False)
    assert ap.redis.dbsize() == 0


def test_a_renamed_key_is_one_route_withdrawn_and_one_added(ap):
    ap.set_route("10.7.0.0/16", "192.168.10.2", 6)
    has(ap, "10.7.0.0/16")
    ap.redis.rename(route_key("10.7.0.0/16", "192.168.10.2"), route_key("10.8.0.0/16", "192.168.10.2"))
    has(ap, "10.8.0.0/16")
    has(ap, "10.7.0.0/16", present=False)


def test_a_copied_key_is_a_second_route(ap):
    ap.set_route("10.7.0.0/16", "192.168.10.2", 6)
    ap.redis.copy(route_key("10.7.0.0/16", "192.168.10.2"), route_key("10.8.0.0/16", "192.168.10.2"))
    has(ap, "10.8.0.0/16")
    has(ap, "10.7.0.0/16")


def test_a_restored_key_is_a_route(ap):
    ap.set_route("10.7.0.0/16", "192.168.10.2", 6)
    ap.redis.restore(route_key("10.8.0.0/16", "192.168.10.2"), 0,
                     ap.redis.dump(route_key("10.7.0.0/16", "192.168.10.2")))
    has(ap, "10.8.0.0/16")


def test_a_key_moved_to_another_database_is_a_route_withdrawn(ap):
    ap.set_route("10.7.0.0/16", "192.168.10.2", 6)
    has(ap, "10.7.0.0/16")
    ap.redis.move(route_key("10.7.0.0/16", "192.168.10.2"), 1)
    has(ap, "10.7.0.0/16", present=False)


@pytest.mark.parametrize("change", ["append", "setrange", "incrby"])
def test_a_metric_changed_in_place_is_taken_over(ap, change):
    key = route_key("10.7.0.0/16", "192.168.10.2")
    ap.redis.set(key, 6)
    has(ap, "10.7.0.0/16")
    {"append": lambda: ap.redis.append(key, "1"), "setrange": lambda: ap.redis.setrange(key, 0, "61"),
     "incrby": lambda: ap.redis.incrby(key, 55)}[change]()
    ap.wait_static_file("  route 10.7.0.0/16 metric 61 via 192.168.10.2 ")
