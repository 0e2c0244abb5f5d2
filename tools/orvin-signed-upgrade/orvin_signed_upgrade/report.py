"""What came of an upgrade, for each device and image."""

import re
from dataclasses import dataclass, field
from typing import Any, Optional

from .images import VERSIONS, SignedImage
from .tool import ID, Orvin, Outcome

REMOVED = re.compile(rf"^[Rr]emoving [Oo]rvin '?({ID})'? (?:after|because|due to) (.+)")
PASSED_OVER = re.compile(rf"^Orvin ({ID}) is (?:already up to date|another type)\.")
STEPS = {  # of the tool, by what it says when it removes a device
    "initializeTransfer() failed": "announcement",
    "timeout": "transfer",
    "faulty callback": "transfer",
    "endless go back": "transfer",
    "verifyData() failed": "check",
    "startUpdate() failed": "start",
    "getVersion failed": "version query",
}
NEW, OLD, MISSING = "new", "old", "missing"
UNKNOWN = "unknown"  # the device gave no version, or the bus could not be listed again


@dataclass
class Run:
    """The upgrade with one image."""

    image: SignedImage
    outcome: Outcome
    failures: dict[str, str] = field(default_factory=dict)  # by device: the step that it failed last
    passed_over: set[str] = field(default_factory=set)
    was_sent: bool = False  # to those that were not passed over
    was_installed: bool = False  # on a device, as far as the tool knows

    def __post_init__(self) -> None:
        for line in self.outcome.console:
            self.was_sent = self.was_sent or line.startswith("Upgrading ")
            self.was_installed = self.was_installed or line.startswith("Successfully updated ")
            if found := PASSED_OVER.match(line):
                self.passed_over.add(found[1])
            elif found := REMOVED.match(line):
                step = (step for text, step in STEPS.items() if found[2].startswith(text))
                self.failures[found[1]] = next(step, found[2])


@dataclass
class Report:
    expected: dict[str, str]  # names, by identifier
    before: dict[str, Orvin]
    images: list[SignedImage]
    runs: list[Run] = field(default_factory=list)
    after: Optional[dict[str, Orvin]] = None  # none if the bus could not be listed again
    problem: str = ""
    is_pretended: bool = False  # nothing was sent

    def state(self, id: str, image: SignedImage) -> str:
        orvin = (self.after or {}).get(id)
        if self.after is None or orvin and not orvin.versions:
            return UNKNOWN
        if orvin is None:
            return MISSING
        return NEW if orvin.versions.get(VERSIONS[image.target]) == image.version else OLD

    def worst(self, id: str) -> str:
        states = [self.state(id, image) for image in self.images]
        return next((state for state in (MISSING, UNKNOWN, OLD) if state in states), NEW)

    def those(self, state: str) -> list[str]:
        return [id for id in self.expected if self.worst(id) == state]

    def updated(self) -> list[str]:
        """The devices with another version than before that an image has."""
        return [id for id in self.expected if any(self._is_updated(id, image) for image in self.images)]

    def _is_updated(self, id: str, image: SignedImage) -> bool:
        versions = self.before[id].versions if id in self.before else {}
        is_old = versions.get(VERSIONS[image.target]) != image.version
        return is_old and self.state(id, image) == NEW

    def is_installed(self) -> bool:
        """Whether a device has an image of this release."""
        is_seen = any(self.state(id, image) == NEW for id in self.expected for image in self.images)
        return is_seen or any(run.was_installed for run in self.runs)

    def is_complete(self) -> bool:
        return self.after is not None and not self.problem and len(self.those(NEW)) == len(self.expected)

    def title(self, id: str) -> str:
        return f"{id} {self.expected[id]}".rstrip()

    def summary(self) -> str:
        """One line. Names devices only where something is wrong."""
        return "".join(character if character.isprintable() else "?" for character in self._summary())

    def _summary(self) -> str:
        if self.after is None:
            return self.problem or "the bus was not listed again"
        wrong = {OLD: "not new", UNKNOWN: "without a version", MISSING: "missing"}
        parts = [f"{len(self.those(NEW))} new ({len(self.updated())} updated)"]
        if self.is_pretended:
            parts = [f"{len(self.those(NEW))} new, {len(self.those(OLD))} would be updated"]
            del wrong[OLD]
        for state, words in wrong.items():
            if ids := self.those(state):
                parts.append(f"{len(ids)} {words}: " + ", ".join(self._blame(id) for id in ids))
        return "; ".join([self.problem, *parts] if self.problem else parts)

    def _blame(self, id: str) -> str:
        steps = [self._entry(id, image) for image in self.images]
        why = [f"{entry['file']} {entry['failed'] or 'not sent'}" for entry in steps if entry["state"] == OLD]
        return self.title(id) + (f" ({', '.join(why)})" if why else "")

    def _run_of(self, image: SignedImage) -> Optional[Run]:
        return next((run for run in self.runs if run.image is image), None)

    def _entry(self, id: str, image: SignedImage) -> dict[str, Any]:
        """`failed` is the step, or none."""
        run = self._run_of(image)
        state, failed = self.state(id, image), run.failures.get(id) if run else None
        was_sent = (
            run is not None
            and run.was_sent
            and not self.is_pretended
            and id in self.before
            and id not in run.passed_over
        )
        if state == NEW:
            failed = None
        elif was_sent and failed is None and state != UNKNOWN:
            failed = "return" if state == MISSING else "new version"
        return {
            "file": image.name,
            "sent": was_sent and failed != "announcement",
            "state": state,
            "failed": failed,
        }

    def as_object(self) -> dict[str, Any]:
        return {
            "summary": self.summary(),
            "pretended": self.is_pretended,
            "updated": self.updated(),
            "images": [
                {
                    "file": image.name,
                    "target": VERSIONS[image.target],
                    "version": image.version,
                    "serial": image.serial,
                    "status": run.outcome.status if (run := self._run_of(image)) else None,
                    "console": run.outcome.console if run else [],
                }
                for image in self.images
            ],
            "devices": [
                {
                    "device": id,
                    "name": name,
                    "before": self.before[id].versions if id in self.before else None,
                    "after": self.after[id].versions if self.after and id in self.after else None,
                    "images": [self._entry(id, image) for image in self.images],
                }
                for id, name in self.expected.items()
            ],
        }
