"""A thousand random keys under /op/staticroute/: the daemon lives on, and its file is what a model of the table says."""

import random
import re

import pytest
from route_model import RouteModel

from lab import LOG, STATIC_FILE, route_key, wait_for

FOLDER = b"/op/staticroute/"
LAST = route_key("172.16.0.0/12", "192.168.10.2").encode()


def wait_model(model):
    def held():
        return STATIC_FILE.read_bytes() if STATIC_FILE.exists() else b""
    wait_for(lambda: held() == model.file(), lambda: f"the file is\n{model.file()!r}\nit is\n{held()!r}", 15)


def valid_key(dice):
    mask = dice.choice(["255.0.0.0", "255.255.0.0", "255.255.255.0", "255.255.255.255", "255.0.255.0"])
    hop = dice.choice(["1:192.168.10.%d", "2:map-%d", "3:c%d", "4:%d-192.168.10.9", "7:x%d"]) % dice.randrange(1, 8)
    return f"{{10.{dice.randrange(3)}.{dice.randrange(3)}.{dice.randrange(3)}:{mask}:{hop}}}".encode()


def damaged(dice, key):
    """The key with up to three bytes removed, replaced or inserted."""
    text = bytearray(key)
    for _ in range(dice.randrange(1, 4)):
        at = dice.randrange(len(text) + 1)
        text[at:at + dice.randrange(2)] = dice.choice([b"", dice.randbytes(1), dice.choice([b":", b"{", b"}", b"-", b'"'])])
    return bytes(text)


def random_text(dice):
    form = dice.randrange(5)
    if form == 0:
        return dice.randbytes(dice.randrange(300))
    if form == 1:
        return bytes(dice.choice(b"{}:./-0123456789 \n\"") for _ in range(dice.randrange(60)))
    if form == 2:
        return b"{10.9.0.0:255.255.0.0:2:" + dice.randbytes(dice.randrange(250)).replace(b"}", b"") + b"}"
    return damaged(dice, valid_key(dice))


def random_keys(count, seed):
    dice = random.Random(seed)
    keys = {}
    while len(keys) < count:
        text = valid_key(dice) if dice.randrange(4) == 0 else random_text(dice)
        keys[FOLDER + text] = dice.choice([b"", b"0", b"5", b"12", b"123456", b"-1", b" 7", b"x", dice.randbytes(6)])
    return keys


def assert_whole_lines():
    """One message is one line, whatever the keys held."""
    lines = LOG.read_bytes().split(b"\n")
    assert lines.pop() == b""
    assert len(lines) > 500
    assert not [line for line in lines if not re.fullmatch(rb"[0-7] 416 (0|3998\d\d) <[^\x00-\x1f\x7f]*", line)]


def delete(ap, model, keys):
    """Ends with a key that is set: the last deletion alone leaves its route in the file for once more."""
    for key in keys:
        model.key_deleted(key)
    model.key_set(LAST, b"3")
    ap.redis.delete(*keys)
    ap.redis.set(LAST, 3)
    wait_model(model)


@pytest.mark.parametrize("seed", [1, 2, 3])
def test_changes_of_random_keys(access_point, seed):
    ap = access_point
    model = RouteModel()
    keys = random_keys(1000, seed)
    with ap.redis.pipeline() as commands:
        for key, value in keys.items():
            commands.set(key, value)
            model.key_set(key, value)
        commands.execute()
    wait_model(model)
    assert model.file().count(b"  route ") > 50
    some = random.Random(seed).sample(sorted(keys), 400)
    delete(ap, model, some)
    delete(ap, model, sorted(keys.keys() - set(some)))
    assert_whole_lines()
    assert ap.daemon.stop() == 0


def test_a_scan_of_random_keys(surroundings):
    surroundings.start_redis()
    model = RouteModel()
    keys = random_keys(1000, 4)
    for key, value in keys.items():
        surroundings.redis.set(key, value)
    for key in sorted(key for key in keys if b"\0" not in key):
        model.key_scanned(key, keys[key].split(b"\0")[0])
    surroundings.start_daemon()
    wait_model(model)
    assert surroundings.daemon.stop() == 0
