"""The fenced blocks of a Markdown document, and what they ask a reader to type."""

import re
from pathlib import Path
from typing import NamedTuple

# What is run; anything else is shown only.
RUN = ("sh", "console", "python")
SHOWN = ("text", "ini", "proto", "c", "cpp", "cmake", "make", "json")

FENCE = re.compile(r"^( *)```(\S*)\s*$")
PROMPT = "$ "


class Block(NamedTuple):
    line: int
    language: str
    text: str


class Step(NamedTuple):
    """A command, and what the document shows it to print."""

    command: str
    shown: list[str]


class Malformed(Exception):
    """A block that nobody can tell the meaning of."""


def without_indent(lines: list[str], indent: int) -> str:
    return "".join(re.sub(f"^ {{0,{indent}}}", "", line) for line in lines)


def refuse_indented(path: Path, number: int, line: str, above: str) -> None:
    """Code without a fence: what it is cannot be told."""
    if line.startswith("    ") and not above.strip() and not line.lstrip().startswith(("-", "*")):
        raise Malformed(f"{path}:{number}: a block without a fence")


def blocks_of(path: Path) -> list[Block]:
    found: list[Block] = []
    inside: tuple[int, int, str] | None = None
    body: list[str] = []
    above = ""
    in_list = False
    for number, line in enumerate(path.read_text().splitlines(keepends=True), 1):
        fence = FENCE.match(line)
        if inside and fence and not fence[2]:
            found.append(Block(inside[0], inside[2], without_indent(body, inside[1])))
            inside = None
        elif inside:
            body.append(line)
        elif fence:
            if fence[2] not in (*RUN, *SHOWN):
                raise Malformed(f"{path}:{number}: a fence names one of {' '.join((*RUN, *SHOWN))}")
            inside, body = (number, len(fence[1]), fence[2]), []
        else:
            in_list = bool(re.match(r"\s*([-*]|\d+\.) ", line)) or (in_list and line[:1] in " \n")
            if not in_list:
                refuse_indented(path, number, line, above)
        above = line
    if inside:
        raise Malformed(f"{path}:{inside[0]}: a fence that is not closed")
    return found


def steps_of(block: Block) -> list[Step]:
    """The commands of a console block. A command goes on behind a backslash at the end of its line."""
    steps: list[Step] = []
    for line in block.text.splitlines():
        if steps and steps[-1].command.endswith("\\") and not steps[-1].shown:
            steps[-1] = Step(steps[-1].command[:-1] + line.lstrip("> "), [])
        elif line.startswith(PROMPT):
            steps.append(Step(line[len(PROMPT):], []))
        elif steps:
            steps[-1].shown.append(line)
        else:
            raise Malformed(f"line {block.line}: a console block begins with a command")
    return steps


def commands_of(block: Block) -> list[str]:
    """What a reader types, line by line. Of a Python block nothing."""
    if block.language == "console":
        return [step.command for step in steps_of(block)]
    if block.language == "sh":
        return [line for line in block.text.splitlines() if line.strip() and not line.startswith("#")]
    return []


def matches(shown: list[str], printed: str) -> bool:
    """`...` stands for anything within a line, on a line of its own for any lines. Blanks and empty lines at an end do
    not count."""
    pattern = ""
    for line in shown:
        if line.strip() == "...":
            pattern += r"(?:.*\n)*?"
        else:
            pattern += ".*".join(re.escape(part) for part in line.rstrip().split("...")) + r"[ \t]*\n"
    printed = printed.rstrip()
    return re.fullmatch(pattern, printed + "\n" if printed else "") is not None
