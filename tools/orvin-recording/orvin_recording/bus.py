"""Writes a bus file on which the tool finds again what was recorded."""

import json
from dataclasses import dataclass, field
from itertools import chain
from statistics import median
from typing import Any, TextIO

from .reader import LONGEST, VERSIONS, Event, Recording

ORVIN = 64  # type of a member
NAME_BYTES = 32  # room for a device's name
LONG = 1000  # microseconds; a call that is shorter takes no time
JOINED, LEFT = 0, 1  # events of a bus change

# What the calls are called in a bus file.
BUS_CALLS = {
    "TalmApiOpen": "open",
    "TalmApiGetLinkState": "link_state",
    "TalmApiGetBusMembers": "get_members",
    "ImageTransfer_data": "data",
    "TalmApiSetCallback": "set_transfer_callback",
    "TalmApiSetBusChangeCallback": "set_bus_change_callback",
    "TalmApiCleanup": "cleanup",
    "TalmApiClose": "close",
}
DEVICE_CALLS = {
    "BusMember_get_type": "type_query",
    "TalmApiIsTalm": "is_talm",
    "OrvinInfo": "version_query",
    "ImageTransfer_write_request": "write_request",
    "OrvinImageMaintenance_check_image": "check",
    "OrvinImageMaintenance_start_update": "start",
}
NEVER_FAIL = {"open", "set_transfer_callback", "set_bus_change_callback", "cleanup", "close"}  # on a simulated bus
ONLY_ASK = {"open", "link_state", "get_members", "type_query", "is_talm", "version_query"}
SUCCESS = {"result": 0, "carried_out": True}


class CannotBeRepeated(Exception):
    """Has the line of what no bus file can say, and the reason."""


def write(recording: Recording, out: TextIO) -> None:
    """Raises CannotBeRepeated."""
    if recording.damaged:  # the calls are told apart by their number
        raise CannotBeRepeated(recording.damaged[0], "damaged")
    members: dict[str | None, Member] = {device: Member(device) for device in _devices(recording.events)}
    _follow(recording.events, members)
    bus_calls = {name: [event for event in recording.events if event.name == call] for call, name in BUS_CALLS.items()}
    bus = {"members": [member.description() for member in members.values()], "faults": _faults(bus_calls)}
    out.write(_text(bus) + "\n")


def _devices(events: list[Event]) -> list[str]:
    """All, in the order of the first listing that has most of them."""
    listings = [event.fields["members"] for event in events if "members" in event.fields]
    longest: list[str] = max(listings, key=len, default=[])
    seen = [event.device for event in events if event.device is not None and event.device != "all"]
    return list(dict.fromkeys(chain(longest, *listings, seen)))


@dataclass
class Member:
    id: str
    calls: dict[str, list[Event]] = field(default_factory=lambda: {name: [] for name in DEVICE_CALLS.values()})
    packets: list[tuple[int, list[list[int]]]] = field(default_factory=list)  # each that was sent, and its callbacks
    changes: list[list[list[int]]] = field(default_factory=lambda: [[]])  # after the opening, and after each start

    def description(self) -> dict[str, Any]:
        answered = any(callbacks for _, callbacks in self.packets)
        types = [event.fields["type"] for event in self.calls["type_query"] if "type" in event.fields]
        orvin_calls = any(self.calls[name] for name in ("version_query", "write_request", "check", "start"))
        kind = types[0] if types else ORVIN if answered or orvin_calls else 0
        entry: dict[str, Any] = {"id": self.id, "type": kind}
        if kind == ORVIN:
            answers = (_answer(event) for event in self.calls["version_query"] if "hw" in event.fields)
            versions: dict[str, Any] = next(answers, {})
            entry |= {"name": versions.pop("name", ""), "versions": versions, "timing": self._timing()}
        entry |= {"faults": _faults(self.calls), "replay": {}}
        if self.packets and (answered or kind == ORVIN):
            entry["replay"]["packets"] = [
                came[0][0] if [callback[1:] for callback in came] == [[0, packet]] else came
                for packet, came in self.packets
            ]
        if self.changes != [[]]:
            entry["replay"]["changes"] = self.changes
        return {name: value for name, value in entry.items() if value != {} or name == "versions"}

    def _timing(self) -> dict[str, int]:
        """What is typical, for what goes beyond the replay script."""
        reports = [dict((event, delay) for delay, event in reversed(changes)) for changes in self.changes[1:]]
        back = [report for report in reports if report.get(JOINED, 0) > report.get(LEFT, LONGEST)]
        timing: dict[str, list[float]] = {
            "acknowledge_us": [callbacks[0][0] for _, callbacks in self.packets if callbacks],
            "install_ms": [report[LEFT] / 1000 for report in reports if LEFT in report],
            "restart_ms": [(report[JOINED] - report[LEFT]) / 1000 for report in back],
        }
        return {name: round(median(values)) for name, values in timing.items() if values}


