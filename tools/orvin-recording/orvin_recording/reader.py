"""Reads a recording in pieces, in the order of time. Leaves out damaged lines and reports them."""

import json
import shutil
import tempfile
from bisect import bisect
from collections.abc import Iterable, Iterator
from dataclasses import dataclass, replace
from heapq import heappop, heappush
from itertools import accumulate
from typing import IO, Any

VERSION = 1
VERSIONS = "hw", "arm", "dsp", "booster_arm", "api"
TRANSFER, BUS_CHANGE = "TransferCallback", "BusChangeCallback"
LONGEST = 1e15  # microseconds
MOST_DEVICES = 250  # a bus has 63 at most
MOST_WAITING = 100_000  # lines of callbacks
Fields = dict[str, Any]  # what stands on a line
LISTS = "members", "by", "after"
TEXTS = "call", "callback", "device", "members", "name", "connection", "crc32", "threads"
INTEGER: set[type] = {int}
TYPES: dict[str, set[type]] = {**dict.fromkeys(TEXTS, {str}), **dict.fromkeys(("t", "took"), {int, float})}
DAMAGE = ValueError, TypeError, KeyError, AttributeError, OverflowError, RecursionError


class Unreadable(Exception):
    """There is no recording in the file, or none of this version."""


@dataclass(slots=True)
class Call:
    """A call of the tool. Times are microseconds since the recording began."""

    line: int
    thread: int  # 0: unknown
    at: int
    took: int
    name: str
    device: str | None  # "all": every one
    result: int
    packet: int  # that it sends
    fields: Fields  # all that stands on the line


@dataclass(slots=True)
class Callbacks:
    """Callbacks that share a line, at least one. The lists have the same length."""

    line: int
    name: str  # TRANSFER or BUS_CHANGE
    result: int
    number: int  # of the packet, or what the bus change was
    threads: list[int]
    times: list[int]  # in ascending order
    devices: list[str]  # the same object as on the line before, if the devices are the same

    def part(self, begin: int, end: int) -> "Callbacks":
        return replace(
            self, threads=self.threads[begin:end], times=self.times[begin:end], devices=self.devices[begin:end]
        )


