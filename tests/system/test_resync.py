"""Changes that Redis tells nobody of: the routes and the application's records follow all the same."""

import pytest
from link_records import tunnel, vlan

from lab import LEVEL_KEY, STATIC_FILE, AccessPoint, route_key, wait_for

GATEWAY = "192.168.10.2"
PREFIXES = [f"10.1.{n}.0/24" for n in range(20)]
COMPARED_SECONDS = 80  # once a minute
AGREED_SECONDS = 20  # that everything is gone is looked at again after 10 s
BACK_SECONDS = 20


@pytest.fixture(name="ap")
def fixture_ap():
    with AccessPoint(start=False) as ap:
        ap.start_redis()
        ap.redis.set(LEVEL_KEY, "info")
        for n, prefix in enumerate(PREFIXES):
            ap.set_route(prefix, GATEWAY, n + 1)
        ap.start_daemon()
        ap.wait_ready()
        wait_metrics(ap, {prefix: n + 1 for n, prefix in enumerate(PREFIXES)})
        yield ap
        assert ap.daemon.stop() == 0


def wait_metrics(ap, wanted, seconds=10):
    """Waits until the file holds these routes, with these metrics, and no others."""
    lines = sorted(f"  route {prefix} metric {metric} via {GATEWAY} {{" for prefix, metric in wanted.items())

    def held():
        return sorted(line for line in ap.static_file().splitlines() if line.startswith("  route "))

    wait_for(lambda: held() == lines, lambda: f"{STATIC_FILE} holds {lines}; it holds {held()}", seconds)


def change_behind_its_back(ap, metrics):
    """Changes, deletes and adds routes while no notification is sent. Gives the metrics that hold then."""
    with ap.redis.pipeline() as keys:
        keys.config_set("notify-keyspace-events", "")
        keys.set(route_key(PREFIXES[0], GATEWAY), 100)
        keys.delete(route_key(PREFIXES[1], GATEWAY))
        keys.set(route_key("10.9.0.0/16", GATEWAY), 9)
        keys.execute()
    metrics = {**metrics, PREFIXES[0]: 100, "10.9.0.0/16": 9}
    del metrics[PREFIXES[1]]
    return metrics


def wait_gone(ap, prefixes, seconds):
    """Waits until these routes have no next hop any more. The last one goes with the next writing of the file."""
    def held():
        return [line for line in ap.static_file().splitlines() for prefix in prefixes
                if line.startswith(f"  route {prefix} ") and line.endswith(f"via {GATEWAY} {{")]

    wait_for(lambda: not held(), lambda: f"{STATIC_FILE} no longer holds {held()}", seconds)


def numbered():
    return {prefix: n + 1 for n, prefix in enumerate(PREFIXES)}


def test_flags_switched_off_under_the_daemon(ap):
    wanted = change_behind_its_back(ap, numbered())
    wait_gone(ap, PREFIXES[1:2], COMPARED_SECONDS)
    ap.set_route("10.10.0.0/16", GATEWAY, 10)
    wait_metrics(ap, {**wanted, "10.10.0.0/16": 10})


def test_keys_changed_and_deleted_while_disconnected(ap):
    mark = ap.log.mark()
    ap.redis.execute_command("CLIENT", "KILL", "TYPE", "pubsub")
    wanted = change_behind_its_back(ap, numbered())
    ap.log.wait("answers again", mark, BACK_SECONDS)
    wait_metrics(ap, wanted)


def test_flushall(ap):
    ap.redis.flushall()
    wait_gone(ap, PREFIXES, AGREED_SECONDS)
    ap.set_route("10.10.0.0/16", GATEWAY, 10)
    wait_metrics(ap, {"10.10.0.0/16": 10})


def test_restart_with_other_data(ap):
    mark = ap.log.mark()
    ap.redis_server.kill()
    ap.start_redis()
    wanted = {PREFIXES[3]: 33, "10.9.0.0/16": 9}
    for prefix, metric in wanted.items():
        ap.set_route(prefix, GATEWAY, metric)
    ap.log.wait("answers again", mark, BACK_SECONDS)
    wait_metrics(ap, wanted)


def test_an_empty_store_that_is_filled_again_withdraws_nothing(ap):
    mark = ap.log.mark()
    ap.redis_server.kill()
    ap.start_redis()
    ap.log.wait("answers again", mark, BACK_SECONDS)
    ap.log.wait("looking again before that is delivered", mark, BACK_SECONDS)
    wait_metrics(ap, numbered())
    for n, prefix in enumerate(PREFIXES):
        ap.set_route(prefix, GATEWAY, n + 1)
    ap.set_route("10.10.0.0/16", GATEWAY, 10)
    wait_metrics(ap, {**numbered(), "10.10.0.0/16": 10})


def test_the_application_is_told_of_what_was_missed(link):
    for n in (1, 2):
        link.set_tunnel(f"t{n}", mapid=n)
        link.set_vlan(10 + n)
    link.application.wait(vlan(4, 12))
    link.application.wait(tunnel(1, "t2", mapid=2))
    since, mark = link.application.mark(), link.log.mark()
    link.redis.execute_command("CLIENT", "KILL", "TYPE", "pubsub")
    link.redis.config_set("notify-keyspace-events", "")
    link.change_tunnel("t1", tunnel_status=1)
    link.delete_tunnel("t2")
    link.delete_vlan(11)
    link.set_vlan(13)
    link.log.wait("answers again", mark, BACK_SECONDS)
    for line in (tunnel(4, "t1", mapid=1, tunnel_status=1), tunnel(2, "t2", mapid=2), vlan(5, 11), vlan(4, 13)):
        link.application.wait(line, since)
