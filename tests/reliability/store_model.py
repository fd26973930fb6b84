"""What must stand while the store holds what it holds: files, the kernel's routes, what a replay tells.

    wait_equal(lab)                      waits, and returns what is still different
    differences(lab, read_store(lab.redis))

It is told from the store's content alone, independently of the daemon's code. What the daemon keeps apart from the
store on purpose is no difference: the VLANs of a redistributed-VLAN key that was deleted, a metric cut to four
characters, a route without next hops until the next write, the old record of a tunnel whose hash is incomplete now,
and the tunnels named in `kept_tunnels` (their hash bore another name than their key: they cannot be removed).
"""

import time

from link_state import cluster_differences, is_refused_whole, replay, tunnel_differences, vlan_differences
from route_state import file_differences, kernel_differences
from settings_state import log_file_differences, overlay_differences

from lab import LOG_CONFIG_FILE, STATIC_FILE
from wait import Timeout

def read_store(redis):
    """{key: bytes, or a dict of fields, or None for other types}"""
    keys = sorted(redis.scan_iter(count=1000))
    with redis.pipeline(transaction=False) as commands:
        for key in keys:
            commands.type(key)
        kinds = commands.execute()
        for key, kind in zip(keys, kinds):
            commands.get(key) if kind == b"string" else commands.hgetall(key) if kind == b"hash" else commands.echo("")
        values = commands.execute()
    return {key: value if kind in (b"string", b"hash") else None
            for key, kind, value in zip(keys, kinds, values) if kind != b"none" and value is not None and value != {}}


def differences(lab, store, kept_tunnels=(), kernel=True, replays=True):
    """Each difference in one line; none when all is as the store says. Without `replays` the application is not asked;
    it has to be running, and the daemon's own log level has to be err or more."""
    routes = STATIC_FILE.read_bytes() if STATIC_FILE.exists() else b""
    log = LOG_CONFIG_FILE.read_text(errors="replace") if LOG_CONFIG_FILE.exists() else ""
    out = file_differences(store, routes) + overlay_differences(store, lab.overlay_file()) + \
        log_file_differences(store, log)
    if kernel and not out:
        out += kernel_differences(routes, lab.routes())
    if replays and not out:
        out += _replay_differences(lab.application, store, kept_tunnels)
    return out


def _replay_differences(application, store, kept_tunnels):
    try:
        return _differences_in_replays(application, store, kept_tunnels)
    except Timeout as late:  # the daemon may not know yet that its log is wanted
        return [f"replay: {late}"]


def _differences_in_replays(application, store, kept_tunnels):
    tunnels = replay(application, "tunnels")
    out = tunnel_differences(store, tunnels, kept_tunnels) + vlan_differences(store, replay(application, "vlans"))
    clusters = replay(application, "clusters")
    return out if is_refused_whole(store, tunnels) else out + cluster_differences(store, clusters, tunnels)


def wait_equal(lab, seconds=40, every=0.2, **options):
    """Waits until there is no difference. Returns those that are left when the time is up."""
    deadline = time.monotonic() + seconds
    while True:
        found = differences(lab, read_store(lab.redis), **options)
        if not found or time.monotonic() > deadline:
            return found
        time.sleep(every)
