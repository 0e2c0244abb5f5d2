"""An attempt of the tool to install an image on several devices. Times are microseconds.

The tool waits for all devices before it sends the next packet. What it waits longer than half of them need, the last
ones to answer have cost. The sending of old packets belongs to the device that asked for them.
"""

from collections import Counter
from dataclasses import dataclass, field
from statistics import median_low

from .device import Device
from .reader import Event

SENT_TO_ALL = -2  # what ImageTransfer_data answers when the library took the packet
GO_BACK = 17
ENDLESS = 1_000  # requests to go back without progress, after which the tool drops a device
POLL = 1_000  # how often the tool looks whether a packet was acknowledged
LATE = 10_000  # so much after half of the others, an acknowledgement is late


@dataclass
class Attempt:
    image: int = 0  # counted from 1; 0: before the first announcement
    number: int = 0  # 1, or 2 for the devices that failed in the first
    content: tuple[int, ...] = (0, 0, 0)  # target, size and checksum of the image
    is_owned: bool = False  # it is made because its devices failed, not because the first one broke off
    devices: list[Device] = field(default_factory=list)  # that it is announced to
    receivers: dict[Device, bool] = field(default_factory=dict)  # those of them that are not dropped
    is_checked: bool = False  # the tool came as far as the check
    is_refused: bool = False  # the library refused a packet, which ends the transfer
    packets: int = 0  # different ones
    packet: int | None = None  # the one that the tool waits for
    sent: int = 0  # when the tool sent it
    sent_again: int | None = None  # when, the first time
    needed: dict[Device, int] = field(default_factory=dict)  # how long after that each device answered
    highest: int = -1  # packet
    # While old packets are sent: the lowest one that a device asked for, and the device.
    back: tuple[int, Device] | None = None
    without_progress: Counter[Device] = field(default_factory=Counter)  # requests to go back, by device

    def announce(self, device: Device) -> None:
        self.devices.append(device)
        self.receivers[device] = True

    def drop(self, device: Device, at: int, reason: str) -> None:
        """The tool goes on without the device."""
        self.receivers.pop(device, None)
        device.mark("removed", at, at, f"{reason} (attempt {self.number})" if self.number > 1 else reason)

    def send(self, call: Event) -> None:
        self.is_refused |= call.result != SENT_TO_ALL
        if call.packet == self.packet and self._waited_for():
            self.sent_again = self.sent_again or call.at
            for device in self._waited_for():
                device.mark("resend", call.at, call.at, f"packet {call.packet} sent again")
            return
        self.end_packet(call.at)
        self.packet, self.sent = call.packet, call.at
        if call.packet > self.highest:
            self.highest = call.packet
            self.packets += 1
            self.back = None
            self.without_progress.clear()

    def _waited_for(self) -> list[Device]:
        return [device for device in self.receivers if device not in self.needed]

    def answer(self, event: Event, device: Device) -> None:
        if event.result not in (0, GO_BACK):
            self._fail(event, device)
            return
        if self.packet is not None and device not in self.needed:
            self.needed[device] = event.at - self.sent
            if event.result == 0:
                device.needed.append(self.needed[device])
        if event.result == 0:
            device.acknowledged.append(event.at)
        else:
            self._go_back(event, device)

    def _fail(self, event: Event, device: Device) -> None:
        device.mark("fault", event.at, event.at, f"result {event.result}, packet {event.packet}")
        if device in self.receivers:
            self.drop(device, event.at, f"fault {event.result}")

    def _go_back(self, event: Event, device: Device) -> None:
        device.mark("go_back", event.at, event.at, f"asks for packet {event.packet}")
        if not self.back or event.packet < self.back[0]:
            self.back = event.packet, device
        self.without_progress[device] += 1
        if self.without_progress[device] == ENDLESS:
            self.drop(device, event.at, "endless go back")

    def end_packet(self, at: int, is_certain: bool = True) -> None:
        """The tool turns to the next packet, or to another step. When lines are missing, silence is not certain."""
        silent = self._waited_for() if self.sent_again else []
        self.needed |= dict.fromkeys(silent, at - self.sent)
        if self.needed:
            self._charge(at - self.sent)
        for device in silent if is_certain and not self.is_refused else []:
            self.drop(device, at, f"silent, packet {self.packet}")
        self.packet, self.sent_again, self.needed = None, None, {}

    def _charge(self, wait: int) -> None:
        """Devices that made the tool lose patience and send the packet again have no say in what is usual."""
        patience = self.sent_again - self.sent if self.sent_again else wait + POLL
        # The tool sees an answer when it looks next.
        seen = {device: -(-time // POLL) * POLL for device, time in self.needed.items()}
        usual = median_low([time for time in seen.values() if time < patience] or [0])
        longest = max(seen.values())
        last = [device for device, time in seen.items() if time == longest]
        for device in last:
            device.lost["late" if longest < patience else "resends"] += (longest - usual) / len(last)
        if self.back:
            self.back[1].lost["go_backs"] += max(0, wait - (longest - usual))
        for device, time in self.needed.items():
            if time >= min(patience, usual + LATE):
                device.mark("late", self.sent, self.sent + time, f"packet {self.packet}, {time / 1e6:.3f} s")
