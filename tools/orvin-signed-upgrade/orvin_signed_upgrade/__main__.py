"""orvin-signed-upgrade: upgrades all Orvins on the bus with signed images, image by image, and reports."""

import argparse
import io
import json
import os
import shutil
import signal
import sys
import tempfile
import time
from contextlib import ExitStack, suppress
from datetime import date, datetime, timezone
from typing import Any

from . import files, images, notices, tool
from .report import MISSING, OLD, UNKNOWN, Report, Run

DIRECTORY = "/var/lib/orvin-signed-upgrade"
KEY = "/etc/orvin-firmware.pub"
METRICS = "/var/lib/prometheus/node-exporter/orvin-firmware-upgrade.prom"

# Exit statuses. After 2 and 4, there is no report of this upgrade.
ALL_NEW = 0
NOT_ALL_NEW = 1
NOT_BEGUN = 2  # as argparse has it for a wrong command line
REFUSED = 3  # nothing was sent
BUSY = 4
BUS_NOT_READY = 5
BROKEN_OFF = 6
STOPPED = 128 + signal.SIGTERM

MOST_DEVICES = 63  # the tool ends with the number of updated devices
NOT_ALL_UPGRADED = 139  # of the tool; the next image may still be sent


def _parse(version: str) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="orvin-signed-upgrade",
        description="Upgrades all Orvins on the bus with signed images, image by image, and reports.",
    )
    parser.add_argument("--version", action="version", version=f"%(prog)s {version}", help="show the version and exit")
    parser.add_argument("--key", metavar="FILE", default=KEY, help=f"the public key of the images ({KEY})")
    parser.add_argument("--directory", default=DIRECTORY, help=f"where reports and records are kept ({DIRECTORY})")
    parser.add_argument("--connection", metavar="URI", help="the bus, as orvin-firmware-upgrade -c has it")
    parser.add_argument("--pretend", action="store_true", help="send nothing, and tell what would be new")
    parser.add_argument("--record", action="store_true", help="record the bus in DIRECTORY/recording.jsonl")
    parser.add_argument("--metrics", metavar="FILE", help=f"metrics for node_exporter's textfile collector ({METRICS})")
    parser.add_argument("images", nargs="+", metavar="IMAGE", help="an image; its signature is in IMAGE.minisig")
    return parser.parse_args()


