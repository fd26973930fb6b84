"""Waiting for a condition, with a deadline."""

import time


class Timeout(AssertionError):
    """What was waited for did not come."""


def wait_for(condition, what, seconds=10.0, every=0.01):
    """Calls `condition` until its result is true, and returns that. `what`, a text or a function that
    gives one, says in an error what did not come."""
    deadline = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > deadline:
            raise Timeout(f"not within {seconds:g} s: {what() if callable(what) else what}")
        time.sleep(every)
