"""Many strikes of one kind against one access point, with writes going on:
lab/sandbox python3 tests/faults/figure.py KIND COUNT SEED

Prints what it counted, as JSON."""

import json
import random
import signal
import sys
import time

from figure_watch import Watch, Writer
from store_model import differences, read_store

from lab import STATUS_VYR_ENDED
from wait import Timeout
from world import World

CHECK_EVERY = 25
ROUTES = 60
CHECK_SECONDS = 120  # back within 10 s, subscribed within 5, audited within 60, agreed upon 10 later, reloaded within 10


class Figure:
    """`strike` returns how many strikes it made."""

    def __init__(self, world, dice):
        self.world = world
        self.dice = dice

    def strike(self):
        raise NotImplementedError


class RedisKills(Figure):
    """SIGKILL; it is there again at once or up to 3 s later, with all that it had acknowledged."""

    def strike(self):
        self.world.ap.redis_server.kill()
        time.sleep(self.dice.choice([0, self.dice.uniform(0, 0.3), self.dice.uniform(0, 3)]))
        self.world.start_redis()
        time.sleep(self.dice.choice([self.dice.uniform(0, 0.2), self.dice.uniform(0, 3)]))
        return 1


class ClientKills(Figure):
    """All connections of the daemon, or those of one kind. Counts what cut at least one."""

    def strike(self):
        cut = 0
        redis = self.world.ap.redis
        for kind in self.dice.choice([("normal",), ("pubsub",), ("normal", "pubsub")]):
            for client in redis.client_list(_type=kind):
                if client["name"] != Writer.NAME and client["cmd"] != "client|list":
                    cut += redis.client_kill_filter(_id=client["id"])
        time.sleep(self.dice.choice([self.dice.uniform(0, 0.1), self.dice.uniform(0, 2)]))
        return int(cut > 0)


class Stops(Figure):
    """SIGSTOP for 1 to 10 s."""

    def strike(self):
        self.world.ap.redis_server.signal(signal.SIGSTOP)
        time.sleep(self.dice.uniform(1, 10))
        self.world.ap.redis_server.signal(signal.SIGCONT)
        time.sleep(self.dice.uniform(0, 3))
        return 1


class Deaths(Figure):
    """Of the routing daemon, by a signal. The daemon follows within its timer's 5 s, and is started again."""

    def strike(self):
        world = self.world
        number = self.dice.choice([signal.SIGKILL, signal.SIGKILL, signal.SIGSEGV, signal.SIGABRT, signal.SIGBUS])
        world.signal_vyr(number)
        status = world.ap.daemon.wait(20)
        # the end of a reload's command behind that of vyr may have had the signal forgotten
        assert status in (number, STATUS_VYR_ENDED), f"the daemon has ended with {status}, not {int(number)}"
        world.start_daemon()
        world.ap.wait_ready()
        world.ap.bird()
        time.sleep(self.dice.uniform(0, 1))
        return 1


FIGURES = {"redis-kills": RedisKills, "client-kills": ClientKills, "stops": Stops, "deaths": Deaths}


def check(world, counts):
    """Compares all with the store, once it has had the time. Counts the routes that are not as they should be."""
    deadline = time.monotonic() + CHECK_SECONDS
    while True:
        store = read_store(world.ap.redis)
        try:
            world.follow()
            found = differences(world.ap, store)
        except Timeout as late:
            found = [str(late)]
        if not found or time.monotonic() > deadline:
            break
        time.sleep(0.5)
    counts["checks"] += 1
    counts["routes"] += sum(key.startswith(b"/op/staticroute/") for key in store)
    counts["records"] += sum(key.startswith((b"/op/tunnel/", b"/op/vlans/route{", b"/op/clusters/")) for key in store)
    counts["lost"] += len(found)
    counts["differences"] += found[:5]


def run(kind, count, seed):
    counts = {"strikes": 0, "checks": 0, "routes": 0, "records": 0, "writes": 0, "lost": 0, "differences": []}
    with World(ROUTES) as world, Watch(world) as watch:
        world.start_redis()
        world.fill_store()
        world.come_up()
        figure = FIGURES[kind](world, random.Random(seed))
        while counts["strikes"] < count:
            with Writer(seed * 1000 + counts["checks"]) as writer:
                goal = min(counts["strikes"] + CHECK_EVERY, count)
                while counts["strikes"] < goal:
                    counts["strikes"] += figure.strike()
            counts["writes"] += writer.writes
            check(world, counts)
        world.wait_children()
    return {**counts, "second_children": watch.second_children, "zombies": watch.zombies, "samples": watch.samples}


if __name__ == "__main__":
    print(json.dumps(run(sys.argv[1], int(sys.argv[2]), int(sys.argv[3]))))
