"""Writes a bus file on which the tool finds again what was recorded."""

import json
from array import array
from collections.abc import Iterator
from dataclasses import dataclass, field
from itertools import chain
from statistics import median
from typing import Any

from .reader import LONGEST, VERSIONS, Acknowledgements, Event, Recording

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


def as_text(recording: Recording) -> str:
    """Raises CannotBeRepeated."""
    devices = _devices(recording)
    if recording.first_damaged:  # the calls are told apart by their number
        raise CannotBeRepeated(recording.first_damaged, "damaged")
    members: dict[str | None, Member] = {device: Member(device) for device in devices}
    bus_calls = {name: Calls(name) for name in BUS_CALLS.values()}
    _follow(recording, members, bus_calls)
    return _text({"members": [member.description() for member in members.values()], "faults": _faults(bus_calls)})


def _devices(recording: Recording) -> list[str]:
    """All, in the order of the first listing that has most of them."""
    longest: list[str] = []
    listed: dict[str, None] = {}
    seen: dict[str, None] = {}
    for event in recording.events():
        if isinstance(event, Acknowledgements):
            seen |= dict.fromkeys(event.devices)
            continue
        listing = event.fields.get("members", [])
        longest = max(longest, listing, key=len)
        listed |= dict.fromkeys(listing)
        if event.device is not None and event.device != "all":
            seen[event.device] = None
    return list(dict.fromkeys(chain(longest, listed, seen)))


@dataclass
class Calls:
    """How the calls of a kind ended, by their number. Those that ended alike share an object."""

    name: str  # in a bus file
    count: int = 0
    groups: dict[str, tuple[dict[str, Any], "array[int]"]] = field(default_factory=dict)

    def add(self, call: Event) -> None:
        self.count += 1
        outcome = _outcome(self.name, call)
        self.groups.setdefault(json.dumps(outcome), (outcome, array("I")))[1].append(self.count)

    def answer(self, kind: type) -> Any:
        """The first one of this kind, or None."""
        answers = (outcome.get("answer") for outcome, _ in self.groups.values())
        return next((answer for answer in answers if isinstance(answer, kind)), None)


@dataclass
class Member:
    id: str
    calls: dict[str, Calls] = field(default_factory=lambda: {name: Calls(name) for name in DEVICE_CALLS.values()})
    packets: list[int | list[list[int]]] = field(default_factory=list)  # for each that was sent, as in a replay script
    callbacks: list[list[int]] = field(default_factory=list)  # for the last one
    changes: list[list[list[int]]] = field(default_factory=lambda: [[]])  # after the opening, and after each start

    def description(self) -> dict[str, Any]:
        answered = any(packet != [] for packet in self.packets)
        type_answer = self.calls["type_query"].answer(int)
        orvin_calls = any(self.calls[name].count for name in ("version_query", "write_request", "check", "start"))
        kind = type_answer if type_answer is not None else ORVIN if answered or orvin_calls else 0
        entry: dict[str, Any] = {"id": self.id, "type": kind}
        if kind == ORVIN:
            versions: dict[str, Any] = {**(self.calls["version_query"].answer(dict) or {})}
            entry |= {"name": versions.pop("name", ""), "versions": versions, "timing": self._timing()}
        entry |= {"faults": _faults(self.calls), "replay": {}}
        if self.packets and (answered or kind == ORVIN):
            entry["replay"]["packets"] = self.packets
        if self.changes != [[]]:
            entry["replay"]["changes"] = self.changes
        return {name: value for name, value in entry.items() if value != {} or name == "versions"}

    def _timing(self) -> dict[str, int]:
        """What is typical, for what goes beyond the replay script."""
        reports = [dict((event, delay) for delay, event in reversed(changes)) for changes in self.changes[1:]]
        back = [report for report in reports if report.get(JOINED, -LONGEST) > report.get(LEFT, LONGEST)]
        timing: dict[str, list[float]] = {
            "acknowledge_us": [came if isinstance(came, int) else came[0][0] for came in self.packets if came != []],
            "install_ms": [report[LEFT] / 1000 for report in reports if LEFT in report],
            "restart_ms": [(report[JOINED] - report[LEFT]) / 1000 for report in back],
        }
        return {name: round(median(values)) for name, values in timing.items() if values}


def _plain(callbacks: list[list[int]], packet: int) -> int | list[list[int]]:
    """An acknowledgement of the packet, and nothing else, is its delay."""
    is_plain = len(callbacks) == 1 and callbacks[0][1:] == [0, packet]
    return callbacks[0][0] if is_plain else callbacks


def _follow(recording: Recording, members: dict[str | None, Member], bus_calls: dict[str, Calls]) -> None:
    sent = opened = None
    started: dict[str | None, Event] = {}
    for event in _single(recording):
        if event.name in BUS_CALLS:
            bus_calls[BUS_CALLS[event.name]].add(event)
        if event.name == "TalmApiInitialize" and event.result != 0:
            raise CannotBeRepeated(event.line, "there is no bus without a handle")
        if event.device == "all" and event.name != "ImageTransfer_data":
            raise CannotBeRepeated(event.line, f"{event.name} for all devices")
        if event.name == "TalmApiOpen":
            opened = event
        elif event.name == "ImageTransfer_data":
            _end_packet(sent, members)
            sent = event
        elif event.name == "TransferCallback":
            if sent is None:
                raise CannotBeRepeated(event.line, "a transfer callback before any data")
            members[event.device].callbacks.append([event.at - sent.at, event.result, event.number])
        elif event.name == "BusChangeCallback":
            since = started.get(event.device, opened)
            if since is None:
                raise CannotBeRepeated(event.line, "a bus change before the connection is open")
            members[event.device].changes[-1].append([event.at - since.at, event.number])
        elif event.name in DEVICE_CALLS:
            members[event.device].calls[DEVICE_CALLS[event.name]].add(event)
            if event.name == "OrvinImageMaintenance_start_update":
                started[event.device] = event
                members[event.device].changes.append([])
    _end_packet(sent, members)


def _single(recording: Recording) -> Iterator[Event]:
    for event in recording.events():
        if isinstance(event, Event):
            yield event
        else:
            yield from event.events()


def _end_packet(sent: Event | None, members: dict[str | None, Member]) -> None:
    if not sent:
        return
    for member in members.values():
        member.packets.append(_plain(member.callbacks, sent.number))
        member.callbacks = []


def _faults(calls: dict[str, Calls]) -> dict[str, Any]:
    faults: dict[str, Any] = {}
    for name, ended in calls.items():
        outcomes = [*ended.groups.values()]
        if len(outcomes) == 1 and not (name in NEVER_FAIL and outcomes[0][0].items() <= SUCCESS.items()):
            faults[name] = {"calls": "all"} | outcomes[0][0]
        elif len(outcomes) > 1:
            faults[name] = [{"calls": [*numbers]} | outcome for outcome, numbers in outcomes]
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
