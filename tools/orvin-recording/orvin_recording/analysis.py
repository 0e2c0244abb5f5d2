"""What a run spent its time on, and which devices it waited for. Times are microseconds."""

from dataclasses import dataclass
from operator import attrgetter

from .attempt import Attempt
from .device import Device
from .reader import Event, Recording

VERSIONS = "hw", "arm", "dsp", "booster_arm", "api"
CONTENT = "target", "content_size", "content_checksum"
TARGETS = {0x200: "ARM", 0x201: "DSP", 0x202: "Booster ARM"}
LINK, RETURN = "waiting for the link", "waiting for the return"
PHASE_OF_CALL = {
    "TalmApiGetBusMembers": "looking for devices",
    "OrvinInfo": "asking versions",
    "ImageTransfer_write_request": "announcing",
    "ImageTransfer_data": "transferring",
    "OrvinImageMaintenance_check_image": "checking",
    "TalmApiSetBusChangeCallback": RETURN,
    "TalmApiCleanup": "closing",
    "TalmApiClose": "closing",
}


@dataclass
class Phase:
    """A step of the tool."""

    name: str
    begin: int
    attempt: Attempt
    end: int = 0
    lost: float = 0  # time in it that devices are charged with

    @property
    def packets(self) -> int:
        return self.attempt.packets if self.name == "transferring" else 0

    @property
    def title(self) -> str:
        if not self.attempt.image:
            return self.name
        target = self.attempt.content[0]
        of = f"image {self.attempt.image} ({TARGETS.get(target, target)}), attempt {self.attempt.number}"
        return f"{of}: {self.name}"


