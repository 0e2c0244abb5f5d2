"""orvin-recording: shows what happened on a bus."""

import argparse
import io
import json
import os
import sys
from math import inf

from . import bus, plot, reader, summary
from .analysis import Analysis, printable
from .check import Check

DAMAGED = BROKEN = 1
FAILED = 2


def _parse(version: str) -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="orvin-recording", description="Shows what happened on a bus.")
    parser.add_argument("--version", action="version", version=f"%(prog)s {version}", help="show the version and exit")
    subcommands = parser.add_subparsers(required=True, metavar="SUBCOMMAND", dest="subcommand")
    for name, text in (
        ("summary", "tell what took so long, and which device"),
        ("plot", "draw a lane for each device"),
        ("bus", "print a bus file whose devices do what those did"),
        ("check", "compare the bus libraries with what the tool assumes of them"),
    ):
        subcommand = subcommands.add_parser(name, help=text, description=text.capitalize() + ".")
        subcommand.add_argument("recording", metavar="FILE", help="a recording")
        if name in ("summary", "check"):
            subcommand.add_argument("--json", action="store_true", help="print JSON")
        if name == "plot":
            subcommand.add_argument("-o", "--output", metavar="FILE.svg", required=True, help="the picture to write")
            subcommand.add_argument("--from", metavar="SECONDS", type=float, default=0, help="where it begins")
            subcommand.add_argument("--to", metavar="SECONDS", type=float, default=inf, help="where it ends")
    return parser.parse_args()


def _complain(file: str, what: object) -> None:
    print(printable(f"orvin-recording: {file}: {what}"), file=sys.stderr)


def _show(recording: reader.Recording, arguments: argparse.Namespace) -> tuple[str, int]:
    """The output, and the exit status."""
    if arguments.subcommand == "check":
        check = Check(recording)
        text = json.dumps(check.as_objects(), indent=2) if arguments.json else check.as_text()
        return text, BROKEN if check.broken else 0
    if arguments.subcommand == "bus":
        text = bus.Bus(recording).as_text()
    elif arguments.subcommand == "plot":
        text = plot.as_text(Analysis(recording), getattr(arguments, "from") * 1e6, arguments.to * 1e6)
    elif arguments.json:
        text = json.dumps(summary.as_object(Analysis(recording)), indent=2)
    else:
        text = summary.as_text(Analysis(recording))
    return text, DAMAGED if recording.problem else 0


def _write(text: str, arguments: argparse.Namespace) -> None:
    if arguments.subcommand == "plot":
        with open(arguments.output, "w", encoding="utf-8") as file:
            file.write(text)
        return
    if not isinstance(sys.stdout, io.TextIOWrapper):  # None, if it is closed
        raise OSError("closed")
    sys.stdout.reconfigure(errors="replace")  # where the terminal has no such character
    print(text, flush=True)


def _run(arguments: argparse.Namespace) -> int:
    file = arguments.recording
    try:
        recording = reader.Recording(file)
        try:
            text, status = _show(recording, arguments)
        finally:
            if recording.problem:
                _complain(file, recording.problem)
        file = getattr(arguments, "output", "standard output")
        _write(text, arguments)
    except BrokenPipeError:
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())  # what is left to flush goes there
        return FAILED
    except (OSError, reader.Unreadable) as error:
        _complain(file, getattr(error, "strerror", None) or error)
        return FAILED
    except bus.CannotBeRepeated as error:
        _complain(arguments.recording, "line {}: cannot be repeated: {}".format(*error.args))
        return DAMAGED
    return status


def main(version: str) -> int:
    try:
        return _run(_parse(version))
    except KeyboardInterrupt:
        return 130
