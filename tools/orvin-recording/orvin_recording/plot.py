"""Draws a run: a lane for each device, time to the right. Times are microseconds, lengths pixels."""

import os
import textwrap
from collections import Counter
from math import log1p
from xml.sax.saxutils import escape

from .analysis import Analysis, Phase
from .device import Device, Mark, printable
from .summary import about, answer

LEFT, PLOT, RIGHT, TOP = 210, 1160, 30, 60
MERGED = 7  # marks of a kind that are nearer than this share one
TEXT = 6.2  # width of a character
BAR = 0.7  # height, as a part of the lane
# Of marks, in the order of drawing: title, colour, height as a part of the lane or the path of a symbol.
KINDS: dict[str, tuple[str, str, float | str]] = {
    "install": ("installs, until it is gone or answers", "#bbdff5", BAR),
    "away": ("away, or DSP down", "#8c8c8c", 0.3),
    "acknowledged": ("acknowledgements", "#56b4e9", BAR),
    "check": ("check", "#009e73", BAR),
    "late": ("late acknowledgement, or none", "#e69f00", 0.45),
    "resend": ("sent again", "#0072b2", "m0-9 5 10h-10z"),
    "go_back": ("asks to go back", "#cc79a7", "m-6 5 10-5v10z"),
    "fault": ("fault", "#d55e00", "m-5-3 2-2 3 3 3-3 2 2-3 3 3 3-2 2-3-3-3 3-2-2 3-3z"),
    "joined": ("back on the bus", "#009e73", "m-5 0a5 5 0 1 0 10 0a5 5 0 1 0-10 0z"),
    "removed": ("dropped", "#000000", "m5-7h6v14h-6z"),
}


class _Picture:
    """The parts of an SVG file."""

    def __init__(self, duration: int) -> None:
        self.parts: list[str] = []
        self.duration = max(1, duration)

    def x(self, at: float) -> float:
        return LEFT + PLOT * at / self.duration

    def text(self, x: float, y: float, words: str, style: str = "") -> None:
        self.parts.append(f'<text x="{x:.0f}" y="{y:.0f}" {style}>{escape(words)}</text>')

    def path(self, d: str, colour: str, tooltip: str = "", style: str = "") -> None:
        self.parts.append(f'<path d="{d}" fill="{colour}" {style}><title>{escape(tooltip)}</title></path>')

    def box(self, x: float, y: float, width: float, height: float, colour: str, tooltip: str = "") -> None:
        self.path(f"M{x:.1f} {y:.1f}h{max(1.5, width):.1f}v{height:.1f}h-{max(1.5, width):.1f}z", colour, tooltip)

    def mark(self, kind: str, x: float, y: float, width: float, lane: int, tooltip: str = "") -> None:
        """`y` is the middle of the lane."""
        _, colour, shape = KINDS[kind]
        if isinstance(shape, str):
            self.path(f"M{x:.1f} {y:.1f}{shape}", colour, tooltip, 'stroke="#ffffff" stroke-width=".7"')
        else:
            self.box(x, y - lane * shape / 2, width, lane * shape, colour, tooltip)

    def whole(self, height: int) -> str:
        width = LEFT + PLOT + RIGHT
        return (
            f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}"'
            f' height="{height}" font-family="sans-serif" font-size="11">\n'
            '<rect width="100%" height="100%" fill="#ffffff"/>\n' + "\n".join(self.parts) + "\n</svg>\n"
        )