class Upgrade:
    """One upgrade, with the lock."""

    def __init__(self, arguments: argparse.Namespace, lock: int, stop: tool.Stop) -> None:
        self._arguments = arguments
        self._lock = lock
        self._stop = stop
        self._options = ["-c", arguments.connection] if arguments.connection else []
        self._began = datetime.now(timezone.utc)
        self._clock = time.monotonic()
        self._status = BROKEN_OFF
        self._report = Report({}, {}, [], is_pretended=arguments.pretend)

    def run(self) -> int:
        """The exit status. Leaves the report and the metrics."""
        self._write_metrics({"in_progress": 1})
        try:
            with suppress(FileNotFoundError):
                os.unlink(self._path(self._report_name()))  # that of the last upgrade
            self._status = self._try()
        except tool.NoListing as problem:
            self._status, self._report.problem = self._status_of(problem), str(problem)
        except files.Refused as refused:
            self._give_up(str(refused))
        except OSError as error:
            self._give_up(f"{error.filename or self._arguments.directory}: {error.strerror}")
        self._leave()
        return self._status

    def _give_up(self, reason: str) -> None:
        """Also after an image was sent, such as when the disk is full."""
        is_sent = bool(self._report.runs)
        self._status = BROKEN_OFF if is_sent else REFUSED
        self._report.problem = reason if is_sent else f"nothing is upgraded: {reason}"

    def _try(self) -> int:
        report = self._report
        directory = self._path(".verified")
        shutil.rmtree(directory, ignore_errors=True)
        os.mkdir(directory, 0o700)
        arguments = self._arguments
        report.images = images.take(arguments.images, arguments.key, directory, self._least_serial(), date.today())
        report.before = tool.list_orvins(self._options)
        report.expected = {**self._remembered(), **{id: orvin.name for id, orvin in report.before.items()}}
        if not report.expected:
            raise files.Refused("there is no Orvin on the bus")
        files.replace(self._path("expected.json"), json.dumps(report.expected, indent=2))
        status = self._send_all()
        if not report.runs:
            return status
        try:
            report.after = tool.list_orvins(self._options)
        except tool.NoListing as problem:
            report.problem = report.problem or str(problem)
            status = status or self._status_of(problem)
        self._keep()
        return status or self._judge()

    def _status_of(self, problem: tool.NoListing) -> int:
        if self._stop.requested:
            return STOPPED
        if problem.is_bus_not_ready:
            return BUS_NOT_READY
        return BROKEN_OFF if self._report.runs else REFUSED

    def _send_all(self) -> int:
        """0 unless an image could not be sent for a reason that is no device's."""
        for image in self._report.images:
            if not self._stop.requested:
                try:
                    self._report.runs.append(Run(image, self._send(image)))
                except OSError as error:
                    self._report.problem = f"{image.name} was not sent: {error.strerror}"
                    return BROKEN_OFF if self._report.runs else REFUSED
            if self._stop.requested:
                self._report.problem = "stopped"
                return STOPPED
            outcome = self._report.runs[-1].outcome
            if outcome.status not in (*range(MOST_DEVICES + 1), NOT_ALL_UPGRADED):
                self._report.problem = f"{tool.TOOL} ended with {outcome.status} for {image.name}"
                return BUS_NOT_READY if outcome.status in tool.NOT_READY else BROKEN_OFF
        return 0

    def _send(self, image: images.SignedImage) -> tool.Outcome:
        # The tool replaces the status file from /tmp, so it must be on that file system. It may be full.
        with ExitStack() as stack:
            status_file, messages = "", []
            with suppress(OSError):
                temporary = tempfile.TemporaryDirectory(prefix="orvin-signed-upgrade-", dir="/tmp")
                status_file = os.path.join(stack.enter_context(temporary), "status")
                messages = ["-m", status_file]
            recorder = ["orvin-record", self._path("recording.jsonl")] if self._arguments.record else []
            pretend = ["-p"] if self._arguments.pretend else []
            command = [*recorder, tool.TOOL, "-B", *messages, *pretend, *self._options, "--", image.path]
            console = self._path("console")
            follow = {"say": notices.say, "tell": notices.tell}
            outcome = tool.upgrade(command, console, status_file, self._lock, self._stop, **follow)
        return outcome

    def _judge(self) -> int:
        report = self._report
        is_enough = not report.those(MISSING) if self._arguments.pretend else report.is_complete()
        return ALL_NEW if is_enough else NOT_ALL_NEW

    def _keep(self) -> None:
        """What the next upgrade must know: the release that a device has, and the devices that it must find."""
        if self._arguments.pretend:
            return
        if self._report.is_installed():
            serial = max(self._least_serial(), self._report.images[0].serial)
            files.replace(self._path("serial"), f"{serial}\n")
        if self._report.is_complete():
            os.unlink(self._path("expected.json"))

    def _least_serial(self) -> int:
        try:
            with files.open_regular(self._path("serial")) as file:
                return int(file.read(100))
        except FileNotFoundError:
            return 0
        except ValueError:
            raise files.Refused(f"{self._path('serial')} has no serial") from None

    def _remembered(self) -> dict[str, str]:
        """The devices that an earlier upgrade expected, unless all of them were new."""
        try:
            with files.open_regular(self._path("expected.json")) as file:
                return {str(id): str(name) for id, name in json.loads(file.read()).items()}
        except FileNotFoundError:
            return {}
        except (ValueError, AttributeError):
            raise files.Refused(f"{self._path('expected.json')} is damaged") from None

    def _leave(self) -> None:
        report, ended = self._report, datetime.now(timezone.utc)
        entry: dict[str, Any] = {
            "status": self._status,
            "began": self._began.isoformat(timespec="seconds"),
            "ended": ended.isoformat(timespec="seconds"),
            **report.as_object(),
        }
        try:
            files.replace(self._path(self._report_name()), json.dumps(entry, indent=2) + "\n")
        except OSError as error:
            notices.say(f"Attention: the report cannot be written: {error.strerror}")
        self._write_metrics(
            {
                "in_progress": 0,
                "end_timestamp_seconds": int(ended.timestamp()),
                "duration_seconds": round(time.monotonic() - self._clock, 3),
                "exit_status": self._status,
                'devices{state="updated"}': len(report.updated()),
                'devices{state="failed"}': len(report.those(OLD)) + len(report.those(UNKNOWN)),
                'devices{state="missing"}': len(report.those(MISSING)),
            }
        )
        notices.tell(report.summary())
        notices.tell_journal(report.summary(), self._status)

    def _report_name(self) -> str:
        return "pretended.json" if self._arguments.pretend else "report.json"

    def _write_metrics(self, values: dict[str, float]) -> None:
        path = self._arguments.metrics or METRICS
        has_collector = self._arguments.metrics or os.path.isdir(os.path.dirname(METRICS))
        if has_collector and not self._arguments.pretend:
            notices.write_metrics(path, values)

    def _path(self, name: str) -> str:
        return os.path.join(self._arguments.directory, name)


def _complain(what: str) -> None:
    with suppress(OSError):  # its reader may be gone; the exit status tells it, too
        print(f"orvin-signed-upgrade: {what}", file=sys.stderr, flush=True)


def main(version: str) -> int:
    arguments = _parse(version)
    os.umask(0o077)
    if isinstance(sys.stdout, io.TextIOWrapper):  # None, if it is closed
        sys.stdout.reconfigure(errors="backslashreplace")  # names of devices and files may have any character
    signal.signal(signal.SIGHUP, signal.SIG_IGN)  # a connection that is lost stops no upgrade
    try:
        files.make_private(arguments.directory)
        lock = files.lock(os.path.join(arguments.directory, "lock"))
    except files.Busy:
        _complain("another upgrade is running")
        return BUSY
    except (files.Refused, OSError) as error:
        _complain(f"nothing is upgraded: {error}")
        return NOT_BEGUN
    return Upgrade(arguments, lock, tool.Stop()).run()
