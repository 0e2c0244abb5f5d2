"""Compares a recording with what the tool assumes of the bus libraries. Times are microseconds."""

from bisect import bisect
from collections import Counter
from dataclasses import dataclass, field
from math import inf
from typing import Any

from .analysis import ARM, GO_BACK, percentile, printable
from .reader import BUS_CHANGE, TRANSFER, VERSIONS, Call, Callbacks, Recording

MOST_MEMBERS = 63
LONGEST_CALL = 1_000_000
POLL = 1_000
LATE_POLL = 2 * POLL
LONGEST_POLL = 100 * POLL
MOST_OWED = 10_000  # acknowledgements
FOR_ALL = ":".join(["ff"] * 17)

# By name: what is assumed, and what it means for an upgrade if it does not hold.
ASSUMPTIONS = {
    "returns": ("every call returns, within 1 s", "callbacks wait meanwhile, and the tool blocks"),
    "threads": ("callbacks come on the library's own threads", "one on the tool's thread changes its devices mid-step"),
    "cleared": ("a callback comes only while it is set", "the tool ignores it, but the library should not make it"),
    "in_flight": ("an acknowledgement is for the packet in flight", "it counts for that; the device may miss another"),
    "once": ("a packet is acknowledged once each time", "the second one may count for the next packet"),
    "repeats": ("a repeated packet is acknowledged again", "the device is dropped in this attempt for another's fault"),
    "go_back": ("a request to go back names a packet that was sent", "the tool does not serve it"),
    "results": ("a call returns 0, or a negative number if it fails", "the tool takes the result for a failure"),
    "to_all": ("a packet to all returns -2, or a negative number if it fails", "the tool ends the transfer"),
    "known": ("a callback names a device that is known", "the tool ignores it"),
    "unique": ("a listing has each device once, and not the identifier for all", "the tool counts a device twice"),
    "most": (f"a bus has at most {MOST_MEMBERS} members", f"the tool sees the first {MOST_MEMBERS} only"),
    "versions": ("versions change only by an update", "the tool may find a device new that is not, or passes it over"),
    "reset": ("a restart shows as leaving and coming back, once each", "the tool waits longer, or asks too early"),
    "forward": ("times run forward", "no time in this recording can be trusted"),
    "polls": (f"a wait of 1 ms takes less than {LATE_POLL // 1000} ms", "each packet takes as much longer"),
}
MAY_BE_POSITIVE = "TalmApiOpen", "TalmApiGetBusMembers", "TalmApiIsTalm", "ImageTransfer_data"
CALLBACK_OF = {"TalmApiSetCallback": TRANSFER, "TalmApiSetBusChangeCallback": BUS_CHANGE}


@dataclass
class Packet:
    """The packet in flight."""

    number: int = -1
    sent: int = 0
    answered: int = -1  # when a device last answered
    acknowledged: set[str] = field(default_factory=set)  # by these devices


