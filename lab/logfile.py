"""Reading the daemon's log."""

from pathlib import Path

from wait import wait_for


class LogFile:
    """A log that grows. A mark is a place in it: what was written since then can be asked for."""

    def __init__(self, path):
        self.path = Path(path)

    def mark(self):
        return self.path.stat().st_size if self.path.exists() else 0

    def lines(self, since=0):
        if not self.path.exists():
            return []
        with self.path.open("rb") as log:
            log.seek(since)
            return log.read().decode(errors="replace").splitlines()

    def find(self, text, since=0):
        """The first line with that text, or None."""
        return next((line for line in self.lines(since) if text in line), None)

    def wait(self, text, since=0, seconds=10):
        return wait_for(lambda: self.find(text, since), f"the log {self.path} says {text!r}", seconds)
