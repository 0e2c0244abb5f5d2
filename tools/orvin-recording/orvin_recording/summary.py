"""Tells in words, or as an object for JSON, what an analysis found."""

import textwrap
from collections import defaultdict
from collections.abc import Callable
from typing import Any

from .analysis import VERSIONS, Analysis, Phase
from .device import Device, printable

BECAUSE = {  # why a device cost time, by cause; the names in braces are those of the columns
    "resends": "which needed packets again, {resends} in all",
    "late": "which acknowledged slowly",
    "go_backs": "which made requests to go back, {go_backs} in all",
    "calls": "whose calls took long",
    "return": "whose return took long",
    "second_attempt": "which needed a second attempt",
}
WIDTH = 100
STANDS_OUT = 1_000_000, 0.05  # a device that cost so many microseconds, and so much of the run


def _seconds(microseconds: float | None) -> float | None:
    return None if microseconds is None else round(microseconds / 1e6, 6)


def _percentile(device: Device, hundredths: int) -> float | None:
    """Of the times that it needed to acknowledge."""
    values = sorted(device.needed)
    return _seconds(values[(len(values) - 1) * hundredths // 100]) if values else None


# Name in JSON, title as wide as the column, value.
COLUMNS: tuple[tuple[str, str, Callable[[Device], float | None]], ...] = (
    ("acknowledge_median", " median", lambda device: _percentile(device, 50)),
    ("acknowledge_99th", "   99 %", lambda device: _percentile(device, 99)),
    ("acknowledge_most", "    most", lambda device: _percentile(device, 100)),
    ("resends", " again", lambda device: len(device.marked("resend"))),
    ("go_backs", " back", lambda device: len(device.marked("go_back"))),
    ("late", " late", lambda device: len(device.marked("late"))),
    ("faults", " faults", lambda device: len(device.marked("fault"))),
    ("failed_calls", " failed", lambda device: device.failed_calls),
    ("check", "  check", lambda device: _seconds(device.time("check"))),
    ("away", "   away", lambda device: _seconds(device.time("away"))),
    ("lost", "   lost", lambda device: _seconds(device.cost)),
)


def about(analysis: Analysis) -> str:
    return printable(f"{analysis.recording.started}  {' '.join(analysis.recording.command)}")


def answer(analysis: Analysis) -> str:
    """What took so long, and who, in one sentence."""
    enough = max(STANDS_OUT[0], STANDS_OUT[1] * analysis.end)
    devices = [device for device in _by_cost(analysis) if device.cost >= enough]
    parts = [(device.cost, _blame(device)) for device in devices[:3]]
    took, step = _longest_step(analysis)
    if not devices or took > parts[0][0]:
        parts.append((took, step))
    told = "; ".join(f"{time / 1e6:.1f} for {what}" for time, what in parts).replace(" for ", " of them for ", 1)
    return f"{analysis.end / 1e6:.1f} s, {told}" + ("" if devices else "; no device stands out")


def _by_cost(analysis: Analysis) -> list[Device]:
    return sorted(analysis.devices.values(), key=lambda device: -device.cost)


def _blame(device: Device) -> str:
    """Names the device, its main causes and why the tool dropped it."""
    worst = sorted(device.lost, key=lambda cause: -device.lost[cause])[:2]
    causes = [cause for cause in worst if device.lost[cause] >= device.cost / 4]
    because = " and ".join(BECAUSE[cause] for cause in causes).format(**_columns(device))
    dropped = "".join(f" (dropped: {mark.text})" for mark in device.marked("removed")[:1])
    return f"{device.title}, {because}{dropped}"


def _longest_step(analysis: Analysis) -> tuple[float, str]:
    """Its time that no device is charged with, and its name."""
    steps: defaultdict[str, float] = defaultdict(int)
    for phase in analysis.phases:
        steps[phase.name] += phase.end - phase.begin - phase.lost
    name = max(steps, key=lambda step: steps[step])
    return steps[name], name


def _columns(device: Device) -> dict[str, float | None]:
    return {name: value(device) for name, _, value in COLUMNS}


def as_object(analysis: Analysis) -> dict[str, Any]:
    """For programs. Times are seconds."""
    return {
        "answer": answer(analysis),
        "started": analysis.recording.started,
        "command": analysis.recording.command,
        "problem": analysis.recording.problem,
        "seconds": _seconds(analysis.end),
        "phases": [
            {"name": phase.title, "begin": phase.begin / 1e6, "end": phase.end / 1e6, "packets": phase.packets}
            for phase in analysis.phases
        ],
        "devices": [_device_object(device) for device in analysis.devices.values()],
    }


def _device_object(device: Device) -> dict[str, Any]:
    return {
        "device": device.id,
        "name": device.name,
        **_columns(device),
        "lost_by_cause": {cause: _seconds(lost) for cause, lost in device.lost.items()},
        "versions_before": device.before,
        "versions_after": device.after,
        "removed": [{"at": _seconds(mark.begin), "reason": mark.text} for mark in device.marked("removed")],
    }


def as_text(analysis: Analysis) -> str:
    """For a terminal of 100 columns."""
    devices = _by_cost(analysis)
    lines = [
        *textwrap.wrap(answer(analysis) + ".", WIDTH),
        "",
        about(analysis),
        "",
        f"{'':52}{'from':>10}{'to':>10}{'took':>10}  seconds",
        *(_phase_line(phase) for phase in analysis.phases),
        "",
        f"{'':26}{'acknowledged, ms':>22}{'sent':>6}{'go':>5}{'':12}{'calls':>7}{'seconds':>21}",
        f"{'device':26}" + "".join(title for _, title, _ in COLUMNS),
        *(_device_line(device) for device in devices),
        "",
        *(f"{device.title[:25]:26}{what}" for device in devices for what in _story(device)),
    ]
    return "\n".join(lines)


def _phase_line(phase: Phase) -> str:
    times = "".join(f"{time / 1e6:10.3f}" for time in (phase.begin, phase.end, phase.end - phase.begin))
    refused = ", the last refused" if phase.attempt.is_refused else ""
    return f"{phase.title:52}{times}" + (f"  packets: {phase.packets}{refused}" if phase.packets else "")


def _device_line(device: Device) -> str:
    values = _columns(device)
    cells = (f"{_cell(name, values[name]):>{len(title)}}" for name, title, _ in COLUMNS)
    return f"{device.title[:25]:26}" + "".join(cells)


def _cell(name: str, value: float | None) -> str:
    if isinstance(value, float):
        return f"{value * 1e3:.1f}" if name.startswith("acknowledge") else f"{value:.1f}"
    return "-" if value is None else str(value)


def _story(device: Device) -> list[str]:
    """Versions that changed, and why the tool dropped the device."""
    before, after = device.before, device.after
    both = [key for key in VERSIONS if key in before and key in after]
    told = [f"{key} {before[key]:08x} -> {after[key]:08x}" for key in both if before[key] != after[key]]
    told += [f"dropped at {mark.begin / 1e6:.3f} s: {mark.text}" for mark in device.marked("removed")]
    return told or ["no version changed" if both else "not asked for its versions before and after"]
