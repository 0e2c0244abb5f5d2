"""Runs orvin-firmware-upgrade, and follows it."""

import os
import re
import signal
import subprocess
import time
from collections.abc import Callable
from dataclasses import dataclass, field
from types import FrameType
from typing import Any, BinaryIO, Optional

from .files import open_regular

TOOL = "orvin-firmware-upgrade"
NOT_READY = 132, 133  # of the tool: the bus controller or its bus
LISTING_LASTS = 900  # seconds; it takes minutes at most, up to 100 s of them for the link
BETWEEN_LOOKS = 0.2  # seconds
MOST_STATUS_BYTES = 4096
ID = "[0-9a-f:]{50}"
# A name has at most 32 bytes, any ones; too few to feign a line.
LISTED = re.compile(
    rf"(?m)^ *\d+\)  ({ID}) Pellix   (?:\(hw:(\w{{8}}), arm:(\w{{8}}), dsp:(\w{{8}}), "
    r"booster arm:(\w{8}), api:(\w{8}), '((?s:.){0,32}?)'\))?"
)
VERSION_NAMES = "hw", "arm", "dsp", "booster_arm", "api"


class NoListing(Exception):
    """Says why the Orvins on the bus are not known."""

    def __init__(self, problem: str, status: int = 0) -> None:
        super().__init__(problem)
        self.is_bus_not_ready = status in NOT_READY


@dataclass(frozen=True)
class Orvin:
    name: str
    versions: dict[str, int] = field(default_factory=dict)  # none if it did not answer


@dataclass
class Outcome:
    status: int  # negative: the signal that ended the tool
    console: list[str]  # what it printed, in lines


class Stop:
    """Set by SIGTERM or SIGINT, which would otherwise leave the tool alone."""

    def __init__(self) -> None:
        self.requested = False
        for number in (signal.SIGTERM, signal.SIGINT):
            signal.signal(number, self._request)

    def _request(self, _number: int, _frame: Optional[FrameType]) -> None:
        self.requested = True


def list_orvins(options: list[str]) -> dict[str, Orvin]:
    """Those on the bus, by identifier. Raises NoListing."""
    try:
        listing = subprocess.run(
            [TOOL, "-l", *options],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            timeout=LISTING_LASTS,
            start_new_session=True,
        )
    except subprocess.TimeoutExpired:
        raise NoListing(f"the bus was not listed in {LISTING_LASTS} s") from None
    text = listing.stdout.decode(errors="replace")
    if listing.returncode != 0:
        last = (text.strip().splitlines() or [""])[-1]
        raise NoListing(f"the bus was not listed, {TOOL} ended with {listing.returncode}: {last}", listing.returncode)
    return {
        id: Orvin(name, dict(zip(VERSION_NAMES, (int(text, 16) for text in versions))) if versions[0] else {})
        for id, *versions, name in LISTED.findall(text)
    }


class Follower:
    """Shows the lines of the console and the status messages as they come."""

    def __init__(self, console: BinaryIO, status_file: str, say: Callable[[str], None], tell: Callable[[str], None]):
        self.lines: list[str] = []
        self._console = console
        self._status_file = status_file
        self._say = say  # for each line of the console
        self._tell = tell  # for each status message
        self._unfinished = ""
        self._message = ""

    def look(self) -> None:
        *lines, self._unfinished = (self._unfinished + self._console.read().decode(errors="replace")).split("\n")
        for line in lines:
            self._add(line)
        message = self._read_message()
        if message not in ("", self._message):
            self._message = message
            self._tell(message)

    def end(self) -> None:
        self.look()
        if self._unfinished:
            self._add(self._unfinished)

    def _add(self, line: str) -> None:
        self.lines.append(line)
        self._say(line)

    def _read_message(self) -> str:
        try:
            with open_regular(self._status_file, os.O_NOFOLLOW) as file:
                return file.read(MOST_STATUS_BYTES).decode(errors="replace")
        except OSError:  # the tool has not written it yet
            return ""


def upgrade(
    command: list[str], console: str, status_file: str, lock: int, stop: Stop, **follow: Callable[[str], None]
) -> Outcome:
    """Runs the command, whose output goes into the file `console`. It has the lock, too, until it ends.

    The output is a file, not a pipe, so that the command survives this program. A session of its own protects it from
    the signals of a terminal.
    """
    options: dict[str, Any] = {"stdin": subprocess.DEVNULL, "stderr": subprocess.STDOUT, "start_new_session": True}
    with open(console, "wb") as output, open(console, "rb") as seen:
        follower = Follower(seen, status_file, **follow)
        process = subprocess.Popen(command, stdout=output, pass_fds=[lock], **options)
        is_stopped = False
        while process.poll() is None:
            if stop.requested and not is_stopped:
                is_stopped = True
                process.terminate()
            follower.look()
            time.sleep(BETWEEN_LOOKS)
        follower.end()
    return Outcome(process.returncode, follower.lines)
