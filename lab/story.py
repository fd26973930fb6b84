"""Telling what happens, line by line, with the time that each step took."""

import sys
import time


class Story:
    def __init__(self, title):
        self._begin = self._last = time.monotonic()
        print(title, flush=True)

    def chapter(self, title):
        print(f"\n{title}", flush=True)
        self._last = time.monotonic()

    def note(self, text):
        """Something that was done; the next step's time counts from here."""
        print(f"             {text}", flush=True)
        self._last = time.monotonic()

    def step(self, text, check):
        """Runs the check, which waits for what the text says and raises when it does not come."""
        try:
            result = check()
        except AssertionError as failure:
            print(f"  FAILED     {text}\n             {failure}", flush=True)
            sys.exit(1)
        now = time.monotonic()
        print(f"  {now - self._last:7.3f} s  {text}", flush=True)
        self._last = now
        return result

    def end(self):
        print(f"\nEverything was as it should be, in {time.monotonic() - self._begin:.0f} s.", flush=True)
