"""Every command of every document does what the document says.

    run_documents.py BUILD

Blocks that are fenced as sh, console or python are run as a reader would; elsewhere.py has the list of those commands
that are run by others, and by whom. What running text mentions has to be run by one or the other too. Links lead
somewhere, and paths that are named exist.
"""

import os
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from blocks import RUN, Malformed, blocks_of, commands_of
from elsewhere import ELSEWHERE, GO_ON, INSTALLING
from links import commands_in_text, problems_of

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent.parent
LIMIT = 120


def documents() -> list[str]:
    """All of the project's, generated ones left out."""
    found = [path.relative_to(ROOT) for path in ROOT.rglob("*.md")]
    return sorted(str(path) for path in found if path.parts[0] != "build" and not path.parts[0].startswith("."))


def problems_of_lists(typed: set[str], tests: set[str]) -> list[str]:
    """What in the lists is not as they say."""
    problems = [f"no document has: {command}" for command in (*(e.command for e in ELSEWHERE), *GO_ON)
                if command not in typed]
    for entry in ELSEWHERE:
        if not entry.test and not entry.proof:
            problems.append(f"nothing shows where this is run: {entry.command}")
        if entry.test and entry.test not in tests:
            problems.append(f"{entry.command}: there is no test {entry.test}")
        problems += [f"{entry.command}: {file} does not hold: {text}" for file, text in entry.proof
                     if text not in (ROOT / file).read_text()]
    return problems


def tests_of(build: Path) -> set[str]:
    """The tests' names. What only one kind of build has, such as the bench, is looked up in the lists' CMake files."""
    shown = subprocess.run(["ctest", "--show-only", "--test-dir", str(build)], check=True, capture_output=True, text=True)
    names = {line.split(": ")[1].strip() for line in shown.stdout.splitlines() if ": " in line and "Test" in line}
    for entry in ELSEWHERE:
        if any(f"add_test(NAME {entry.test}" in path.read_text() 
               for path in (*ROOT.glob("*/CMakeLists.txt"), *ROOT.glob("*/*/CMakeLists.txt"))):
            names.add(entry.test)
    return names


def run(document: str, build: Path) -> tuple[bool, str]:
    if document in INSTALLING and os.environ.get("LAB") == "host":
        return True, f"{document}: left out, as it would be installed onto this machine"
    environment = {**os.environ, "LAB_BINARIES": str(build / "bin"), "SANDBOX_WRITABLE": str(build),
                   "PYTHONPATH": f"{ROOT / 'lab'}:{HERE}"}
    command = [str(ROOT / "lab" / "sandbox"), sys.executable, "-B", str(HERE / "run_document.py"), document, str(build)]
    done = subprocess.run(command, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, timeout=LIMIT, check=False)
    return done.returncode == 0, done.stdout.rstrip()


def main() -> int:
    build = Path(sys.argv[1]).resolve()
    try:
        blocks = {document: blocks_of(ROOT / document) for document in documents()}
    except Malformed as problem:
        print(problem)
        return 1
    typed = {command for found in blocks.values() for block in found for command in commands_of(block)}
    mentioned = {command for document in blocks for command in commands_in_text(ROOT / document)}
    problems = problems_of_lists(typed | mentioned, tests_of(build))
    problems += [f"nothing runs this, which a text mentions: {command}"
                 for command in sorted(mentioned - typed - {entry.command for entry in ELSEWHERE})]
    problems += [problem for document in blocks for problem in problems_of(ROOT, ROOT / document)]
    print("\n".join(problems) or "The lists and links are right.")
    to_run = [document for document, found in blocks.items() if any(block.language in RUN for block in found)]
    with ThreadPoolExecutor(1 if os.environ.get("LAB") == "host" else len(to_run)) as pool:
        results = list(pool.map(lambda document: run(document, build), to_run))
    print("\n".join(report for _, report in results))
    for entry in ELSEWHERE:
        print(f"run elsewhere: {entry.command}: {entry.reason}; {entry.test or entry.proof[0][0]}")
    return 0 if not problems and all(passed for passed, _ in results) else 1


if __name__ == "__main__":
    sys.exit(main())
