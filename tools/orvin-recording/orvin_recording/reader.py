"""Reads a recording in pieces, in the order of time. Leaves out damaged lines and reports them."""

import json
import shutil
import tempfile
from collections.abc import Iterable, Iterator
from dataclasses import dataclass
from heapq import heappop, heappush
from itertools import accumulate
from typing import IO, Any, ClassVar

VERSION = 1
VERSIONS = "hw", "arm", "dsp", "booster_arm", "api"
LONGEST = 1e15  # microseconds
MOST_DEVICES = 250  # a bus has 63 at most
MOST_WAITING = 100_000  # callbacks
Fields = dict[str, Any]  # what stands on a line
LISTS = "members", "by", "after"
TEXTS = "call", "callback", "device", "members", "name", "connection", "crc32", "threads"
INTEGER: set[type] = {int}
TYPES: dict[str, set[type]] = {**dict.fromkeys(TEXTS, {str}), **dict.fromkeys(("t", "took"), {int, float})}
NUMBER = {"ImageTransfer_data": "packet", "TransferCallback": "packet", "BusChangeCallback": "event"}
CALLBACKS = "TransferCallback", "BusChangeCallback"
DAMAGE = ValueError, TypeError, KeyError, AttributeError, OverflowError, RecursionError


class Unreadable(Exception):
    """There is no recording in the file, or none of this version."""


@dataclass(slots=True)
class Event:
    """A call of the tool, or a callback. Times are microseconds since the recording began."""

    line: int
    thread: int  # 0: unknown
    at: int
    took: int
    name: str  # of the call, or one of CALLBACKS
    device: str | None  # "all": every one
    result: int
    number: int  # of the packet, or what a bus change was
    fields: Fields  # all that stands on the line; none for acknowledgements


@dataclass(slots=True)
class Acknowledgements:
    """Transfer callbacks with result 0 that share a line, one or more. The lists have the same length."""

    name: ClassVar[str] = "TransferCallback"
    line: int
    number: int  # of the packet
    threads: list[int]
    times: list[int]  # in ascending order
    devices: list[str]  # the same object as on the line before, if the devices are the same

    def events(self) -> Iterator[Event]:
        for thread, at, device in zip(self.threads, self.times, self.devices):
            yield Event(self.line, thread, at, 0, self.name, device, 0, self.number, {})

    def part(self, begin: int, end: int) -> "Acknowledgements":
        lists = self.threads[begin:end], self.times[begin:end], self.devices[begin:end]
        return Acknowledgements(self.line, self.number, *lists)


class Recording:
    """The first run in a file. Each use reads it anew, so it takes no memory."""

    def __init__(self, path: str) -> None:
        """Raises OSError or Unreadable."""
        self._file = _open(path)
        self.started, self.command = _header(self._file.readline())
        self._begin = self._file.tell()
        self.problem = ""  # in one line; none: the recording is whole. Known when all events are read
        self.first_damaged = 0  # line that is left out, of what is read so far

    def events(self) -> Iterator[Event | Acknowledgements]:
        """All, in the order in which they began. Raises Unreadable at the end if there are none."""
        yield from _in_order(self._read())
        if not self._last:
            raise Unreadable("line 2: no call or callback follows")
        if self.first_damaged:
            more = f" and {self._damaged - 1} more" if self._damaged > 1 else ""
            self.problem = f"line {self.first_damaged}{more}: damaged, and left out"
        elif self._next_run:
            self.problem = f"line {self._next_run}: another run begins, which is left out"
        elif not self._is_closed:
            self.problem = f"line {self._last}: cut off, the session does not end"

    def calls(self, *names: str) -> Iterator[Event]:
        """The calls of these names. Other lines are not looked at."""
        events = self._read(tuple(f'"{name}"'.encode() for name in names))
        return (event for event in events if isinstance(event, Event) and event.name in names)

    def _read(self, words: tuple[bytes, ...] = ()) -> Iterator[Event | Acknowledgements]:
        """The events in the order of the lines: of all, or of those with one of the words."""
        self._names: dict[int, str] = {}  # the numbers that stand for devices
        self._by: list[str] = []  # the devices of the last acknowledgements
        self._known: set[str] = set()  # devices
        self._damaged = self.first_damaged = 0  # how many lines, and the first one
        self._last = self._next_run = 0  # the line of the last event, and that where another run begins
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
                self._last = line
                self._is_closed |= event.name == "TalmApiClose"
                yield event

    def _event(self, line: int, entry: Fields) -> Event | Acknowledgements | None:
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
        at, took = _microseconds(entry["t"] * 1e6), _microseconds(entry.get("took", 0) * 1e6)
        name = entry.get("call") or entry["callback"]
        is_about_bus = name.startswith("TalmApi") and name != "TalmApiIsTalm"
        device = entry.get("device") if is_about_bus else entry["device"]
        number = entry[NUMBER[name]] if name in NUMBER else 0
        return Event(line, entry.get("thread", 1), at, took, name, device, entry.get("result", 0), number, entry)

    def _acknowledgements(self, line: int, entry: Fields) -> Acknowledgements | None:
        if entry.get("by"):
            self._by = [self._names[number] for number in entry["by"]]
        devices, after = self._by, entry["after"]
        times = [*accumulate(after, initial=_microseconds(entry["t"] * 1e6))][1:]
        marks = entry.get("threads")
        threads = (
            [int(mark, 36) for mark in marks.replace("?", "0")] if marks else [entry.get("thread", 1)] * len(after)
        )
        if not len(threads) == len(times) == len(devices):
            raise ValueError
        if not times:
            return None
        if min(after) < 0:
            order = sorted(range(len(times)), key=times.__getitem__)
            times, threads, devices = ([each[i] for i in order] for each in (times, threads, devices))
        _microseconds(times[0])
        _microseconds(times[-1])
        return Acknowledgements(line, entry["acknowledged"], threads, times, devices)


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


def _in_order(events: Iterable[Event | Acknowledgements]) -> Iterator[Event | Acknowledgements]:
    """A call stands where it ended, after the callbacks that came meanwhile. The tool calls from one thread, so only
    callbacks have to wait, until the call that follows them is read."""
    waiting: list[tuple[int, int, Event | Acknowledgements]] = []
    for count, event in enumerate(events):
        if event.name in CALLBACKS:
            at = event.times[0] if isinstance(event, Acknowledgements) else event.at
            heappush(waiting, (at, count, event))
            if len(waiting) > MOST_WAITING:
                yield heappop(waiting)[2]
            continue
        assert isinstance(event, Event)
        while waiting and waiting[0][0] <= event.at:
            _, order, callback = heappop(waiting)
            if isinstance(callback, Acknowledgements) and callback.times[-1] > event.at:
                early = sum(time <= event.at for time in callback.times)
                late, callback = callback.part(early, len(callback.times)), callback.part(0, early)
                heappush(waiting, (late.times[0], order, late))
            yield callback
        yield event
    while waiting:
        yield heappop(waiting)[2]


def _microseconds(time: float) -> int:
    if not 0 <= time <= LONGEST:  # nor if it is no number
        raise ValueError
    return round(time)
