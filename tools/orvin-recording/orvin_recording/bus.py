"""Writes a bus file on which the tool finds again what was recorded."""

import json
from collections import defaultdict
from dataclasses import dataclass, field
from sys import intern
from typing import Any

from .reader import TRANSFER, VERSIONS, Call, Callbacks, Fields, Recording, Unusable

ORVIN = 64  # type of a member
NAME_BYTES = 32  # room for a device's name
LONG = 1000  # microseconds; a call that is shorter takes no time
ONLY_ASK = {"open", "link_state", "get_members", "type_query", "is_talm", "version_query"}


@dataclass
class Member:
    """A member of the bus, or the bus itself."""

    id: str
    packets: list[int | list[list[int]]]  # for each that was sent, as in a replay script
    callbacks: list[list[int]] = field(default_factory=list)  # for the last one
    changes: list[list[list[int]]] = field(default_factory=lambda: [[]])  # after the opening, and after each start
    calls: defaultdict[str, list[str]] = field(default_factory=lambda: defaultdict(list))  # how they ended, as JSON

    def answer(self, name: str, kind: type) -> Any:
        """The first one of this kind to such a call, or None."""
        answers = (json.loads(outcome).get("answer") for outcome in dict.fromkeys(self.calls.get(name, ())))
        return next((answer for answer in answers if isinstance(answer, kind)), None)

    def faults(self) -> Fields:
        return {name: _fault(outcomes) for name, outcomes in self.calls.items()}

    def description(self) -> Fields:
        answered = any(packet != [] for packet in self.packets)
        is_asked = any(name in self.calls for name in ("version_query", "write_request", "check", "start"))
        told = self.answer("type_query", int)
        kind = told if told is not None else ORVIN if answered or is_asked else 0
        versions = self.answer("version_query", dict) or {}
        entry: Fields = {"id": self.id, "type": kind}
        if kind == ORVIN:
            entry |= {"name": versions.pop("name", ""), "versions": versions}
        replay: Fields = {"packets": self.packets} if answered or kind == ORVIN and self.packets else {}
        replay |= {"changes": self.changes} if self.changes != [[]] else {}
        more = {"faults": self.faults(), "replay": replay}
        return entry | {name: fields for name, fields in more.items() if fields}


class Bus:
    """A bus on which the devices do what they did in a recording. Raises Unusable if no bus file can say that."""

    def __init__(self, recording: Recording) -> None:
        self._bus = Member("", [])
        self._members: dict[str, Member] = {}  # by identifier
        self._listing: list[str] = []  # the first one that has most members
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
            raise Unusable(f"line {recording.first_damaged}: cannot be repeated: damaged")
        self._end_packet()

    def _member(self, device: str) -> Member:
        if device not in self._members:
            self._members[device] = Member(device, [[] for _ in self._bus.packets])
        return self._members[device]

    def _called(self, call: Call) -> None:
        if call.name == "initialize" and call.result != 0:
            raise Unusable(f"line {call.line}: cannot be repeated: there is no bus without a handle")
        is_packet = call.name == "data"
        if call.device == "all" and not is_packet:
            raise Unusable(f"line {call.line}: cannot be repeated: {call.fields['call']} for all devices")
        member = self._member(call.device) if call.device and not is_packet else self._bus
        if call.name not in ("initialize", ""):
            member.calls[call.name].append(_outcome(call))
        self._listing = max(self._listing, call.fields.get("members", []), key=len)
        if is_packet:
            self._end_packet()
            self._sent = call
        elif call.name in ("open", "start"):
            self._began[call.device] = call
            member.changes.append([])

    def _called_back(self, callbacks: Callbacks) -> None:
        is_transfer = callbacks.name == TRANSFER
        for at, device in zip(callbacks.times, callbacks.devices):
            since = self._sent if is_transfer else self._began.get(device, self._began.get(""))
            if since is None:
                raise Unusable(f"line {callbacks.line}: cannot be repeated: a {callbacks.name} before what causes it")
            if is_transfer:
                self._member(device).callbacks.append([at - since.at, callbacks.result, callbacks.number])
            else:
                self._member(device).changes[-1].append([at - since.at, callbacks.number])

    def _end_packet(self) -> None:
        """An acknowledgement of the packet, and nothing else, is its delay."""
        if not self._sent:
            return
        for member in (self._bus, *self._members.values()):
            came = member.callbacks
            is_plain = len(came) == 1 and came[0][1:] == [0, self._sent.packet]
            member.packets.append(came[0][0] if is_plain else came)
            member.callbacks = []

    def as_text(self) -> str:
        """JSON with a line for each member."""
        devices = dict.fromkeys([*self._listing, *self._members])
        members = ",\n".join(json.dumps(self._member(device).description()) for device in devices)
        return f'{{ "members": [\n{members} ],\n"faults": {json.dumps(self._bus.faults())} }}'


def _fault(outcomes: list[str]) -> Any:
    """Of a kind of call: the numbers of the calls that ended alike, for each outcome."""
    numbers: defaultdict[str, list[int]] = defaultdict(list)
    for number, outcome in enumerate(outcomes, start=1):
        numbers[outcome].append(number)
    if len(numbers) == 1:
        return {"calls": "all"} | json.loads(outcomes[0])
    return [{"calls": calls} | json.loads(outcome) for outcome, calls in numbers.items()]


def _outcome(call: Call) -> str:
    fields = call.fields
    outcome: Fields = {"result": call.result}
    if "hw" in fields:
        title = fields.get("name", "").encode(errors="replace")[:NAME_BYTES].decode(errors="ignore")
        outcome["answer"] = {version: hex(fields.get(version, 1)) for version in VERSIONS} | {"name": title}
    elif "first_output" in fields:
        outcome["answer"] = [fields["first_output"], fields.get("second_output", 0)]
    elif "active" in fields:
        outcome["answer"] = bool(fields["active"])
    elif "members" in fields or "type" in fields:
        outcome["answer"] = fields.get("members", fields.get("type"))
    failed_clearing = fields.get("callback") == "cleared" and call.result != 0  # callbacks may follow
    if call.name not in ONLY_ASK and not failed_clearing:
        outcome["carried_out"] = True
    if call.took >= LONG:
        outcome["takes_us"] = call.took
    return intern(json.dumps(outcome))
