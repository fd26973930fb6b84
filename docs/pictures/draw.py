#!/usr/bin/env python3
"""Draws the pictures of the documents: each text beside this file becomes an SVG of the same name.

    draw.py            draws them anew
    draw.py --check    fails where a picture is not what its text says

NAME.boxes: boxes and arrows at their places.

    size WIDTH HEIGHT
    box X Y WIDTH HEIGHT KIND: TITLE | LINE | ...     KIND is own or other
    arrow X,Y X,Y ... : TEXT @ X,Y [start|middle|end]

NAME.sequence: who tells whom what, from top to bottom.

    actor NAME: TITLE
    FROM -> TO: TEXT
    note NAME: TEXT
    wait: TEXT                                        time passes

A sequence's `FROM -> FROM` is what somebody does by himself. `|` begins another line of a text; `#` begins a comment.
"""

import sys
from pathlib import Path
from xml.sax.saxutils import escape

HERE = Path(__file__).resolve().parent

LIGHT = {"ground": "#ffffff", "ink": "#1f2328", "quiet": "#59636e", "fill": "#f6f8fa", "edge": "#8c959f",
         "own": "#ddf4ff", "own-edge": "#0969da", "rule": "#d1d9e0"}
DARK = {"ground": "#0d1117", "ink": "#f0f6fc", "quiet": "#9198a1", "fill": "#151b23", "edge": "#656c76",
        "own": "#12233a", "own-edge": "#4493f8", "rule": "#3d444d"}

LINE = 17


def rules(colours: dict[str, str]) -> str:
    return (".ground {{ fill: {ground}; stroke: {rule}; }} .ink {{ fill: {ink}; }} .quiet {{ fill: {quiet}; }} "
            ".other {{ fill: {fill}; stroke: {edge}; }} .own {{ fill: {own}; stroke: {own-edge}; }} "
            ".life {{ stroke: {rule}; }} .arrow {{ stroke: {ink}; }} .head {{ fill: {ink}; }} "
            ".gap {{ stroke: {edge}; }} .behind {{ fill: {ground}; }}").format(**colours)


def text(x: float, y: float, words: str, style: str = "ink", anchor: str = "middle") -> str:
    return f'<text x="{x:g}" y="{y:g}" class="{style}" text-anchor="{anchor}">{escape(words)}</text>'


def lines_of(x: float, y: float, words: str, style: str, anchor: str) -> list[str]:
    """Each `|` begins a new line; y is the first one's."""
    return [text(x, y + place * LINE, line.strip(), style, anchor) for place, line in enumerate(words.split("|"))]


def box(x: float, y: float, width: float, height: float, kind: str, words: str) -> list[str]:
    """The first line is the title; all stand in the middle."""
    title, *rest = words.split("|")
    top = y + height / 2 - len(rest) * LINE / 2 + 5
    drawn = [f'<rect x="{x:g}" y="{y:g}" width="{width:g}" height="{height:g}" rx="6" class="{kind}"/>',
             text(x + width / 2, top, title.strip(), "ink title")]
    if rest:
        drawn += lines_of(x + width / 2, top + LINE, "|".join(rest), "quiet", "middle")
    return drawn


def arrow(points: list[tuple[float, float]]) -> list[str]:
    """Along the points, with a head at the last."""
    (before_x, before_y), (x, y) = points[-2:]
    across, down = (x > before_x) - (x < before_x), (y > before_y) - (y < before_y)
    back_x, back_y = x - 8 * across, y - 8 * down
    head = f"{x:g},{y:g} {back_x + 4 * down:g},{back_y + 4 * across:g} {back_x - 4 * down:g},{back_y - 4 * across:g}"
    path = " ".join(f"{px:g},{py:g}" for px, py in [*points[:-1], (back_x, back_y)])
    return [f'<polyline points="{path}" class="arrow" fill="none"/>', f'<polygon points="{head}" class="head"/>']


def statements(source: str):
    """Each line as the words before its colon and the text behind it."""
    for line in source.splitlines():
        if line.strip() and not line.startswith("#"):
            head, _, rest = line.partition(":")
            yield head.split(), rest.strip()


def point(words: str) -> tuple[float, float]:
    x, y = words.split(",")
    return float(x), float(y)


def draw_boxes(source: str) -> tuple[float, float, list[str]]:
    width = height = 0.0
    drawn = []
    for (what, *words), rest in statements(source):
        if what == "size":
            width, height = map(float, words)
        elif what == "box":
            x, y, w, h = map(float, words[:4])
            drawn += box(x, y, w, h, words[4], rest)
        elif what == "arrow":
            label, _, place = rest.rpartition("@")
            place, anchor = [*place.split(), "middle"][:2]
            drawn += arrow([point(each) for each in words]) + lines_of(*point(place), label, "quiet", anchor)
        else:
            raise SystemExit(f"what is {what!r}?")
    return width, height, drawn