def _draw(analysis: Analysis) -> str:
    picture = _Picture(analysis.end)
    words = textwrap.wrap(answer(analysis), 150)
    for number, line in enumerate(words, start=1):
        picture.text(10, 4 + 18 * number, line, 'font-size="14" font-weight="bold"')
    top = TOP + 18 * len(words)
    picture.text(10, top - 36, f"{about(analysis)}  {analysis.recording.problem}")
    lane = min(48, max(18, 640 // max(1, len(analysis.devices))))
    bottom = top + lane * len(analysis.devices)
    for number, phase in enumerate(analysis.phases):
        _draw_phase(picture, phase, top - 22, bottom, "#eeeeee" if number % 2 else "#ffffff")
    _draw_axis(picture, top, bottom)
    for number, device in enumerate(analysis.devices.values()):
        _draw_lane(picture, device, top + lane * (number + 0.5), lane)
    _draw_legend(picture, bottom + 46)
    return picture.whole(bottom + 110)


def _draw_phase(picture: _Picture, phase: Phase, top: int, bottom: int, colour: str) -> None:
    begin, end = picture.x(phase.begin), picture.x(phase.end)
    took = f"{phase.title}, {phase.begin / 1e6:.3f} to {phase.end / 1e6:.3f} s"
    picture.box(begin, top, end - begin, bottom - top, colour, took)
    fitting = [name for name in (phase.title, phase.name) if len(name) * TEXT < end - begin]
    if fitting:
        picture.text((begin + end) / 2, top + 14, fitting[0], 'text-anchor="middle"')


def _draw_axis(picture: _Picture, top: int, bottom: int) -> None:
    seconds = picture.duration / 1e6
    steps = (digit * 10.0**power for power in range(-6, 12) for digit in (1, 2, 5))
    step = next(step for step in steps if seconds / step <= 14)
    for count in range(int(seconds / step) + 1):
        x = picture.x(count * step * 1e6)
        picture.box(x, top, 0, bottom - top + 5, "#c8c8c8")
        picture.text(x, bottom + 18, f"{count * step:g} s", 'text-anchor="middle"')


def _draw_lane(picture: _Picture, device: Device, y: float, lane: int) -> None:
    picture.text(10, y + 4, device.title)
    picture.box(LEFT, y + lane / 2, PLOT, 0.5, "#c8c8c8", printable(device.id))
    for kind in KINDS:
        if kind == "acknowledged":
            _draw_acknowledgements(picture, device, y, lane)
        for marks in _merged(picture, device.marked(kind)):
            x, end = picture.x(marks[0].begin), picture.x(marks[-1].end)
            picture.mark(kind, x, y, end - x, lane, _tooltip(device, kind, marks))
            if kind == "removed":
                is_right = x > LEFT + PLOT / 2
                anchor = "end" if is_right else "start"
                halo = f'paint-order="stroke" stroke="#ffffff" stroke-width="3" text-anchor="{anchor}"'
                picture.text(x if is_right else x + 16, y + 4, marks[0].text, halo)


def _merged(picture: _Picture, marks: list[Mark]) -> list[list[Mark]]:
    """Lists of marks that are too near each other."""
    merged: list[list[Mark]] = []
    for mark in sorted(marks, key=lambda mark: mark.begin):
        if merged and picture.x(mark.begin) - picture.x(merged[-1][0].end) < MERGED:
            merged[-1].append(mark)
        else:
            merged.append([mark])
    return merged


def _tooltip(device: Device, kind: str, marks: list[Mark]) -> str:
    count = f"{len(marks)} times, first: " if len(marks) > 1 else ""
    begin, end = marks[0].begin / 1e6, marks[-1].end / 1e6
    return f"{device.title}: {KINDS[kind][0]}, {begin:.3f} to {end:.3f} s; {count}{marks[0].text}"


def _draw_acknowledgements(picture: _Picture, device: Device, y: float, lane: int) -> None:
    """A column for each pixel. It is the higher, the more there are."""
    columns = Counter(int(picture.x(at)) for at in device.acknowledged)
    most = log1p(max(columns.values(), default=0))
    heights = {x: round(4 * log1p(count) / most) / 4 * lane * BAR for x, count in columns.items()}
    d = "".join(f"M{x} {y + lane / 2:.0f}h1v-{height:.0f}h-1z" for x, height in sorted(heights.items()))
    picture.path(d, KINDS["acknowledged"][1])


def _draw_legend(picture: _Picture, y: int) -> None:
    x: float = LEFT
    for kind, (words, *_) in KINDS.items():
        if kind == "resend":
            x, y = LEFT, y + 30
        picture.mark(kind, x, y, 16, 20)
        picture.text(x + 22, y + 4, words)
        x += 46 + len(words) * TEXT


def write(analysis: Analysis, path: str) -> None:
    """Writes the picture whole, or leaves what is there. Raises OSError."""
    picture = _draw(analysis)
    if os.path.exists(path) and not os.path.isfile(path):  # such as /dev/stdout
        with open(path, "w", encoding="utf-8") as file:
            file.write(picture)
        return
    path = os.path.realpath(path)
    temporary = f"{path}.{os.getpid()}"
    with open(temporary, "x", encoding="utf-8") as file:
        try:
            file.write(picture)
            file.flush()
            os.replace(temporary, path)
        except BaseException:
            os.unlink(temporary)
            raise
