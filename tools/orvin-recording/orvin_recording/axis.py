"""Places the times of a run on an axis from which long waits are cut out. Times are microseconds, lengths pixels."""

from bisect import bisect
from collections.abc import Iterable, Iterator

BREAK = 34  # what is left of a wait that is cut out
SHORTEST = 100_000  # of the waits that are cut out
SHARE = 40  # a wait is cut out if it takes more than this part of the axis
MOST_BREAKS = 16
MOST_TICKS = 14


class Axis:
    """Shows `begin` to `end`. `breaks` are the begins and ends of what is cut out."""

    def __init__(self, left: int, width: int, begin: float, end: float, busy: Iterable[tuple[float, float]]) -> None:
        """Something happens in the stretches that are busy, and only there."""
        self.begin, self.end = begin, end
        waits, last = [], begin
        for start, stop in [*sorted(busy), (end, end)]:
            start, stop = min(max(start, begin), end), min(max(stop, begin), end)
            if start - last > SHORTEST:
                waits.append((last, start))
            last = max(last, stop)
        waits.sort(key=lambda wait: wait[0] - wait[1])
        self.breaks: list[tuple[float, float]] = []
        self.shown = end - begin  # what is not cut out
        for start, stop in waits[:MOST_BREAKS]:
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
