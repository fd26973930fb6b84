"""What is checked while the load pauses, beside the state: exports, events, and the tables' limits."""

import random

from stand_in import EventPeer

from application_keys import tunnel_fields, tunnel_key
from lab import EXPORT_FILE, LIMIT_CHANNEL, route_key
from messages import SUCCESS, decode, decode_limit_event
from wait import wait_for

_SURPLUS_ROUTES, _SURPLUS_TUNNELS = 300, 201


def check_event(access_point):
    """An event is published once, with its values."""
    heard = access_point.subscribe(LIMIT_CHANNEL)
    values = (1, random.randrange(1 << 31), 512)
    peer = EventPeer()
    peer.report(*values)
    peer.close()
    seen = decode_limit_event(heard.wait())[3:]
    return [] if seen == values and not heard.all_until_now() else [f"event: {seen} is published for {values}"]


def check_export(access_point):
    """The exported table has the kernel's routes."""
    EXPORT_FILE.unlink(missing_ok=True)
    access_point.ask_export(0)
    answer = wait_for(_answer, "the export's file is there", 20)
    text = answer[3].decode()
    return [f"export: lacks {network}" for network in access_point.routes() if f"{network} " not in text]


def _answer():
    data = EXPORT_FILE.read_bytes() if EXPORT_FILE.exists() else b""
    try:
        answer = decode(data)
    except IndexError:  # not yet whole
        return None
    return answer if answer.get(2) == SUCCESS and 3 in answer else None


def overflow(access_point, server, settle):
    """More next hops, routes and tunnels than there is room for; when they are gone, what stood before stands."""
    extra = [route_key("10.250.0.0/16", f"192.168.10.{n}") for n in range(2, 9)]
    extra += [route_key(f"172.{16 + n // 256}.{n % 256}.0/24", "192.168.20.2") for n in range(_SURPLUS_ROUTES)]
    found = _with_keys(server, extra, lambda keys, key: keys.set(key, 1), lambda: settle("too many routes: "))
    tunnels = [tunnel_key(f"surplus-{n}") for n in range(_SURPLUS_TUNNELS)]
    found += _with_keys(server, tunnels, _set_tunnel, lambda: settle("too many tunnels: "))
    return found + settle("after too many: ")


def _set_tunnel(keys, key):
    name = key.rpartition("/")[2]
    keys.hset(key, mapping=tunnel_fields(name, mapid=5000 + int(name.rpartition("-")[2])))


def _with_keys(server, extra, make, check):
    with server.pipeline() as commands:
        for key in extra:
            make(commands, key)
        commands.execute()
    found = check()
    server.delete(*extra)
    return found
