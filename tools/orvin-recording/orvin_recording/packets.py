"""One run through the packets of an image: who made the tool wait, or send again. Times are microseconds."""

from collections import Counter
from dataclasses import dataclass, field
from statistics import median_low

from .device import share_wait

SENT_TO_ALL = -2  # what ImageTransfer_data answers when the library took the packet
GO_BACK = 17
ENDLESS = 1_000  # requests to go back without progress, after which the tool drops a device
POLL = 1_000  # how often the tool looks whether a packet was acknowledged
LATE = 10_000, 10  # an acknowledgement is late after so long, and so many times what is usual


@dataclass
class _Flight:
    """The packet that the tool waits for."""

    packet: int
    sent: list  # when, also again
    owner: object = None  # the device that made the tool send a packet that it had sent before
    answered: dict = field(default_factory=dict)  # when, by device
    back: tuple = ()  # the lowest packet that a device asks for, and the device
    resent_to: set = field(default_factory=set)  # the devices that had not answered before it was sent again


class Transfer:
    def __init__(self, remove):
        """`remove` takes a device, the time and the reason when the tool drops the device."""
        self.receivers = {}  # in the order of the announcements
        self.packets = self.resends = self.go_backs = 0  # different packets; those sent again; requests
        self.refused = 0  # packets, by the library
        self._remove = remove
        self._flight = self._owner = None
        self._highest = -1
        self._fastest = 0
        self._without_progress = Counter()

    def send(self, call):
        self.refused += call.result != SENT_TO_ALL  # which ends the transfer
        if self._is_resend(call):
            self._note_resend(call)
            return
        self.end(call.at)
        self._flight = _Flight(call.packet, [call.at], self._owner if call.packet <= self._highest else None)
        self.packets += call.packet > self._highest
        self._highest = max(self._highest, call.packet)

    def _is_resend(self, call):
        """A request to go back makes the tool send the packet from the start, but not before all have answered."""
        flight = self._flight
        return flight and flight.packet == call.packet and (not flight.back or self._waited_for())

    def _note_resend(self, call):
        for device in self._waited_for():
            device.mark("resend", call.at, call.at, f"packet {call.packet} sent again")
            self._flight.resent_to.add(device)
        self._flight.sent.append(call.at)
        self.resends += 1

    def lose_track(self):
        """A line is missing in the recording, so it is not known which devices have answered."""
        self._flight = None

    def answer(self, event, device):
        if event.result == 0:
            self._acknowledge(event, device)
        elif event.result == GO_BACK:
            self._go_back(event, device)
        else:
            device.mark("fault", event.at, event.at, f"result {event.result}, packet {event.packet}")
            self._drop(device, event.at, f"fault {event.result}")

    def _drop(self, device, at, reason):
        if device in self.receivers:
            self._remove(device, at, reason)

    def end(self, at, cut_off=False):
        """The tool turns to the next packet, or to another step."""
        flight = self._flight
        if not flight:
            return
        silent = self._waited_for() if len(flight.sent) > 1 or cut_off else []
        self._charge(flight, at, flight.answered | dict.fromkeys(silent, at))
        for device in () if cut_off or self.refused else silent:
            self._drop(device, at, f"silent, packet {flight.packet}")
        if flight.back:
            self._owner = flight.back[1]
        elif flight.packet >= self._highest:
            self._without_progress.clear()
        self._flight = None

    def _waited_for(self):
        return [device for device in self.receivers if device not in self._flight.answered]

    def _acknowledge(self, event, device):
        device.acknowledged.append(event.at)
        if self._flight and device not in self._flight.answered:
            self._flight.answered[device] = event.at
            device.needed.append(event.at - self._flight.sent[0])

    def _go_back(self, event, device):
        device.mark("go_back", event.at, event.at, f"asks for packet {event.packet}")
        self.go_backs += 1
        flight = self._flight
        if not flight:
            return
        flight.answered.setdefault(device, event.at)
        if event.packet > flight.packet:
            return
        flight.back = min(flight.back or (event.packet, device), (event.packet, device), key=lambda back: back[0])
        self._without_progress[device] += 1
        if self._without_progress[device] == ENDLESS:
            self._drop(device, event.at, "endless go back")

    def _charge(self, flight, end, answers):
        """The wait belongs to the devices that answered last, the sending of old packets to the one that asked."""
        if not answers:
            return
        times = {device: at - flight.sent[0] for device, at in answers.items()}
        on_time = [times[device] for device in answers if device not in flight.resent_to]
        usual = median_low(on_time) if on_time else self._fastest
        self._fastest = min(self._fastest or usual, usual)
        late = max(LATE[0], LATE[1] * self._fastest)
        shares = share_wait(times, usual if usual < late else self._fastest, POLL)
        for device in times:
            self._note_wait(flight, device, answers[device], times[device] >= late, shares[device])
        if flight.owner:
            flight.owner.lost["go_backs"] += max(0, end - flight.sent[0] - shares.total())

    @staticmethod
    def _note_wait(flight, device, at, is_late, lost):
        was_resent = device in flight.resent_to
        if is_late:
            took = f"packet {flight.packet}, {(at - flight.sent[0]) / 1e6:.3f} s"
            device.mark("lost" if was_resent else "late", flight.sent[0], at, took)
        if lost:
            device.lost["resends" if was_resent else "late"] += lost
