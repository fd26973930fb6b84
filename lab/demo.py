"""The main job on real input: from a key in Redis to a route in a kernel."""

import demo_routes
from lab import AccessPoint
from story import Story


def main():
    story = Story("vyrwrap in the lab: a real Redis, a real BIRD behind vyr, a kernel's table of its own.")
    with AccessPoint() as ap:
        demo_routes.first_route(story, ap)
        demo_routes.changes(story, ap)
        demo_routes.at_once(story, ap)
        demo_routes.bad_routes(story, ap)
        demo_routes.redis_lost(story, ap)
        demo_routes.routing_daemon_killed(story, ap)
    story.end()


main()
