"""The main job on real input: from keys in Redis to routes in a kernel and records at a routing application."""

import demo_application
import demo_events
import demo_routes
from lab import AccessPoint
from story import Story


def main():
    story = Story("vyrwrap in the lab: a real Redis, a real BIRD behind vyr, a kernel's table of its own.")
    with AccessPoint() as ap:
        demo_routes.first_route(story, ap)
        demo_routes.changes(story, ap)
        demo_routes.at_once(story, ap)
        for chapter in demo_application.CHAPTERS:
            chapter(story, ap)
        demo_routes.bad_routes(story, ap)
        for chapter in demo_events.CHAPTERS:
            chapter(story, ap)
        demo_routes.redis_lost(story, ap)
        demo_routes.routing_daemon_killed(story, ap)
    story.end()


main()
