"""The figures of a run as an SVG that follows the reader's light or dark mode.

One row a figure, one mark a subject at its median, a line to its 99th percentile; time to the right, by powers of ten.
"""

import math
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "docs" / "pictures"))
import draw  # noqa: E402  # the documents' pictures: same colours, same letters

from subjects import SUBJECTS  # noqa: E402

NAMES = {"daemon": "vyrwrap", "floor": "floor", "python": "Python over redis-py", "shell": "shell over redis-cli"}
LIGHT = {"daemon": "#0969da", "floor": "#59636e", "python": "#9a6700", "shell": "#bc4c00"}
DARK = {"daemon": "#4493f8", "floor": "#9198a1", "python": "#e3b341", "shell": "#f0883e"}

WIDTH, LEFT, RIGHT = 860, 226, 64
HEAD, PANEL_HEAD, ROW, PANEL_FOOT = 74, 30, 26, 34
LOWEST_NS = 10_000


def marks(subject: str, x: float, y: float) -> str:
    """Each subject has a shape of its own, as well as a colour."""
    shapes = {"daemon": f'<circle cx="{x:g}" cy="{y:g}" r="5.5"',
              "floor": f'<rect x="{x - 1.5:g}" y="{y - 9:g}" width="3" height="18"',
              "python": f'<rect x="{x - 4.5:g}" y="{y - 4.5:g}" width="9" height="9"',
              "shell": f'<polygon points="{x:g},{y - 6:g} {x + 6:g},{y + 5:g} {x - 6:g},{y + 5:g}"'}
    return f'{shapes[subject]} class="{subject}"/>'


class Scale:
    """Nanoseconds to places, in whole decades."""

    def __init__(self, highest_ns: float) -> None:
        self.first = math.floor(math.log10(LOWEST_NS))
        self.last = math.ceil(math.log10(highest_ns))

    def x(self, nanoseconds: float) -> float:
        share = (math.log10(max(nanoseconds, LOWEST_NS)) - self.first) / (self.last - self.first)
        return round(LEFT + share * (WIDTH - LEFT - RIGHT), 1)

    def ticks(self) -> list[tuple[float, str]]:
        names = {4: "10 µs", 5: "100 µs", 6: "1 ms", 7: "10 ms", 8: "100 ms", 9: "1 s", 10: "10 s", 11: "100 s"}
        return [(self.x(10.0 ** power), names[power]) for power in range(self.first, self.last + 1)]


def draw_row(row: dict, y: float, scale: Scale) -> list[str]:
    drawn = [draw.text(LEFT - 14, y + 4, row["title"], "ink", "end")]
    values = row["values"]
    for subject in reversed(SUBJECTS):  # the daemon lies above
        if subject in values:
            median, p99 = values[subject]
            drawn.append(f'<line x1="{scale.x(median):g}" x2="{scale.x(p99):g}" y1="{y:g}" y2="{y:g}" '
                         f'class="tail {subject}"/>')
            drawn.append(marks(subject, scale.x(median), y))
    ratio = values["daemon"][0] / values["floor"][0]
    return [*drawn, draw.text(WIDTH - 16, y + 4, f"× {ratio:.2f}", "quiet", "end")]


def draw_panel(section: dict, top: float, scale: Scale) -> tuple[float, list[str]]:
    """The figures on one file system, and where they end."""
    rows = section["rows"]
    bottom = top + PANEL_HEAD + len(rows) * ROW
    drawn = [draw.text(20, top + 16, f"files on {section['file_system']}", "ink title", "start"),
             draw.text(WIDTH - 16, top + 16, "vyrwrap / floor", "quiet", "end")]
    for x, name in scale.ticks():
        drawn.append(f'<line x1="{x:g}" x2="{x:g}" y1="{top + PANEL_HEAD - 6:g}" y2="{bottom:g}" class="life"/>')
        drawn.append(draw.text(x, bottom + 16, name, "quiet"))
    for place, row in enumerate(rows):
        drawn += draw_row(row, top + PANEL_HEAD + (place + 0.5) * ROW - 3, scale)
    return bottom + PANEL_FOOT, drawn


def draw_legend() -> list[str]:
    drawn, x = [], 26.0
    for subject in SUBJECTS:
        drawn += [marks(subject, x, 54), draw.text(x + 14, 58, NAMES[subject], "ink", "start")]
        x += 50 + 6.6 * len(NAMES[subject])
    return [*drawn, draw.text(WIDTH - 16, 58, "mark: median, line: to the 99th percentile", "quiet", "end")]


def rules(base: dict[str, str], colours: dict[str, str]) -> str:
    return draw.rules(base) + "".join(f" .{subject} {{ fill: {colour}; stroke: {colour}; }}"
                                      for subject, colour in colours.items())


def svg(sections: list[dict], mode: str = "") -> str:
    scale = Scale(max(p99 for section in sections for row in section["rows"] for _, p99 in row["values"].values()))
    title = "How long each takes: vyrwrap, its floor, and what one would otherwise write"
    height, drawn = float(HEAD), [draw.text(20, 28, title, "ink title", "start"), *draw_legend()]
    for section in sections:
        height, panel = draw_panel(section, height, scale)
        drawn += panel
    light, dark = rules(draw.LIGHT, LIGHT), rules(draw.DARK, DARK)
    style = {"": f"{light} @media (prefers-color-scheme: dark) {{ {dark} }}", "light": light, "dark": dark}[mode]
    return draw.document(WIDTH, height, title, f".tail {{ stroke-width: 2; stroke-opacity: 0.5; }} {style}", drawn)
