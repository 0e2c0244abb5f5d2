"""Draws a run: a lane for each device, time to the right. Times are microseconds, lengths pixels."""

import textwrap
from bisect import bisect
from collections import Counter, defaultdict
from collections.abc import Iterable, Iterator
from itertools import chain, groupby
from math import ceil, log1p
from xml.sax.saxutils import escape

from .analysis import Analysis, Device, Phase, printable
from .reader import TRANSFER, Callbacks, Unusable
from .summary import about, answer

WIDTH = 1400
EDGE = 10
FONT, LARGE = 11, 14
ADVANCE = 0.61  # width of a character, as a part of the size of its font: the same in all fonts of a fixed width
MOST_REASON = 50  # characters
ROW = 20  # height, of the legend
BREAK = 34  # what is left of a wait that is cut out
SHORTEST = 100_000  # of the waits that are cut out
SHARE = 40  # a wait is cut out if it takes more than this part of the axis
MOST_BREAKS = 16
MOST_TICKS = 14
BAND = 18  # width, of the mark of a break
MERGED = 7  # marks of a kind in a stretch of this length share one
BAR = 0.7  # height, as a part of the lane
GREY, WHITE = "#c8c8c8", "#ffffff"
# Of marks, in the order of drawing: title, colour, and height as a part of the lane, or the path of a symbol.
KINDS: dict[str, tuple[str, str, float | str]] = {
    "install": ("installs, until it is gone or answers", "#bbdff5", BAR),
    "away": ("away, or DSP down", "#8c8c8c", 0.3),
    "acknowledged": ("acknowledgements", "#56b4e9", BAR),
    "check": ("check", "#009e73", BAR),
    "resend": ("sent again", "#0072b2", "m0-6 6 12h-12z"),
    "go_back": ("asks to go back", "#cc79a7", "m-6 0 12-6v12z"),
    "fault": ("fault", "#d55e00", "m-5-3 2-2 3 3 3-3 2 2-3 3 3 3-2 2-3-3-3 3-2-2 3-3z"),
    "joined": ("back on the bus", "#009e73", "m-5 0a5 5 0 1 0 10 0a5 5 0 1 0-10 0z"),
    "removed": ("dropped, with the reason on the right", "#000000", "m-3-7h6v14h-6z"),
}


