"""What one device did and cost. Times are microseconds."""

from array import array
from collections import Counter
from dataclasses import dataclass, field


def printable(text):
    return "".join(character if character.isprintable() else "?" for character in text)


@dataclass(slots=True)
class Mark:
    """Something that happened to a device: late, lost, resend, go_back, fault, removed, check, install, away, joined.

    `late` and `lost` last from the sending of a packet to the answer; before that of `lost`, it was sent again."""

    kind: str
    begin: int
    end: int | None  # none: it goes on
    text: str


@dataclass(eq=False)
class Device:
    id: str
    label: str = ""  # the identifier, shortened
    name: str = ""
    before: dict = field(default_factory=dict)  # versions, by the names that OrvinInfo has for them
    after: dict = field(default_factory=dict)
    acknowledged: array = field(default_factory=lambda: array("q"))  # when
    needed: array = field(default_factory=lambda: array("q"))  # for that, from the sending of the packet
    marks: list[Mark] = field(default_factory=list)
    lost: Counter = field(default_factory=Counter)  # time that the run took longer because of it, by cause
    failed_calls: int = 0

    @property
    def title(self):
        return printable(f"{self.label} {self.name}".rstrip())

    def mark(self, kind, begin, end, text):
        self.marks.append(Mark(kind, begin, end, text))

    def open(self, kind, at, text):
        """The mark goes on until close."""
        if not any(mark.kind == kind and mark.end is None for mark in self.marks):
            self.mark(kind, at, None, text)

    def close(self, at, *kinds):
        for mark in self.marks:
            if mark.end is None and mark.kind in kinds:
                mark.end = at

    def marked(self, kind):
        return [mark for mark in self.marks if mark.kind == kind]

    def time(self, kind):
        """How long its marks of the kind last together; none: it has none."""
        marks = self.marked(kind)
        return sum(mark.end - mark.begin for mark in marks) if marks else None


def lose(cause, shares):
    for device, lost in shares.items():
        device.lost[cause] += lost


def share_wait(times, usual, poll):
    """For each device its part of the wait after `usual`: those that the tool waits for together share alike.
    The tool sees an answer when it looks, each `poll`."""
    shares = Counter()
    seen = -(-usual // poll)
    order = sorted(times, key=times.get)
    for position, device in enumerate(order):
        now = -(-times[device] // poll)
        if now > seen:
            part = (now - seen) * poll / (len(order) - position)
            shares.update(dict.fromkeys(order[position:], part))
            seen = now
    return shares