def _follow(events: list[Event], members: dict[str | None, Member]) -> None:
    sent = opened = None
    started: dict[str | None, Event] = {}
    for event in events:
        if event.name == "TalmApiInitialize" and event.result != 0:
            raise CannotBeRepeated(event.line, "there is no bus without a handle")
        if event.device == "all" and event.name != "ImageTransfer_data":
            raise CannotBeRepeated(event.line, f"{event.name} for all devices")
        if event.name == "TalmApiOpen":
            opened = event
        elif event.name == "ImageTransfer_data":
            sent = event
            for each in members.values():
                each.packets.append((event.number, []))
        elif event.name == "TransferCallback":
            if sent is None:
                raise CannotBeRepeated(event.line, "a transfer callback before any data")
            members[event.device].packets[-1][1].append([event.at - sent.at, event.result, event.number])
        elif event.name == "BusChangeCallback":
            since = started.get(event.device, opened)
            if since is None:
                raise CannotBeRepeated(event.line, "a bus change before the connection is open")
            members[event.device].changes[-1].append([event.at - since.at, event.number])
        elif event.name in DEVICE_CALLS:
            members[event.device].calls[DEVICE_CALLS[event.name]].append(event)
            if event.name == "OrvinImageMaintenance_start_update":
                started[event.device] = event
                members[event.device].changes.append([])


def _faults(calls: dict[str, list[Event]]) -> dict[str, Any]:
    """How the calls ended, by their number. Those that ended alike share an object."""
    faults: dict[str, Any] = {}
    for name, events in calls.items():
        groups: dict[str, tuple[dict[str, Any], list[int]]] = {}
        for number, event in enumerate(events, 1):
            outcome = _outcome(name, event)
            groups.setdefault(json.dumps(outcome), (outcome, []))[1].append(number)
        if len(groups) == 1 and not (name in NEVER_FAIL and outcome.items() <= SUCCESS.items()):
            faults[name] = {"calls": "all"} | outcome
        elif len(groups) > 1:
            faults[name] = [{"calls": numbers} | outcome for outcome, numbers in groups.values()]
    return faults


def _outcome(name: str, event: Event) -> dict[str, Any]:
    answer = _answer(event)
    outcome = {"result": event.result} | ({} if answer is None else {"answer": answer})
    failed_clearing = event.fields.get("callback") == "cleared" and event.result != 0  # callbacks may follow
    if name not in ONLY_ASK and not failed_clearing:
        outcome["carried_out"] = True
    if event.took >= LONG:
        outcome["takes_us"] = event.took
    return outcome


def _answer(event: Event) -> Any:
    """What the call wrote, or None."""
    fields = event.fields
    if "hw" in fields:
        name = fields.get("name", "").encode(errors="replace")[:NAME_BYTES].decode(errors="ignore")
        return {version: hex(fields.get(version, 1)) for version in VERSIONS} | {"name": name}
    if "first_output" in fields:
        return [fields["first_output"], fields.get("second_output", 0)]
    return bool(fields["active"]) if "active" in fields else fields.get("members", fields.get("type"))


def _text(value: Any, indent: str = "\n") -> str:
    """JSON in which a list without objects has one line, however long."""
    line = json.dumps(value)
    if not isinstance(value, (dict, list)) or len(line) + len(indent) <= 140 or "{" not in line:
        return line
    deeper = indent + "  "
    if isinstance(value, dict):
        items = [f"{deeper}{json.dumps(name)}: {_text(item, deeper)}" for name, item in value.items()]
        return "{" + ",".join(items) + indent + "}"
    return "[" + ",".join(deeper + _text(item, deeper) for item in value) + indent + "]"
