"""Writes a bus file on which the tool finds again what was recorded."""

import json
from statistics import median
from typing import Any, TextIO

from .reader import Event, Recording

ORVIN = 64
NAME_BYTES = 32  # room for a device's name
LONG = 1000  # microseconds; a call that is shorter takes no time
JOINED, LEFT = 0, 1  # events of a bus change

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
# These end with 0 on every simulated bus.
NEVER_FAIL = {"open", "set_transfer_callback", "set_bus_change_callback", "cleanup", "close"}
ONLY_ASK = {"open", "link_state", "get_members", "type_query", "is_talm", "version_query"}
SUCCESS = {"result": 0, "carried_out": True}


class CannotBeRepeated(Exception):
    """Names the line of what no bus file can say."""

    def __init__(self, line: int, reason: str) -> None:
        super().__init__(f"line {line}: cannot be repeated: {reason}")


def write(recording: Recording, out: TextIO) -> None:
    """Raises CannotBeRepeated."""
    if recording.damaged:  # the calls are told apart by their number
        raise CannotBeRepeated(recording.damaged[0], "damaged")
    events = sorted(recording.events, key=lambda event: event.at)  # what is of the same moment stays in order
    for event in events:
        _reject_what_cannot_be_repeated(event)
    members = [Member(device) for device in _devices(events)]
    _follow(events, {member.id: member for member in members})
    bus_calls = {name: [event for event in events if event.name == call] for call, name in BUS_CALLS.items()}
    bus = {"members": [member.description() for member in members], "faults": _faults(bus_calls)}
    out.write(_text(bus) + "\n")


def _reject_what_cannot_be_repeated(event: Event) -> None:
    if event.name == "TalmApiInitialize" and event.result != 0:
        raise CannotBeRepeated(event.line, "there is no bus without a handle")
    if event.device == "all" and event.name != "ImageTransfer_data":
        raise CannotBeRepeated(event.line, f"{event.name} for all devices")


def _devices(events: list[Event]) -> list[str]:
    """All, in the order of the first listing that has most of them."""
    listings = [event.fields.get("members", []) for event in events if event.name == "TalmApiGetBusMembers"]
    seen = [event.device for event in events if event.device is not None and event.device != "all"]
    return list(dict.fromkeys(max(listings, key=len, default=[]) + sum(listings, []) + seen))


class Member:
    """A device, and what it did."""

    def __init__(self, device: str) -> None:
        self.id = device
        self.calls: dict[str, list[Event]] = {name: [] for name in DEVICE_CALLS.values()}
        self.answered = False
        self.packets: list[tuple[int, list[list[int]]]] = []  # each one that was sent, and its transfer callbacks
        self.changes: list[list[list[int]]] = [[]]  # after the opening, and after each start

    def description(self) -> dict[str, Any]:
        types = [event.fields["type"] for event in self.calls["type_query"] if "type" in event.fields]
        orvin_calls = any(self.calls[name] for name in ("version_query", "write_request", "check", "start"))
        kind = types[0] if types else ORVIN if self.answered or orvin_calls else 0
        entry: dict[str, Any] = {"id": self.id, "type": kind}
        if kind == ORVIN:
            answers = [_answer(event) for event in self.calls["version_query"] if "hw" in event.fields]
            versions = answers[0] if answers else {}
            entry |= {"name": versions.pop("name", ""), "versions": versions, "timing": self._timing()}
        entry["faults"] = _faults(self.calls)
        entry["replay"] = {}
        if self.packets and (self.answered or kind == ORVIN):
            entry["replay"]["packets"] = [_packet_entry(*packet) for packet in self.packets]
        if self.changes != [[]]:
            entry["replay"]["changes"] = self.changes
        return {name: value for name, value in entry.items() if value != {} or name == "versions"}

    def _timing(self) -> dict[str, int]:
        """What is typical, for what goes beyond the replay script."""
        reports = [dict((event, delay) for delay, event in reversed(changes)) for changes in self.changes[1:]]
        left = [report for report in reports if LEFT in report]
        back = [report for report in left if report.get(JOINED, 0) > report[LEFT]]
        timing: dict[str, list[float]] = {
            "acknowledge_us": [callbacks[0][0] for _, callbacks in self.packets if callbacks],
            "install_ms": [report[LEFT] / 1000 for report in left],
            "restart_ms": [(report[JOINED] - report[LEFT]) / 1000 for report in back],
        }
        return {name: round(median(values)) for name, values in timing.items() if values}


