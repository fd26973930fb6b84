"""The log levels: the routing daemon's, and the daemon's own."""

from pathlib import Path

import pytest

from lab import LEVEL_KEY, LOG_CONFIG_FILE, VYR_LEVEL_KEY, wait_for

NETWORK_LINE = ('log "/var/log/korvalog/NETWORK.log" 40960 "/var/log/korvalog/NETWORK.log.1" '
                "{%s error, auth, fatal, bug  };\n")
OWN_LINE = ('log "/var/log/korvalog/vyr.log" 81920 "/var/log/korvalog/vyr.log.1" '
            "{ debug, trace, info, remote, warning, error, auth, fatal, bug };\n")
CATEGORIES = {
    "warn": " warning,",
    "notice": " remote, warning,",
    "info": " info, remote, warning,",
    "debug": " debug, trace, info, remote, warning,",
}
UNKNOWN_WORDS = ["", "WARN", "warning", "warn ", " warn", "warn\n", "7", "debugdebugdebugdebug", "%s%n", "\x00warn",
                 "é"]

DEBUG_FILE = ('log "/var/log/korvalog/vyr.log" 10485760 "/var/log/korvalog/vyr.log.1" '
              "{ debug, trace, info, remote, warning, error, auth, fatal, bug };\n")
NO_DEBUG_FILE = 'log "/var/log/korvalog/NETWORK.log" { warning, error, auth, fatal, bug };\n'


def file_for(word):
    return NETWORK_LINE % CATEGORIES.get(word, "") + OWN_LINE + "\n"


def wait_file(text):
    wait_for(lambda: LOG_CONFIG_FILE.read_text() == text,
             lambda: f"{LOG_CONFIG_FILE} is {text!r}; it is {LOG_CONFIG_FILE.read_text()!r}")


def change_level(ap, word, number):
    mark = ap.log.mark()
    ap.redis.set(LEVEL_KEY, word)
    ap.log.wait(f"syslog fac:network(416), level:{word}({number})", mark)


def levels_of_a_change(ap, metric):
    """The levels of what is logged while a route is taken and an export fails."""
    mark = ap.log.mark()
    ap.set_route("10.1.0.0/16", "192.168.10.2", metric)
    ap.wait_static_file(f"route 10.1.0.0/16 metric {metric} ")
    ap.ask_export(0)
    ap.log.wait("Connect to  server failed", mark)
    return {line.split()[0] for line in ap.log.lines(mark)}


# The routing daemon's level


def test_each_word_writes_its_file(without_vyr):
    ap = without_vyr
    wait_file(file_for("warn"))
    for word in [*CATEGORIES, "warn"]:
        mark = ap.log.mark()
        ap.redis.set(VYR_LEVEL_KEY, word)
        ap.log.wait("<VYRWRAP>: Dirty flag set at vyrwrap_set_vyr_log_level", mark)
        assert LOG_CONFIG_FILE.read_text() == file_for(word)
        assert ap.log.find(f"<VYRWRAP>: vyrwrap_subscribe_logging_cb: 765: VYR Log Level {word}", mark)
        assert LOG_CONFIG_FILE.stat().st_mode & 0o777 == 0o644


def test_a_word_that_is_none_leaves_what_is_always_logged(without_vyr):
    ap = without_vyr
    for word in UNKNOWN_WORDS:
        ap.redis.set(VYR_LEVEL_KEY, "debug")
        wait_file(file_for("debug"))
        ap.redis.set(VYR_LEVEL_KEY, word)
        wait_file(file_for("unknown"))


@pytest.mark.parametrize("word", [*CATEGORIES, "nonsense"])
def test_the_word_at_start_is_taken(surroundings, word):
    surroundings.start_redis()
    surroundings.redis.set(VYR_LEVEL_KEY, word)
    surroundings.start_daemon()
    wait_for(LOG_CONFIG_FILE.exists, "the daemon has written its files")
    wait_file(file_for(word))


@pytest.mark.parametrize("take_away", [lambda redis: redis.delete(VYR_LEVEL_KEY),
                                       lambda redis: redis.pexpire(VYR_LEVEL_KEY, 1),
                                       lambda redis: redis.rename(VYR_LEVEL_KEY, "/elsewhere")],
                         ids=["deleted", "expired", "renamed"])
def test_a_level_whose_key_goes_stays(without_vyr, take_away):
    ap = without_vyr
    ap.redis.set(VYR_LEVEL_KEY, "info")
    wait_file(file_for("info"))
    take_away(ap.redis)
    ap.log.wait("<VYRWRAP>: vyrwrap_subscribe_logging_cb: 761: DAL get Error")
    assert LOG_CONFIG_FILE.read_text() == file_for("info")


def test_a_key_of_another_kind_changes_nothing(without_vyr):
    ap = without_vyr
    ap.redis.hset(VYR_LEVEL_KEY, "level", "debug")
    ap.log.wait("761: DAL get Error")
    assert LOG_CONFIG_FILE.read_text() == file_for("warn")


