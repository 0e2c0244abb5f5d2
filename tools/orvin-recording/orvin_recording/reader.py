"""Reads a recording: what is damaged is left out and told."""

import json
from dataclasses import dataclass, field
from operator import index

VERSION = 1
LONGEST = 1e15  # microseconds
NO_FIELDS = {}

TYPES = {
    **dict.fromkeys(("t", "took"), (int, float)),
    **dict.fromkeys(("call", "callback", "device", "name"), str),
    **dict.fromkeys(("members", "by", "after"), list),
    **dict.fromkeys(("result", "packet", "thread", "acknowledged", "event", "target"), int),
    **dict.fromkeys(("hw", "arm", "dsp", "booster_arm", "api", "first_output", "second_output"), int),
}


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
    packet: int | None = None  # of ImageTransfer_data and TransferCallback
    took: int = 0
    thread: int = 1
    fields: dict = field(default_factory=dict)  # all that stands on the line; none for acknowledgements

    @property
    def is_callback(self):
        return self.name.endswith("Callback") and not self.name.startswith("TalmApi")


@dataclass
class Recording:
    """One run. The events stand in the order in which they were noted."""

    started: str = ""
    command: list[str] = field(default_factory=list)
    events: list[Event] = field(default_factory=list)
    problem: str = ""  # in one line; none: the recording is whole
    damaged: list[int] = field(default_factory=list)  # the lines that are left out


def read(path):
    """The first run in the file. Raises OSError or Unreadable."""
    recording = Recording()
    numbers = {}
    damaged = recording.damaged
    with open(path, "rb") as file:
        _read_header(recording, file.readline())
        for line, text in enumerate(file, start=2):
            try:
                entry = _checked(json.loads(text))
                if "orvin-recording" in entry:
                    recording.problem = f"line {line}: another run begins, which is left out"
                    break
                recording.events.extend(_events(line, entry, numbers))
            except (ValueError, TypeError, KeyError, OverflowError, RecursionError):
                if text.endswith(b"\n"):  # else it was cut off
                    damaged.append(line)
    if not recording.events:
        raise Unreadable("line 2: no call or callback follows")
    if damaged:
        more = f" and {len(damaged) - 1} more" if len(damaged) > 1 else ""
        recording.problem = f"line {damaged[0]}{more}: damaged, and left out"
    elif not recording.problem and not any(event.name == "TalmApiClose" for event in recording.events):
        recording.problem = f"line {recording.events[-1].line}: cut off, the session does not end"
    return recording


def _read_header(recording, text):
    try:
        header = json.loads(text)
        version = header["orvin-recording"]
        recording.started = str(header.get("started", ""))
        recording.command = [str(argument) for argument in header.get("command", [])]
    except (ValueError, TypeError, KeyError, RecursionError):
        raise Unreadable("line 1: not a recording") from None
    if version != VERSION:
        raise Unreadable(f"line 1: a recording of version {version}; this program reads version {VERSION}")


def _checked(entry):
    for key, value in dict.items(entry):
        if not isinstance(value, TYPES.get(key, object)):
            raise TypeError
    if not 0 <= entry.get("t", 0) * 1e6 <= LONGEST or not 0 <= entry.get("took", 0) * 1e6 <= LONGEST:
        raise ValueError
    return entry


def _events(line, entry, numbers):
    if "number" in entry:
        numbers[entry["number"]] = entry["device"]
        return []
    at = round(entry["t"] * 1e6)
    thread = entry.get("thread", 1)
    if "acknowledged" in entry:
        return _acknowledgements(line, at, entry, numbers)
    name = entry.get("call") or entry["callback"]
    needed = [] if name.startswith("TalmApi") and name != "TalmApiIsTalm" else ["device"]
    needed += ["packet"] if name in ("ImageTransfer_data", "TransferCallback") else []
    if not entry.keys() >= set(needed):
        raise KeyError
    took = round(entry.get("took", 0) * 1e6)
    device, result, packet = entry.get("device"), entry.get("result", 0), entry.get("packet")
    return [Event(line, at, name, device, result, packet, took, thread, entry)]


def _acknowledgements(line, at, entry, numbers):
    events = []
    packet = entry["acknowledged"]
    runs = entry.get("threads") or [entry.get("thread", 1), len(entry["by"])]
    if any(length > len(entry["by"]) for length in runs[1::2]):
        raise ValueError
    threads = [thread for thread, length in zip(runs[::2], runs[1::2], strict=True) for _ in range(length)]
    for number, after, thread in zip(entry["by"], entry["after"], threads, strict=True):
        at += index(after)
        if not 0 <= at <= LONGEST:
            raise ValueError
        events.append(Event(line, at, "TransferCallback", numbers[number], 0, packet, 0, thread, NO_FIELDS))
    return events
