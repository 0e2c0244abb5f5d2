"""Draws a run: a lane for each device, time to the right. Times are microseconds, lengths pixels."""

import os
import tempfile
import textwrap
from collections import Counter, defaultdict
from collections.abc import Iterator
from itertools import groupby
from math import log1p
from xml.sax.saxutils import escape

from .analysis import Analysis, Device, Phase, printable
from .reader import Acknowledgements
from .summary import about, answer

LEFT, PLOT, RIGHT, TOP = 210, 1160, 30, 60
WIDTH = LEFT + PLOT + RIGHT
MERGED = 7  # marks of a kind in a stretch of this length share one
TEXT = 6.2  # width of a character
BAR = 0.7  # height, as a part of the lane
# Of marks, in the order of drawing: title, colour, height as a part of the lane or the path of a symbol.
KINDS: dict[str, tuple[str, str, float | str]] = {
    "install": ("installs, until it is gone or answers", "#bbdff5", BAR),
    "away": ("away, or DSP down", "#8c8c8c", 0.3),
    "acknowledged": ("acknowledgements", "#56b4e9", BAR),
    "check": ("check", "#009e73", BAR),
    "resend": ("sent again", "#0072b2", "m0-9 5 10h-10z"),
    "go_back": ("asks to go back", "#cc79a7", "m-6 5 10-5v10z"),
    "fault": ("fault", "#d55e00", "m-5-3 2-2 3 3 3-3 2 2-3 3 3 3-2 2-3-3-3 3-2-2 3-3z"),
    "joined": ("back on the bus", "#009e73", "m-5 0a5 5 0 1 0 10 0a5 5 0 1 0-10 0z"),
    "removed": ("dropped", "#000000", "m5-7h6v14h-6z"),
}


def _text(x: float, y: float, words: str, style: str = "") -> str:
    return f'<text x="{x:.0f}" y="{y:.0f}" {style}>{escape(words)}</text>'


def _path(d: str, colour: str, tooltip: str = "", style: str = "") -> str:
    return f'<path d="{d}" fill="{colour}" {style}><title>{escape(tooltip)}</title></path>'


def _box(x: float, y: float, width: float, height: float, colour: str, tooltip: str = "") -> str:
    return _path(f"M{x:.1f} {y:.1f}h{max(1.5, width):.1f}v{height:.1f}h-{max(1.5, width):.1f}z", colour, tooltip)


def _mark(kind: str, x: float, middle: float, width: float, lane: int, tooltip: str = "") -> str:
    _, colour, shape = KINDS[kind]
    if isinstance(shape, str):
        return _path(f"M{x:.1f} {middle:.1f}{shape}", colour, tooltip, 'stroke="#ffffff" stroke-width=".7"')
    return _box(x, middle - lane * shape / 2, width, lane * shape, colour, tooltip)