def test_a_hundred_changes_end_with_the_last(access_point):
    """Of both levels, in one go: many notifications wait at once."""
    words = list(CATEGORIES)
    with access_point.redis.pipeline(transaction=False) as keys:
        for n in range(100):
            keys.set(VYR_LEVEL_KEY, words[n % len(words)])
            keys.set(LEVEL_KEY, ["debug", "err", "info"][n % 3])
        keys.set(VYR_LEVEL_KEY, "notice")
        keys.set(LEVEL_KEY, "warning")
        keys.execute()
    access_point.set_route("10.2.0.0/16", "192.168.10.2")
    access_point.wait_static_file("route 10.2.0.0/16")
    wait_file(file_for("notice"))
    assert levels_of_a_change(access_point, 3) <= {"3", "4"}
    change_level(access_point, "debug", 7)
    assert "7" in levels_of_a_change(access_point, 4)
    assert access_point.daemon.running


def test_a_target_that_cannot_be_replaced_leaves_the_level_pending(without_vyr):
    ap = without_vyr
    LOG_CONFIG_FILE.unlink()
    LOG_CONFIG_FILE.mkdir()
    ap.redis.set(VYR_LEVEL_KEY, "info")
    ap.log.wait("<VYRWRAP>: Failed to open /tmp/vyr_log.conf - Is a directory")
    LOG_CONFIG_FILE.rmdir()
    ap.redis.set(VYR_LEVEL_KEY, "info")
    wait_for(LOG_CONFIG_FILE.exists, "the file is back")
    wait_file(file_for("info"))


# The daemon's own level


def test_the_own_level_follows_its_key(access_point):
    ap = access_point
    assert levels_of_a_change(ap, 1) <= {"3", "4"}
    change_level(ap, "debug", 7)
    assert {"3", "6", "7"} <= levels_of_a_change(ap, 2)
    change_level(ap, "info", 6)
    seen = levels_of_a_change(ap, 3)
    assert "6" in seen and "7" not in seen
    change_level(ap, "err", 3)
    assert levels_of_a_change(ap, 4) == {"3"}


def test_at_emerg_nothing_is_logged_until_the_level_returns(access_point):
    ap = access_point
    change_level(ap, "emerg", 0)
    mark = ap.log.mark()
    ap.ask_export(0)
    ap.set_route("10.1.0.0/16", "192.168.10.2", 4)
    ap.wait_static_file("route 10.1.0.0/16")
    ap.redis.set(LEVEL_KEY, "debug")
    ap.redis.delete("/op/staticroute/{10.1.0.0:255.255.0.0:1:192.168.10.2}")
    ap.log.wait("Dirty flag set at", mark)
    assert not ap.log.find("Connect to  server failed", mark)


def test_unknown_words_change_nothing(access_point):
    ap = access_point
    change_level(ap, "info", 6)
    for word in ("verbose", "DEBUG", "8", "-1", "debug "):
        change_level(ap, word, -1)
        seen = levels_of_a_change(ap, 2)
        assert "6" in seen and "7" not in seen
    mark = ap.log.mark()
    ap.redis.set(LEVEL_KEY, "")
    ap.log.wait("fac network(416), DAL read log level len 0, return", mark)
    mark = ap.log.mark()
    ap.redis.delete(LEVEL_KEY)
    ap.log.wait("Error reading syslog facility network from DAL", mark)
    seen = levels_of_a_change(ap, 3)
    assert "6" in seen and "7" not in seen


def test_another_facilitys_key_is_not_followed(without_vyr):
    ap = without_vyr
    mark = ap.log.mark()
    ap.redis.set("/op/syslog/facility/system/level", "err")
    assert "7" in levels_of_a_change(ap, 2)
    assert not ap.log.find("facility/system", mark)


@pytest.fixture(name="client_calls")
def fixture_client_calls(access_point):
    """What the routing daemon's client was called with. It does its work all the same."""
    client, calls = Path("/korva/bin/vyrc"), Path("/tmp/vyrc.calls")
    real = client.resolve()
    client.unlink()
    client.write_text(f'#!/bin/sh\necho "$*" >>{calls}\nexec {real} "$@"\n')
    client.chmod(0o755)
    return lambda: calls.read_text().splitlines() if calls.exists() else []


def test_the_routing_daemons_debugging_follows_the_own_level(access_point, client_calls):
    ap = access_point
    ap.run_timer_at_once()
    ap.bird()
    change_level(ap, "debug", 7)
    mark = ap.log.mark()
    ap.run_timer_at_once()
    ap.log.wait("Setting debug logging at timer handler", mark)
    wait_file(DEBUG_FILE)
    wait_for(lambda: "debug all all" in client_calls(), lambda: f"debugging is on; {client_calls()}")
    change_level(ap, "warning", 4)
    ap.run_timer_at_once()
    wait_file(NO_DEBUG_FILE)
    wait_for(lambda: client_calls()[-1] == "debug all off", lambda: f"debugging is off; {client_calls()}")
    ap.redis.set(VYR_LEVEL_KEY, "notice")
    wait_file(file_for("notice"))
    assert ap.daemon.running
