"""What a run spent its time on, and which devices it waited for. Times are microseconds."""

from collections import defaultdict
from dataclasses import dataclass
from operator import attrgetter
from statistics import median_low

from .device import Device, lose, share_wait
from .packets import Transfer

PAUSE = 400_000  # shorter than each of the tool's waits outside of the transfer
RETURN_POLL = 5_000_000  # how often the tool looks whether the devices are back
RESTARTING = 0x200  # the target whose devices leave the bus; with the others their DSP is down meanwhile
VERSIONS = "hw", "arm", "dsp", "booster_arm", "api"
CONTENT = "target", "content_size", "content_checksum"
PHASE_OF_CALL = {
    "ImageTransfer_write_request": "announce",
    "ImageTransfer_data": "transfer",
    "OrvinImageMaintenance_check_image": "check",
    "OrvinImageMaintenance_start_update": "start",
    "TalmApiCleanup": "close",
    "TalmApiClose": "close",
}


@dataclass
class Phase:
    """A step of the tool: open, discovery, versions, announce, transfer, pause, check, start, return or close."""

    name: str
    begin: int
    image: int = 0  # counted from 1; 0 before the first announcement, as are attempt and target
    attempt: int = 0
    target: int = 0
    end: int = 0
    lost: float = 0  # time in it that devices are charged with
    transfer: Transfer | None = None  # in the phase of that name


