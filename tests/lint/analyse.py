"""g++'s -fanalyzer over the daemon's sources. Fails on each report that is not accounted for below.

    analyse.py BUILD_FOLDER ROOT
"""
import json
import re
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

FOLDERS = ("src", "linux")
REPORT = re.compile(r"^(?P<file>/[^:]+):(?P<line>\d+):\d+: warning: (?P<text>.*) \[-W(?P<option>analyzer-[\w-]+)\]")

# The compiler's analyzer is made for C. What it reports of C++ and is not so: file, option, what the line holds, why.
ACCOUNTED = (
    ("linux/dal/context.cpp", "analyzer-use-of-uninitialized-value", "for (Link *link : {",
     "a list in braces is filled where the analyzer does not look"),
    ("linux/dal/context.cpp", "analyzer-use-of-uninitialized-value", "for (uint32_t *slot : {",
     "the same"),
    ("linux/dal/known.cpp", "analyzer-malloc-leak", "known->count++",
     "the key hangs in its slot's list: reached through a pointer to a pointer"),
    ("linux/dal/notification.cpp", "analyzer-malloc-leak", "if (!queued(",
     "the same, of the context's list"),
    ("linux/dal/subscribe.cpp", "analyzer-malloc-leak", "pattern->arg = arg",
     "the same, of the context's patterns"),
    ("linux/dal/subscribe.cpp", "analyzer-null-dereference", "pattern",
     "asked for patterns only that have been remembered just before"),
)


def command_of(entry: dict) -> list[str]:
    words = [word for word in shlex.split(entry["command"]) if not word.startswith("-fsanitize")]
    words = [word for word in words if word not in ("-Werror", "ccache") and not re.fullmatch(r"-O.", word)]
    end = words.index("-o")
    return [*words[:end], "-O2", "-fanalyzer", "-o", "/dev/null", "-c", entry["file"]]


def analyse(entry: dict) -> str:
    return subprocess.run(command_of(entry), cwd=entry["directory"], stderr=subprocess.PIPE, text=True,
                          check=False).stderr


def is_accounted(root: Path, report: re.Match) -> bool:
    file = Path(report["file"])
    line = file.read_text().splitlines()[int(report["line"]) - 1]
    return any(str(file.relative_to(root)) == known and report["option"] == option and part in line
               for known, option, part, _ in ACCOUNTED)


def main() -> int:
    folder, root = Path(sys.argv[1]), Path(sys.argv[2]).resolve()
    database = json.loads((folder / "compile_commands.json").read_text())
    entries = [entry for entry in database if entry["file"].endswith(".cpp")
               and Path(entry["file"]).relative_to(root).parts[0] in FOLDERS]
    problems, accounted = 0, 0
    with ThreadPoolExecutor(2) as workers:
        for output in workers.map(analyse, entries):
            for line in output.splitlines():
                report = REPORT.match(line)
                if report and is_accounted(root, report):
                    accounted += 1
                elif report or " error: " in line:
                    problems += 1
                    print(line)
    print(f"{len(entries)} files, {problems} reports, {accounted} more that are accounted for")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
