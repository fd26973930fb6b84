#!/usr/bin/env python3
"""clang-tidy over the programs, each source once.

usage: tidy.py RUN_CLANG_TIDY BUILD FILES, the last being a regular expression

A source that is compiled more than once, for the fuzzing doors say, stands as often in the build's list of commands.
clang-tidy then analyses it several times in one process, where its check of va_list sees errors that are not there.
"""

import json
import os
import pathlib
import sys


def main() -> None:
    run_clang_tidy, build, files = sys.argv[1:]
    commands = json.loads((pathlib.Path(build) / "compile_commands.json").read_text())
    once = {command["file"]: command for command in reversed(commands)}  # the first one stays: the program's own
    folder = pathlib.Path(build) / "tidy"
    folder.mkdir(exist_ok=True)
    (folder / "compile_commands.json").write_text(json.dumps(list(once.values())))
    os.execv(run_clang_tidy, [run_clang_tidy, "-quiet", "-p", str(folder), files])


if __name__ == "__main__":
    main()
