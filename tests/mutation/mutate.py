#!/usr/bin/env python3
"""Changes src/ a little, many times, and sees whether a unit test fails each time.

What survives is listed as diff lines; `--replay survivors` tries those again. An interrupted run goes on where it was.
"""
import argparse
import csv
import fnmatch
import hashlib
import queue
import sys
import threading
import time
from dataclasses import asdict, dataclass
from pathlib import Path

from mutants import Mutant, mutants_of
from workshop import Workshop

ROOT = Path(__file__).resolve().parents[2]
FOLDER = ROOT / "build" / "mutation"
AT_LEAST_PER_FILE = 5
MARK_PERCENT = 95.0
COUNTED = ("killed", "survived")


@dataclass
class Result:
    state: str  # killed, survived, equivalent, unbuildable
    file: str
    line: str
    operator: str
    begin: str
    old: str
    new: str
    by: str
    digest: str  # of the file that was changed
    seconds: str

    @property
    def key(self) -> tuple[str, ...]:
        return self.file, self.begin, self.old, self.new, self.digest


class Results:
    """The table of results, one line each, written as they come."""

    def __init__(self, path: Path):
        self.path = path
        self.by_key: dict[tuple[str, ...], Result] = {}
        self.lock = threading.Lock()
        if path.exists():
            with path.open(encoding="utf-8", newline="") as lines:
                for row in csv.DictReader(lines, dialect="excel-tab"):
                    result = Result(**row)
                    self.by_key[result.key] = result

    def add(self, result: Result) -> None:
        with self.lock:
            self.by_key[result.key] = result
            new = not self.path.exists()
            with self.path.open("a", encoding="utf-8", newline="") as lines:
                writer = csv.DictWriter(lines, list(asdict(result)), dialect="excel-tab")
                if new:
                    writer.writeheader()
                writer.writerow(asdict(result))


def digest_of(source: str) -> str:
    return hashlib.sha256(source.encode()).hexdigest()[:12]


def quotas(sources: dict[str, str], count: int) -> dict[str, int]:
    lines = {file: source.count("\n") for file, source in sources.items()}
    total = sum(lines.values())
    return {file: max(AT_LEAST_PER_FILE, round(count * lines[file] / total)) for file in sources}


class Run:
    def __init__(self, options: argparse.Namespace):
        self.options = options
        patterns = options.files.split() or ["*"]
        sources = {str(path.relative_to(ROOT)): path.read_text(encoding="utf-8")
                   for path in sorted(ROOT.glob("src/*/*.cpp"))}
        self.quotas = quotas(sources, options.count)
        self.sources = {file: source for file, source in sources.items()
                        if any(fnmatch.fnmatch(file, f"*{pattern}") for pattern in patterns)}
        self.results = Results(FOLDER / f"results-{options.seed}.tsv")
        self.files: queue.SimpleQueue[str] = queue.SimpleQueue()
        for file in sorted(self.sources, key=lambda file: -self.quotas[file]):
            self.files.put(file)
        self.done: list[Result] = []
        self.original_code: dict[str, bytes] = {}

    def known(self, mutant: Mutant) -> Result | None:
        return self.results.by_key.get((mutant.file, str(mutant.begin), one_line(mutant.old), one_line(mutant.new),
                                        digest_of(self.sources[mutant.file])))

    def work(self, number: int) -> None:
        workshop = Workshop(ROOT, FOLDER / f"tree-{number}", "sanitized" if self.options.sanitized else "plain")
        try:
            workshop.set_up()
        except SystemExit as problem:
            print(problem, file=sys.stderr)
            return
        while True:
            try:
                file = self.files.get_nowait()
            except queue.Empty:
                return
            self.original_code[file] = workshop.object_code(file)
            self.work_on(workshop, file)
            workshop.put(file, self.sources[file])
            workshop.compile(file)

    def work_on(self, workshop: Workshop, file: str) -> None:
        counted = 0
        for mutant in mutants_of(file, self.sources[file], self.options.seed):
            if counted == self.quotas[file]:
                return
            result = self.known(mutant)
            again = result and result.state == "survived" and self.options.replay
            if not result and self.options.replay:
                continue
            if not result or again:
                result = self.try_one(workshop, mutant)
                self.results.add(result)
                print(f"{result.state:<12} {result.file}:{result.line} {result.operator}: {result.old} -> {result.new}"
                      f"   {result.by} {result.seconds} s", flush=True)
            self.done.append(result)
            counted += result.state in COUNTED

    def try_one(self, workshop: Workshop, mutant: Mutant) -> Result:
        begin = time.monotonic()
        source = self.sources[mutant.file]
        workshop.put(mutant.file, mutant.apply(source))
        state, by = self.judge(workshop, mutant)
        return Result(state, mutant.file, str(mutant.line), mutant.operator, str(mutant.begin), one_line(mutant.old),
                      one_line(mutant.new), by, digest_of(source), f"{time.monotonic() - begin:.1f}")

    def judge(self, workshop: Workshop, mutant: Mutant) -> tuple[str, str]:
        if not workshop.compile(mutant.file):
            return "unbuildable", ""
        verdict = workshop.judge_by_own(mutant)
        if not verdict.killed:
            changed = workshop.object_code(mutant.file)
            if changed and changed == self.original_code[mutant.file]:
                return "equivalent", ""
            if not self.options.sanitized:
                verdict = workshop.judge_by_others(mutant)
        if not verdict.killed:
            return "survived", ""
        return "killed", f"sanitized {verdict.by}" if self.options.sanitized else verdict.by


