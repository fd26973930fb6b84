"""The daemon under the user that the operating guide has for it: everything works, and it may do nothing that it does not
do."""

import fnmatch
import hashlib
import os
import re
from pathlib import Path

import pytest
import redis
from stand_in import EventPeer

from application_keys import tunnel_key
from lab import EXPORT_FILE, LEVEL_KEY, LIMIT_CHANNEL, ROOT, VYR_LEVEL_KEY, AccessPoint, wait_for

GUIDE = ROOT / "docs" / "operating.md"
PASSWORD = "taken from the file"
AUTH_FILE = Path("/run/lab/auth")
USERS = Path("/run/lab/users.acl")
PORT = 6400


class Guarded(AccessPoint):
    """The test asks over TCP: on the Unix socket there is only the daemon."""

    @property
    def redis(self):
        return redis.Redis(port=PORT)


def guides_rules():
    """Of the guide's line for Redis's file of users."""
    (line,) = re.findall(r"^user vyrwrap .*$", GUIDE.read_text(), re.MULTILINE)
    return line.split()


def of_kind(mark):
    return {rule.removeprefix(mark) for rule in guides_rules() if rule.startswith(mark)}


@pytest.fixture(name="guarded")
def fixture_guarded():
    with Guarded(start=False) as ap:
        password = "#" + hashlib.sha256(PASSWORD.encode()).hexdigest()
        user = " ".join(password if rule == ">CHANGE-ME" else rule for rule in guides_rules())
        assert password in user
        USERS.write_text(f"user default on nopass ~* &* +@all\n{user}\n")
        AUTH_FILE.write_text(f"user vyrwrap\npassword {PASSWORD}\n")
        AUTH_FILE.chmod(0o600)
        ap.start_redis("--aclfile", str(USERS), "--port", str(PORT))
        yield ap


class Monitor:
    """What the daemon asks Redis. Redis shows neither logins nor CONFIG."""

    def __init__(self, server):
        self._server = server
        self._monitor = server.monitor().__enter__()

    def until_now(self):
        end = os.urandom(8).hex()
        self._server.echo(end)
        commands = []
        while True:
            command = self._monitor.next_command()
            if end in command["command"]:
                return commands
            if command["client_type"] == "unix":
                commands.append(command["command"].split(" "))


def everything(ap):
    """Whatever the daemon does for a key, an event or a request."""
    ap.redis.set(LEVEL_KEY, "debug")
    ap.set_route("10.5.0.0/16", "192.168.10.2")
    ap.start_daemon(DAL_AUTH_FILE=str(AUTH_FILE))
    ap.wait_ready()
    ap.application.start()
    ap.application.follow_all()
    for n in range(3):
        ap.set_route(f"10.{n}.0.0/16", "192.168.10.2")
    ap.redis.rename("/op/staticroute/{10.1.0.0:255.255.0.0:1:192.168.10.2}",
                    "/op/staticroute/{10.3.0.0:255.255.0.0:1:192.168.10.2}")
    ap.run_timer_at_once()
    ap.wait_route("10.3.0.0/16", ["192.168.10.2"], 1)
    mark = ap.application.mark()
    ap.set_tunnel("t1")
    ap.redis.rename(tunnel_key("t1"), tunnel_key("t2"))
    ap.set_cluster("c1")
    ap.set_vlan(7)
    ap.application.wait("vlan", mark)
    ap.set_overlay(1)
    ap.set_redistributed(10, 20)
    ap.redis.set(VYR_LEVEL_KEY, "info")
    ap.application.follow_all()
    EXPORT_FILE.unlink(missing_ok=True)
    ap.ask_export(0)
    wait_for(lambda: EXPORT_FILE.exists() and EXPORT_FILE.stat().st_size, "the export is there")
    heard = ap.subscribe(LIMIT_CHANNEL)
    peer = EventPeer()
    peer.report(1, 4000, 4096)
    assert heard.wait()
    peer.close()


def lose_and_find_again(ap):
    mark = ap.log.mark()
    ap.redis.execute_command("CLIENT", "KILL", "USER", "vyrwrap")
    ap.log.wait("answers again", mark, 20)
    ap.wait_ready()
    ap.set_route("10.9.0.0/16", "192.168.10.2")
    ap.wait_static_file("10.9.0.0/16")


def names(commands):
    """As rules name them. Logging in takes no permission."""
    return {"|".join(words[:2] if words[0] in ("CLIENT", "CONFIG") else words[:1]).lower()
            for words in commands} - {"auth"}


def test_the_guides_user_is_enough_and_no_more(guarded):
    monitor = Monitor(guarded.redis)
    everything(guarded)
    lose_and_find_again(guarded)
    shown = {rule for rule in of_kind("+") if not rule.startswith("config|")}
    commands = []
    wait_for(lambda: commands.extend(monitor.until_now()) or shown <= names(commands),
             lambda: f"the daemon uses all of {shown}; it has used {names(commands)}", 20)
    assert guarded.redis.execute_command("ACL", "LOG") == []
    assert guarded.log.find("NOPERM") is None and PASSWORD not in "".join(guarded.log.lines())
    assert {client["user"] for client in guarded.redis.client_list() if client["addr"].startswith("/run")} == {"vyrwrap"}

    assert shown == names(commands)
    assert of_kind("+") - shown == {"config|get", "config|set"}
    assert guarded.redis.config_get("notify-keyspace-events") != {"notify-keyspace-events": ""}

    subscribed = {pattern for words in commands if words[0] in ("PSUBSCRIBE", "SUBSCRIBE") for pattern in words[1:]}
    published = {words[1] for words in commands if words[0] == "PUBLISH"}
    assert of_kind("&") == subscribed | published
    keys = {word for words in commands if words[0] in ("GET", "HGET", "HGETALL", "EXISTS", "MGET", "TYPE")
            for word in words[1:] if word.startswith("/")}
    for pattern in of_kind("~"):
        assert fnmatch.filter(keys, pattern), f"{pattern}: none of {keys}"


def test_a_password_that_is_wrong_is_one_line_and_right_without_a_restart(guarded):
    AUTH_FILE.write_text("user vyrwrap\npassword wrong\n")
    guarded.start_daemon(DAL_AUTH_FILE=str(AUTH_FILE))
    refused = f"DAL_AUTH_FILE {AUTH_FILE}: the server refuses this user and password (WRONGPASS)"
    guarded.log.wait(refused)
    wait_for(lambda: len(guarded.redis.execute_command("ACL", "LOG")) > 0
             and guarded.redis.execute_command("ACL", "LOG")[0][1] >= 3, "it has tried again", 30)
    assert len([line for line in guarded.log.lines() if "refuses" in line]) == 1
    AUTH_FILE.write_text(f"user vyrwrap\npassword {PASSWORD}\n")
    guarded.log.wait("answers again", seconds=30)
    guarded.set_route("10.1.0.0/16", "192.168.10.2")
    guarded.wait_static_file("10.1.0.0/16")
