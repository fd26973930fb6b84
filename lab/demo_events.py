"""The demo's chapters on the routing daemon's sockets and on the log levels."""

from lab import EXPORT_CHANNEL, EXPORT_FILE, LEVEL_KEY, LIMIT_CHANNEL, LOG_CONFIG_FILE
from messages import decode, decode_limit_event
from network import add_foreign_routes, remove_foreign_routes
from wait import wait_for

MANY_ROUTES = 600
LINES_SHOWN = 4


def _export(story, ap):
    EXPORT_FILE.unlink(missing_ok=True)
    story.note(f"PUBLISH {EXPORT_CHANNEL} \"\\x00\\x00\\x00\\x00\"  (type 0: the route table)")
    ap.ask_export(0)
    return story.step(f"{EXPORT_FILE} is there, mode 0600", _exported)


def _exported():
    wait_for(lambda: EXPORT_FILE.exists() and b"10.1.0.0/16" in EXPORT_FILE.read_bytes(), "the export is there")
    assert EXPORT_FILE.stat().st_mode & 0o777 == 0o600, "its mode is another"
    return decode(EXPORT_FILE.read_bytes())[3].decode().splitlines()


def _set_level(story, ap, word, number):
    mark = ap.log.mark()
    story.note(f"SET {LEVEL_KEY} {word}")
    ap.redis.set(LEVEL_KEY, word)
    story.note(story.step("vyrwrap's log says:", lambda: ap.log.wait(f"level:{word}({number})", mark)))


def export(story, ap):
    story.chapter("The route table is asked for over the DAL")
    lines = _export(story, ap)
    for line in lines[:LINES_SHOWN]:
        story.note(line)
    story.note(f"... {len(lines)} lines in all, as BIRD holds them")


def route_limit(story, ap):
    """Debugging is switched on before, so that the routing daemon follows while BIRD learns the routes."""
    story.chapter("vyrwrap's own log level follows its key; the routing daemon's debugging follows vyrwrap")
    start = ap.log.mark()
    _set_level(story, ap, "debug", 7)
    mark = ap.log.mark()
    _export(story, ap)
    story.note(story.step("now the details are logged:", lambda: ap.log.wait("MRT data exported to", mark)))

    story.chapter("More routes than the limit of 512")
    heard = ap.subscribe(LIMIT_CHANNEL)
    story.note(f"{MANY_ROUTES} routes come into the kernel; SUBSCRIBE {LIMIT_CHANNEL}")
    add_foreign_routes(MANY_ROUTES)
    event = story.step("the subscriber hears an event; decoded:", lambda: _limit_event(heard))
    story.note(f"id {event.event_id}, with payload {event.has_payload}, event {event.event}: "
               f"{event.route_count} routes, {event.max_routes} allowed")
    story.step("BIRD logs its details too, on vyrwrap's next timer run",
               lambda: ap.log.wait("Setting debug logging at timer handler", start))
    remove_foreign_routes()

    story.chapter("... and back")
    _set_level(story, ap, "warning", 4)
    mark = ap.log.mark()
    _export(story, ap)
    story.step("the details are no longer logged", lambda: _quiet(ap.log.lines(mark)))
    story.step(f"{LOG_CONFIG_FILE} is a quiet one again, on the next timer run",
               lambda: wait_for(lambda: "debug" not in LOG_CONFIG_FILE.read_text(), "it has no debug"))


def _limit_event(heard):
    event = decode_limit_event(heard.wait(20))
    assert event[:2] == (116, 1) and event.route_count > event.max_routes == 512, event
    return event


def _quiet(lines):
    assert not [line for line in lines if line.startswith(("6 ", "7 "))], lines


CHAPTERS = [export, route_limit]
