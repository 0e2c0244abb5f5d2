"""orvin-recording: shows what happened on a bus."""

import argparse
import io
import json
import os
import sys
from math import inf
from pathlib import Path

from . import plot, summary
from .analysis import Analysis, printable
from .bus import Bus
from .check import Check, in_words
from .reader import Recording, Unusable

FLAWED, FAILED = 1, 2  # the recording is damaged, or shows a broken assumption; there is nothing to show


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


def _show(recording: Recording, arguments: argparse.Namespace) -> tuple[str, bool]:
    """The output, and whether the exit status tells of a flaw."""
    if arguments.subcommand == "check":
        results = [*Check(recording).results.values()]
        text = json.dumps(results, indent=2) if arguments.json else "\n".join(map(in_words, results))
        return text, any(result["state"] == "broken" for result in results)
    if arguments.subcommand == "bus":
        text = Bus(recording).as_text()
    elif arguments.subcommand == "plot":
        text = plot.as_text(Analysis(recording), getattr(arguments, "from") * 1e6, arguments.to * 1e6)
    else:
        analysis = Analysis(recording)
        text = json.dumps(summary.as_object(analysis), indent=2) if arguments.json else summary.as_text(analysis)
    return text, bool(recording.problem)


def _write(text: str, arguments: argparse.Namespace) -> None:
    if arguments.subcommand == "plot":
        Path(arguments.output).write_text(text, encoding="utf-8")
    elif isinstance(sys.stdout, io.TextIOWrapper):
        sys.stdout.reconfigure(errors="replace")  # where the terminal has no such character
        print(text, flush=True)
    else:  # None
        raise OSError("closed")


def main(version: str) -> int:
    arguments = _parse(version)
    file = arguments.recording
    try:
        recording = Recording(file)
        text, is_flawed = _show(recording, arguments)
        if recording.problem:
            _complain(file, recording.problem)
        file = getattr(arguments, "output", "standard output")
        _write(text, arguments)
        return FLAWED if is_flawed else 0
    except KeyboardInterrupt:
        return 130
    except BrokenPipeError:
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())  # what is left to flush goes there
    except (OSError, Unusable) as error:
        _complain(file, getattr(error, "strerror", None) or error)
    return FAILED
