"""Compares a recording with what the tool assumes of the bus libraries. Times are microseconds."""

from collections import Counter
from dataclasses import dataclass, field
from math import inf
from typing import Any

from .analysis import ARM, GO_BACK, percentile, printable
from .reader import CALLBACKS, VERSIONS, Acknowledgements, Event, Recording

MOST_MEMBERS = 63
LONGEST_CALL = 1_000_000
POLL = 1_000
LATE_POLL = 2 * POLL
LONGEST_POLL = 100 * POLL
MOST_OWED = 10_000  # acknowledgements
FOR_ALL = ":".join(["ff"] * 17)

# By name: what is assumed, and what it means for an upgrade if it does not hold.
ASSUMPTIONS = {
    "returns": (
        "every call returns, within 1 s",
        "callbacks wait meanwhile; a call that never returns blocks the tool",
    ),
    "threads": ("callbacks come on the library's own threads", "one on the tool's thread changes its devices mid-step"),
    "cleared": ("a callback comes only while it is set", "the tool ignores it, but the library should not make it"),
    "in_flight": (
        "an acknowledgement is for the packet in flight",
        "it counts for that one; the device may miss a packet",
    ),
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
CALLBACK_OF = {"TalmApiSetCallback": "TransferCallback", "TalmApiSetBusChangeCallback": "BusChangeCallback"}


@dataclass
class Restart:
    line: int  # of the start of the update
    left: int = 0  # times
    joined: int = 0


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
        self._callers: dict[int, Event] = {}  # the last call of each thread
        self._callback_threads: dict[int, int] = {}  # the first line of each
        self._until: dict[str, float] = {}  # when the clearing of each callback returned
        self._known: set[str] = set()
        self._versions: dict[str, list[int]] = {}
        self._restarts: dict[str, Restart] = {}
        self._packet, self._highest = Packet(), -1
        self._have: dict[str, int] = {}  # how many packets, from the first on, each device acknowledged without a gap
        self._owed: dict[tuple[str, int], int] = {}  # acknowledgements of repeated packets: the line of the packet
        last: Event | Acknowledgements | None = None
        for event in recording.events():
            if not last or event.line > last.line:
                last = event
            if isinstance(event, Event):
                self._follow(event)
            elif not self._is_expected(event):
                for acknowledgement in event.events():
                    self._follow(acknowledgement)
        assert last
        self._end(last)

    def _expect(self, name: str, holds: bool, line: int, what: str) -> None:
        self.tried.add(name)
        if not holds:
            self.broken.setdefault(name, (line, what))

    def _follow(self, event: Event) -> None:
        device = event.device or ""
        if event.name in CALLBACKS:
            self._on_callback(event, device)
        else:
            self._on_call(event, device)
        getattr(self, f"_on_{event.name}", self._ignore)(event, device)

    def _is_expected(self, batch: Acknowledgements) -> bool:
        """Whether they break nothing. Then they are remembered: the same as one after the other, but fast."""
        devices, acknowledged = {*batch.devices}, self._packet.acknowledged
        is_expected = (
            batch.number == self._packet.number
            and batch.times[-1] <= self._until.get(batch.name, -1)
            and len(devices) == len(batch.devices)
            and devices <= self._known
            and acknowledged.isdisjoint(devices)
            and not self._owed
        )
        if is_expected:
            self.tried |= {"cleared", "known", "in_flight", "once"}
            acknowledged |= devices
            self._packet.answered = batch.times[-1]
            for device in devices:
                self._remember(device, batch.number)
            for thread in {*batch.threads} - self._callback_threads.keys():
                self._callback_threads[thread] = batch.line
        return is_expected

    def _remember(self, device: str, packet: int) -> None:
        if packet == self._have.get(device, 0):
            self._have[device] = packet + 1

    def _ignore(self, event: Event, device: str) -> None:
        pass

    def _on_call(self, call: Event, device: str) -> None:
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

    def _on_callback(self, event: Event, device: str) -> None:
        self._callback_threads.setdefault(event.thread, event.line)
        is_set = event.at <= self._until.get(event.name, -1)
        self._expect("cleared", is_set, event.line, f"{event.name} of {device}")
        self._expect("known", device in self._known, event.line, f"{event.name} of {device}")

    def _set(self, call: Event) -> None:
        if call.result == 0:
            is_set = call.fields.get("callback") == "set"
            self._until[CALLBACK_OF[call.name]] = inf if is_set else call.at + call.took

    def _on_TalmApiSetCallback(self, call: Event, _: str) -> None:
        self._set(call)
        for (device, packet), line in self._owed.items():
            self._expect("repeats", False, line, f"{device} did not acknowledge packet {packet} again")
        self._highest = -1  # the last packet stays: an answer to it may come during the call
        self._have.clear()
        self._owed.clear()

    def _on_TalmApiSetBusChangeCallback(self, call: Event, _: str) -> None:
        self._set(call)
        for device, restart in self._restarts.items():
            is_whole = (restart.left, restart.joined) == (1, 1)
            what = f"{device} left {restart.left} and came back {restart.joined} times"
            self._expect("reset", is_whole, restart.line, what)
        self._restarts.clear()

    def _on_ImageTransfer_data(self, call: Event, _: str) -> None:
        self._expect("to_all", call.result < 0, call.line, f"packet {call.number} returned {call.result}")
        before = self._packet
        is_next = call.number == before.number + 1 and call.at < before.sent + LONGEST_POLL  # else it waited
        if is_next and before.sent <= before.answered < before.sent + POLL:
            self.polls[call.at - before.sent] += 1
        if call.number <= self._highest:
            self.tried.add("repeats")
            owing = self._have.items() if len(self._owed) < MOST_OWED else ()
            self._owed |= {(device, call.number): call.line for device, has in owing if call.number < has}
        self._packet, self._highest = Packet(call.number, call.at), max(self._highest, call.number)

    def _on_TransferCallback(self, event: Event, device: str) -> None:
        packet, number = self._packet, event.number
        packet.answered = event.at
        if event.result == GO_BACK:
            was_sent = number <= max(packet.number, self._highest)
            self._expect("go_back", was_sent, event.line, f"{device} asked for packet {number}")
        if event.result != 0:
            return
        what = f"{device} acknowledged packet {number}"
        self._expect("in_flight", number == packet.number, event.line, f"{what}, not {packet.number}")
        self._expect("once", device not in packet.acknowledged, event.line, f"{what} again")
        packet.acknowledged.add(device)
        self._remember(device, number)
        self._owed.pop((device, number), None)

    def _on_TalmApiGetBusMembers(self, call: Event, _: str) -> None:
        members = call.fields.get("members", [])
        self._expect("most", call.result <= MOST_MEMBERS, call.line, f"{call.result} members")
        is_unique = len({*members}) == len(members) and FOR_ALL not in members
        self._expect("unique", is_unique, call.line, "one is listed twice, or is the identifier for all")
        self._known.update(members)

    def _on_OrvinInfo(self, call: Event, device: str) -> None:
        versions = [call.fields.get(name, 0) for name in VERSIONS]
        if call.result == 0 and call.fields.get("dsp") != 0:  # else the DSP is not up
            before = self._versions.setdefault(device, versions)
            what = f"{device} has others than before, without an update"
            self._expect("versions", versions == before, call.line, what)

    def _on_OrvinImageMaintenance_start_update(self, call: Event, device: str) -> None:
        self._versions.pop(device, None)
        if call.result == 0 and call.fields.get("target") == ARM and self._until.get("BusChangeCallback") == inf:
            self._restarts[device] = Restart(call.line)

    def _on_BusChangeCallback(self, event: Event, device: str) -> None:
        restart = self._restarts.get(device)
        if not restart:
            self._expect("reset", False, event.line, f"{device} left or came back without a restart")
        elif event.number == 0:
            restart.joined += 1
        else:
            restart.left += 1

    def _end(self, last: Event | Acknowledgements) -> None:
        is_closed = last.name in ("TalmApiClose", "TalmApiInitialize", "TalmApiOpen")  # or has not begun
        self._expect("returns", is_closed, last.line, "nothing follows: a call does not return, or the tool was killed")
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