class Analysis:
    """Follows the tool through a recording. `phases`, `devices` (by identifier) and `end` are what it finds."""

    def __init__(self, recording: Recording) -> None:
        self.recording = recording
        self.devices: dict[str, Device] = {}
        self.end = max(event.at + event.took for event in recording.events)
        self._attempt = Attempt()
        self.phases = [Phase(LINK, 0, self._attempt)]
        self._not_back: set[Device] = set()  # those that install, until they are on the bus again or answer
        self._answers: dict[Device, bool] = {}  # whether the last question for the versions was answered
        self._held_up: list[Device] = []  # the devices that the wait for the return belongs to
        self._held_since = 0
        for event in sorted(recording.events, key=attrgetter("at")):
            self._follow(event)
        self._end_phase(self.end, is_certain=False)
        self._finish()

    def _follow(self, event: Event) -> None:
        if event.name == "TransferCallback":
            self._attempt.answer(event, self._device(event))
            return
        name = self._phase_of(event)
        if name != self.phases[-1].name:
            self._end_phase(event.at, is_certain=not self.recording.damaged)
            if name == "announcing":
                self._begin_attempt(event)
            self.phases.append(Phase(name, event.at, Attempt() if name == "closing" else self._attempt))
        handler = getattr(self, f"_on_{event.name}", None)
        if handler:
            handler(event)

    def _phase_of(self, event: Event) -> str:
        now = self.phases[-1].name
        if event.name == "TalmApiSetCallback" and event.fields.get("callback") == "cleared":
            return "pausing"
        if event.name == "TalmApiGetLinkState" and now != LINK:
            return RETURN
        if event.name in ("TalmApiGetBusMembers", "OrvinInfo") and now == RETURN:
            return now
        return PHASE_OF_CALL.get(event.name, now)

    def _begin_attempt(self, call: Event) -> None:
        last = self._attempt
        content = tuple(call.fields.get(key, 0) for key in CONTENT)
        if content == last.content and last.number == 1:
            self._attempt = Attempt(last.image, 2, content, is_owned=last.is_checked or not last.receivers)
        else:
            self._attempt = Attempt(last.image + 1, 1, content)
        self._not_back.clear()
        self._answers.clear()

    def _end_phase(self, at: int, is_certain: bool) -> None:
        """When it is certain, what is not recorded did not happen."""
        phase = self.phases[-1]
        phase.end = at
        phase.attempt.end_packet(at, is_certain)
        self._hold_up(at, [])
        if phase.name == RETURN and is_certain:
            self._drop_missing(at)
        phase.lost = self._lost() - sum(before.lost for before in self.phases[:-1])
        if phase.attempt.is_owned:
            self._share(phase)

    def _drop_missing(self, at: int) -> None:
        for device in self._attempt.devices:
            if not self._answers.get(device):
                self._attempt.drop(device, at, "not back" if device in self._answers else "not asked again")

    def _share(self, phase: Phase) -> None:
        """What none of its devices lost alone, those that need the attempt share."""
        rest = phase.end - phase.begin - phase.lost
        phase.lost += rest
        for device in phase.attempt.devices:
            device.lost["second_attempt"] += rest / len(phase.attempt.devices)

    def _lost(self) -> float:
        return sum(device.cost for device in self.devices.values())

    def _hold_up(self, at: int, devices: list[Device]) -> None:
        """The tool waits for the devices from now on. That is not their fault until half of all are back."""
        for device in self._held_up:
            device.lost["return"] += (at - self._held_since) / len(self._held_up)
        is_theirs = len(self._not_back) <= max(1, len(self._attempt.devices) // 2)
        self._held_up, self._held_since = devices if is_theirs else [], at

    def _device(self, event: Event) -> Device:
        assert event.device is not None, "only events about the bus have none"
        return self.devices.setdefault(event.device, Device(event.device))

    def _note_call(self, call: Event) -> Device:
        """The device that the call is about. Meanwhile the tool waits for it alone."""
        device = self._device(call)
        device.lost["calls"] += call.took
        device.failed_calls += call.result != 0
        return device

    def _on_OrvinInfo(self, call: Event) -> None:
        device = self._note_call(call)
        self._answers[device] = call.result == 0
        if call.result == 0:
            self._note_versions(device, call)
        if self.phases[-1].name == RETURN:
            is_back = call.result == 0 and device not in self._not_back
            self._hold_up(call.at + call.took, [] if is_back else [device])

    def _note_versions(self, device: Device, call: Event) -> None:
        device.name = call.fields.get("name") or device.name
        versions = {key: call.fields[key] for key in VERSIONS if key in call.fields}
        if self._attempt.image:
            device.after = versions
        else:
            device.before = versions
        if versions.get("dsp") == 0:
            device.turn(call.at, "away", "DSP down")
            self._not_back.add(device)
        else:
            device.turn(call.at, None)
            self._not_back.discard(device)

    def _on_ImageTransfer_write_request(self, call: Event) -> None:
        device = self._note_call(call)
        self._attempt.announce(device)
        if call.result != 0:
            self._attempt.drop(device, call.at, f"announcement refused, {call.result}")

    def _on_ImageTransfer_data(self, call: Event) -> None:
        self._attempt.send(call)

    def _on_OrvinImageMaintenance_check_image(self, call: Event) -> None:
        device = self._note_call(call)
        end = call.at + call.took
        self._attempt.is_checked = True
        device.mark("check", call.at, end, f"{call.took / 1e6:.3f} s")
        first, second = call.fields.get("first_output"), call.fields.get("second_output")
        if call.result != 0:
            self._attempt.drop(device, end, f"check refused, {call.result}")
        elif first is None or second is None:
            self._attempt.drop(device, end, "no sums")
        elif first != second:
            self._attempt.drop(device, end, f"sums differ, {first} and {second}")

    def _on_OrvinImageMaintenance_start_update(self, call: Event) -> None:
        device = self._note_call(call)
        if call.result != 0:
            self._attempt.drop(device, call.at, f"start refused, {call.result}")
            return
        device.turn(call.at, "install", "installs")
        self._not_back.add(device)

    def _on_BusChangeCallback(self, event: Event) -> None:
        if event.device not in self.devices:
            return
        device = self._device(event)
        if event.fields.get("event") != 0:
            device.turn(event.at, "away", "off the bus")
            return
        device.turn(event.at, None)
        device.mark("joined", event.at, event.at, "back on the bus")
        self._not_back.discard(device)
        self._hold_up(event.at, [*self._not_back])

    def _on_TalmApiGetLinkState(self, call: Event) -> None:
        self._hold_up(call.at, [])  # while the link is down, the tool waits for no device

    def _finish(self) -> None:
        """Ends what goes on, and shortens the identifiers as far as they stay different."""
        lengths = (n for n in range(2, 51, 3) if len({name[-n:] for name in self.devices}) == len(self.devices))
        length = next(lengths, 51)
        for device in self.devices.values():
            device.turn(self.end, None)
            device.label = f"{device.id[:2]}:..:{device.id[-length:]}" if length < 45 else device.id
