"""Shares out the time of a run to the devices that the tool waits for, and the tool itself. Times are microseconds."""

from bisect import bisect
from collections import Counter, defaultdict
from collections.abc import Collection
from dataclasses import dataclass, field
from itertools import accumulate

from .reader import LINK, RETURN, TRANSFER, TRANSFERRING, VERSIONS, Call, Callbacks, Recording

ARM = 0x200
TARGETS = {ARM: "ARM", 0x201: "DSP", 0x202: "Booster ARM"}
SENT_TO_ALL = -2  # what a call of ImageTransfer_data returns when the library took the packet
GO_BACK = 17
QUIET = 100_000
FINE = 10_000  # longer times are rounded to tenths of a millisecond
MOST_MARKS = 4_000  # of a kind that lasts for a moment; then they are merged, two and two
MOMENTS = "resend", "go_back", "fault"
ENDLESS = 1_000  # requests to go back without progress, after which the tool drops a device
REFUSABLE = {"write_request": "announcement", "check": "check", "start": "start"}
PART_OF_PHASE = (LINK, "link_state"), (RETURN, "get_members"), (RETURN, "version_query")


def printable(text: str) -> str:
    return "".join(character if character.isprintable() else "?" for character in text)


@dataclass(slots=True)
class Mark:
    begin: int
    end: int
    text: str = ""
    count: int = 1


def percentile(histogram: Counter[int], part: int) -> int:
    """The value below which that part of the values lies, in percent."""
    rank = (histogram.total() - 1) * part // 100
    values = sorted(histogram)
    return values[bisect([*accumulate(histogram[value] for value in values)], rank)]


@dataclass(eq=False)
class Device:
    id: str
    label: str  # the identifier, shortened
    name: str = ""
    before: dict[str, int] = field(default_factory=dict)  # versions, by the names that OrvinInfo has for them
    after: dict[str, int] = field(default_factory=dict)
    needed: Counter[int] = field(default_factory=Counter)  # times from the sending of a packet to its acknowledgement
    # What else happened, by kind: resend, go_back, fault, removed, check, install, away, joined.
    marks: defaultdict[str, list[Mark]] = field(default_factory=lambda: defaultdict(list))
    cost: defaultdict[str, float] = field(default_factory=lambda: defaultdict(float))  # time of the run, by column
    failed_calls: int = 0
    answered: bool = True  # when it was last asked
    state: Mark | None = None  # while it installs or is away

    @property
    def title(self) -> str:
        return printable(f"{self.label} {self.name}".rstrip())

    @property
    def total(self) -> float:
        return sum(self.cost.values())

    def mark(self, kind: str, at: int, text: str, took: int = 0) -> Mark:
        marks = self.marks[kind]
        marks.append(Mark(at, at + took, text))
        if kind in MOMENTS and len(marks) == MOST_MARKS:
            both = zip(marks[::2], marks[1::2], strict=True)
            marks[:] = [Mark(a.begin, b.end, a.text, a.count + b.count) for a, b in both]
        return marks[-1]

    def turn(self, at: int, kind: str = "", text: str = "") -> None:
        """Begins an installation or an absence of the device, or ends it, if the kind is empty."""
        if self.state:
            self.state.end = at
        self.state = self.mark(kind, at, text) if kind else None


@dataclass
class Phase:
    name: str  # of the tool's step
    title: str  # with the image and the attempt
    begin: int
    end: int = 0
    packets: int = 0  # different ones
    is_refused: bool = False  # the library refused a packet, which ends the transfer


