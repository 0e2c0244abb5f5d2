"""Reads a recording. Leaves out damaged lines and reports them."""

import json
from dataclasses import dataclass, field
from itertools import accumulate
from typing import Any, BinaryIO

VERSION = 1
VERSIONS = "hw", "arm", "dsp", "booster_arm", "api"
LONGEST = 1e15  # microseconds
MOST_DEVICES = 250  # a bus has 63 at most
Fields = dict[str, Any]  # what stands on a line
NO_FIELDS: Fields = {}
LISTS = "members", "by", "after"
TEXTS = "call", "callback", "device", "members", "name", "connection", "crc32", "threads"
TYPES = dict.fromkeys(TEXTS, str) | dict.fromkeys(("t", "took"), int | float)  # all others are integers
NUMBER = {"ImageTransfer_data": "packet", "TransferCallback": "packet", "BusChangeCallback": "event"}
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
    name: str  # of the call, or "TransferCallback", "BusChangeCallback"
    device: str | None  # "all": every one
    result: int
    number: int  # of the packet, or what a bus change was
    fields: Fields  # all that stands on the line; none for acknowledgements


@dataclass
class Recording:
    """One run. The events stand in the order in which they began."""

    started: str
    command: list[str]
    events: list[Event] = field(default_factory=list)
    problem: str = ""  # in one line; none: the recording is whole
    damaged: list[int] = field(default_factory=list)  # the lines that are left out


def read(path: str) -> Recording:
    """The first run in the file. Raises OSError or Unreadable."""
    with open(path, "rb") as file:
        recording = _header(file.readline())
        _read_lines(recording, file)
    if not recording.events:
        raise Unreadable("line 2: no call or callback follows")
    if recording.damaged:
        first, *others = recording.damaged
        more = f" and {len(others)} more" if others else ""
        recording.problem = f"line {first}{more}: damaged, and left out"
    elif not recording.problem and not any(event.name == "TalmApiClose" for event in recording.events):
        recording.problem = f"line {recording.events[-1].line}: cut off, the session does not end"
    recording.events.sort(key=lambda event: event.at)  # those of the same moment stay in order
    return recording


def _header(text: bytes) -> Recording:
    try:
        header = json.loads(text)
        version = header["orvin-recording"]
        recording = Recording(str(header.get("started", "")), [str(word) for word in header.get("command", [])])
    except DAMAGE:
        raise Unreadable("line 1: not a recording") from None
    if version != VERSION:
        raise Unreadable(f"line 1: a recording of version {version}; this program reads version {VERSION}")
    return recording


def _read_lines(recording: Recording, file: BinaryIO) -> None:
    numbers: dict[int, str] = {}  # that stand for devices
    by: list[int] = []  # the numbers of the last acknowledgements
    known: set[str] = set()  # devices
    for line, text in enumerate(file, start=2):
        try:
            entry = json.loads(text)
            if "orvin-recording" in entry:
                recording.problem = f"line {line}: another run begins, which is left out"
                return
            _check(entry, known)
            recording.events += _events(line, entry, numbers, by)
        except DAMAGE:
            by.clear()  # others may have stood there
            if text.endswith(b"\n"):  # else the recording was cut off here
                recording.damaged.append(line)


def _check(entry: Fields, known: set[str]) -> None:
    for key, value in entry.items():
        values = value if key in LISTS else [value]
        if not isinstance(values, list) or not all(isinstance(each, TYPES.get(key, int)) for each in values):
            raise TypeError
    known |= {entry.get("device", "all"), *entry.get("members", [])}
    if len(known) > MOST_DEVICES:
        raise ValueError


def _events(line: int, entry: Fields, numbers: dict[int, str], by: list[int]) -> list[Event]:
    if "number" in entry:
        numbers[entry["number"]] = entry["device"]
        return []
    thread = entry.get("thread", 1)
    at, took = _microseconds(entry["t"] * 1e6), _microseconds(entry.get("took", 0) * 1e6)
    if "acknowledged" in entry:
        by[:] = entry.get("by") or by
        times = [_microseconds(time) for time in accumulate(entry["after"], initial=at)][1:]
        threads = [int(mark, 36) for mark in entry.get("threads", "").replace("?", "0")] or [thread] * len(by)
        answers = zip(threads, times, [numbers[number] for number in by], strict=True)
        packet = entry["acknowledged"]
        return [Event(line, on, t, 0, "TransferCallback", device, 0, packet, NO_FIELDS) for on, t, device in answers]
    name = entry.get("call") or entry["callback"]
    is_about_bus = name.startswith("TalmApi") and name != "TalmApiIsTalm"
    device = entry.get("device") if is_about_bus else entry["device"]
    number = entry[NUMBER[name]] if name in NUMBER else 0
    return [Event(line, thread, at, took, name, device, entry.get("result", 0), number, entry)]


def _microseconds(time: float) -> int:
    if not 0 <= time <= LONGEST:  # nor if it is no number
        raise ValueError
    return round(time)
