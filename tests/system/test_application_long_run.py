"""Many thousands of notifications leave nothing behind."""

import random

from link_records import Told

from application_keys import (OVERLAY_KEY, REDISTRIBUTED_KEY, cluster_fields, cluster_key, ipv4_node, tunnel_fields,
                              tunnel_key, vlan_key)
from process import descriptors, resident_kib

# A freed block is to be used again at once, also where the program is built to find uses after it was freed.
NO_QUARANTINE = "quarantine_size_mb=0:thread_local_quarantine_size_kb=0"

BATCH = 200  # fits in the application's queue
BATCHES_PER_ROUND = 5
ROUNDS = 20
ROOM_KIB = 128  # the heap's fragments; what 20,000 records lost would take is many times that


def change_something(source, keys):
    n = source.randrange(40)
    tunnel, cluster = tunnel_key(f"t{n}"), cluster_key(f"c{n}")
    fields = tunnel_fields(f"t{n}", mapid=source.randrange(1, 30), tunnel_status=source.randrange(3))
    source.choice([
        lambda: keys.hset(tunnel, mapping=fields),
        lambda: keys.hset(tunnel, mapping=fields),
        lambda: keys.hset(tunnel, mapping={**fields, "mapid": 0}),
        lambda: keys.delete(tunnel),
        lambda: keys.hdel(tunnel, "flags"),
        lambda: keys.set(vlan_key(n), ""),
        lambda: keys.delete(vlan_key(n)),
        lambda: keys.hset(cluster, mapping=cluster_fields(state=n % 2, nodes=[ipv4_node("10.0.0.1")] * (n % 14))),
        lambda: keys.delete(cluster),
        lambda: keys.set(OVERLAY_KEY, bytes([n % 2])),
        lambda: keys.set(REDISTRIBUTED_KEY, "{" + ":".join(map(str, range(n * 10))) + "}"),
    ])()


def play_round(ap, told):
    """A thousand changes, always the same ones, with their replays."""
    source = random.Random(3)
    for _ in range(BATCHES_PER_ROUND):
        with ap.redis.pipeline() as keys:
            for _ in range(BATCH):
                change_something(source, keys)
            keys.execute()
        told()
    for what in ("tunnels", "vlans", "clusters"):
        told.replay(what)


def test_memory_and_descriptors_do_not_grow(surroundings):
    surroundings.start_redis()
    surroundings.start_daemon(ASAN_OPTIONS=NO_QUARANTINE)
    surroundings.wait_ready()
    surroundings.application.start()
    surroundings.application.follow_all()
    told = Told(surroundings)
    used = []
    for _ in range(ROUNDS):
        play_round(surroundings, told)
        used.append((resident_kib(surroundings.daemon.pid), descriptors(surroundings.daemon.pid)))
    assert used[-1][1] == used[0][1], f"descriptors grew: {used}"
    assert used[-1][0] <= used[0][0] + ROOM_KIB, f"memory grew: {used}"
