"""Measures the daemon, its floors and its peers, and prints one table. Runs in the sandbox; bench/bench starts it."""

import argparse
import json
import os
import pathlib
import shutil
import sys
import tempfile

import disk
import table
from figures import DISK, FULL, PROCESSORS, QUICK, Bench, set_up_site
from subjects import DAEMON_LOG, REDIS_SOCKETS, ROOT, Failure, Programs, redis_for_each

GROUPS = ("static_routes", "tunnels", "exports", "idle", "resync")
WITHOUT_TABLE = ("idle", "resync")


class Report:
    """Lines as they come, kept for the file beside the picture."""

    def __init__(self):
        self.lines = []
        self.sections = []

    def say(self, text=""):
        print(text, flush=True)
        self.lines.append(text)

    def section(self, file_system):
        self.sections.append({"file_system": file_system, "rows": []})
        self.say(f"\nfiles on {file_system}" if len(self.sections) > 1 else f"files on {file_system}")
        self.say(table.head())

    def figure(self, figure):
        self.sections[-1]["rows"].append({"title": figure.title, "values": table.summary(figure)})
        self.say(table.line(figure))

    def write(self, folder):
        pathlib.Path(folder, "table.txt").write_text("\n".join(self.lines) + "\n")
        pathlib.Path(folder, "figures.json").write_text(json.dumps(self.sections, indent=1) + "\n")


def measure_here(report, bench, groups):
    """Every figure of these groups, with /tmp as it stands."""
    pathlib.Path("/tmp/.sock").mkdir(exist_ok=True)
    report.section(disk.type_of("/tmp"))
    for group in groups:
        for figure in getattr(bench, group)():
            report.figure(figure)


def measure_on_disk(report, bench, groups, folder):
    why_not = disk.why_not(folder)
    if why_not:
        report.say(f"\nnot measured on a disk: {why_not}")
        return
    scratch = tempfile.mkdtemp(dir=folder)
    try:
        with disk.as_tmp(scratch):
            measure_here(report, bench, groups)
    finally:
        shutil.rmtree(scratch)


def run(report, bench, only, disk_folder):
    chosen = [group for group in GROUPS if only in (None, group)]
    with redis_for_each():
        measure_here(report, bench, [group for group in chosen if group not in WITHOUT_TABLE])
        if "idle" in chosen:
            for title, texts in bench.idle():
                report.say(table.idle_line(title, texts))
        on_disk = [group for group in chosen if group in ("static_routes", "exports")]
        if on_disk:
            memory_notes, bench.notes = bench.notes, []
            bench.samples = {**bench.samples, **(DISK if bench.samples is FULL else {})}
            measure_on_disk(report, bench, on_disk, disk_folder)
            bench.notes = memory_notes
    if "resync" in chosen:
        report.say("\nresynchronisation in the DAL client:")
        for line in bench.resync():
            report.say(line)
    report.say()
    for note in bench.notes:
        report.say(note)
    report.say(f"{len(PROCESSORS)} processors. Medians and 99th percentiles; ratio = daemon / floor. "
               "The shell loop has a fifth of the samples; - : does not do this.")


def main():
    parser = argparse.ArgumentParser(prog="bench/bench", description=__doc__)
    parser.add_argument("--quick", action="store_true", help="few samples: shows that everything runs, in seconds")
    parser.add_argument("--only", choices=GROUPS, help="one group of figures")
    parser.add_argument("build", nargs="?", default=ROOT / "build", help="build folder (default: build)")
    arguments = parser.parse_args()
    set_up_site()
    os.environ.update(PATH=f"/run/bin:{os.environ['PATH']}", DAL_URL=f"unix://{REDIS_SOCKETS['daemon']}",
                      KORVA_LOG=f"file:{DAEMON_LOG}")
    # Redis and what is measured share one processor, the measuring side has the other: where the scheduler puts them
    # makes more of a difference than what they do
    os.sched_setaffinity(0, {PROCESSORS[0]})
    report, folder = Report(), os.environ.get("SANDBOX_WRITABLE", "")
    try:
        run(report, Bench(Programs(arguments.build), QUICK if arguments.quick else FULL), arguments.only, folder)
    except Failure as failure:
        print(f"bench: {failure}", file=sys.stderr)
        if DAEMON_LOG.exists():
            print("the daemon's last log lines:", *DAEMON_LOG.read_text().splitlines()[-10:], sep="\n",
                  file=sys.stderr)
        return 1
    if folder and not arguments.only:
        report.write(folder)
    return 0


if __name__ == "__main__":
    sys.exit(main())