class Check:
    """`tried` has the names of the assumptions that the recording shows; `broken` the first line against each."""

    def __init__(self, recording: Recording) -> None:
        self.tried: set[str] = set()
        self.broken: dict[str, tuple[int, str]] = {}
        self.polls: Counter[int] = Counter()  # how long those between two packets took
        self._callers: dict[int, Call] = {}  # the last call of each thread
        self._callback_threads: dict[int, int] = {}  # the first line of each
        self._until: dict[str, float] = {}  # when the clearing of each callback returned
        self._known: set[str] = set()
        self._versions: dict[str, list[int]] = {}
        self._restarts: dict[str, tuple[int, list[int]]] = {}  # the line of the start, and the bus changes after it
        self._packet, self._highest = Packet(), -1
        self._have: dict[str, int] = {}  # how many packets, from the first on, each device acknowledged without a gap
        self._owed: dict[tuple[str, int], int] = {}  # acknowledgements of repeated packets: the line of the packet
        for event in recording.events():
            if isinstance(event, Call):
                self._on_call(event, event.device or "")
            else:
                self._on_callbacks(event)
        assert recording.last
        self._end(recording.last)

    def _expect(self, name: str, holds: bool, line: int, what: str) -> None:
        self.tried.add(name)
        if not holds:
            self.broken.setdefault(name, (line, what))

    def _on_call(self, call: Call, device: str) -> None:
        self._expect("returns", call.took <= LONGEST_CALL, call.line, f"{call.name} took {call.took / 1e6:.1f} s")
        before = self._callers.get(call.thread)
        if before:
            is_later = call.line > before.line and call.at >= before.at + before.took - 1  # rounded
            self._expect("forward", is_later, call.line, f"{call.name} at {call.at / 1e6:.6f} s")
        self._callers[call.thread] = call
        allowed = call.result <= 0 or call.name in MAY_BE_POSITIVE
        self._expect("results", allowed, call.line, f"{call.name} returned {call.result}")
        if call.result >= 0 and device:
            self._known.add(device)
        handler = getattr(self, f"_on_{call.name}", None)
        if handler:
            handler(call, device)

    def _on_callbacks(self, callbacks: Callbacks) -> None:
        line, name, devices = callbacks.line, callbacks.name, callbacks.devices
        for thread in {*callbacks.threads}:
            self._callback_threads.setdefault(thread, line)
        late = bisect(callbacks.times, self._until.get(name, -1))
        self._expect("cleared", late == len(devices), line, f"{name} of {' '.join(devices[late:])}")
        unknown = [device for device in devices if device not in self._known]
        self._expect("known", not unknown, line, f"{name} of {' '.join(unknown)}")
        if name == BUS_CHANGE:
            if devices[0] in self._restarts:
                self._restarts[devices[0]][1].append(callbacks.number)
            else:
                self._expect("reset", False, line, f"{devices[0]} left or came back without a restart")
            return
        self._packet.answered = callbacks.times[-1]
        if callbacks.result == 0:
            self._acknowledged(line, callbacks.number, devices)
        elif callbacks.result == GO_BACK:
            was_sent = callbacks.number <= max(self._packet.number, self._highest)
            self._expect("go_back", was_sent, line, f"{devices[0]} asked for packet {callbacks.number}")

    def _acknowledged(self, line: int, number: int, devices: list[str]) -> None:
        packet = self._packet
        is_in_flight = number == packet.number
        self._expect("in_flight", is_in_flight, line, f"{devices[0]} acknowledged packet {number}, not {packet.number}")
        self.tried.add("once")
        for device in devices:
            if device in packet.acknowledged:
                self._expect("once", False, line, f"{device} acknowledged packet {number} again")
            packet.acknowledged.add(device)
            if number == self._have.get(device, 0):
                self._have[device] = number + 1
            if self._owed:
                self._owed.pop((device, number), None)

    def _set(self, call: Call) -> None:
        if call.result == 0:
            is_set = call.fields.get("callback") == "set"
            self._until[CALLBACK_OF[call.name]] = inf if is_set else call.at + call.took

    def _on_TalmApiSetCallback(self, call: Call, _: str) -> None:
        self._set(call)
        for (device, packet), line in self._owed.items():
            self._expect("repeats", False, line, f"{device} did not acknowledge packet {packet} again")
        self._highest = -1  # the last packet stays: an answer to it may come during the call
        self._have.clear()
        self._owed.clear()

    def _on_TalmApiSetBusChangeCallback(self, call: Call, _: str) -> None:
        self._set(call)
        for device, (line, changes) in self._restarts.items():
            joined = changes.count(0)
            left = len(changes) - joined
            what = f"{device} left {left} and came back {joined} times"
            self._expect("reset", left == joined == 1, line, what)
        self._restarts.clear()

    def _on_ImageTransfer_data(self, call: Call, _: str) -> None:
        self._expect("to_all", call.result < 0, call.line, f"packet {call.packet} returned {call.result}")
        before = self._packet
        is_next = call.packet == before.number + 1 and call.at < before.sent + LONGEST_POLL  # else it waited
        if is_next and before.sent <= before.answered < before.sent + POLL:
            self.polls[call.at - before.sent] += 1
        if call.packet <= self._highest:
            self.tried.add("repeats")
            owing = self._have.items() if len(self._owed) < MOST_OWED else ()
            self._owed |= {(device, call.packet): call.line for device, has in owing if call.packet < has}
        self._packet, self._highest = Packet(call.packet, call.at), max(self._highest, call.packet)

    def _on_TalmApiGetBusMembers(self, call: Call, _: str) -> None:
        members = call.fields.get("members", [])
        self._expect("most", call.result <= MOST_MEMBERS, call.line, f"{call.result} members")
        is_unique = len({*members}) == len(members) and FOR_ALL not in members
        self._expect("unique", is_unique, call.line, "one is listed twice, or is the identifier for all")
        self._known.update(members)

    def _on_OrvinInfo(self, call: Call, device: str) -> None:
        versions = [call.fields.get(name, 0) for name in VERSIONS]
        if call.result == 0 and call.fields.get("dsp") != 0:  # else the DSP is not up
            before = self._versions.setdefault(device, versions)
            what = f"{device} has others than before, without an update"
            self._expect("versions", versions == before, call.line, what)

    def _on_OrvinImageMaintenance_start_update(self, call: Call, device: str) -> None:
        self._versions.pop(device, None)
        if call.result == 0 and call.fields.get("target") == ARM and self._until.get(BUS_CHANGE) == inf:
            self._restarts[device] = call.line, []

    def _end(self, last: Call | Callbacks) -> None:
        is_over = last.name in ("TalmApiClose", "TalmApiInitialize", "TalmApiOpen")  # or has not begun
        self._expect("returns", is_over, last.line, "nothing follows: a call does not return, or the tool was killed")
        for thread, line in self._callback_threads.items():
            what = f"a callback on thread {thread}, which makes calls"
            self._expect("threads", thread not in self._callers, line, what)
        if self.polls:
            self._expect("polls", percentile(self.polls, 50) < LATE_POLL, last.line, self._poll_times())

    def _poll_times(self) -> str:
        median, most = percentile(self.polls, 50), percentile(self.polls, 99)
        return f"median {median / 1e3:.2f} ms, 99 % {most / 1e3:.2f} ms"

    def as_objects(self) -> list[dict[str, Any]]:
        return [self._object(name, *texts) for name, texts in ASSUMPTIONS.items()]

    def _object(self, name: str, assumed: str, means: str) -> dict[str, Any]:
        state = "broken" if name in self.broken else "kept" if name in self.tried else "not tried"
        result: dict[str, Any] = {"name": name, "assumed": assumed, "state": state}
        if name in self.broken:
            line, what = self.broken[name]
            result |= {"line": line, "shown": what, "means": means}
        elif name == "polls" and self.polls:
            result["shown"] = self._poll_times()
        return result

    def as_text(self) -> str:
        return "\n".join(_line(result) for result in self.as_objects())


def _line(result: dict[str, Any]) -> str:
    line = f"{result['state']:11}{result['assumed']}"
    if result["state"] == "broken":
        return printable(f"{line}: line {result['line']}: {result['shown']}; {result['means']}")
    return line + (f": {result['shown']}" if "shown" in result else "")