class Analysis:
    """Follows the tool through a recording. `phases`, `devices` (by identifier) and `end` are what it finds."""

    def __init__(self, recording):
        self.recording = recording
        self.devices = {}
        self.phases = [Phase("open", 0)]
        self.end = max((event.at + event.took for event in recording.events), default=0)
        self._image = self._attempt = self._attempt_began = self._charged = self._charged_before = 0
        self._content = ()
        self._transfer = Transfer(self._remove)
        self._announced, self._asked, self._restarting = {}, set(), set()
        self._took = defaultdict(dict)  # by cause and device, in this phase
        self._reported, self._unseen = {}, set()  # when a device was back on the bus; whose DSP may be down
        self._held_up, self._held_since = (), 0  # by these devices the wait for the return
        self._is_complete = self._was_complete = False  # whether this and the previous attempt came to the check
        self._is_linked = True
        self._follow(sorted(recording.events, key=attrgetter("at")))
        self._transfer.end(self.end, cut_off=True)
        self._end_phase(self.end)
        self._end_attempt(self.end)
        self._finish()

    def _follow(self, events):
        calls = [event for event in events if not event.is_callback]
        pauses = {call.line: after.at - call.at - call.took for call, after in zip(calls, calls[1:])}
        missing = sorted(self.recording.damaged, reverse=True)
        for event in events:
            while missing and missing[-1] < event.line:
                missing.pop()
                self._transfer.lose_track()
            if event.name == "TransferCallback":
                self._transfer.answer(event, self._device(event.device))
                continue
            if not event.is_callback:
                self._enter(self._phase_of(event, pauses.get(event.line, PAUSE) >= PAUSE), event)
            handler = getattr(self, f"_on_{event.name}", None)
            if handler:
                handler(event)

    def _phase_of(self, call, is_pause_next):
        now = self.phases[-1].name
        is_set = call.fields.get("callback") == "set"
        match call.name:
            case "TalmApiGetLinkState":
                return now if now == "open" else "return"
            case "TalmApiGetBusMembers":
                return now if now == "return" else "discovery"
            case "OrvinInfo":  # the tool pauses after those that wait for an answer
                return "return" if now == "return" and is_pause_next else "versions"
            case "TalmApiSetCallback" if is_set:
                return "transfer"
            case "TalmApiSetCallback" if is_pause_next:
                return "pause"
            case "TalmApiSetBusChangeCallback" if is_set:
                return "start"
        return PHASE_OF_CALL.get(call.name, now)

    def _enter(self, name, call):
        if name == self.phases[-1].name:
            return
        if name != "transfer":
            self._transfer.end(call.at)
        self._end_phase(call.at)
        if self.phases[-1].name == "versions" and not self.recording.damaged:
            for device in self._announced.keys() - self._asked:
                self._remove(device, call.at, "not asked again")
        if name in ("announce", "close"):
            self._end_attempt(call.at)
        if name == "announce":
            self._begin_attempt(call)
        if name == "close":
            self.phases.append(Phase(name, call.at))
            return
        target = self._content[0] if self._content else 0
        transfer = self._transfer if name == "transfer" else None
        self.phases.append(Phase(name, call.at, self._image, self._attempt, target, transfer=transfer))

    def _end_phase(self, at):
        phase = self.phases[-1]
        phase.end = at
        if phase.name == "return":
            self._hold_up(at, ())
        else:
            for cause, took in self._took.items():
                lose(cause, share_wait(took, median_low(took.values()), 1))
        self._took.clear()
        phase.lost, self._charged = self._lost() - self._charged, self._lost()

    def _begin_attempt(self, call):
        content = tuple(call.fields.get(key, 0) for key in CONTENT)
        is_second = content == self._content and self._attempt == 1
        self._image += not is_second
        self._attempt = 2 if is_second else 1
        self._content = content
        self._attempt_began, self._charged_before = call.at, self._charged
        self._was_complete, self._is_complete = self._is_complete or not self._transfer.receivers, False
        self._transfer = Transfer(self._remove)
        for kept in (self._asked, self._restarting, self._reported, self._unseen):
            kept.clear()

    def _end_attempt(self, at):
        """A second attempt is made for its devices alone: they share what it took and none of them lost alone.
        The devices have no part in a transfer that breaks off."""
        if self._attempt == 2 and self._announced and self._was_complete:
            rest = at - self._attempt_began - (self._charged - self._charged_before)
            lose("second_attempt", dict.fromkeys(self._announced, rest / len(self._announced)))
            self._charged = self._lost()
            for phase in self.phases:
                if phase.begin >= self._attempt_began:
                    phase.lost = phase.end - phase.begin
        self._announced.clear()

    def _lost(self):
        return sum(device.lost.total() for device in self.devices.values())

    def _device(self, identifier):
        return self.devices.setdefault(identifier, Device(identifier))

    def _remove(self, device, at, reason):
        self._restarting.discard(device)
        self._transfer.receivers.pop(device, None)
        device.mark("removed", at, at, f"{reason} (attempt {self._attempt})" if self._attempt > 1 else reason)

    def _note_call(self, call, cause="calls"):
        """The device that the call is about. Notes how long that took, and whether it failed."""
        device = self._device(call.device)
        self._took[cause][device] = self._took[cause].get(device, 0) + call.took
        device.failed_calls += call.result != 0
        return device

    def _on_TalmApiIsTalm(self, call):
        if call.result == 0:  # a member that did not tell its type, and perhaps is an Orvin
            self._device(call.device).failed_calls += 1

    def _on_OrvinInfo(self, call):
        device = self._note_call(call)
        if call.result == 0:
            self._note_versions(device, call)
        is_back = call.result == 0 and call.fields.get("dsp") != 0
        if is_back:
            self._unseen.discard(device)
        if self.phases[-1].name == "return":
            self._hold_up(call.at, () if is_back else {device} | self._unseen)
            return
        if call.result != 0 and device in self._announced and device not in self._asked:
            self._remove(device, call.at, "not back")
        self._asked.add(device)

    def _note_versions(self, device, call):
        device.name = call.fields.get("name") or device.name
        versions = {key: call.fields[key] for key in VERSIONS if key in call.fields}
        if self._attempt:
            device.after = versions
        else:
            device.before = versions
        if call.fields.get("dsp") == 0:
            device.open("away", call.at, "DSP down")
        else:
            device.close(call.at, "away", "install")

    def _hold_up(self, at, devices):
        """The tool waits for the devices from now on; for all of them: it is none's fault."""
        lose("return", dict.fromkeys(self._held_up, (at - self._held_since) / max(1, len(self._held_up))))
        is_theirs = self._is_linked and (len(devices) == 1 or len(devices) < len(self._announced))
        self._held_up = devices if is_theirs else ()
        self._held_since = at

    def _on_TalmApiGetBusMembers(self, call):
        if self.phases[-1].name == "return":
            members = call.fields.get("members", [])
            self._hold_up(call.at, [d for d in self._announced if d.id not in members] if call.result >= 0 else ())

    def _on_ImageTransfer_write_request(self, call):
        device = self._note_call(call)
        self._announced[device] = self._transfer.receivers[device] = True
        if call.result != 0:
            self._remove(device, call.at, f"announcement refused, {call.result}")

    def _on_OrvinImageMaintenance_check_image(self, call):
        device = self._note_call(call, "check")
        self._is_complete = True
        end = call.at + call.took
        device.mark("check", call.at, end, f"{call.took / 1e6:.3f} s")
        sums = [call.fields.get(key) for key in ("first_output", "second_output")]
        if call.result != 0:
            self._remove(device, end, f"check refused, {call.result}")
        elif None in sums or sums[0] != sums[1]:
            self._remove(device, end, "no sums" if None in sums else f"sums differ, {sums[0]} and {sums[1]}")

    def _on_OrvinImageMaintenance_start_update(self, call):
        device = self._note_call(call)
        if call.result != 0:
            self._remove(device, call.at, f"start refused, {call.result}")
            return
        device.open("install", call.at, "installs")
        (self._restarting if call.fields.get("target") == RESTARTING else self._unseen).add(device)

    def _on_BusChangeCallback(self, event):
        device = self.devices.get(event.device)
        if not device:
            return
        if event.fields.get("event") != 0:
            device.close(event.at, "install")
            device.open("away", event.at, "off the bus")
            return
        device.close(event.at, "install", "away")
        device.mark("joined", event.at, event.at, "back on the bus")
        if device in self._restarting:
            self._reported.setdefault(device, event.at)

    def _on_ImageTransfer_data(self, call):
        self._transfer.send(call)

    def _on_TalmApiSetCallback(self, call):
        if call.fields.get("callback") != "set":
            self._transfer.end(call.at)

    def _on_TalmApiSetBusChangeCallback(self, call):
        if call.fields.get("callback") == "set":
            return
        begin = self.phases[-1].begin
        last_look = (call.at - begin) // RETURN_POLL * RETURN_POLL
        times = {d: min(last_look, self._reported.get(d, call.at) - begin) for d in self._restarting}
        on_time = [times[device] for device in self._restarting & self._reported.keys()]
        shares = share_wait(times, median_low(on_time) if on_time else 0, RETURN_POLL)
        for device, lost in shares.items() if self._is_linked else ():
            device.lost["return" if device in self._reported else "report"] += lost

    def _on_TalmApiGetLinkState(self, call):
        self._is_linked = bool(call.fields.get("active"))

    def _finish(self):
        """Shortens the identifiers as far as they stay different, and ends what goes on."""
        tails = (slice(-3 * count + 1, None) for count in range(1, 16))
        tail = next((tail for tail in tails if len({name[tail] for name in self.devices}) == len(self.devices)), None)
        for name, device in self.devices.items():
            device.label = f"{name[:2]}:..:{name[tail]}" if tail and len(name) > 12 else name
            device.close(self.end, "install", "away")