def _follow(events: list[Event], members: dict[str | None, Member]) -> None:
    """Gives each member its calls and what it did by itself."""
    sent = opened = None
    started: dict[str | None, Event] = {}
    for event in events:
        if event.name == "TalmApiOpen":
            opened = event
        elif event.name == "ImageTransfer_data":
            sent = event
            for each in members.values():
                each.packets.append((event.packet, []))
        elif event.name == "TransferCallback":
            if sent is None:
                raise CannotBeRepeated(event.line, "a transfer callback before any data")
            member = members[event.device]
            member.answered = True
            member.packets[-1][1].append([event.at - sent.at, event.result, event.packet])
        elif event.name == "BusChangeCallback":
            since = started.get(event.device, opened)
            if since is None:
                raise CannotBeRepeated(event.line, "a bus change before the connection is open")
            members[event.device].changes[-1].append([event.at - since.at, _field(event, "event")])
        elif event.name in DEVICE_CALLS:
            members[event.device].calls[DEVICE_CALLS[event.name]].append(event)
            if event.name == "OrvinImageMaintenance_start_update":
                started[event.device] = event
                members[event.device].changes.append([])


def _field(event: Event, name: str) -> Any:
    if name not in event.fields:
        raise CannotBeRepeated(event.line, f"no {name}")
    return event.fields[name]


def _packet_entry(packet: int, callbacks: list[list[int]]) -> int | list[list[int]]:
    if len(callbacks) == 1 and callbacks[0][1:] == [0, packet]:
        return callbacks[0][0]
    return callbacks


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
    outcome: dict[str, Any] = {"result": event.result}
    answer = _answer(event)
    if answer is not None:
        outcome["answer"] = answer
    # After a clearing that failed there may be callbacks still.
    failed_clearing = event.fields.get("callback") == "cleared" and event.result != 0
    if name not in ONLY_ASK and not failed_clearing:
        outcome["carried_out"] = True
    if event.took >= LONG:
        outcome["takes_us"] = event.took
    return outcome


def _answer(event: Event) -> Any:
    """What the call wrote, or None."""
    fields = event.fields
    if "active" in fields:
        return bool(fields["active"])
    if "hw" in fields:
        versions = {name: hex(_field(event, name)) for name in ("hw", "arm", "dsp", "booster_arm", "api")}
        name = _field(event, "name").encode(errors="replace")[:NAME_BYTES].decode(errors="ignore")
        return versions | {"name": name}
    if "first_output" in fields:
        return [fields["first_output"], _field(event, "second_output")]
    return fields.get("members", fields.get("type"))


def _text(value: Any, indent: str = "", width: int = 140) -> str:
    """JSON in which a list without objects has one line, however long."""
    line = json.dumps(value)
    if len(indent) + len(line) <= width or not isinstance(value, (dict, list)) or "{" not in line:
        return line
    deeper = indent + "  "
    if isinstance(value, dict):
        open_bracket, close_bracket = "{", "}"
        items = [f"{json.dumps(name)}: {_text(item, deeper)}" for name, item in value.items()]
    else:
        open_bracket, close_bracket = "[", "]"
        items = [_text(item, deeper) for item in value]
    return f"{open_bracket}\n" + ",\n".join(deeper + item for item in items) + f"\n{indent}{close_bracket}"
