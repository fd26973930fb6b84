#!/usr/bin/python3
"""Runs the doors under libFuzzer, each in a sandbox, one after the other, and adds the figures to the record.

What a run learns stays in build/fuzz/corpus for the next one; an input that breaks something goes to tests/fuzz/corpus,
where every test run replays it, and fails this one.
"""

import argparse
import os
import pathlib
import re
import shutil
import subprocess
import sys

import doors

LEARNT = doors.BUILD / "corpus"

# Allocations of an execution are few and young: a short quarantine and no traces of where they were made are enough to
# see a fault, and a fault is run again with all of it.
FAST_CHECKS = "malloc_context_size=0:quarantine_size_mb=1:thread_local_quarantine_size_kb=16"

# Where counting how rare each feature is takes as long as running the daemon's code.
MANY_FEATURES = ("daemon", "redis_reply")


def fuzzer_command(door: str, binary: pathlib.Path, seconds: int, executions: int) -> list[str]:
    """The command that fuzzes one door."""
    options = {
        "max_total_time": seconds,
        "runs": executions,
        "max_len": doors.LONGEST[door],
        "dict": doors.FUZZ / "dictionaries" / f"{door}.dict",
        "artifact_prefix": f"{LEARNT / door}.found/",
        "entropic": 0 if door in MANY_FEATURES else 1,
        "entropic_scale_per_exec_time": 1,
        "print_final_stats": 1,
        "reload": 0,
        "timeout": 60,  # of a machine that does other things too
        "report_slow_units": 60,
        "rss_limit_mb": 1024,
    }
    arguments = [f"-{name}={value}" for name, value in options.items()]
    timed = ["sh", "-c", '"$@"; status=$?; times; exit $status', "fuzz"]
    return [str(doors.SANDBOX), *timed, str(binary), *arguments, str(LEARNT / door), str(doors.CORPUS / door)]


def last_number(pattern: str, text: str) -> int:
    """The last number that the pattern finds, 0 for none."""
    found = re.findall(pattern, text)
    return int(found[-1]) if found else 0


def processor_seconds(output: str) -> int:
    """What the shell's "times" says of its children, in its last line: user and system time."""
    times = re.findall(r"(\d+)m([\d.]+)s", output.splitlines()[-1]) if output else []
    return round(sum(60 * int(minutes) + float(seconds) for minutes, seconds in times))


def keep_found(door: str) -> list[pathlib.Path]:
    """Moves the inputs that broke something to the corpus."""
    found = []
    for path in (LEARNT / f"{door}.found").iterdir():
        kept = doors.CORPUS / door / f"found-{path.name}"
        shutil.move(path, kept)
        found.append(kept)
    return found


def run_door(door: str, binary: pathlib.Path, seconds: int, executions: int) -> doors.Run:
    """Fuzzes one door for a while."""
    for folder in (LEARNT / door, LEARNT / f"{door}.found", doors.CORPUS / door):
        folder.mkdir(parents=True, exist_ok=True)
    environment = dict(os.environ, ASAN_OPTIONS=FAST_CHECKS, SANDBOX_WRITABLE=str(LEARNT))
    result = subprocess.run(
        fuzzer_command(door, binary, seconds, executions),
        env=environment, capture_output=True, check=False)
    output = result.stderr.decode(errors="replace")
    found = keep_found(door)
    if result.returncode != 0:
        sys.stderr.write(output[-6000:])
        if not found:
            raise SystemExit(f"{door}: ended with status {result.returncode} and left no input")
    number = last_number(r"stat::number_of_executed_units: +(\d+)", output) or last_number(r"(?m)^#(\d+)", output)
    return doors.Run(door, number, processor_seconds(result.stdout.decode()), last_number(r" cov: (\d+)", output), found)


def print_row(run: doors.Run, total: int) -> None:
    """Prints a row of the table."""
    speed = run.executions // max(run.seconds, 1)
    print(f"{run.door:<22}{run.executions:>12}{total:>14}{speed:>10}{run.edges:>8}{len(run.found):>7}", flush=True)


def parse_arguments() -> argparse.Namespace:
    """What the command line says."""
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--seconds", type=int, default=60, help="for each door")
    parser.add_argument("--door", choices=sorted(doors.LONGEST), help="this one only")
    parser.add_argument("--until", type=int, default=0, help="leave out doors with that many executions on record")
    parser.add_argument("--record", type=pathlib.Path, default=doors.RECORD)
    parser.add_argument("--binaries", type=pathlib.Path, default=doors.BUILD / "bin")
    return parser.parse_args()


def main() -> int:
    """Runs the doors and prints the table."""
    arguments = parse_arguments()
    found = []
    print(f"{'door':<22}{'this run':>12}{'in all':>14}{'per s':>10}{'edges':>8}{'found':>7}", flush=True)
    for door in [arguments.door] if arguments.door else sorted(doors.LONGEST):
        missing = arguments.until - doors.executions_so_far(arguments.record)[door]
        if arguments.until and missing <= 0:
            continue
        binary = arguments.binaries / f"fuzz_{door}"
        run = run_door(door, binary, arguments.seconds, missing if arguments.until else -1)
        doors.note(run, arguments.record)
        print_row(run, doors.executions_so_far(arguments.record)[door])
        found += run.found
    for path in found:
        print(f"found: {path.relative_to(doors.ROOT)}")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
