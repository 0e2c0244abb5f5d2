"""Reads a recording: what is damaged is left out and told."""

import json
from dataclasses import dataclass, field
from typing import Any, BinaryIO

VERSION = 1
LONGEST = 1e15  # microseconds
TYPES: dict[str, type | tuple[type, ...]] = {  # of the values on a line; all others are integers
    **dict.fromkeys(("call", "callback", "device", "name", "connection", "crc32", "threads"), str),
    **dict.fromkeys(("members", "by", "after"), list),
    **dict.fromkeys(("t", "took"), (int, float)),
}
DAMAGE = ValueError, TypeError, KeyError, AttributeError, OverflowError, RecursionError
Fields = dict[str, Any]  # what stands on a line
NO_FIELDS: Fields = {}


class Unreadable(Exception):
    """There is no recording in the file, or none of this version."""


@dataclass(slots=True)
class Event:
    """A call of the tool, or a callback. Times are microseconds since the recording began."""

    line: int
    at: int
    name: str  # of the call, or "TransferCallback", "BusChangeCallback"
    device: str | None = None  # "all": every one
    result: int = 0
    packet: int = 0  # of ImageTransfer_data and TransferCallback
    took: int = 0
    fields: Fields = field(default_factory=dict)  # all that stands on the line; none for acknowledgements


@dataclass
class Recording:
    """One run. The events stand in the order in which they were noted."""

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
    damaged = recording.damaged
    if not recording.events:
        raise Unreadable("line 2: no call or callback follows")
    if damaged:
        more = f" and {len(damaged) - 1} more" if len(damaged) > 1 else ""
        recording.problem = f"line {damaged[0]}{more}: damaged, and left out"
    elif not recording.problem and not any(event.name == "TalmApiClose" for event in recording.events):
        recording.problem = f"line {recording.events[-1].line}: cut off, the session does not end"
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
    devices: dict[int, str] = {}  # by the number that stands for them
    by: list[int] = []  # the numbers of the last acknowledgements
    for line, text in enumerate(file, start=2):
        try:
            entry = json.loads(text)
            if "orvin-recording" in entry:
                recording.problem = f"line {line}: another run begins, which is left out"
                return
            recording.events += _events(line, entry, devices, by)
        except DAMAGE:
            by.clear()  # others may have stood there
            if text.endswith(b"\n"):  # else the recording was cut off here
                recording.damaged.append(line)


def _events(line: int, entry: Fields, devices: dict[int, str], by: list[int]) -> list[Event]:
    if not all(isinstance(value, TYPES.get(key, int)) for key, value in entry.items()):
        raise TypeError
    if "number" in entry:
        devices[entry["number"]] = entry["device"]
        return []
    at, took = _checked(round(entry["t"] * 1e6)), _checked(round(entry.get("took", 0) * 1e6))
    if "acknowledged" in entry:
        return _acknowledgements(line, at, entry, devices, by)
    name = entry.get("call") or entry["callback"]
    is_about_bus = name.startswith("TalmApi") and name != "TalmApiIsTalm"
    device = entry.get("device") if is_about_bus else entry["device"]
    packet = entry["packet"] if name in ("ImageTransfer_data", "TransferCallback") else 0
    return [Event(line, at, name, device, entry.get("result", 0), packet, took, entry)]


def _acknowledgements(line: int, at: int, entry: Fields, devices: dict[int, str], by: list[int]) -> list[Event]:
    events = []
    by[:] = entry.get("by") or by
    if not by:
        raise ValueError
    for number, after in zip(by, entry["after"], strict=True):
        at = _checked(at + after)
        events.append(Event(line, at, "TransferCallback", devices[number], 0, entry["acknowledged"], 0, NO_FIELDS))
    return events


def _checked(microseconds: object) -> int:
    if not isinstance(microseconds, int) or not 0 <= microseconds <= LONGEST:
        raise ValueError
    return microseconds
