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
LINK, TRANSFERRING, RETURN = "waiting for the link", "transferring", "waiting for the return"
# By its name in a recording: what a bus file calls a call, and the step of the tool that begins with it.
CALLS = {
    "TalmApiInitialize": ("initialize", ""),
    "TalmApiOpen": ("open", ""),
    "TalmApiGetLinkState": ("link_state", RETURN),
    "TalmApiGetBusMembers": ("get_members", "looking for devices"),
    "BusMember_get_type": ("type_query", ""),
    "TalmApiIsTalm": ("is_talm", ""),
    "OrvinInfo": ("version_query", "asking versions"),
    "ImageTransfer_write_request": ("write_request", "announcing"),
    "ImageTransfer_data": ("data", TRANSFERRING),
    "TalmApiSetCallback": ("set_transfer_callback", "pausing"),
    "OrvinImageMaintenance_check_image": ("check", "checking"),
    "OrvinImageMaintenance_start_update": ("start", RETURN),
    "TalmApiSetBusChangeCallback": ("set_bus_change_callback", ""),
    "TalmApiCleanup": ("cleanup", "closing"),
    "TalmApiClose": ("close", "closing"),
}
TRANSFER, BUS_CHANGE = "TransferCallback", "BusChangeCallback"
LONGEST = 1e15  # microseconds
MOST_DEVICES = 250  # a bus has 63 at most
MOST_WAITING = 100_000  # lines of callbacks
Fields = dict[str, Any]  # of an object in JSON
LISTS = "members", "by", "after"
TEXTS = "call", "callback", "device", "members", "name", "connection", "crc32", "threads"
TYPES: dict[str, set[type]] = {**dict.fromkeys(TEXTS, {str}), **dict.fromkeys(("t", "took"), {int, float})}
DAMAGE = ValueError, TypeError, KeyError, AttributeError, OverflowError, RecursionError


class Unusable(Exception):
    """Why a recording cannot be used."""


@dataclass(slots=True)
class Call:
    """A call of the tool. Times are microseconds since the recording began."""

    line: int
    thread: int  # 0: unknown
    at: int
    took: int
    name: str  # in a bus file
    step: str  # of the tool, which it begins
    device: str  # "all": every one, "": none
    result: int
    packet: int  # that it sends
    fields: Fields  # all that stands on the line


@dataclass(slots=True)
class Callbacks:
    """Callbacks that share a line, at least one."""

    line: int
    name: str  # TRANSFER or BUS_CHANGE
    result: int
    number: int  # of the packet, or what the bus change was
    threads: set[int]  # of all that share the line
    times: list[int]  # in ascending order
    devices: list[str]  # the same object as on the line before, if the devices are the same

    def part(self, part: slice) -> "Callbacks":
        return replace(self, times=self.times[part], devices=self.devices[part])


class Recording:
    """The first run in a file. Each use reads it anew, so it takes no memory. Raises OSError or Unusable."""

    def __init__(self, path: str) -> None:
        self._file: IO[bytes] = open(path, "rb")
        if not self._file.seekable():
            with self._file as pipe:
                self._file = tempfile.TemporaryFile()
                shutil.copyfileobj(pipe, self._file)
            self._file.seek(0)
        try:
            header = json.loads(self._file.readline())
            version = header["orvin-recording"]
            self.started = str(header.get("started", ""))
            self.command = [str(word) for word in header.get("command", [])]
        except DAMAGE:
            raise Unusable("line 1: not a recording") from None
        if version != VERSION:
            raise Unusable(f"line 1: a recording of version {version}; this program reads version {VERSION}")
        self._begin = self._file.tell()
        self.problem = ""  # in one line, of what is read so far; none: it is whole
        self.first_damaged = 0  # line that is left out, of what is read so far
        self.last: Call | Callbacks | None = None  # that is read so far

    def events(self) -> Iterator[Call | Callbacks]:
        """All, in the order in which they began. Raises Unusable at the end if there are none."""
        yield from _in_order(self._read())
        if not self.last:
            raise Unusable("line 2: no call or callback follows")

    def _read(self) -> Iterator[Call | Callbacks]:
        """All, in the order of the lines."""
        self._names: dict[int, str] = {}  # the numbers that stand for devices
        self._by: list[str] = []  # the devices of the last acknowledgements
        self._known: set[str] = set()  # devices
        self.problem, self.first_damaged, self.last = "", 0, None
        is_closed, damaged = False, 0
        self._file.seek(self._begin)
        for line, text in enumerate(self._file, start=2):
            try:
                entry = json.loads(text)
                if "orvin-recording" in entry:
                    self.problem = self.problem or f"line {line}: another run begins, which is left out"
                    return
                event = self._event(line, entry)
            except DAMAGE:
                self._by = []  # others may have stood there
                if text.endswith(b"\n"):  # else the recording was cut off here
                    self.first_damaged, damaged = self.first_damaged or line, damaged + 1
                    more = f" and {damaged - 1} more" if damaged > 1 else ""
                    self.problem = f"line {self.first_damaged}{more}: damaged, and left out"
                continue
            if event:
                self.last = event
                is_closed |= event.name == "close"
                yield event
        if self.last and not is_closed:
            self.problem = self.problem or f"line {self.last.line}: cut off, the session does not end"

    def _event(self, line: int, entry: Fields) -> Call | Callbacks | None:
        for key, value in entry.items():
            if not {*map(type, value if key in LISTS else (value,))} <= TYPES.get(key, {int}):
                raise TypeError
        if "acknowledged" in entry:
            return self._acknowledgements(line, entry)
        self._known |= {entry.get("device", "all"), *entry.get("members", ())}
        if len(self._known) > MOST_DEVICES:
            raise ValueError
        if "number" in entry:
            self._names[entry["number"]] = entry["device"]
            return None
        thread, at, result = entry.get("thread", 1), _microseconds(entry["t"]), entry.get("result", 0)
        if "call" not in entry:
            name = entry["callback"]
            number = entry[{TRANSFER: "packet", BUS_CHANGE: "event"}[name]]
            return Callbacks(line, name, result, number, {thread}, [at], [entry["device"]])
        took, (name, step) = _microseconds(entry.get("took", 0)), CALLS.get(entry["call"], ("", ""))
        device, packet = entry.get("device", ""), entry.get("packet", -1)
        return Call(line, thread, at, took, name, step, device, result, packet, entry)

    def _acknowledgements(self, line: int, entry: Fields) -> Callbacks:
        if entry.get("by"):
            self._by = [self._names[number] for number in entry["by"]]
        devices, after, marks = self._by, entry["after"], entry.get("threads", "")
        times = [*accumulate(after, initial=_microseconds(entry["t"]))][1:]
        threads = {int(mark, 36) for mark in marks.replace("?", "0")} or {entry.get("thread", 1)}
        if not 0 < len(marks or times) == len(times) == len(devices):
            raise ValueError
        if min(after) < 0:
            order = sorted(range(len(times)), key=times.__getitem__)
            times, devices = [times[i] for i in order], [devices[i] for i in order]
        if times[0] < 0 or times[-1] > LONGEST:
            raise ValueError
        return Callbacks(line, TRANSFER, 0, entry["acknowledged"], threads, times, devices)


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
                heappush(waiting, (callbacks.times[early], order, callbacks.part(slice(early, None))))
                callbacks = callbacks.part(slice(early))
            yield callbacks
        yield event
    while waiting:
        yield heappop(waiting)[2]


def _microseconds(seconds: float) -> int:
    time = seconds * 1e6
    if not 0 <= time <= LONGEST:  # nor if it is no number
        raise ValueError
    return round(time)
