"""The log lines of the sources and those of the operating guide are the same.

    log_lines.py ROOT            fails where one has a line that the other has not
    log_lines.py ROOT --list     prints the sources' lines with their places
"""

import ast
import re
import sys
from pathlib import Path
from typing import NamedTuple

DOCUMENT = "docs/operating.md"
FOLDERS = ("src", "linux")

# What logs at level 3 or 4. The text is the first literal behind it.
CALL = re.compile(r"\b(?:(?:event_log|log|platform)_(error|warning)\(|"
                  r"(?:vyrwrap_log_emit|event_log_emit|platform_log)\(\s*(?:LOG_LEVEL|PLATFORM)_(ERROR|WARNING),)\s*")
LITERAL = re.compile(r'\s*("(?:[^"\\\n]|\\.)*")')
LEVELS = {"error": 3, "warning": 4}

# What goes to the log's sink by another way, as the literal that is formatted.
BESIDE_THE_CALLS = {
    ("linux/korvalog/sink.cpp", "<LOG>: %u messages were lost"): (4,),
    ("linux/korvalog/repeats.cpp", "last message repeated %u times"): (3, 4),
}

DOCUMENTED = re.compile(r"^(?:- |  )([34]) `(.+)`\\$", re.MULTILINE)


class Line(NamedTuple):
    level: int
    text: str


def literal_behind(source: str, place: int) -> str | None:
    """The text of the string literals at that place, one behind the other; as it stands in the source."""
    text = ""
    while found := LITERAL.match(source, place):
        text += found[1][1:-1]
        place = found.end()
    return text or None


def as_logged(text: str) -> str:
    """A literal as the log shows it: what is escaped for the compiler alone is not, control characters stay escaped."""
    return ast.literal_eval(f'"{text}"').replace("\n", "\\n").replace("\t", "\\t").rstrip(" ")


def lines_of_source(path: Path) -> list[tuple[Line, int]]:
    source = path.read_text()
    found = []
    for call in CALL.finditer(source):
        number = source.count("\n", 0, call.start()) + 1
        if source[:call.start()].rpartition("\n")[2].startswith("#define"):
            continue
        text = literal_behind(source, call.end())
        if text is None:
            raise SystemExit(f"{path}:{number}: a log call whose text is no literal")
        found.append((Line(LEVELS[(call[1] or call[2]).lower()], as_logged(text)), number))
    return found


def lines_beside_calls(root: Path) -> list[tuple[Line, str]]:
    found = []
    for (path, text), levels in BESIDE_THE_CALLS.items():
        if f'"{text}"' not in (root / path).read_text():
            raise SystemExit(f"{path} no longer holds {text!r}")
        found += [(Line(level, text), path) for level in levels]
    return found


def lines_of_sources(root: Path) -> dict[Line, list[str]]:
    """Each line with the places that log it."""
    places: dict[Line, list[str]] = {}
    for folder in FOLDERS:
        for path in sorted((root / folder).rglob("*.cpp")):
            for line, number in lines_of_source(path):
                places.setdefault(line, []).append(f"{path.relative_to(root)}:{number}")
    for line, place in lines_beside_calls(root):
        places.setdefault(line, []).append(place)
    return places


def documented_lines(root: Path) -> list[Line]:
    return [Line(int(level), text) for level, text in DOCUMENTED.findall((root / DOCUMENT).read_text())]


def differences(sources: dict[Line, list[str]], documented: list[Line]) -> list[str]:
    problems = [f"{places[0]}: not in {DOCUMENT}: {line.level} `{line.text}`"
                for line, places in sources.items() if line not in documented]
    for line in dict.fromkeys(documented):
        if line not in sources:
            problems.append(f"{DOCUMENT}: no source logs {line.level} `{line.text}`")
        if documented.count(line) > 1:
            problems.append(f"{DOCUMENT}: more than once: {line.level} `{line.text}`")
    return problems


def main() -> int:
    root = Path(sys.argv[1])
    sources = lines_of_sources(root)
    if "--list" in sys.argv:
        for line, places in sources.items():
            print(f"{line.level} `{line.text}`  {' '.join(places)}")
        return 0
    problems = differences(sources, documented_lines(root))
    print("\n".join(problems) or f"{len(sources)} log lines, all of them in {DOCUMENT}")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