class Axis:
    """Shows `begin` to `end`. `breaks` are the begins and ends of what is cut out: long waits, with nothing busy."""

    def __init__(self, left: int, width: int, begin: float, end: float, busy: Iterable[tuple[float, float]]) -> None:
        self.begin, self.end = begin, end
        waits, last = [], begin
        for start, stop in [*sorted(busy), (end, end)]:
            start, stop = min(max(start, begin), end), min(max(stop, begin), end)
            if start - last > SHORTEST:
                waits.append((last, start))
            last = max(last, stop)
        self.breaks: list[tuple[float, float]] = []
        self.shown = end - begin  # what is not cut out
        for start, stop in sorted(waits, key=lambda wait: wait[0] - wait[1])[:MOST_BREAKS]:
            if (stop - start) * SHARE > self.shown:
                self.breaks.append((start, stop))
                self.shown -= stop - start
        self.breaks.sort()
        scale = (width - BREAK * len(self.breaks)) / max(1, self.shown)
        self._bends = [(begin, float(left))]  # times and their places; the axis is straight between them
        for start, stop in self.breaks:
            x = self._bends[-1][1] + scale * (start - self._bends[-1][0])
            self._bends += [(start, x), (stop, x + BREAK)]
        self._bends.append((end, left + width))

    def x(self, time: float) -> float:
        """The place of a time. What is not shown has the place of the nearest end."""
        time = min(max(time, self.begin), self.end)
        number = bisect(self._bends, (time,), hi=len(self._bends) - 1)
        (t, x), (next_t, next_x) = self._bends[max(0, number - 1)], self._bends[number]
        return x + (next_x - x) * (time - t) / max(1, next_t - t)

    def ticks(self) -> Iterator[tuple[float, str]]:
        """Places and their texts: where the axis begins or goes on after a break, and round seconds."""
        steps = (digit * 10**power for power in range(16) for digit in (1, 2, 5))
        step = next(step for step in steps if self.shown <= step * MOST_TICKS)
        digits = max(1, 7 - len(str(step)))
        for (start, _), (stop, _) in zip(self._bends[::2], self._bends[1::2]):
            for time in sorted({start, *range(-int(-start // step) * step, int(stop) + 1, step)}):
                yield self.x(time), f"{time / 1e6:.{digits}f} s"


def _length(words: str, font: int = FONT) -> float:
    return len(words) * font * ADVANCE


LEGEND_WIDTH = int(ROW + 3 * EDGE + max(_length(words) for words, *_ in KINDS.values()))
LEGEND_COLUMNS = (WIDTH - EDGE) // LEGEND_WIDTH


def _text(x: float, y: float, words: str, style: str = "") -> str:
    return f'<text x="{x:.0f}" y="{y:.0f}" {style}>{escape(words)}</text>'


def _path(d: str, colour: str, tooltip: str = "", style: str = "") -> str:
    return f'<path d="{d}" fill="{colour}" {style}><title>{escape(tooltip)}</title></path>'


def _box(x: float, y: float, width: float, height: float, colour: str, tooltip: str = "") -> str:
    return _path(f"M{x:.1f} {y:.1f}h{max(1.5, width):.1f}v{height:.1f}h-{max(1.5, width):.1f}z", colour, tooltip)


def _mark(kind: str, x: float, middle: float, width: float, lane: int, tooltip: str = "") -> str:
    _, colour, shape = KINDS[kind]
    if isinstance(shape, str):
        return _path(f"M{x:.1f} {middle:.1f}{shape}", colour, tooltip, f'stroke="{WHITE}" stroke-width=".7"')
    return _box(x, middle - lane * shape / 2, width, lane * shape, colour, tooltip)


def _reasons(device: Device) -> str:
    return textwrap.shorten("; ".join(mark.text for mark in device.marks["removed"]), MOST_REASON, placeholder=" ...")


def _draw(analysis: Analysis, axis: Axis) -> Iterator[str]:
    words = textwrap.wrap(answer(analysis), int((WIDTH - 2 * EDGE) / _length("m", LARGE)))
    top = 60 + 18 * len(words)
    lane = min(48, max(18, 640 // max(1, len(analysis.devices))))
    bottom = top + lane * len(analysis.devices)
    height = bottom + 40 + ROW * ceil(len(KINDS) / LEGEND_COLUMNS)
    size = f'viewBox="0 0 {WIDTH} {height}" width="{WIDTH}" height="{height}"'
    yield f'<svg xmlns="http://www.w3.org/2000/svg" {size} font-family="monospace" font-size="{FONT}">'
    yield f'<rect width="100%" height="100%" fill="{WHITE}"/>'
    for number, line in enumerate(words, start=1):
        yield _text(EDGE, 4 + 18 * number, line, f'font-size="{LARGE}" font-weight="bold"')
    yield _text(EDGE, top - 36, f"{about(analysis)}  {analysis.recording.problem}")
    for number, phase in enumerate(analysis.phases):
        yield from _phase(phase, axis, top - 22, bottom, "#eeeeee" if number % 2 else WHITE)
    yield from _ticks(axis, top, bottom)
    columns = _columns(analysis, axis)
    for number, device in enumerate(analysis.devices.values()):
        yield from _lane(device, columns[device.id], axis, top + lane * (number + 0.5), lane)
    for begin, end in axis.breaks:
        yield from _break((axis.x(begin) + axis.x(end)) / 2, top, bottom + 6, (end - begin) / 1e6)
    yield from _legend(bottom + 46)
    yield "</svg>\n"


def _phase(phase: Phase, axis: Axis, top: int, bottom: int, colour: str) -> Iterator[str]:
    x, end = axis.x(phase.begin), axis.x(phase.end)
    if x == end:
        return
    yield _box(x, top, end - x, bottom - top, colour, f"{phase.title}, {_when(phase.begin, phase.end)}")
    fitting = [name for name in (phase.title, phase.name) if _length(name) < end - x]
    yield from [_text((x + end) / 2, top + 14, name, 'text-anchor="middle"') for name in fitting[:1]]


def _when(begin: float, end: float) -> str:
    return f"{begin / 1e6:.3f} to {end / 1e6:.3f} s"


def _ticks(axis: Axis, top: int, bottom: int) -> Iterator[str]:
    last = 0.0
    for x, words in axis.ticks():
        if x - _length(words) / 2 > last:
            yield _box(x, top, 0, bottom - top + 5, GREY)
            yield _text(x, bottom + 18, words, 'text-anchor="middle"')
            last = x + _length(words) / 2 + EDGE


def _break(x: float, top: int, bottom: int, seconds: float) -> Iterator[str]:
    yield _box(x - BAND / 2, top, BAND, bottom - top, WHITE)
    for side in (x - BAND / 2, x + BAND / 2):
        yield f'<path d="M{side:.1f} {top}V{bottom}" stroke="#8c8c8c" stroke-dasharray="4 3"/>'
    middle = (top + bottom) / 2
    style = f'text-anchor="middle" transform="rotate(-90 {x:.0f} {middle:.0f})"'
    yield _text(x + 4, middle, f"{seconds:.1f} s" if seconds >= 1 else f"{seconds * 1e3:.0f} ms", style)


def _lane(device: Device, columns: Counter[int], axis: Axis, y: float, lane: int) -> Iterator[str]:
    left, right = axis.x(axis.begin), axis.x(axis.end)
    yield _text(EDGE, y + 4, device.title)
    yield _text(right + EDGE, y + 4, _reasons(device))
    yield _box(left, y + lane / 2, right - left, 0.5, GREY, printable(device.id))
    for kind in KINDS:
        if kind == "acknowledged":
            unit = lane * BAR / log1p(max(columns.values(), default=1))
            bars = (f"M{x} {y + lane / 2:.0f}h1v-{unit * log1p(n):.0f}h-1z" for x, n in sorted(columns.items()))
            yield _path("".join(bars), KINDS[kind][1])
        shown = (mark for mark in device.marks[kind] if mark.end >= axis.begin and mark.begin <= axis.end)
        for _, near in groupby(shown, lambda mark: axis.x(mark.begin) // MERGED):
            marks = [*near]
            begin, end, times = marks[0].begin, marks[-1].end, sum(mark.count for mark in marks)
            count = f"{times} times, first: " if times > 1 else ""
            tooltip = f"{device.title}: {KINDS[kind][0]}, {_when(begin, end)}; {count}{marks[0].text}"
            yield _mark(kind, axis.x(begin), y, axis.x(end) - axis.x(begin), lane, tooltip)


def _columns(analysis: Analysis, axis: Axis) -> defaultdict[str, Counter[int]]:
    """For each device, how many acknowledgements each pixel has. A column is the higher, the more there are."""
    columns: defaultdict[str, Counter[int]] = defaultdict(Counter)
    for event in analysis.recording.events():
        if isinstance(event, Callbacks) and event.name == TRANSFER and event.result == 0:
            first, last = int(axis.x(event.times[0])), int(axis.x(event.times[-1]))
            for at, device in zip(event.times, event.devices):
                if axis.begin <= at <= axis.end:
                    columns[device][first if first == last else int(axis.x(at))] += 1
    return columns


def _legend(y: int) -> Iterator[str]:
    for number, (kind, (words, _, shape)) in enumerate(KINDS.items()):
        row, column = divmod(number, LEGEND_COLUMNS)
        x, middle = EDGE + LEGEND_WIDTH * column, y + ROW * row
        yield _mark(kind, x + ROW / 2 if isinstance(shape, str) else x, middle, ROW, ROW)
        yield _text(x + ROW + EDGE, middle + 4, words)


def as_text(analysis: Analysis, begin: float, end: float) -> str:
    """The SVG of a part of the run. Raises Unusable if there is none."""
    begin, end = max(begin, 0), min(end, analysis.end)
    if not begin < end:
        raise Unusable(f"nothing to draw: the run takes {analysis.end / 1e6:.3f} s")
    devices = analysis.devices.values()
    marks = [mark for device in devices for kind in device.marks.values() for mark in kind]
    ends = ((end, end) for mark in marks for end in (mark.begin, mark.end))
    busy = chain(((answers.begin, answers.end) for answers in analysis.answers), ends)
    left = 2 * EDGE + max((_length(device.title) for device in devices), default=0)
    right = 3 * EDGE + max((_length(_reasons(device)) for device in devices), default=0)
    return "\n".join(_draw(analysis, Axis(int(left), int(WIDTH - left - right), begin, end, busy)))
