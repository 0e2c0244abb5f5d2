"""Tells in words, or as an object for JSON, what an analysis found."""

import textwrap
from collections.abc import Sequence

from .analysis import MOMENTS, Analysis, Device, Phase, percentile, printable
from .reader import VERSIONS, Fields

WIDTH = 100  # of the terminal
MUCH = 0.1  # of the run: what takes more is named in the first sentence
COLUMNS = "acknowledge_median acknowledge_99th acknowledge_most resends go_backs faults failed_calls check away".split()
TITLES = ["median", "99 %", "most", "again", "back", "faults", "failed", "check", "away"]
COSTS = "calls", "transfer", "go_back", "return"


def _seconds(microseconds: float) -> float:
    return round(microseconds / 1e6, 6)


def _columns(device: Device, unit: float) -> dict[str, float | None]:
    """By the names that they have in JSON, in the order of the titles. The unit is that of the acknowledgements."""
    needed = [percentile(device.needed, part) / unit if device.needed else None for part in (50, 99, 100)]
    counts = [sum(mark.count for mark in device.marks[kind]) for kind in MOMENTS]
    kinds = device.marks["check"], device.marks["away"]
    lasted = [_seconds(sum(mark.end - mark.begin for mark in kind)) if kind else None for kind in kinds]
    return dict(zip(COLUMNS, [*needed, *counts, device.failed_calls, *lasted], strict=True))


def about(analysis: Analysis) -> str:
    return printable(f"{analysis.recording.started}  {' '.join(analysis.recording.command)}")


def _by_cost(analysis: Analysis) -> list[Device]:
    return sorted(analysis.devices.values(), key=lambda device: -device.total)


def answer(analysis: Analysis) -> str:
    """What took so long, and who, in one sentence."""
    much = MUCH * analysis.end
    parts = [_blame(device) for device in _by_cost(analysis) if device.total > much] or ["no device stands out"]
    time, step = max((time, step) for step, time in analysis.tool.cost.items())
    if time > much:
        parts.append(f"{time / 1e6:.1f} for the tool ({step})")
    return f"{analysis.end / 1e6:.1f} s: {'; '.join(parts)}"


def _blame(device: Device) -> str:
    most = " and ".join(name.replace("_", " ") for name in COSTS if device.cost[name] > device.total / 4)
    dropped = "".join(f"; dropped: {mark.text}" for mark in device.marks["removed"][:1])
    return f"{device.total / 1e6:.1f} for {device.title} ({most}{dropped})"


def as_object(analysis: Analysis) -> Fields:
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
        "tool": {step: _seconds(time) for step, time in analysis.tool.cost.items()},
        "devices": [_device_object(device) for device in analysis.devices.values()],
    }


def _device_object(device: Device) -> Fields:
    return {
        "device": device.id,
        "name": device.name,
        **_columns(device, 1e6),
        "seconds": {name: _seconds(device.cost[name]) for name in COSTS} | {"sum": _seconds(device.total)},
        "versions_before": device.before,
        "versions_after": device.after,
        "removed": [{"at": _seconds(mark.begin), "reason": mark.text} for mark in device.marks["removed"]],
    }


def as_text(analysis: Analysis) -> str:
    devices = _by_cost(analysis)
    lines = [
        *textwrap.wrap(answer(analysis) + ".", WIDTH),
        f"\n{about(analysis)}\n",
        _row("seconds", ["from", "to", "took", "packets"], 60),
        *(_phase_row(phase) for phase in analysis.phases),
        "\n" + _row("seconds", [*(name.replace("_", " ") for name in COSTS), "sum"]),
        *(_row(device.title, [*(device.cost[name] / 1e6 for name in COSTS), device.total / 1e6]) for device in devices),
        *(_row(f"the tool, {step}", [time / 1e6], 40) for step, time in analysis.tool.cost.items()),
        f"\n{'':28}{'acknowledged, ms':>24}{'sent':>8}{'go':>8}{'calls':>16}{'seconds':>16}",
        _row("device", TITLES),
        *(_row(device.title, [*_columns(device, 1e3).values()]) for device in devices),
        "",
        *(f"{device.title[:27]:28}{what}" for device in devices for what in _story(device)),
    ]
    return "\n".join(lines)


def _row(title: str, cells: Sequence[object], width: int = 28) -> str:
    room = (WIDTH - width) // len(cells)
    texts = (f"{cell:.1f}" if isinstance(cell, float) else "-" if cell is None else str(cell) for cell in cells)
    return f"{title[:width - 1]:{width}}" + "".join(f"{text:>{room}}" for text in texts).rstrip()


def _phase_row(phase: Phase) -> str:
    times = [f"{time / 1e6:.3f}" for time in (phase.begin, phase.end, phase.end - phase.begin)]
    packets = f"{phase.packets or ''}{', the last refused' if phase.is_refused else ''}"
    return _row(phase.title, [*times, packets], 60)


def _story(device: Device) -> list[str]:
    """Versions that changed, and why the tool dropped the device."""
    before, after = device.before, device.after
    both = [key for key in VERSIONS if key in before and key in after]
    changes = [f"{key} {before[key]:08x} -> {after[key]:08x}" for key in both if before[key] != after[key]]
    changes += [f"dropped at {mark.begin / 1e6:.3f} s: {mark.text}" for mark in device.marks["removed"]]
    return changes or ["no version changed" if both else "not asked for its versions before and after"]
