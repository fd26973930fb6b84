#!/usr/bin/env python3
"""Puts a run's table into README.md and draws its picture:  record.py FOLDER_OF_THE_RUN [TARGET_FOLDER]

Without a target that is done here, in bench/; elsewhere a copy of the README is written.
"""

import json
import pathlib
import sys

import plot

HERE = pathlib.Path(__file__).resolve().parent
HEADING, BEGIN, END = "## The last table\n", "```text\n", "```\n"


def with_table(document: str, table: str) -> str:
    """The document with another table under its heading."""
    before, heading, rest = document.partition(HEADING)
    words, begin, rest = rest.partition(BEGIN)
    _, end, after = rest.partition(END)
    if not end:
        raise ValueError(f"no table under {HEADING!r}")
    return before + heading + words + begin + table + end + after


def main() -> int:
    run, target = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2] if len(sys.argv) > 2 else HERE)
    document = with_table((HERE / "README.md").read_text(), (run / "table.txt").read_text())
    (target / "README.md").write_text(document)
    (target / "plot.svg").write_text(plot.svg(json.loads((run / "figures.json").read_text())))
    return 0


if __name__ == "__main__":
    sys.exit(main())
