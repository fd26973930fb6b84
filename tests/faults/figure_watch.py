"""Who writes while it is struck, and who watches the daemon's children."""

import os
import random
import threading
import time

import redis

from application_keys import cluster_fields, cluster_key, ipv4_node, tunnel_fields, tunnel_key, vlan_key
from lab import REDIS_SOCKET, route_key
from process import _stat
from world import NEXT_HOP

WRITES_PER_SECOND = 100
ZOMBIE_SECONDS = 5  # a handler may wait for an answer, and reaps behind it


class _Thread:
    """Runs `turn` over and over until it is left."""

    pause = 0.01

    def __enter__(self):
        self._over = threading.Event()
        self._thread = threading.Thread(target=self._run)
        self._thread.start()
        return self

    def __exit__(self, *exception):
        self._over.set()
        self._thread.join()

    def _run(self):
        while not self._over.wait(self.pause):
            self.turn()


class Writer(_Thread):
    """Sets and deletes routes, tunnels, VLANs and clusters. What a server that went away has not acknowledged is
    written again."""

    NAME = "writer"
    pause = 1 / WRITES_PER_SECOND

    def __init__(self, seed):
        self._dice = random.Random(seed)
        self._redis = redis.Redis(unix_socket_path=str(REDIS_SOCKET), client_name=self.NAME)
        self.writes = 0

    def turn(self):
        change = self._choose()
        while True:
            try:
                change()
                self.writes += 1
                return
            except redis.RedisError:
                time.sleep(0.01)

    def _choose(self):
        n = self._dice.randrange(100)
        kind = self._dice.randrange(20)
        delete = self._dice.randrange(3) == 0
        if kind == 0:
            key, fields = tunnel_key(f"w{n % 20}"), tunnel_fields(f"w{n % 20}", mapid=2000 + n % 20, link_priority=n)
        elif kind == 1:
            key, fields = cluster_key(f"w{n % 5}"), cluster_fields(nodes=[ipv4_node("192.168.1.3", n)])
        else:
            key, fields = route_key(f"10.100.{n}.0/24", NEXT_HOP), None
        if kind == 2:
            key = vlan_key(1000 + n)
        if delete:
            return lambda: self._redis.delete(key)
        if fields:
            return lambda: self._redis.hset(key, mapping=fields)
        value = "" if kind == 2 else self._dice.randrange(1, 9999)
        return lambda: self._redis.set(key, value)


class Watch(_Thread):
    """Counts the moments with two routing daemons under the daemon or left by it, and children that nobody reaps."""

    pause = 0.05

    def __init__(self, world):
        self._world = world
        self._dead = {}
        self.second_children = self.zombies = self.samples = 0

    def turn(self):
        if not self._world.ap.daemon:
            return
        found = [(int(entry), _stat(entry)) for entry in os.listdir("/proc") if entry.isdigit()]
        parents = (self._world.pid, 1)
        ours = [(pid, stat) for pid, stat in found if stat and stat[2] in parents]
        alive = [pid for pid, (name, state, _) in ours if name == "vyr" and state not in "ZX"]
        dead = [pid for pid, (_, state, parent) in ours if state == "Z" and parent == self._world.pid]
        now = time.monotonic()
        self._dead = {pid: self._dead.get(pid, now) for pid in dead}
        self.samples += 1
        self.second_children += len(alive) > 1
        self.zombies += sum(now - since > ZOMBIE_SECONDS for since in self._dead.values())
