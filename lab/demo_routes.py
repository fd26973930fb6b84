"""The demo's chapters on static routes."""

import os
import signal
from pathlib import Path

from lab import RELOAD_SECONDS, route_key
from network import kernel_routes
from wait import wait_for


def _set(story, ap, prefix, next_hop, metric, kind=1):
    story.note(f"SET {route_key(prefix, next_hop, kind)} {metric}")
    ap.set_route(prefix, next_hop, metric, kind)


def _written(story, ap, line, present=True):
    story.step(f"/tmp/vyr_static.conf {'holds' if present else 'no longer holds'}: {line}",
               lambda: ap.wait_static_file(line, present))


def _reloaded(story, ap, since):
    story.step("the routing daemon reads its files again, after the quiet period",
               lambda: ap.errors.wait("static routes taken", since, RELOAD_SECONDS))


def _kernel(story, ap, prefix, via, metric, seconds=None, note=""):
    text = " and ".join(via)
    seconds = seconds or RELOAD_SECONDS
    story.step(f"the kernel holds: {prefix} via {text} metric {metric}{note}",
               lambda: ap.wait_route(prefix, via, metric, seconds=seconds))


def first_route(story, ap):
    story.chapter("A key becomes a route")
    story.step("vyrwrap runs and follows the DAL", ap.wait_ready)
    _set(story, ap, "10.1.0.0/16", "192.168.10.2", 5)
    _written(story, ap, "route 10.1.0.0/16 metric 5 via 192.168.10.2")
    story.step("vyrwrap launches the routing daemon, on its timer's second run", ap.bird)
    _kernel(story, ap, "10.1.0.0/16", ["192.168.10.2"], 5)


def changes(story, ap):
    story.chapter("A next hop is added; another route is there")
    since = ap.errors.mark()
    _set(story, ap, "10.2.0.0/16", "192.168.10.2", 7)
    _set(story, ap, "10.1.0.0/16", "192.168.10.3", 5)
    _written(story, ap, "      via 192.168.10.3 {")
    _reloaded(story, ap, since)
    _kernel(story, ap, "10.1.0.0/16", ["192.168.10.2", "192.168.10.3"], 5)
    _kernel(story, ap, "10.2.0.0/16", ["192.168.10.2"], 7)

    story.chapter("A next hop moves to another metric; a route is deleted")
    since = ap.errors.mark()
    _set(story, ap, "10.1.0.0/16", "192.168.10.3", 3)
    _written(story, ap, "route 10.1.0.0/16 metric 3 via 192.168.10.3")
    story.note(f"DEL {route_key('10.2.0.0/16', '192.168.10.2')}")
    ap.delete_route("10.2.0.0/16", "192.168.10.2")
    _written(story, ap, "route 10.2.0.0/16 metric 7 via 192.168.10.2", present=False)
    _reloaded(story, ap, since)
    _kernel(story, ap, "10.1.0.0/16", ["192.168.10.3"], 3, note="  (the lower metric is chosen)")
    story.step("the kernel no longer holds: 10.2.0.0/16", lambda: ap.wait_no_route("10.2.0.0/16"))


def at_once(story, ap):
    story.chapter("A default route does not wait")
    _set(story, ap, "0.0.0.0/0", "192.168.10.254", 1)
    _written(story, ap, "route 0.0.0.0/0 metric 1 via 192.168.10.254")
    _kernel(story, ap, "0.0.0.0/0", ["192.168.10.254"], 1, seconds=3, note="  (no quiet period)")


def bad_routes(story, ap):
    story.chapter("Bad input costs nothing but itself")
    before = ap.static_file()
    mark = ap.log.mark()
    key = "/op/staticroute/{10.3.0.0:255.255.0.0:1:192.168.10.2"
    story.note(f"SET {key} 1")
    ap.redis.set(key, 1)
    line = story.step("refused; the log says why:", lambda: ap.log.wait("Error in Path, no '}' symbol", mark))
    story.note(line)
    story.step("/tmp/vyr_static.conf is as it was", lambda: _require(ap.static_file() == before))

    errors = ap.errors.mark()
    _set(story, ap, "10.5.9.9/16", "192.168.10.2", 4)
    _written(story, ap, "route 10.5.9.9/16 metric 4 via 192.168.10.2")
    _set(story, ap, "10.6.0.0/16", "no-tunnel-of-this-name", 4, kind=2)
    _written(story, ap, 'route 10.6.0.0/16 metric 4 via "no-tunnel-of-this-name"')
    _reloaded(story, ap, errors)
    _kernel(story, ap, "10.5.0.0/16", ["192.168.10.2"], 4, note="  (host bits masked away)")
    story.note(story.step("vyr left the other one out:", lambda: ap.errors.wait("vyr: left out 10.6.0.0/16", errors)))
    story.step("the other routes stand", lambda: _require("10.1.0.0/16" in kernel_routes()))


def redis_lost(story, ap):
    story.chapter("Redis goes away and comes back")
    before = kernel_routes()
    ap.stop_redis()
    story.step("Redis has stopped; the kernel's routes stand", lambda: _require(kernel_routes() == before))
    ap.start_redis()
    story.step("Redis runs again, empty", lambda: _require(ap.redis.dbsize() == 0))
    since = ap.errors.mark()
    _set(story, ap, "10.8.0.0/16", "192.168.10.2", 6)
    story.step("vyrwrap has connected, subscribed and read again: /tmp/vyr_static.conf holds 10.8.0.0/16",
               lambda: ap.wait_static_file("route 10.8.0.0/16 metric 6 via 192.168.10.2", seconds=25))
    _set(story, ap, "10.9.0.0/16", "192.168.10.2", 6)
    _written(story, ap, "route 10.9.0.0/16 metric 6 via 192.168.10.2")
    _reloaded(story, ap, since)
    _kernel(story, ap, "10.8.0.0/16", ["192.168.10.2"], 6)
    _kernel(story, ap, "10.9.0.0/16", ["192.168.10.2"], 6)


def routing_daemon_killed(story, ap):
    story.chapter("The routing daemon dies")
    bird, daemon = ap.bird(), ap.daemon.pid
    ap.wait_only_vyr()
    os.kill(ap.vyr(), signal.SIGABRT)
    story.note("SIGABRT to vyr")
    story.step("BIRD went with it", lambda: wait_for(lambda: not Path(f"/proc/{bird}").exists(), "BIRD has ended"))
    status = story.step("vyrwrap ended on its timer's next run", ap.daemon.wait)
    story.step("its status is the signal's number, 6", lambda: _require(status == signal.SIGABRT, status))
    record = Path(f"/tmp/vyrwrap.{daemon}.chldpid")
    story.step(f"{record} says: 0 vyrwrap", lambda: _require(record.read_text() == "0 vyrwrap\n"))


def _require(condition, seen=None):
    assert condition, f"it is not; seen: {seen!r}"
