"""Writes a bus file on which the tool finds again what was recorded."""

import json
from array import array
from collections import defaultdict
from dataclasses import dataclass, field
from typing import Any

from .reader import TRANSFER, VERSIONS, Call, Callbacks, Recording

ORVIN = 64  # type of a member
NAME_BYTES = 32  # room for a device's name
LONG = 1000  # microseconds; a call that is shorter takes no time
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
ONLY_ASK = {"open", "link_state", "get_members", "type_query", "is_talm", "version_query"}
Outcome = dict[str, Any]  # how a call ended, as a bus file has it


class CannotBeRepeated(Exception):
    """Has the line of what no bus file can say, and the reason."""


@dataclass
class Calls:
    """How the calls of a kind ended, by their number. Those that ended alike share a group."""

    count: int = 0
    groups: dict[str, tuple[Outcome, "array[int]"]] = field(default_factory=dict)

    def add(self, name: str, call: Call) -> None:
        self.count += 1
        outcome = _outcome(name, call)
        self.groups.setdefault(json.dumps(outcome), (outcome, array("I")))[1].append(self.count)

    def answer(self, kind: type) -> Any:
        """The first one of this kind, or None."""
        answers = (outcome.get("answer") for outcome, _ in self.groups.values())
        return next((answer for answer in answers if isinstance(answer, kind)), None)

    def faults(self) -> Outcome | list[Outcome]:
        outcomes = [*self.groups.values()]
        if len(outcomes) == 1:
            return {"calls": "all"} | outcomes[0][0]
        return [{"calls": [*numbers]} | outcome for outcome, numbers in outcomes]


@dataclass
class Member:
    id: str
    packets: list[int | list[list[int]]]  # for each that was sent, as in a replay script
    callbacks: list[list[int]] = field(default_factory=list)  # for the last one
    changes: list[list[list[int]]] = field(default_factory=lambda: [[]])  # after the opening, and after each start
    calls: defaultdict[str, Calls] = field(default_factory=lambda: defaultdict(Calls))

    def description(self) -> dict[str, Any]:
        answered = any(packet != [] for packet in self.packets)
        is_asked = any(self.calls[name].count for name in ("version_query", "write_request", "check", "start"))
        told = self.calls["type_query"].answer(int)
        kind = told if told is not None else ORVIN if answered or is_asked else 0
        entry: dict[str, Any] = {"id": self.id, "type": kind}
        if kind == ORVIN:
            versions: dict[str, Any] = {**(self.calls["version_query"].answer(dict) or {})}
            entry |= {"name": versions.pop("name", ""), "versions": versions}
        replay: dict[str, Any] = {"packets": self.packets} if answered or kind == ORVIN and self.packets else {}
        replay |= {"changes": self.changes} if self.changes != [[]] else {}
        faults = {name: calls.faults() for name, calls in self.calls.items() if calls.count}
        return entry | ({"faults": faults} if faults else {}) | ({"replay": replay} if replay else {})


class Bus:
    """A bus on which the devices do what they did in a recording. Raises CannotBeRepeated."""

    def __init__(self, recording: Recording) -> None:
        self._members: dict[str, Member] = {}  # by identifier
        self._calls: defaultdict[str, Calls] = defaultdict(Calls)
        self._listing: list[str] = []  # the first one that has most members
        self._packets = 0  # how many were sent before the last one
        self._sent: Call | None = None  # the last one
        self._began: dict[str, Call] = {}  # the start of each device; "": the opening
        for event in recording.events():
            if recording.first_damaged:
                break
            if isinstance(event, Call):
                self._called(event)
            else:
                self._called_back(event)
        if recording.first_damaged:  # the calls are told apart by their number
            raise CannotBeRepeated(recording.first_damaged, "damaged")
        self._end_packet()

    def _member(self, device: str) -> Member:
        if device not in self._members:
            self._members[device] = Member(device, [[] for _ in range(self._packets)])
        return self._members[device]

    def _called(self, call: Call) -> None:
        if call.name == "TalmApiInitialize" and call.result != 0:
            raise CannotBeRepeated(call.line, "there is no bus without a handle")
        if call.device == "all" and call.name != "ImageTransfer_data":
            raise CannotBeRepeated(call.line, f"{call.name} for all devices")
        if name := BUS_CALLS.get(call.name):
            self._calls[name].add(name, call)
        if name := DEVICE_CALLS.get(call.name):
            self._member(call.device or "").calls[name].add(name, call)
        self._listing = max(self._listing, call.fields.get("members", []), key=len)
        if call.name == "TalmApiOpen":
            self._began[""] = call
        elif call.name == "ImageTransfer_data":
            self._end_packet()
            self._sent = call
        elif call.name == "OrvinImageMaintenance_start_update":
            self._began[call.device or ""] = call
            self._member(call.device or "").changes.append([])

    def _called_back(self, callbacks: Callbacks) -> None:
        is_transfer = callbacks.name == TRANSFER
        for at, device in zip(callbacks.times, callbacks.devices):
            since = self._sent if is_transfer else self._began.get(device, self._began.get(""))
            if since is None:
                raise CannotBeRepeated(callbacks.line, f"a {callbacks.name} before what causes it")
            if is_transfer:
                self._member(device).callbacks.append([at - since.at, callbacks.result, callbacks.number])
            else:
                self._member(device).changes[-1].append([at - since.at, callbacks.number])

    def _end_packet(self) -> None:
        """An acknowledgement of the packet, and nothing else, is its delay."""
        if not self._sent:
            return
        for member in self._members.values():
            came = member.callbacks
            is_plain = len(came) == 1 and came[0][1:] == [0, self._sent.packet]
            member.packets.append(came[0][0] if is_plain else came)
            member.callbacks = []
        self._packets += 1

    def as_text(self) -> str:
        """JSON with a line for each member."""
        devices = dict.fromkeys([*self._listing, *self._members])
        members = ",\n".join(json.dumps(self._member(device).description()) for device in devices)
        faults = {name: calls.faults() for name, calls in self._calls.items()}
        return f'{{ "members": [\n{members} ],\n"faults": {json.dumps(faults)} }}'


def _outcome(name: str, call: Call) -> Outcome:
    answer = _answer(call)
    outcome = {"result": call.result} | ({} if answer is None else {"answer": answer})
    failed_clearing = call.fields.get("callback") == "cleared" and call.result != 0  # callbacks may follow
    if name not in ONLY_ASK and not failed_clearing:
        outcome["carried_out"] = True
    if call.took >= LONG:
        outcome["takes_us"] = call.took
    return outcome


def _answer(call: Call) -> Any:
    """What the call wrote, or None."""
    fields = call.fields
    if "hw" in fields:
        name = fields.get("name", "").encode(errors="replace")[:NAME_BYTES].decode(errors="ignore")
        return {version: hex(fields.get(version, 1)) for version in VERSIONS} | {"name": name}
    if "first_output" in fields:
        return [fields["first_output"], fields.get("second_output", 0)]
    return bool(fields["active"]) if "active" in fields else fields.get("members", fields.get("type"))
