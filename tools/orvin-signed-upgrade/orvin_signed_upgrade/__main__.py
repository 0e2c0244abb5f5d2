"""orvin-signed-upgrade: upgrades all Orvins on the bus with signed images, image by image, and reports."""

import argparse
import json
import os
import shutil
import signal
import sys
import tempfile
import time
from datetime import date, datetime, timezone
from typing import Any

from . import files, images, notices, tool
from .report import MISSING, OLD, Report, Run

DIRECTORY = "/var/lib/orvin-signed-upgrade"
KEY = "/etc/orvin-firmware.pub"

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
NOT_READY = 132, 133  # of the tool


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
    parser.add_argument("--metrics", metavar="FILE", help="write metrics for node_exporter's textfile collector")
    parser.add_argument("images", nargs="+", metavar="IMAGE", help="an image; its signature is in IMAGE.minisig")
    return parser.parse_args()


def _say(line: str) -> None:
    """The upgrade goes on when its reader is gone."""
    try:
        print(line, flush=True)
    except OSError:
        sys.stdout = open(os.devnull, "w", encoding="utf-8")


def _tell(message: str) -> None:
    _say(message)
    notices.tell_service_manager(message)


class Upgrade:
    """One upgrade, with the lock."""

    def __init__(self, arguments: argparse.Namespace, lock: int, stop: tool.Stop) -> None:
        self._arguments = arguments
        self._lock = lock
        self._stop = stop
        self._options = ["-c", arguments.connection] if arguments.connection else []
        self._began = time.time()
        self._status = BROKEN_OFF
        self._report = Report({}, {}, [], is_pretended=arguments.pretend)

    def run(self) -> int:
        """The exit status. Leaves the report and the metrics."""
        self._write_metrics({"in_progress": 1})
        try:
            self._status = self._try()
        except files.Refused as refused:
            self._status, self._report.problem = REFUSED, f"nothing is upgraded: {refused}"
        except tool.NoListing as problem:
            self._status, self._report.problem = BUS_NOT_READY, str(problem)
        except OSError as error:
            what = f"{error.filename or self._arguments.directory}: {error.strerror}"
            self._status, self._report.problem = REFUSED, f"nothing is upgraded: {what}"
            if self._report.runs:
                self._status, self._report.problem = BROKEN_OFF, what
        self._leave()
        return self._status

    def _try(self) -> int:
        report = self._report
        directory = self._path("images")
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
        try:
            report.after = tool.list_orvins(self._options)
        except tool.NoListing as problem:
            report.problem = report.problem or str(problem)
            return status or BUS_NOT_READY
        self._keep()
        return status or self._judge()

    def _send_all(self) -> int:
        """0 unless an image could not be sent for a reason that is no device's."""
        for image in self._report.images:
            if not self._stop.requested:
                self._report.runs.append(Run(image, self._send(image)))
            if self._stop.requested:
                self._report.problem = "stopped"
                return STOPPED
            outcome = self._report.runs[-1].outcome
            if outcome.status not in (*range(MOST_DEVICES + 1), NOT_ALL_UPGRADED):
                self._report.problem = f"{tool.TOOL} ended with {outcome.status} for {image.name}"
                return BUS_NOT_READY if outcome.status in NOT_READY else BROKEN_OFF
        return 0

    def _send(self, image: images.SignedImage) -> tool.Outcome:
        # The tool replaces the status file from /tmp, so it must be on that file system.
        with tempfile.TemporaryDirectory(prefix="orvin-signed-upgrade-", dir="/tmp") as directory:
            status_file = os.path.join(directory, "status")
            recorder = ["orvin-record", self._path("recording.jsonl")] if self._arguments.record else []
            pretend = ["-p"] if self._arguments.pretend else []
            command = [*recorder, tool.TOOL, "-B", "-m", status_file, *pretend, *self._options, "--", image.path]
            console = self._path("console")
            return tool.upgrade(command, console, status_file, self._lock, self._stop, say=_say, tell=_tell)

    def _judge(self) -> int:
        report = self._report
        is_enough = not report.those(MISSING) if self._arguments.pretend else report.is_complete()
        return ALL_NEW if is_enough else NOT_ALL_NEW

    def _keep(self) -> None:
        """What the next upgrade must know: the release that a device has, and the devices that it must find."""
        if self._arguments.pretend:
            return
        if self._report.has_new_device():
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
        report, ended = self._report, time.time()
        entry: dict[str, Any] = {
            "status": self._status,
            "began": datetime.fromtimestamp(self._began, timezone.utc).isoformat(timespec="seconds"),
            "ended": datetime.fromtimestamp(ended, timezone.utc).isoformat(timespec="seconds"),
            **report.as_object(),
        }
        self._write_metrics(
            {
                "in_progress": 0,
                "end_timestamp_seconds": int(ended),
                "duration_seconds": round(ended - self._began, 3),
                "exit_status": self._status,
                'devices{state="updated"}': len(report.updated()),
                'devices{state="failed"}': len(report.those(OLD)),
                'devices{state="missing"}': len(report.those(MISSING)),
            }
        )
        _tell(report.summary())
        notices.tell_journal(report.summary(), self._status)
        try:
            files.replace(self._path("report.json"), json.dumps(entry, indent=2) + "\n")
        except OSError as error:
            print(f"Attention: the report cannot be written: {error.strerror}", file=sys.stderr, flush=True)

    def _write_metrics(self, values: dict[str, float]) -> None:
        if self._arguments.metrics:
            notices.write_metrics(self._arguments.metrics, values)

    def _path(self, name: str) -> str:
        return os.path.join(self._arguments.directory, name)


def main(version: str) -> int:
    arguments = _parse(version)
    os.umask(0o077)
    signal.signal(signal.SIGHUP, signal.SIG_IGN)  # a connection that is lost stops no upgrade
    try:
        files.make_private(arguments.directory)
        lock = files.lock(os.path.join(arguments.directory, "lock"))
    except files.Busy:
        print("orvin-signed-upgrade: another upgrade is running", file=sys.stderr)
        return BUSY
    except (files.Refused, OSError) as error:
        print(f"orvin-signed-upgrade: nothing is upgraded: {error}", file=sys.stderr)
        return NOT_BEGUN
    return Upgrade(arguments, lock, tool.Stop()).run()