class Recording:
    """The first run in a file. Each use reads it anew, so it takes no memory."""

    def __init__(self, path: str) -> None:
        """Raises OSError or Unreadable."""
        self._file = _open(path)
        self.started, self.command = _header(self._file.readline())
        self._begin = self._file.tell()
        self.problem = ""  # in one line; none: the recording is whole. Known when all events are read
        self.first_damaged = 0  # line that is left out, of what is read so far
        self.last: Call | Callbacks | None = None  # that is read so far

    def events(self) -> Iterator[Call | Callbacks]:
        """All, in the order in which they began. Raises Unreadable at the end if there are none."""
        yield from _in_order(self._read())
        if not self.last:
            raise Unreadable("line 2: no call or callback follows")
        if self.first_damaged:
            more = f" and {self._damaged - 1} more" if self._damaged > 1 else ""
            self.problem = f"line {self.first_damaged}{more}: damaged, and left out"
        elif self._next_run:
            self.problem = f"line {self._next_run}: another run begins, which is left out"
        elif not self._is_closed:
            self.problem = f"line {self.last.line}: cut off, the session does not end"

    def calls(self, *names: str) -> Iterator[Call]:
        """The calls of these names. Other lines are not looked at."""
        events = self._read(tuple(f'"{name}"'.encode() for name in names))
        return (event for event in events if isinstance(event, Call) and event.name in names)

    def _read(self, words: tuple[bytes, ...] = ()) -> Iterator[Call | Callbacks]:
        """The events in the order of the lines: of all, or of those with one of the words."""
        self._names: dict[int, str] = {}  # the numbers that stand for devices
        self._by: list[str] = []  # the devices of the last acknowledgements
        self._known: set[str] = set()  # devices
        self._damaged = self.first_damaged = 0  # how many lines, and the first one
        self._next_run = 0  # the line where another run begins
        self.last = None
        self._is_closed = False
        self._file.seek(self._begin)
        for line, text in enumerate(self._file, start=2):
            if words and not any(word in text for word in words) and b'"orvin-recording"' not in text:
                continue
            try:
                entry = json.loads(text)
                if "orvin-recording" in entry:
                    self._next_run = line
                    return
                event = self._event(line, entry)
            except DAMAGE:
                self._by = []  # others may have stood there
                if text.endswith(b"\n"):  # else the recording was cut off here
                    self._damaged += 1
                    self.first_damaged = self.first_damaged or line
                continue
            if event:
                self.last = event
                self._is_closed |= event.name == "TalmApiClose"
                yield event

    def _event(self, line: int, entry: Fields) -> Call | Callbacks | None:
        for key, value in entry.items():
            if not {*map(type, value if key in LISTS else (value,))} <= TYPES.get(key, INTEGER):
                raise TypeError
        if "acknowledged" in entry:
            return self._acknowledgements(line, entry)
        self._known |= {entry.get("device", "all"), *entry.get("members", ())}
        if len(self._known) > MOST_DEVICES:
            raise ValueError
        if "number" in entry:
            self._names[entry["number"]] = entry["device"]
            return None
        thread, at, took = entry.get("thread", 1), _microseconds(entry["t"]), _microseconds(entry.get("took", 0))
        result = entry.get("result", 0)
        if "call" not in entry:
            name = entry["callback"]
            number = entry[{TRANSFER: "packet", BUS_CHANGE: "event"}[name]]
            return Callbacks(line, name, result, number, [thread], [at], [entry["device"]])
        name = entry["call"]
        is_about_bus = name.startswith("TalmApi") and name != "TalmApiIsTalm"
        device = entry.get("device") if is_about_bus else entry["device"]
        packet = entry["packet"] if name == "ImageTransfer_data" else -1
        return Call(line, thread, at, took, name, device, result, packet, entry)

    def _acknowledgements(self, line: int, entry: Fields) -> Callbacks | None:
        if entry.get("by"):
            self._by = [self._names[number] for number in entry["by"]]
        devices, after, marks = self._by, entry["after"], entry.get("threads", "").replace("?", "0")
        times = [*accumulate(after, initial=_microseconds(entry["t"]))][1:]
        threads = [int(mark, 36) for mark in marks] or [entry.get("thread", 1)] * len(after)
        if not len(threads) == len(times) == len(devices):
            raise ValueError
        if not times:
            return None
        if min(after) < 0:
            order = sorted(range(len(times)), key=times.__getitem__)
            times, threads, devices = ([each[i] for i in order] for each in (times, threads, devices))
        if times[0] < 0 or times[-1] > LONGEST:
            raise ValueError
        return Callbacks(line, TRANSFER, 0, entry["acknowledged"], threads, times, devices)


def _open(path: str) -> IO[bytes]:
    file: IO[bytes] = open(path, "rb")
    if file.seekable():
        return file
    with file:
        copy = tempfile.TemporaryFile()
        shutil.copyfileobj(file, copy)
    copy.seek(0)
    return copy


def _header(text: bytes) -> tuple[str, list[str]]:
    """When the run started, and its command."""
    try:
        header = json.loads(text)
        version = header["orvin-recording"]
        result = str(header.get("started", "")), [str(word) for word in header.get("command", [])]
    except DAMAGE:
        raise Unreadable("line 1: not a recording") from None
    if version != VERSION:
        raise Unreadable(f"line 1: a recording of version {version}; this program reads version {VERSION}")
    return result


def _in_order(events: Iterable[Call | Callbacks]) -> Iterator[Call | Callbacks]:
    """A call stands in the file where it ended, after the callbacks that came meanwhile. The tool calls from one
    thread, so only callbacks have to wait, until the call that follows them is read."""
    waiting: list[tuple[int, int, Callbacks]] = []
    for count, event in enumerate(events):
        if isinstance(event, Callbacks):
            heappush(waiting, (event.times[0], count, event))
            if len(waiting) > MOST_WAITING:
                yield heappop(waiting)[2]
            continue
        while waiting and waiting[0][0] <= event.at:
            _, order, callbacks = heappop(waiting)
            early = bisect(callbacks.times, event.at)
            if early < len(callbacks.times):
                late, callbacks = callbacks.part(early, len(callbacks.times)), callbacks.part(0, early)
                heappush(waiting, (late.times[0], order, late))
            yield callbacks
        yield event
    while waiting:
        yield heappop(waiting)[2]


def _microseconds(seconds: float) -> int:
    time = seconds * 1e6
    if not 0 <= time <= LONGEST:  # nor if it is no number
        raise ValueError
    return round(time)