class Sequence:
    """Actors side by side, and the place that has been drawn down to."""

    DISTANCE, TOP, HALF = 172, 20, 74

    def __init__(self) -> None:
        self.actors: dict[str, float] = {}
        self.titles: list[str] = []
        self.drawn: list[str] = []
        self.y = float(self.TOP + 62)

    def actor(self, name: str, title: str) -> None:
        self.actors[name] = 20 + self.HALF + len(self.actors) * self.DISTANCE
        kind = "own" if name == "vyrwrap" else "other"
        self.titles += box(self.actors[name] - self.HALF, self.TOP, 2 * self.HALF, 42, kind, title)

    def label(self, x: float, words: str, anchor: str) -> None:
        """On the ground's colour, so that no line crosses it."""
        for place, line in enumerate(words.split("|")):
            line, y = line.strip(), self.y + place * LINE
            width = 6.3 * len(line) + 8
            left = {"start": x - 4, "middle": x - width / 2}[anchor]
            self.drawn.append(f'<rect x="{left:g}" y="{y - 12:g}" width="{width:g}" height="16" class="behind"/>')
            self.drawn.append(text(x, y, line, "quiet", anchor))
        self.y += words.count("|") * LINE

    def message(self, sender: str, receiver: str, words: str) -> None:
        start, end = self.actors[sender], self.actors[receiver]
        self.y += 22
        if sender == receiver:
            self.label(start + 10, words, "start")
            self.drawn.append(f'<circle cx="{start:g}" cy="{self.y - 4:g}" r="3.5" class="head"/>')
            self.y += 6
            return
        self.label((start + end) / 2, words, "middle")
        self.y += 8
        self.drawn += arrow([(start, self.y), (end, self.y)])

    def wait(self, words: str, width: float) -> None:
        self.y += 30
        self.drawn.append(f'<line x1="20" x2="{width - 20:g}" y1="{self.y - 4:g}" y2="{self.y - 4:g}" class="gap" '
                          'stroke-dasharray="2 5"/>')
        self.label(width / 2, words, "middle")
        self.y += 8


def draw_sequence(source: str) -> tuple[float, float, list[str]]:
    picture = Sequence()
    read = list(statements(source))
    for words, rest in read:
        if words[0] == "actor":
            picture.actor(words[1], rest)
    width = 40 + 2 * Sequence.HALF + (len(picture.actors) - 1) * Sequence.DISTANCE
    for words, rest in read:
        if words[0] == "wait":
            picture.wait(rest, width)
        elif words[0] == "note":
            picture.message(words[1], words[1], rest)
        elif words[0] != "actor":
            picture.message(words[0], words[2], rest)
    bottom = picture.y + 24
    lives = [f'<line x1="{x:g}" x2="{x:g}" y1="{Sequence.TOP + 42}" y2="{bottom:g}" class="life"/>'
             for x in picture.actors.values()]
    return width, bottom + 10, lives + picture.titles + picture.drawn


def document(width: float, height: float, title: str, style: str, drawn: list[str]) -> str:
    """The whole file, with the ground that everything lies on."""
    return "\n".join([
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width:g} {height:g}" width="{width:g}" '
        f'height="{height:g}" role="img" font-family="system-ui, \'DejaVu Sans\', sans-serif" font-size="12">',
        f"<title>{escape(title)}</title>",
        f"<style>.title {{ font-weight: 600; font-size: 14px; }} {style}</style>",
        f'<rect x="0.5" y="0.5" width="{width - 1:g}" height="{height - 1:g}" rx="8" class="ground"/>',
        *drawn, "</svg>", ""])


def svg(path: Path, mode: str = "") -> str:
    """The picture of a source. It follows the reader's light or dark mode, unless one is given."""
    source = path.read_text()
    width, height, drawn = (draw_boxes if path.suffix == ".boxes" else draw_sequence)(source)
    both = rules(LIGHT) + " @media (prefers-color-scheme: dark) { " + rules(DARK) + " }"
    style = {"": both, "light": rules(LIGHT), "dark": rules(DARK)}[mode]
    title = next(line[2:] for line in source.splitlines() if line.startswith("# "))
    return document(width, height, title, style, drawn)


def main() -> int:
    stale = []
    for source in sorted([*HERE.glob("*.boxes"), *HERE.glob("*.sequence")]):
        target = source.with_suffix(".svg")
        if "--check" not in sys.argv:
            target.write_text(svg(source))
        elif not target.exists() or target.read_text() != svg(source):
            stale.append(target.name)
    if stale:
        print(f"not as their texts say: {' '.join(stale)}; run docs/pictures/draw.py")
    return 1 if stale else 0


if __name__ == "__main__":
    sys.exit(main())
