"""Redis that goes away, hangs, drops connections, comes back empty or refuses CONFIG."""

import shutil
import signal
import time

from fault import Fault

from lab import REDIS_SOCKET
from world import PERSISTENT

LOST = f"3 416 0 <DAL>: lost the server unix://{REDIS_SOCKET}: "
BACK = f"4 416 0 <DAL>: the server unix://{REDIS_SOCKET} answers again"


def kill_clients(world):
    for kind in ("normal", "pubsub"):
        world.ap.redis.execute_command("CLIENT", "KILL", "TYPE", kind, "SKIPME", "yes")


class RedisKilled(Fault):
    """Comes back with what it had, and changes before the daemon is there again."""
    name, title = "redis-killed", "Redis killed"

    def strike(self, world):
        world.ap.redis_server.kill()

    def meanwhile(self, world):
        time.sleep(3)

    def promised(self, doing):
        return [LOST]

    def end(self, world):
        world.start_redis()
        world.change()


class RedisStopped(Fault):
    name, title = "redis-stopped", "Redis stopped"

    def strike(self, world):
        world.ap.redis_server.signal(signal.SIGSTOP)

    def meanwhile(self, world):
        world.ap.application.process.write("replay vlans")  # something to ask the server
        time.sleep(5)

    def promised(self, doing):
        return [LOST + "no answer"]

    def end(self, world):
        world.ap.redis_server.signal(signal.SIGCONT)
        world.change()


class ClientsKilled(Fault):
    name, title = "clients-killed", "Redis: its client connections killed"

    def strike(self, world):
        kill_clients(world)
        world.change()

    def promised(self, doing):
        return [LOST]

    def end(self, world):
        world.change()


class RestartedEmpty(RedisKilled):
    """Is filled again by others a little later."""
    name, title = "redis-empty", "Redis restarted empty"

    def end(self, world):
        for entry in REDIS_SOCKET.parent.iterdir():
            shutil.rmtree(entry) if entry.is_dir() else entry.unlink()
        world.start_redis()
        world.wait_equal()
        world.fill_store()


class RefusingConfig(Fault):
    """Its owner has set the notifications up; the daemon may not look."""
    name, title, before_start = "no-config", "Redis refusing CONFIG", True

    def prepare(self, world):
        world.redis_options = (*PERSISTENT, "--notify-keyspace-events", "KA")

    def strike(self, world):
        world.ap.redis.execute_command("ACL", "SETUSER", "default", "-config")
        kill_clients(world)  # they are asked for at each connection

    def meanwhile(self, world):
        world.change()

    def promised(self, doing):
        return ["4 416 0 <DAL>: may not look after notify-keyspace-events, which has to contain Kg$hxe: NOPERM"]

    def end(self, world):
        world.ap.redis.execute_command("ACL", "SETUSER", "default", "+config")


FAULTS = [RedisKilled, RedisStopped, ClientsKilled, RestartedEmpty, RefusingConfig]
