"""Compares a recording with what the tool assumes of the bus libraries. Times are microseconds."""

from bisect import bisect
from collections import Counter
from math import inf

from .analysis import ARM, GO_BACK, percentile, printable
from .reader import BUS_CHANGE, TRANSFER, VERSIONS, Call, Callbacks, Fields, Recording

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
MAY_BE_POSITIVE = "open", "get_members", "is_talm", "data"
CALLBACK_OF = {"set_transfer_callback": TRANSFER, "set_bus_change_callback": BUS_CHANGE}


class Check:
    """`results` has what a recording shows of each assumption, by name, as an object for JSON."""

    def __init__(self, recording: Recording) -> None:
        self.results: dict[str, Fields] = {
            name: {"name": name, "assumed": assumed, "state": "not tried"} for name, (assumed, _) in ASSUMPTIONS.items()
        }
        self._polls: Counter[int] = Counter()  # how long those between two packets took
        self._callers: dict[int, Call] = {}  # the last call of each thread
        self._callback_threads: dict[int, int] = {}  # the first line of each
        self._until: dict[str, float] = {}  # when the clearing of each callback returned
        self._known: set[str] = set()
        self._versions: dict[str, list[int]] = {}
        self._restarts: dict[str, tuple[int, list[int]]] = {}  # the line of the start, and the bus changes after it
        self._packet, self._highest = -1, -1  # the one in flight, the highest one
        self._sent, self._answered = 0, -1  # when the packet in flight was sent, and when a device last answered
        self._acknowledged: set[str] = set()  # the packet in flight, by these devices
        self._have: dict[str, int] = {}  # how many packets, from the first on, each device acknowledged without a gap
        self._owed: dict[tuple[str, int], int] = {}  # acknowledgements of repeated packets: the line of the packet
        for event in recording.events():
            if isinstance(event, Call):
                self._on_call(event)
            else:
                self._on_callbacks(event)
        assert recording.last
        self._end(recording.last)

    def _expect(self, name: str, holds: bool, line: int, shown: str) -> None:
        result = self.results[name]
        if holds and result["state"] == "not tried":
            result["state"] = "kept"
        elif not holds and result["state"] != "broken":
            result |= {"state": "broken", "line": line, "shown": shown, "means": ASSUMPTIONS[name][1]}

    def _on_call(self, call: Call) -> None:
        name, line, result = call.fields["call"], call.line, call.result
        self._expect("returns", call.took <= LONGEST_CALL, line, f"{name} took {call.took / 1e6:.1f} s")
        if before := self._callers.get(call.thread):
            is_later = line > before.line and call.at >= before.at + before.took - 1  # rounded
            self._expect("forward", is_later, line, f"{name} at {call.at / 1e6:.6f} s")
        self._callers[call.thread] = call
        self._expect("results", result <= 0 or call.name in MAY_BE_POSITIVE, line, f"{name} returned {result}")
        if result >= 0:
            self._known.add(call.device)
        if result == 0 and call.name in CALLBACK_OF:
            is_set = call.fields.get("callback") == "set"
            self._until[CALLBACK_OF[call.name]] = inf if is_set else call.at + call.took
        if handler := getattr(self, f"_on_{call.name}", None):
            handler(call)

    def _on_callbacks(self, callbacks: Callbacks) -> None:
        line, name, number, devices = callbacks.line, callbacks.name, callbacks.number, callbacks.devices
        for thread in callbacks.threads:
            self._callback_threads.setdefault(thread, line)
        late = bisect(callbacks.times, self._until.get(name, -1))
        self._expect("cleared", late == len(devices), line, f"{name} of {' '.join(devices[late:])}")
        unknown = [device for device in devices if device not in self._known]
        self._expect("known", not unknown, line, f"{name} of {' '.join(unknown)}")
        if name == TRANSFER:
            self._answered = callbacks.times[-1]
            if callbacks.result == 0:
                self._on_acknowledgements(line, number, devices)
            elif callbacks.result == GO_BACK:
                was_sent = number <= max(self._packet, self._highest)
                self._expect("go_back", was_sent, line, f"{devices[0]} asked for packet {number}")
        elif devices[0] in self._restarts:
            self._restarts[devices[0]][1].append(number)
        else:
            self._expect("reset", False, line, f"{devices[0]} left or came back without a restart")

    def _on_acknowledgements(self, line: int, number: int, devices: list[str]) -> None:
        shown = f"{devices[0]} acknowledged packet {number}, not {self._packet}"
        self._expect("in_flight", number == self._packet, line, shown)
        for device in devices:
            is_first = device not in self._acknowledged
            self._expect("once", is_first, line, f"{device} acknowledged packet {number} again")
            self._acknowledged.add(device)
            if number == self._have.get(device, 0):
                self._have[device] = number + 1
            self._owed.pop((device, number), None)

    def _on_set_transfer_callback(self, _: Call) -> None:
        for (device, packet), line in self._owed.items():
            self._expect("repeats", False, line, f"{device} did not acknowledge packet {packet} again")
        self._highest = -1  # the last packet stays: an answer to it may come during the call
        self._have.clear()
        self._owed.clear()

    def _on_set_bus_change_callback(self, _: Call) -> None:
        for device, (line, changes) in self._restarts.items():
            joined = changes.count(0)
            left = len(changes) - joined
            self._expect("reset", left == joined == 1, line, f"{device} left {left} and came back {joined} times")
        self._restarts.clear()

    def _on_data(self, call: Call) -> None:
        self._expect("to_all", call.result < 0, call.line, f"packet {call.packet} returned {call.result}")
        took = call.at - self._sent
        is_next = call.packet == self._packet + 1 and took < LONGEST_POLL  # else it waited
        if is_next and 0 <= self._answered - self._sent < POLL:
            self._polls[took] += 1
        if call.packet <= self._highest:
            self._expect("repeats", True, call.line, "")
            owing = self._have.items() if len(self._owed) < MOST_OWED else ()
            self._owed |= {(device, call.packet): call.line for device, has in owing if call.packet < has}
        self._packet, self._highest = call.packet, max(self._highest, call.packet)
        self._sent, self._answered, self._acknowledged = call.at, -1, set()

    def _on_get_members(self, call: Call) -> None:
        members = call.fields.get("members", [])
        self._expect("most", call.result <= MOST_MEMBERS, call.line, f"{call.result} members")
        is_unique = len({*members}) == len(members) and FOR_ALL not in members
        self._expect("unique", is_unique, call.line, "one is listed twice, or is the identifier for all")
        self._known.update(members)

    def _on_version_query(self, call: Call) -> None:
        versions = [call.fields.get(name, 0) for name in VERSIONS]
        if call.result == 0 and call.fields.get("dsp") != 0:  # else the DSP is not up
            is_same = versions == self._versions.setdefault(call.device, versions)
            self._expect("versions", is_same, call.line, f"{call.device} has others than before, without an update")

    def _on_start(self, call: Call) -> None:
        self._versions.pop(call.device, None)
        if call.result == 0 and call.fields.get("target") == ARM and self._until.get(BUS_CHANGE) == inf:
            self._restarts[call.device] = call.line, []

    def _end(self, last: Call | Callbacks) -> None:
        is_over = last.name in ("close", "initialize", "open")  # or has not begun
        self._expect("returns", is_over, last.line, "nothing follows: a call does not return, or the tool was killed")
        for thread, line in self._callback_threads.items():
            shown = f"a callback on thread {thread}, which makes calls"
            self._expect("threads", thread not in self._callers, line, shown)
        if self._polls:
            median, most = percentile(self._polls, 50), percentile(self._polls, 99)
            shown = f"median {median / 1e3:.2f} ms, 99 % {most / 1e3:.2f} ms"
            self._expect("polls", median < LATE_POLL, last.line, shown)
            self.results["polls"]["shown"] = shown


def in_words(result: Fields) -> str:
    line = f"{result['state']:11}{result['assumed']}"
    if result["state"] == "broken":
        return printable(f"{line}: line {result['line']}: {result['shown']}; {result['means']}")
    return line + (f": {result['shown']}" if "shown" in result else "")
