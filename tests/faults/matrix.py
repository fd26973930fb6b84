"""The matrix of faults: what fails x what the daemon is doing, each cell in a sandbox of its own.

    tests/faults/matrix.py [FAULT|DOING...]    all, or the rows and columns named

PARALLEL cells run side by side (4). BINARIES names the folder of the programs (build/bin). Status 0: all cells hold.
"""

import os
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent.parent
MODULES = [str(folder) for folder in (ROOT / "lab", ROOT / "tests" / "system", ROOT / "tests" / "reliability", HERE)]
sys.path[:0] = MODULES

BINARIES = Path(os.environ.get("BINARIES", ROOT / "build" / "bin")).resolve()
PARALLEL = int(os.environ.get("PARALLEL", "4"))
REPORTS = BINARIES.parent / "faults"
LONGEST = 1500  # seconds of one cell, which may try 60 signals

os.environ["LAB_BINARIES"] = str(BINARIES)

from cell import FAULTS
from doings import DOINGS


def sanitized():
    return b"libasan" in (BINARIES / "vyrwrap").read_bytes()


def senseless(fault, doing):
    """Why a cell makes no sense; None where it does."""
    if sanitized() and fault.name in ("no-memory",):
        return "a sanitizer's own memory cannot be limited"
    return fault.nonsense.get(doing.name)


def run_cell(fault, doing):
    """What went wrong, in one line; empty if all held. The whole story goes to a file of its own."""
    environment = {**os.environ, "PYTHONPATH": ":".join(MODULES)}
    command = [ROOT / "lab" / "sandbox", sys.executable, "-B", HERE / "cell.py", fault.name, doing.name]
    try:
        done = subprocess.run(command, env=environment, capture_output=True, text=True, timeout=LONGEST, check=False)
    except subprocess.TimeoutExpired:
        return f"not done after {LONGEST} s"
    story = REPORTS / f"{fault.name}.{doing.name}"
    story.unlink(missing_ok=True)
    if done.returncode == 0:
        return ""
    REPORTS.mkdir(exist_ok=True)
    story.write_text(done.stdout + done.stderr)
    return f"{(done.stderr.strip() or 'no word').splitlines()[-1]} ({story})"


def choose(all_of_them, names):
    chosen = [each for each in all_of_them if each.name in names]
    return chosen or list(all_of_them)


def main():
    names = set(sys.argv[1:])
    unknown = names - {each.name for each in [*FAULTS, *DOINGS]}
    if unknown:
        sys.exit(f"no such row or column: {', '.join(sorted(unknown))}; there are "
                 f"{', '.join(each.name for each in [*FAULTS, *DOINGS])}")
    rows, columns = choose(FAULTS, names), choose(DOINGS, names)
    began = time.monotonic()
    with ThreadPoolExecutor(PARALLEL) as pool:
        cells = {(row, column): pool.submit(tell_cell, row, column)
                 for row in rows for column in columns if not senseless(row, column)}
        results = {place: cell.result() for place, cell in cells.items()}
    print_matrix(rows, columns, results)
    failed = [result for result in results.values() if result]
    print(f"\n{len(results) - len(failed)} of {len(results)} cells hold, in {time.monotonic() - began:.0f} s.")
    return 1 if failed else 0


def tell_cell(fault, doing):
    began = time.monotonic()
    result = run_cell(fault, doing)
    print(f"{time.monotonic() - began:6.1f} s  {fault.title} / {doing.title}: {result or 'holds'}", file=sys.stderr, flush=True)
    return result


def print_matrix(rows, columns, results):
    width = max(len(row.title) for row in rows)
    for number, column in enumerate(columns, 1):
        print(f"{'':{width}}  {number}: {column.title}")
    print(f"{'':{width}}  " + "".join(f"{number:^7}" for number in range(1, len(columns) + 1)))
    legend = {}
    for row in rows:
        marks = ""
        for column in columns:
            reason = senseless(row, column)
            marks += f"{'-' if reason else 'FAILED' if results[row, column] else 'holds':^7}"
            if reason:
                legend.setdefault(f"{row.title}: {reason}", None)
        print(f"{row.title:{width}}  {marks}".rstrip())
    for line in legend:
        print(f"-  {line}")
    for (row, column), result in results.items():
        if result:
            print(f"\n{row.title} / {column.title}: {result}")


if __name__ == "__main__":
    sys.exit(main())
