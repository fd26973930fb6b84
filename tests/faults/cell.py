"""One cell of the matrix, in a sandbox of its own:  lab/sandbox python3 tests/faults/cell.py FAULT DOING

Prints what went wrong, and the end of the logs; nothing, and status 0, if all holds."""

import sys

import faults_application
import faults_files
import faults_redis
import faults_resources
import faults_vyr
from doings import DOINGS

from world import LOG, LOGS, World

LINES = 200  # of the logs, for a cell that failed

FAULTS = [make() for group in (faults_redis, faults_vyr, faults_application, faults_files, faults_resources)
          for make in group.FAULTS]


def strike_at_start(world, fault, doing):
    world.mark = world.ap.log.mark()
    world.ap.application.start()
    if fault.before_start:
        fault.strike(world)
    doing.enter(world)
    if not fault.before_start:
        fault.strike(world)


def strike_while_running(world, fault, doing):
    world.mark = world.ap.log.mark()
    doing.enter(world)
    fault.strike(world)


def one_round(world, fault, doing):
    """The fault, and what is promised about it. Returns whether the daemon goes on."""
    (strike_at_start if doing.starts else strike_while_running)(world, fault, doing)
    doing.leave(world)
    world.strike.disarm()
    fault.meanwhile(world)
    statuses = fault.statuses_in(doing)
    if statuses is None:
        assert world.ap.daemon.running, f"the daemon has ended with {world.ap.daemon.wait()}"
    else:
        ended = world.ap.daemon.wait(30)
        assert ended in statuses, f"the daemon has ended with {ended}, not {statuses}"
    for text in fault.promised(doing):
        world.ap.log.wait(text, world.mark, 15)
    return statuses is None


def run_rounds(world, fault, doing):
    """Returns what the daemon used before, where it is still the same."""
    before = None
    for fault.round in fault.rounds:
        running = world.ap.daemon and world.ap.daemon.running
        if doing.starts:
            assert not running or world.ap.daemon.stop() == 0
        elif not running:
            world.come_up()
            before = world.take_stock()
        same = one_round(world, fault, doing)
    return before if same else None


def run_cell(fault, doing):
    with World(doing.routes, doing.tunnels) as world:
        world.idle_vyr = fault.idle_vyr
        fault.prepare(world)
        world.start_redis()
        world.fill_store()
        before = run_rounds(world, fault, doing)
        fault.end(world)
        if not world.ap.daemon.running:
            world.start_daemon()
            world.ap.wait_ready()
        world.wait_equal()
        world.expect_nothing_left(before)
        status = world.ap.daemon.stop()
        assert status == 0, f"the daemon has ended with {status}"


def main():
    fault = next(fault for fault in FAULTS if fault.name == sys.argv[1])
    doing = next(doing for doing in DOINGS if doing.name == sys.argv[2])()
    try:
        run_cell(fault, doing)
    except Exception:
        for log in (LOG, LOGS / "vyrwrap.err"):
            print(f"--- {log}\n" + "\n".join(log.read_text(errors="replace").splitlines()[-LINES:]))
        print("---", flush=True)
        raise


if __name__ == "__main__":
    main()
