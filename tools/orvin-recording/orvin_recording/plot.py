"""Draws a run: a lane for each device, time to the right. Times are microseconds, lengths pixels."""

import math
import os
import textwrap
from collections import Counter, defaultdict
from xml.sax.saxutils import escape

from .device import printable
from .summary import PHASES, TARGETS, about, answer

LEFT, PLOT, RIGHT, TOP = 210, 1160, 30, 100
LEVELS = 4  # of the height of the acknowledgements
MERGED = 7  # symbols nearer than this share one
TEXT = 6.2  # width of a character
SHADES = "#ffffff", "#eeeeee"
BARS = {  # kind of a mark: title, colour, height as a part of the lane
    "install": ("installs, until it is gone or answers", "#bbdff5", 0.7),
    "away": ("away, or DSP down", "#8c8c8c", 0.3),
    "check": ("check", "#009e73", 0.7),
    "late": ("late acknowledgement", "#e69f00", 0.45),
    "lost": ("only after it was sent again, or never", "#d55e00", 0.45),
}
SYMBOLS = {  # kind of a mark: title, colour, path around 0,0, how much of the lane below its middle
    "resend": ("sent again", "#0072b2", "m0-6 5 10h-10z", -0.2),
    "go_back": ("asks to go back", "#cc79a7", "m-6 0 10-5v10z", 0.2),
    "fault": ("fault", "#d55e00", "m-5-3 2-2 3 3 3-3 2 2-3 3 3 3-2 2-3-3-3 3-2-2 3-3z", 0),
    "joined": ("back on the bus", "#009e73", "m-5 0a5 5 0 1 0 10 0a5 5 0 1 0-10 0z", 0),
    "removed": ("dropped", "#000000", "m5-7h6v14h-6z", 0),
}
ACKNOWLEDGED = "#56b4e9"