def _draw(analysis: Analysis) -> Iterator[str]:
    scale = PLOT / max(1, analysis.end)
    words = textwrap.wrap(answer(analysis), 150)
    top = TOP + 18 * len(words)
    lane = min(48, max(18, 640 // max(1, len(analysis.devices))))
    bottom = top + lane * len(analysis.devices)
    size = f'viewBox="0 0 {WIDTH} {bottom + 70}" width="{WIDTH}" height="{bottom + 70}"'
    yield f'<svg xmlns="http://www.w3.org/2000/svg" {size} font-family="sans-serif" font-size="11">'
    yield '<rect width="100%" height="100%" fill="#ffffff"/>'
    for number, line in enumerate(words, start=1):
        yield _text(10, 4 + 18 * number, line, 'font-size="14" font-weight="bold"')
    yield _text(10, top - 36, f"{about(analysis)}  {analysis.recording.problem}")
    for number, phase in enumerate(analysis.phases):
        yield from _phase(phase, scale, top - 22, bottom, "#eeeeee" if number % 2 else "#ffffff")
    yield from _axis(analysis.end / 1e6, top, bottom)
    columns = _columns(analysis, scale)
    for number, device in enumerate(analysis.devices.values()):
        yield from _lane(device, columns[device.id], scale, top + lane * (number + 0.5), lane)
    yield from _legend(bottom + 46)
    yield "</svg>\n"


def _phase(phase: Phase, scale: float, top: int, bottom: int, colour: str) -> Iterator[str]:
    x, width = LEFT + scale * phase.begin, scale * (phase.end - phase.begin)
    took = f"{phase.title}, {phase.begin / 1e6:.3f} to {phase.end / 1e6:.3f} s"
    yield _box(x, top, width, bottom - top, colour, took)
    fitting = [name for name in (phase.title, phase.name) if len(name) * TEXT < width]
    yield from [_text(x + width / 2, top + 14, name, 'text-anchor="middle"') for name in fitting[:1]]


def _axis(seconds: float, top: int, bottom: int) -> Iterator[str]:
    steps = (digit * 10.0**power for power in range(-6, 12) for digit in (1, 2, 5))
    step = next(step for step in steps if seconds / step <= 14)
    for count in range(int(seconds / step) + 1):
        x = LEFT + PLOT * count * step / max(1e-6, seconds)
        yield _box(x, top, 0, bottom - top + 5, "#c8c8c8")
        yield _text(x, bottom + 18, f"{count * step:g} s", 'text-anchor="middle"')


def _lane(device: Device, columns: Counter[int], scale: float, y: float, lane: int) -> Iterator[str]:
    yield _text(10, y + 4, device.title)
    yield _box(LEFT, y + lane / 2, PLOT, 0.5, "#c8c8c8", printable(device.id))
    for kind in KINDS:
        if kind == "acknowledged":
            yield _acknowledgements(columns, y + lane / 2, lane)
        near = groupby(device.marks[kind], lambda mark: scale * mark.begin // MERGED)
        for marks in ([*group] for _, group in near):
            begin, end, times = marks[0].begin, marks[-1].end, sum(mark.count for mark in marks)
            count = f"{times} times, first: " if times > 1 else ""
            x, when = LEFT + scale * begin, f"{begin / 1e6:.3f} to {end / 1e6:.3f} s"
            tooltip = f"{device.title}: {KINDS[kind][0]}, {when}; {count}{marks[0].text}"
            yield _mark(kind, x, y, scale * (end - begin), lane, tooltip)
            if kind == "removed":
                where, anchor = (x, "end") if x > LEFT + PLOT / 2 else (x + 16, "start")
                halo = f'paint-order="stroke" stroke="#ffffff" stroke-width="3" text-anchor="{anchor}"'
                yield _text(where, y + 4, marks[0].text, halo)


def _columns(analysis: Analysis, scale: float) -> defaultdict[str, Counter[int]]:
    """For each device, how many acknowledgements each pixel has."""
    columns: defaultdict[str, Counter[int]] = defaultdict(Counter)
    for event in analysis.recording.events():
        if isinstance(event, Acknowledgements):
            for device, at in zip(event.devices, event.times):
                columns[device][int(LEFT + scale * at)] += 1
        elif event.name == Acknowledgements.name and event.result == 0:
            columns[event.device or ""][int(LEFT + scale * event.at)] += 1
    return columns


def _acknowledgements(columns: Counter[int], bottom: float, lane: int) -> str:
    """A column for each pixel. It is the higher, the more there are."""
    unit = lane * BAR / log1p(max(columns.values(), default=1))
    d = "".join(f"M{x} {bottom:.0f}h1v-{unit * log1p(n):.0f}h-1z" for x, n in sorted(columns.items()))
    return _path(d, KINDS["acknowledged"][1])


def _legend(y: int) -> Iterator[str]:
    x: float = 10
    for kind, (words, *_) in KINDS.items():
        yield _mark(kind, x, y, 16, 20)
        yield _text(x + 22, y + 4, words)
        x += 46 + len(words) * TEXT


def as_text(analysis: Analysis) -> str:
    return "\n".join(_draw(analysis))


def write(picture: str, path: str) -> None:
    """Writes it whole, or leaves what is there. Raises OSError."""
    if os.path.exists(path) and not os.path.isfile(path):  # such as /dev/stdout
        with open(path, "w", encoding="utf-8") as file:
            file.write(picture)
        return
    path = os.path.realpath(path)
    with tempfile.TemporaryDirectory(dir=os.path.dirname(path)) as directory:
        temporary = os.path.join(directory, "picture")
        with open(temporary, "w", encoding="utf-8") as file:
            file.write(picture)
        os.replace(temporary, path)
