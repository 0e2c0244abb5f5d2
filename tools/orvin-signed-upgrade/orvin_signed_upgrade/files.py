"""Directories and files that other users of the controller cannot reach, and the lock of an upgrade."""

import fcntl
import os
import stat
import tempfile
from typing import BinaryIO


class Refused(Exception):
    """Says why nothing is upgraded."""


class Busy(Exception):
    """Another upgrade is running."""


def make_private(path: str) -> None:
    """Makes the directory. Raises Refused if it is there and other users can reach it, and OSError."""
    os.makedirs(path, mode=0o700, exist_ok=True)
    directory = os.open(path, os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW | os.O_CLOEXEC)
    try:
        status = os.fstat(directory)
        if status.st_uid != os.geteuid() or status.st_mode & 0o077:
            raise Refused(f"other users can reach {path}")
    finally:
        os.close(directory)


def lock(path: str) -> int:
    """The open file that has the lock. Whichever process has it open last, the tool too, ends the lock."""
    file = os.open(path, os.O_RDWR | os.O_CREAT | os.O_NOFOLLOW | os.O_CLOEXEC, 0o600)
    try:
        fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        os.close(file)
        raise Busy from None
    return file


def open_regular(path: str, flags: int = 0) -> BinaryIO:
    """For reading. Raises OSError, also for a file that is not regular: a pipe would block."""
    number = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC | flags)
    if not stat.S_ISREG(os.fstat(number).st_mode):
        os.close(number)
        raise OSError(0, "not a regular file", path)
    return open(number, "rb", buffering=0)


def replace(path: str, text: str, mode: int = 0o600) -> None:
    """Replaces the file, or leaves it as it is and raises OSError."""
    number, temporary = tempfile.mkstemp(dir=os.path.dirname(path) or ".", prefix=os.path.basename(path) + ".")
    try:
        with open(number, "w", encoding="utf-8", errors="surrogateescape") as file:
            file.write(text)
            file.flush()
            os.fchmod(number, mode)
            os.fsync(number)
        os.replace(temporary, path)
    except BaseException:
        os.unlink(temporary)
        raise