class _Picture:
    def __init__(self, analysis):
        self.analysis = analysis
        self.devices = list(analysis.devices.values())
        self.lane = min(48, max(18, 640 // max(1, len(self.devices))))
        self.answer = textwrap.wrap(answer(analysis), 150)
        self.top = TOP + 18 * len(self.answer)
        self.bottom = self.top + self.lane * len(self.devices)
        self.end = max(1, analysis.end)
        self.parts = []
        self.columns = [Counter(int(self.x(at)) for at in device.acknowledged) for device in self.devices]
        self.most = max((max(column.values()) for column in self.columns if column), default=1)

    def x(self, at):
        return LEFT + PLOT * at / self.end

    def text(self, x, y, words, more=""):
        self.parts.append(f'<text x="{x:.0f}" y="{y:.0f}"{more}>{escape(words)}</text>')

    def path(self, d, colour, title="", more=""):
        inner = f"<title>{escape(title)}</title>" if title else ""
        self.parts.append(f'<path d="{d}" fill="{colour}"{more}>{inner}</path>')

    def box(self, x, y, width, height, colour, title="", more=""):
        self.path(f"M{x:.1f} {y:.1f}h{max(1.5, width):.1f}v{height:.1f}h-{max(1.5, width):.1f}z", colour, title, more)

    def draw(self):
        self._head()
        for shade, phase in enumerate(self.analysis.phases):
            self._band(phase, SHADES[shade % 2])
        self._attempts()
        self._axis()
        for index, device in enumerate(self.devices):
            self._lane(device, self.columns[index], self.top + self.lane * index)
        self._legend()
        width, height = LEFT + PLOT + RIGHT, self.bottom + 110
        return (
            f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}"'
            f' height="{height}" font-family="sans-serif" font-size="11">\n'
            '<rect width="100%" height="100%" fill="#ffffff"/>\n'
            + "\n".join(self.parts)
            + "\n</svg>\n"
        )

    def _head(self):
        for number, line in enumerate(self.answer, start=1):
            self.text(10, 4 + 18 * number, line, ' font-size="14" font-weight="bold"')
        self.text(10, self.top - 76, f"{about(self.analysis)}  {self.analysis.recording.problem}")

    def _band(self, phase, colour):
        begin, end = self.x(phase.begin), self.x(phase.end)
        took = f"{PHASES[phase.name]}: {phase.begin / 1e6:.3f} to {phase.end / 1e6:.3f} s"
        self.box(begin, self.top - 22, end - begin, self.bottom - self.top + 22, colour, took)
        name = PHASES[phase.name] if len(PHASES[phase.name]) * TEXT < end - begin else phase.name
        if len(name) * TEXT < end - begin:
            self.text((begin + end) / 2, self.top - 8, name, ' text-anchor="middle"')

    def _attempts(self):
        spans = {}
        for phase in self.analysis.phases:
            if phase.image:
                first, _ = spans.setdefault((phase.image, phase.attempt, phase.target), (phase.begin, phase.end))
                spans[phase.image, phase.attempt, phase.target] = first, phase.end
        for (image, attempt, target), (begin, end) in spans.items():
            left, right = self.x(begin), self.x(end)
            words = f"image {image} ({TARGETS.get(target, target)}), attempt {attempt}"
            self.box(left, self.top - 42, right - left - 1, 17, "#d9d9d9", words)
            if len(words) * TEXT < right - left:
                self.text((left + right) / 2, self.top - 30, words, ' text-anchor="middle"')

    def _axis(self):
        step = next(step for power in range(-6, 12) for step in (10.0**power, 2 * 10.0**power, 5 * 10.0**power)
                    if self.end / 1e6 / step <= 14)
        for count in range(int(self.end / 1e6 / step) + 1):
            x = self.x(count * step * 1e6)
            self.box(x - 0.25, self.top, 0.5, self.bottom - self.top + 5, "#c8c8c8")
            self.text(x, self.bottom + 18, f"{count * step:g} s", ' text-anchor="middle"')

    def _lane(self, device, column, y):
        middle = y + self.lane / 2
        self.parts.append(f"<g><title>{escape(printable(device.id))}</title>")
        self.text(10, middle + 4, device.title)
        self.parts.append("</g>")
        self.box(LEFT, y + self.lane - 0.5, PLOT, 0.5, "#c8c8c8")
        for kind in ("install", "away"):
            self._bars(device, kind, middle)
        self._acknowledgements(column, y)
        for kind in ("check", "late", "lost"):
            self._bars(device, kind, middle)
        for kind in SYMBOLS:
            self._symbols(device, kind, middle)

    def _acknowledgements(self, column, y):
        """Columns of the same height share a rectangle."""
        levels = {x: math.ceil(LEVELS * math.log1p(count) / math.log1p(self.most)) for x, count in column.items()}
        d = ""
        begin = 0
        for x in sorted(levels):
            if levels.get(x - 1) != levels[x]:
                begin = x
            if levels.get(x + 1) != levels[x]:
                height = round(levels[x] / LEVELS * self.lane * 0.7)
                d += f"M{begin} {y + self.lane - 1}h{x + 1 - begin}v-{height}H{begin}z"
        if d:
            self.path(d, ACKNOWLEDGED)

    def _bars(self, device, kind, middle):
        """Bars that would touch share one."""
        title, colour, part = BARS[kind]
        merged = []
        for mark in sorted(device.marked(kind), key=lambda mark: mark.begin):
            if merged and self.x(mark.begin) - self.x(merged[-1][-1].end) < 2:
                merged[-1].append(mark)
            else:
                merged.append([mark])
        height = self.lane * part
        for marks in merged:
            begin, end = self.x(marks[0].begin), self.x(marks[-1].end)
            self.box(begin, middle - height / 2, end - begin, height, colour, self._tooltip(device, title, marks))

    def _symbols(self, device, kind, middle):
        title, colour, d, below = SYMBOLS[kind]
        merged = defaultdict(list)
        for mark in device.marked(kind):
            merged[self.x(mark.begin) // MERGED].append(mark)
        for marks in merged.values():
            x = self.x(marks[0].begin)
            self._symbol(x, middle + below * self.lane, d, colour, self._tooltip(device, title, marks))
            if kind == "removed":
                self._reason(x + 8, middle + 4, marks[0].text)

    def _symbol(self, x, y, d, colour, title=""):
        self.path(f"M{x:.1f} {y:.1f}{d}", colour, title, ' stroke="#ffffff" stroke-width=".7"')

    def _reason(self, x, y, words):
        fits = x + 8 + len(words) * TEXT < LEFT + PLOT + RIGHT
        halo = ' paint-order="stroke" stroke="#ffffff" stroke-width="3"'
        self.text(x + 8 if fits else x - 16, y, words, halo if fits else halo + ' text-anchor="end"')

    @staticmethod
    def _tooltip(device, title, marks):
        last = f" to {marks[-1].end / 1e6:.3f}" if marks[-1].end > marks[0].begin else ""
        count = f"{len(marks)} times, first: " if len(marks) > 1 else ""
        return f"{device.title}: {title}, {marks[0].begin / 1e6:.3f}{last} s; {count}{marks[0].text}"

    def _legend(self):
        x, y = LEFT, self.bottom + 46
        bars = {"": ("acknowledgements", ACKNOWLEDGED, 0.7)} | BARS
        for title, colour, part in bars.values():
            self.box(x, y - 10 * part, 16, 20 * part, colour)
            self.text(x + 22, y + 4, title)
            x += 46 + len(title) * TEXT
        x, y = LEFT, y + 30
        for title, colour, d, _ in SYMBOLS.values():
            self._symbol(x + 8, y, d, colour)
            self.text(x + 24, y + 4, title)
            x += 46 + len(title) * TEXT


def write(analysis, path):
    """Writes the picture whole, or leaves what is there. Raises OSError."""
    picture = _Picture(analysis).draw()
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
