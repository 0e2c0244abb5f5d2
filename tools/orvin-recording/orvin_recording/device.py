"""What one device did and cost. Times are microseconds."""

from array import array
from collections import defaultdict
from dataclasses import dataclass, field


def printable(text: str) -> str:
    return "".join(character if character.isprintable() else "?" for character in text)


@dataclass(slots=True)
class Mark:
    """Something that happened to a device: late, resend, go_back, fault, removed, check, install, away, joined."""

    kind: str
    begin: int
    end: int
    text: str


@dataclass(eq=False)
class Device:
    id: str
    label: str = ""  # the identifier, shortened
    name: str = ""
    before: dict[str, int] = field(default_factory=dict)  # versions, by the names that OrvinInfo has for them
    after: dict[str, int] = field(default_factory=dict)
    acknowledged: "array[int]" = field(default_factory=lambda: array("q"))  # when
    needed: "array[int]" = field(default_factory=lambda: array("q"))  # for that, from the sending of the packet
    marks: list[Mark] = field(default_factory=list)
    lost: defaultdict[str, float] = field(default_factory=lambda: defaultdict(int))  # by cause
    failed_calls: int = 0
    state: Mark | None = None  # while it installs or is away

    @property
    def title(self) -> str:
        return printable(f"{self.label} {self.name}".rstrip())

    @property
    def cost(self) -> float:
        """Time that the run took longer because of it: what it lost."""
        return sum(self.lost.values())

    def mark(self, kind: str, begin: int, end: int, text: str) -> None:
        self.marks.append(Mark(kind, begin, end, text))

    def turn(self, at: int, kind: str | None, text: str = "") -> None:
        """From now on the device installs or is away; kind none: it is there."""
        if self.state and self.state.kind == kind:
            return
        if self.state:
            self.state.end = at
        self.state = Mark(kind, at, at, text) if kind else None
        if self.state:
            self.marks.append(self.state)

    def marked(self, kind: str) -> list[Mark]:
        return [mark for mark in self.marks if mark.kind == kind]

    def time(self, kind: str) -> int | None:
        """How long its marks of the kind last together; none: it has none."""
        marks = self.marked(kind)
        return sum(mark.end - mark.begin for mark in marks) if marks else None
