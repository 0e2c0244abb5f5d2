"""orvin-recording: shows what happened on a bus."""

import argparse
import errno
import gc
import json
import os
import sys

from . import bus, plot, reader, summary
from .analysis import Analysis
from .device import printable

DAMAGED = 1
FAILED = 2


def _summary(arguments, recording):
    analysis = Analysis(recording)
    if arguments.json:
        json.dump(summary.as_object(analysis), sys.stdout, indent=2)
        print()
    else:
        sys.stdout.write(summary.as_text(analysis))


def _plot(arguments, recording):
    try:
        plot.write(Analysis(recording), arguments.output)
    except OSError as error:  # may name the temporary file, or none
        raise OSError(error.errno, error.strerror, arguments.output) from None


def _bus(_, recording):
    bus.write(recording, sys.stdout)


def _parse():
    parser = argparse.ArgumentParser(prog="orvin-recording", description="Shows what happened on a bus.")
    subcommands = parser.add_subparsers(required=True, metavar="SUBCOMMAND")
    for name, run, text in (
        ("summary", _summary, "tell what took so long, and which device"),
        ("plot", _plot, "draw a lane for each device"),
        ("bus", _bus, "print a bus file whose devices do what those did"),
    ):
        subcommand = subcommands.add_parser(name, help=text, description=text.capitalize() + ".")
        subcommand.set_defaults(run=run)
        subcommand.add_argument("recording", metavar="FILE", help="a recording")
        if name == "summary":
            subcommand.add_argument("--json", action="store_true", help="print JSON")
        if name == "plot":
            subcommand.add_argument("-o", "--output", metavar="FILE.svg", required=True, help="the picture to write")
    return parser.parse_args()


def _complain(what):
    print(printable(f"orvin-recording: {what}"), file=sys.stderr)


def _run(arguments):
    try:
        recording = reader.read(arguments.recording)
    except (OSError, reader.Unreadable) as error:
        _complain(f"{arguments.recording}: {getattr(error, 'strerror', None) or error}")
        return FAILED
    if recording.problem:
        _complain(f"{arguments.recording}: {recording.problem}")
    if not sys.stdout:
        raise OSError(errno.EBADF, os.strerror(errno.EBADF))
    sys.stdout.reconfigure(errors="replace")  # where the terminal has no such character
    try:
        arguments.run(arguments, recording)
    except bus.CannotBeHadAgain as error:
        _complain(f"{arguments.recording}: {error}")
        return DAMAGED
    sys.stdout.flush()
    return DAMAGED if recording.problem else 0


def main():
    gc.disable()  # a recording has a million events, and no cycles
    try:
        return _run(_parse())
    except BrokenPipeError:
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())  # what is left to flush goes there
        return FAILED
    except OSError as error:
        _complain(f"{error.filename or 'standard output'}: {error.strerror}")
        return FAILED
    except KeyboardInterrupt:
        return 130


if __name__ == "__main__":
    sys.exit(main())
