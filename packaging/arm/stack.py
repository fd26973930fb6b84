"""stack.py BUILD: the stack that the daemon's own code takes at most, by the compiler's call graph.

Every source of src/ is compiled as in BUILD once more, for the frames' sizes and the calls. Where a function is called again
further down its own path (applying a route may run the timer, which may apply routes), the path ends: the table in
docs/arm.md says how often that can happen. What the C library and the platform need below comes on top.
"""

import json
import re
import shlex
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
NODE = re.compile(r'node: \{ title: "([^"]+)" label: "([^"]*)"')
EDGE = re.compile(r'edge: \{ sourcename: "([^"]+)" targetname: "([^"]+)"')
FRAME = re.compile(r"(\d+) bytes \((static|dynamic,bounded|dynamic)\)")


def call_graphs(build, scratch):
    """Compiles; the compiler's notes on each source."""
    for number, entry in enumerate(json.loads((build / "compile_commands.json").read_text())):
        if not Path(entry["file"]).is_relative_to(ROOT / "src"):
            continue
        words = [word for word in shlex.split(entry["command"]) if not word.endswith("ccache")]
        words[words.index("-o") + 1] = f"{scratch}/{number}.o"
        subprocess.run([*words, "-fcallgraph-info=su"], check=True, cwd=entry["directory"])
        yield (scratch / f"{number}.ci").read_text()


def read(graphs):
    """Frames' sizes and callees, by function."""
    frames, calls = {}, {}
    for text in graphs:
        for title, label in NODE.findall(text):
            frame = FRAME.search(label)
            if frame:
                assert frame[2] != "dynamic", f"{title}: no bound"
                frames[title] = int(frame[1])
        for caller, callee in EDGE.findall(text):
            calls.setdefault(caller, set()).add(callee)
    return frames, calls


def deepest(function, frames, calls, above=()):
    """(bytes, path) of the deepest path from a function, each function once on it."""
    best = (0, ())
    for callee in calls.get(function, ()):
        if callee in frames and callee not in above and callee != function:
            best = max(best, deepest(callee, frames, calls, (*above, function)))
    return frames[function] + best[0], (function, *best[1])


def plain(names):
    titles = [name.rpartition(":")[2] for name in names]
    shown = subprocess.run(["c++filt", "--no-params"], input="\n".join(titles), text=True, check=True,
                           capture_output=True).stdout.split("\n")
    return [name.replace("(anonymous namespace)::", "") for name in shown]


def main(build):
    with tempfile.TemporaryDirectory() as scratch:
        frames, calls = read(list(call_graphs(build.resolve(), Path(scratch))))
    called = set().union(*calls.values())
    roots = [function for function in frames if function not in called]
    paths = sorted((deepest(function, frames, calls) for function in roots), reverse=True)
    for size, path in paths[:8]:
        print(f"{size:8} {' > '.join(f'{name} {frames[title]}' for name, title in zip(plain(path), path))}")


main(Path(sys.argv[1]))
