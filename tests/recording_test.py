"""Tests of orvin_recording with a recording: each edit breaks an assumption, and the axis leaves waits out."""

import json
import re
import sys

from orvin_recording.analysis import Analysis
from orvin_recording.check import Check
from orvin_recording.plot import Axis
from orvin_recording.reader import Recording
from orvin_recording.summary import as_object

EDITED = "edited"
IDENTIFIER = ":".join(["0a", *["00"] * 15, "01"])
CLEARING = r'{"t":(\S+?),"call":"TalmApiSetCallback",.*"cleared".*\n'
CALLBACK = '{{"t":{:f},"thread":2,"callback":"TransferCallback","device":"%s","result":3,"packet":0}}\n' % IDENTIFIER


def _broken(text: str) -> list[str]:
    with open(EDITED, "w", encoding="utf-8") as file:
        file.write(text)
    states = {entry["name"]: entry["state"] for entry in Check(Recording(EDITED)).results.values()}
    return sorted(name for name, state in states.items() if state == "broken" and name != "polls")


def _around_clearing(text: str, offset: float) -> str:
    """With a callback so many seconds after the clearing of the transfer callback begins, which takes 0.1 s."""

    def replace(match: re.Match[str]) -> str:
        clearing = json.loads(match[0]) | {"took": 0.1}
        return CALLBACK.format(clearing["t"] + offset) + json.dumps(clearing) + "\n"

    return re.sub(CLEARING, replace, text, count=1)


def test_check(path: str) -> None:
    with open(path, encoding="utf-8") as file:
        text = file.read()
    last = text.rindex("\n", 0, -1) + 1
    repeated = re.sub('(.*"acknowledged":1,.*\n)', r"\1\1", text)
    for edited, broken in (
        (text, []),
        (text[:last], ["returns"]),
        (re.sub(r'(check_image.*"took":)[0-9.e-]+', r"\g<1>2.5", text), ["forward", "returns"]),
        (re.sub(r'(write_request.*"result":)0', r"\g<1>5", text), ["results"]),
        (re.sub(r'(start_update.*"target":)512', r"\g<1>513", text), ["reset"]),
        (repeated, ["once"]),
        (text.replace('"acknowledged":3,', '"acknowledged":2,'), ["in_flight"]),
        (re.sub(r',"thread":\d+|,"threads":"\d+"', "", text), ["threads"]),
        (re.sub(r'.*TalmApiSetCallback.*"set".*\n', "", text), ["cleared"]),
        (re.sub(r'("members":\[)([^,]*)', r"\1\2,\2", text), ["unique"]),
        (re.sub(r'(GetBusMembers.*"result":)2', r"\g<1>64", text), ["most"]),
        (text.replace('"arm":7', '"arm":8', 1), ["versions"]),
        (re.sub(r'(ImageTransfer_data.*"result":)-2', r"\g<1>0", text), ["to_all"]),
        (text.replace('17,"packet":0', '17,"packet":9'), ["go_back"]),
        (text.replace('1","result":3,', '9","result":3,', 1), ["known"]),
        (_around_clearing(text, 0.09), ["forward"]),  # the next call comes too early
        (_around_clearing(text, 0.11), ["cleared", "forward"]),
    ):
        found = _broken(edited)
        assert found == broken, f"{found}, not {broken}, in {EDITED}"


def test_sums(path: str) -> None:
    """The rows add up to the run, and going back belongs to the device that asked."""
    run = as_object(Analysis(Recording(path)))
    rows = [device["seconds"] for device in run["devices"]]
    times = [*run["tool"].values(), *(row["sum"] for row in rows)]
    assert round(sum(times) - run["seconds"], 3) == 0, run
    assert [row["go_back"] >= 0.003 for row in rows] == [False, True], rows


def test_axis() -> None:
    """Ten seconds on 1,000 pixels, nine seconds of which only wait."""
    second = 1_000_000.0
    busy = [(second, 1.9 * second), (9 * second, 9 * second), (1.95 * second, 2 * second)]
    axis = Axis(100, 1000, 0, 10 * second, busy)
    assert axis.breaks == [(0, second), (2 * second, 9 * second), (9 * second, 10 * second)], axis.breaks
    places = [axis.x(time * second) for time in (-1, 0, 1, 1.5, 2, 9, 9.5, 10, 11)]
    assert places == [100, 100, 134, 134 + 898 / 2, 1032, 1066, 1083, 1100, 1100], places
    assert [*axis.ticks()][::11] == [(100, "0.0 s"), (1032, "2.0 s")]
    assert not Axis(100, 1000, 1.5 * second, 2 * second, busy).breaks


test_check(sys.argv[1])
test_sums(sys.argv[1])
test_axis()