def one_line(text: str) -> str:
    return text.replace("\t", "\\t").replace("\n", "\\n")


def show_survivor(result: Result, source: str) -> None:
    old = result.old.replace("\\n", "\n") if result.old not in source else result.old
    begin = int(result.begin)
    first = source.rfind("\n", 0, begin) + 1
    last = source.find("\n", begin + len(old))
    new = source[first:begin] + result.new.replace("\\n", "\n").rstrip("\n") + source[begin + len(old):last]
    print(f"{result.file}:{result.line} ({result.operator})")
    for mark, text in (("-", source[first:last]), ("+", new)):
        for line in text.split("\n"):
            print(f"{mark}{line}")


def report(run: Run) -> bool:
    counts: dict[str, dict[str, int]] = {}
    for result in run.done:
        of_file = counts.setdefault(result.file, dict.fromkeys(("killed", "survived", "equivalent", "unbuildable"), 0))
        of_file[result.state] += 1
    total = {state: sum(of_file[state] for of_file in counts.values())
             for state in ("killed", "survived", "equivalent", "unbuildable")}
    print(f"\n{'file':<40} mutants killed survived percent")
    for file, of_file in [*sorted(counts.items()), ("all", total)]:
        mutants = of_file["killed"] + of_file["survived"]
        percent = 100 * of_file["killed"] / max(mutants, 1)
        print(f"{file:<40} {mutants:7} {of_file['killed']:6} {of_file['survived']:8} {percent:7.1f}")
    print(f"left out: {total['equivalent']} with the same object code, {total['unbuildable']} that no compiler takes")
    print("\nsurvivors:")
    for result in sorted(run.done, key=lambda result: (result.file, int(result.line))):
        if result.state == "survived":
            show_survivor(result, run.sources[result.file])
    return 100 * total["killed"] >= MARK_PERCENT * (total["killed"] + total["survived"])


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--count", type=int, default=600, help="mutants over all files (default 600)")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--files", default="", help="only these files: patterns such as 'core/*.cpp timer.cpp'")
    parser.add_argument("--jobs", type=int, default=1)
    parser.add_argument("--replay", choices=["survivors"], help="try again what survived the run before")
    parser.add_argument("--sanitized", action="store_true", help="under AddressSanitizer and UndefinedBehaviorSanitizer")
    run = Run(parser.parse_args())
    FOLDER.mkdir(parents=True, exist_ok=True)
    workers = [threading.Thread(target=run.work, args=(number,)) for number in range(run.options.jobs)]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join()
    if not run.files.empty():
        return 1  # a worker gave up; it has said why
    return 0 if report(run) else 1


if __name__ == "__main__":
    sys.exit(main())