class Analysis:
    """Follows the tool through a recording. `phases`, `devices` (by identifier), `tool` and `end` are what it finds."""

    def __init__(self, recording: Recording) -> None:
        self.recording = recording
        self.devices = _upgraded(recording)
        self.tool = Device("", "the tool")  # its cost is by step; stands for calls to all devices or to none
        self.end = 0
        self.phases = [Phase(LINK, LINK, 0)]
        self.answers = [Mark(0, 0)]  # when packets were answered, QUIET or more apart
        self._clock = 0  # what is before is shared out
        self._waited: set[Device] = set()  # those that the tool waits for
        self._receivers: set[Device] = set()  # those of the attempt that are not dropped
        self._started: set[Device] = set()  # those that have not been reported back
        self._attempts: Counter[tuple[int, ...]] = Counter()  # at each image
        self._attempt = 0  # the present one; 0: none yet
        self._packet, self._next, self._highest = -1, 0, -1  # the one in flight, the one after it, the highest one
        self._sent, self._is_resent = 0, False  # when the packet in flight was first sent
        self._back: tuple[int, Device] | None = None  # the lowest packet that a device asked for, until it is made up
        self._requests: Counter[Device] = Counter()  # to go back, without progress
        for event in recording.events():
            if isinstance(event, Call):
                self._called(event, self._device(event.device))
            elif event.name == TRANSFER:
                self._answered(event)
            else:
                self._bus_changed(event)
        self._spend(self.end, self._waited)
        self.phases[-1].end = self.end
        for device in self.devices.values():
            device.turn(self.end)

    def _device(self, name: str) -> Device:
        return self.devices.get(name, self.tool)

    def _called(self, call: Call, device: Device) -> None:
        end = call.at + call.took
        self.end = max(self.end, end)
        self._spend(call.at, self._waited)
        self._enter_phase(call)
        if handler := getattr(self, f"_on_{call.name}", None):
            handler(call, device)
        if call.result != 0 and call.name in REFUSABLE:
            self._drop(device, end, f"{REFUSABLE[call.name]} refused, {call.result}")
        device.failed_calls += call.result != 0 and call.name != "is_talm"
        self._spend(end, [device], "calls")

    def _spend(self, until: int, owners: Collection[Device], column: str = "") -> None:
        """The time that is not shared out yet is the owners', the same for each. Without owners it is the tool's."""
        step = self.phases[-1].name
        owners = [self._back[1]] if self._back else owners or [self.tool]
        column = "go_back" if self._back else column or ("transfer" if step == TRANSFERRING else "return")
        time = max(0, until - self._clock)
        self._clock += time
        for owner in owners:
            owner.cost[step if owner is self.tool else column] += time / len(owners)

    def _enter_phase(self, call: Call) -> None:
        phase = self.phases[-1]
        is_part = (phase.name, call.name) in PART_OF_PHASE or call.fields.get("callback") == "set"
        if is_part or call.step in ("", phase.name):
            return
        phase.end = call.at
        self._end_packet(call.at)
        self._back = None
        if phase.name == RETURN and not self.recording.first_damaged:  # else it may only lack the answer
            for device in [device for device in self._receivers if not device.answered]:
                self._drop(device, call.at, "not back")
        attempt = "" if call.step == "closing" else phase.title[: -len(phase.name)]
        if call.step == "announcing":
            attempt = self._begin_attempt(call)
        self.phases.append(Phase(call.step, attempt + call.step, call.at))

    def _begin_attempt(self, call: Call) -> str:
        content = tuple(call.fields.get(key, 0) for key in ("target", "content_size", "content_checksum"))
        self._attempts[content] += 1
        self._attempt = self._attempts[content]
        self._receivers, self._packet, self._highest = set(), -1, -1
        return f"image {len(self._attempts)} ({TARGETS.get(content[0], content[0])}), attempt {self._attempt}: "

    def _drop(self, device: Device, at: int, reason: str) -> None:
        if device in self._receivers:
            device.mark("removed", at, f"{reason} (attempt {self._attempt})" if self._attempt > 1 else reason)
        for devices in (self._receivers, self._started, self._waited):
            devices.discard(device)

    def _on_version_query(self, call: Call, device: Device) -> None:
        device.answered = call.result == 0
        device.name = call.fields.get("name") or device.name
        versions = {key: call.fields[key] for key in VERSIONS if key in call.fields}
        (device.after if self._attempt else device.before).update(versions)
        is_up = call.result == 0 and versions.get("dsp") != 0
        if call.result == 0:
            device.turn(call.at, "" if is_up else "away", "DSP down")
        self._waited = set() if is_up else {device}

    def _on_write_request(self, _: Call, device: Device) -> None:
        self._receivers.add(device)

    def _on_data(self, call: Call, _: Device) -> None:
        if call.packet == self._packet and self._waited and not self._is_resent:
            self._is_resent = True
            for device in self._waited:
                device.mark("resend", call.at, f"packet {call.packet} sent again")
        else:
            self._end_packet(call.at)
            self._packet, self._next, self._sent = call.packet, call.packet + 1, call.at
            self._waited = self._receivers.copy()
        if call.packet > self._highest:
            self._highest, self._back = call.packet, None
            self.phases[-1].packets += 1
            self._requests.clear()
        if call.result != SENT_TO_ALL:
            self.phases[-1].is_refused, self._waited = True, set()

    def _end_packet(self, at: int) -> None:
        """The tool goes on, without those that have not answered a packet that was sent again."""
        for device in [*self._waited] if self._is_resent and not self.recording.first_damaged else []:
            self._drop(device, at, f"silent, packet {self._packet}")
        self._waited, self._is_resent = set(), False

    def _answered(self, answers: Callbacks) -> None:
        """Each counts for the packet in flight, whatever its number. Until the last but one, the time is the tool's."""
        self.end = max(self.end, answers.times[-1])
        if answers.times[0] - self.answers[-1].end >= QUIET:
            self.answers.append(Mark(answers.times[0], 0))
        self.answers[-1].end = answers.times[-1]
        waited = self._waited if self.phases[-1].name == TRANSFERRING else set()
        is_acknowledged = answers.result == 0 and answers.number == self._packet
        last = self._clock
        for at, name in zip(answers.times, answers.devices):
            device = self.devices.get(name)
            if device not in waited:
                continue
            waited.remove(device)
            if not waited:
                self._spend(last, [])
                self._spend(at, [device])
            last = at
            if is_acknowledged:
                needed = at - self._sent
                device.needed[needed if needed < FINE else round(needed, -2)] += 1
        self._spend(last, [])
        if answers.result != 0:
            self._faulty(answers.times[0], answers, self._device(answers.devices[0]))

    def _faulty(self, at: int, answer: Callbacks, device: Device) -> None:
        packet = answer.number
        if answer.result != GO_BACK:
            device.mark("fault", at, f"result {answer.result}, packet {packet}")
            self._drop(device, at, f"fault {answer.result}")
            return
        device.mark("go_back", at, f"asks for packet {packet}")
        if self.phases[-1].name != TRANSFERRING or device not in self._receivers or packet >= self._next:
            return
        self._spend(at, self._waited)
        self._next = packet
        if not self._back or packet < self._back[0]:
            self._back = packet, device
        self._requests[device] += 1
        if self._requests[device] == ENDLESS:
            self._drop(device, at, "endless go back")

    def _on_check(self, call: Call, device: Device) -> None:
        device.mark("check", call.at, f"{call.took / 1e6:.3f} s", call.took)
        first, second = call.fields.get("first_output", 0), call.fields.get("second_output", 1)
        if call.result == 0 and first != second:
            self._drop(device, call.at + call.took, f"sums differ, {first} and {second}")

    def _on_start(self, call: Call, device: Device) -> None:
        device.turn(call.at, "install" if call.result == 0 else "", "installs")
        self._started.add(device)

    def _bus_changed(self, change: Callbacks) -> None:
        at, device, is_back = change.times[0], self._device(change.devices[0]), change.number == 0
        self.end = max(self.end, at)
        self._spend(at, self._waited)
        device.turn(at, "" if is_back else "away", "off the bus")
        if is_back:
            device.mark("joined", at, "back on the bus")
            self._started.discard(device)

    def _on_link_state(self, call: Call, _: Device) -> None:
        self._waited = self._started if call.fields.get("active") else set()

    def _on_set_bus_change_callback(self, *_: object) -> None:
        self._started, self._waited = set(), set()

    def _on_get_members(self, call: Call, _: Device) -> None:
        listed = self.devices if call.result < 0 else {*call.fields.get("members", [])}
        self._waited = {device for name, device in self.devices.items() if name not in listed}


def _upgraded(recording: Recording) -> dict[str, Device]:
    """The devices that the tool asks for versions or sends an image, with identifiers that are short but different."""
    calls = (event for event in recording.events() if event.name in ("version_query", "write_request"))
    names = dict.fromkeys(call.device for call in calls if isinstance(call, Call) and call.device not in ("", "all"))
    different = (n for n in range(2, 45, 3) if len({name[-n:] for name in names}) == len(names))
    length = next(different, 0)
    return {name: Device(name, f"{name[:2]}:..:{name[-length:]}" if length else name) for name in names}
