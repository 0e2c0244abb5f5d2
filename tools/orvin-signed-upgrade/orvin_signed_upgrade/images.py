"""Signed images: copied to where only this program can change them, and verified there."""

import json
import os
import re
import subprocess
from collections.abc import Iterable
from dataclasses import dataclass
from datetime import date
from typing import Any

from .files import Refused, open_regular
from .notices import say

ARM = 0x200
VERSIONS = {ARM: "arm", 0x201: "dsp", 0x202: "booster_arm"}  # by target: which version of a device the image changes
MOST_BYTES = 1 << 31  # an image has fewer
MOST_SIGNATURE_BYTES = 1 << 16
PIECE = 1 << 20
COMMENT = re.compile(r"serial=(\d{1,15}) file=(.+) until=(\d{4}-\d\d-\d\d)")
COMMAND_LASTS = 300  # seconds; for 2 GiB on a slow host
UNSET_CLOCK = date(2026, 1, 1)  # earlier than this program


@dataclass(frozen=True)
class SignedImage:
    name: str  # of the file that was given
    path: str  # of the copy
    target: int
    version: int
    serial: int  # of the release


def take(paths: list[str], key: str, directory: str, least_serial: int, today: date) -> list[SignedImage]:
    """Copies the images into the directory, and returns them in the order in which the tool sends them.

    The images must be of one release, whose serial is not below the least one. Raises Refused and OSError.
    """
    names = [os.path.basename(path) for path in paths]
    if len({*names}) != len(names):
        raise Refused("two images have the same name")
    images = [_take_one(path, key, os.path.join(directory, os.path.basename(path)), today) for path in paths]
    if len({image.target for image in images}) != len(images):
        raise Refused("two images are for the same target")
    serials = {image.serial for image in images}
    if len(serials) != 1:
        listed = ", ".join(f"{image.name} has serial {image.serial}" for image in images)
        raise Refused(f"the images are of different releases: {listed}")
    if min(serials) < least_serial:
        raise Refused(f"serial {min(serials)} is older than {least_serial}, which was installed here")
    return sorted(images, key=lambda image: image.target != ARM)


def _take_one(path: str, key: str, copy: str, today: date) -> SignedImage:
    open_regular(key).close()
    _copy(path, copy, MOST_BYTES)
    _copy(path + ".minisig", copy + ".minisig", MOST_SIGNATURE_BYTES)
    name = os.path.basename(path)
    serial = _verify(name, copy, key, today)
    shown = _run(["orvin-image", "show", "--json", "--", copy])
    try:
        header = json.loads(shown.stdout)["header"]
        target, version = header["device"], header["version"]
    except (ValueError, TypeError, KeyError):
        raise Refused(f"{name} is no image: {_last_line(shown.stderr)}") from None
    if shown.returncode != 0 or target not in VERSIONS:
        raise Refused(f"{name} is damaged, or for an unknown target")
    return SignedImage(name, copy, target, version, serial)


def _copy(source: str, destination: str, most: int) -> None:
    left = most
    with open_regular(source) as file, open(destination, "xb") as copy:
        while piece := file.read(PIECE):
            left -= len(piece)
            if left < 0:
                raise Refused(f"{source} is too long")
            copy.write(piece)


def _verify(name: str, copy: str, key: str, today: date) -> int:
    """The serial that was signed with the image."""
    verified = _run(["minisign", "-V", "-Q", "-p", key, "-m", copy])
    if verified.returncode != 0:
        reason = f": {_last_line(verified.stderr)}" if verified.stderr else ""
        raise Refused(f"{name} is not signed with the key {key}, or was changed{reason}")
    comment = COMMENT.fullmatch(verified.stdout.rstrip("\n"))
    if not comment:
        raise Refused(f"{name} was signed without serial, file and date: sign it with sign-images")
    serial, signed_name, until = comment.groups()
    if signed_name != name:
        raise Refused(f"{name} was signed as {signed_name}")
    if today < UNSET_CLOCK:
        say(f"Attention: the clock says {today}, so the date of {name} is not checked.")
    elif until < today.isoformat():
        raise Refused(f"{name} may be installed until {until} only")
    return int(serial)


def _run(command: Iterable[str]) -> "subprocess.CompletedProcess[str]":
    options: dict[str, Any] = {"encoding": "utf-8", "errors": "surrogateescape", "timeout": COMMAND_LASTS}
    try:
        return subprocess.run([*command], stdin=subprocess.DEVNULL, capture_output=True, **options)
    except subprocess.TimeoutExpired as expired:
        raise Refused(f"{expired.cmd[0]} did not end within {COMMAND_LASTS} s") from None


def _last_line(text: str) -> str:
    return (text.strip().splitlines() or ["no reason given"])[-1]
