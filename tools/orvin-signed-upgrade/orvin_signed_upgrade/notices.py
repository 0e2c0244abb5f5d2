"""Tells others about an upgrade: the service manager, the journal, the collector of metrics. None of it can fail it."""

import os
import socket
import sys
from collections.abc import Mapping

from . import files

JOURNAL = "/run/systemd/journal/socket"
HELP = {  # of the metrics
    "in_progress": "Whether an upgrade is running.",
    "end_timestamp_seconds": "When the last upgrade ended.",
    "duration_seconds": "How long the last upgrade took.",
    "exit_status": "How the last upgrade ended; 0 when all expected devices are new.",
    "devices": "Devices of the last upgrade.",
}


def say(line: str) -> None:
    """The upgrade goes on when its reader is gone."""
    try:
        print(line, flush=True)
    except OSError:
        sys.stdout = open(os.devnull, "w", encoding="utf-8")


def tell(message: str) -> None:
    """The reader and the service manager."""
    say(message)
    address = os.environ.get("NOTIFY_SOCKET", "")
    _send(address.replace("@", "\0", 1) if address.startswith("@") else address, f"STATUS={_one_line(message)}")


def tell_journal(message: str, status: int) -> None:
    """With the exit status as a field of its own. Only for a service: elsewhere the output is enough."""
    if "JOURNAL_STREAM" in os.environ:
        priority = 6 if status == 0 else 4  # information, warning
        entry = f"MESSAGE={_one_line(message)}\nPRIORITY={priority}\nSYSLOG_IDENTIFIER=orvin-signed-upgrade\n"
        _send(JOURNAL, f"{entry}ORVIN_EXIT_STATUS={status}\n")


def write_metrics(path: str, values: Mapping[str, float]) -> None:
    """Replaces the file, which all may read. Each name has its unit at its end, or its label in braces."""
    lines = []
    for name, value in values.items():
        metric = f"orvin_firmware_upgrade_{name.partition('{')[0]}"
        header = f"# HELP {metric} {HELP[name.partition('{')[0]]}\n# TYPE {metric} gauge"
        lines += [header] if header not in lines else []
        lines.append(f"orvin_firmware_upgrade_{name} {value:.15g}")
    try:
        files.replace(path, "\n".join(lines) + "\n", mode=0o644)
    except OSError as error:
        say(f"Attention: {path} cannot be written: {error.strerror}")


def _send(address: str, text: str) -> None:
    if not address:
        return
    try:
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.setblocking(False)
            sender.sendto(text.encode(errors="replace"), address)
    except OSError:
        pass


def _one_line(text: str) -> str:
    return " ".join(text.split())
