#!/usr/bin/python3
"""Copies from what the fuzzing learnt, to tests/fuzz/corpus, those inputs that reach code that nothing there reaches."""

import os
import subprocess
import sys

import doors


def merge(door: str) -> None:
    """Merges one door's inputs, in a sandbox."""
    kept = doors.CORPUS / door
    learnt = doors.BUILD / "corpus" / door
    before = len(list(kept.iterdir()))
    subprocess.run(
        [str(doors.SANDBOX), str(doors.BUILD / "bin" / f"fuzz_{door}"), "-merge=1", "-use_counters=0",
         str(kept), str(learnt)],
        env=dict(os.environ, SANDBOX_WRITABLE=str(doors.CORPUS)),
        stderr=subprocess.DEVNULL, check=True)
    files = list(kept.iterdir())
    size = sum(path.stat().st_size for path in files)
    print(f"{door:<22}{len(files) - before:>6} new{len(files):>8} files{size:>10} bytes", flush=True)


def main() -> int:
    """Merges the inputs of every door that has learnt any."""
    for door in sorted(doors.LONGEST):
        if (doors.BUILD / "corpus" / door).is_dir():
            merge(door)
    return 0


if __name__ == "__main__":
    sys.exit(main())
