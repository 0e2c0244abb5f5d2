"""Reads a recording: what is damaged is left out and told."""

import json
from dataclasses import dataclass, field

VERSION = 1


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


def read(path):
    """The first run in the file. Raises OSError or Unreadable."""
    recording = Recording()
    numbers = {}
    damaged = []
    with open(path, "rb") as file:
        _read_header(recording, file.readline())
        for line, text in enumerate(file, start=2):
            try:
                entry = json.loads(text)
                if "orvin-recording" in entry:
                    recording.problem = f"line {line}: another run begins, which is left out"
                    break
                recording.events.extend(_events(line, entry, numbers))
            except (ValueError, TypeError, KeyError, AttributeError):
                damaged.append(line)
    if damaged:
        more = f" and {len(damaged) - 1} more" if len(damaged) > 1 else ""
        recording.problem = f"line {damaged[0]}{more}: damaged, and left out"
    elif not recording.problem and not any(event.name == "TalmApiClose" for event in recording.events):
        last = recording.events[-1].line if recording.events else 1
        recording.problem = f"line {last}: cut off, the session does not end"
    return recording


def _read_header(recording, text):
    try:
        header = json.loads(text)
        version = header["orvin-recording"]
    except (ValueError, TypeError, KeyError):
        raise Unreadable("line 1: not a recording") from None
    if version != VERSION:
        raise Unreadable(f"line 1: a recording of version {version}; this program reads version {VERSION}")
    recording.started = header.get("started", "")
    recording.command = header.get("command", [])


def _events(line, entry, numbers):
    if "number" in entry:
        numbers[entry["number"]] = entry["device"]
        return []
    at = round(entry["t"] * 1e6)
    thread = entry.get("thread", 1)
    if "acknowledged" in entry:
        return _acknowledgements(line, at, entry, numbers)
    name = entry.get("call") or entry["callback"]
    took = round(entry.get("took", 0) * 1e6)
    return [Event(line, at, name, entry.get("device"), entry.get("result", 0), entry.get("packet"), took, thread, entry)]


def _acknowledgements(line, at, entry, numbers):
    events = []
    runs = entry.get("threads") or [entry.get("thread", 1), len(entry["by"])]
    threads = [thread for thread, length in zip(runs[::2], runs[1::2], strict=True) for _ in range(length)]
    for number, after, thread in zip(entry["by"], entry["after"], threads, strict=True):
        at += after
        events.append(Event(line, at, "TransferCallback", numbers[number], packet=entry["acknowledged"], thread=thread))
    return events
