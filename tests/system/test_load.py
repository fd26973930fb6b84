"""Many changes: nothing is left behind in processes, descriptors and memory."""

from pathlib import Path

import pytest

from lab import AccessPoint, route_key, wait_for
from process import children_of, descriptors, is_running, resident_kib

DEFAULT_ROUTE = route_key("0.0.0.0/0", "192.168.10.254")
NOTIFICATIONS_A_TURN = 64  # of the loop, with ended children waiting until it is over


@pytest.fixture(name="ap", scope="module")
def fixture_ap():
    with AccessPoint(start=False) as ap:
        ap.start_redis()
        ap.redis.set(DEFAULT_ROUTE, 1)
        ap.start_daemon()
        ap.wait_ready()
        ap.bird()
        yield ap
        assert ap.daemon.stop() == 0


def wait_metric(ap, metric):
    ap.wait_static_file(f"  route 0.0.0.0/0 metric {metric} via 192.168.10.254 ", seconds=60)


def test_hundreds_of_default_routes_leave_few_processes_and_no_zombie(ap):
    most = most_running = 0
    for metric in range(1, 601):
        ap.redis.set(DEFAULT_ROUTE, metric)
        found = children_of(ap.daemon.pid)
        most = max(most, len(found))
        most_running = max(most_running, sum(map(is_running, found)))
    wait_metric(ap, 600)
    assert most_running <= 2  # vyr and one command
    assert most <= NOTIFICATIONS_A_TURN + 2
    ap.wait_only_vyr()


def change_routes(ap, count, base):
    """Adds, moves between metrics and deletes, of gateways and of names."""
    with ap.redis.pipeline(transaction=False) as keys:
        for n in range(base, base + count):
            kind, hop = [(1, "192.168.10.2"), (2, "map-a"), (3, "branch"), (4, "7-192.168.10.9")][n % 4]
            key = route_key(f"10.1.{n % 200}.0/24", hop, kind)
            keys.set(key, n % 9 + 1) if n % 5 else keys.delete(key)
            if n % 200 == 0:  # not more at a time than can wait
                keys.execute()
        keys.execute()
    ap.set_route("10.2.0.0/16", "192.168.10.2", metric=base % 9999)
    ap.wait_static_file(f"  route 10.2.0.0/16 metric {base % 9999} via", seconds=60)


def test_ten_thousand_changes_leave_as_much_as_a_thousand_did(ap):
    change_routes(ap, 1000, 1)
    ap.wait_only_vyr()
    before = descriptors(ap.daemon.pid), resident_kib(ap.daemon.pid)
    for base in range(1001, 10001, 1000):
        change_routes(ap, 1000, base)
    wait_for(lambda: descriptors(ap.daemon.pid) == before[0],
             lambda: f"{before[0]} descriptors, not {descriptors(ap.daemon.pid)}")
    sanitized = "libasan" in Path(f"/proc/{ap.daemon.pid}/maps").read_text()
    if not sanitized:  # a sanitizer keeps what is freed, and looks for leaks itself
        assert resident_kib(ap.daemon.pid) <= before[1] + 64
