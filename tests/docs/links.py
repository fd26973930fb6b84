"""What documents say outside their blocks: where links lead, and the commands and paths that are named."""

import re
from pathlib import Path

LINK = re.compile(r"\[[^\]]*\]\(([^)\s]+)\)")
HEADING = re.compile(r"^#+ (.*)$", re.MULTILINE)
FENCED = re.compile(r"^```.*?^```", re.MULTILINE | re.DOTALL)
COMMAND = re.compile(r"`((?:(?:sudo|make|\./run|cmake|ctest|apt|git|redis-cli|printf|systemctl|journalctl) |"
                     r"bench/bench\b|docs/pictures/draw\.py)[^`]*)`")
PATH = re.compile(r"`((?:src|linux|lab|tests|bench|docs|packaging|cmake)/[\w./-]*)`")


def anchors_of(text: str) -> set[str]:
    """As GitHub makes them of headings."""
    plain = [re.sub(r"[^\w\- ]", "", heading.lower()) for heading in HEADING.findall(FENCED.sub("", text))]
    return {heading.replace(" ", "-") for heading in plain}


def problem_of_link(path: Path, link: str) -> str | None:
    if link.startswith("https://"):
        return None
    name, _, anchor = link.partition("#")
    target = path.parent / name if name else path
    if not target.exists():
        return "there is no such file"
    if anchor and anchor not in anchors_of(target.read_text()):
        return "there is no such heading"
    return None


def commands_in_text(path: Path) -> set[str]:
    return set(COMMAND.findall(FENCED.sub("", path.read_text())))


def problems_of(root: Path, path: Path) -> list[str]:
    text = FENCED.sub("", path.read_text())
    found = [f"{link}: {problem}" for link in LINK.findall(text) if (problem := problem_of_link(path, link))]
    found += [f"{name}: there is no such file" for name in PATH.findall(text) if not (root / name).exists()]
    return [f"{path.relative_to(root)}: {problem}" for problem in found]
