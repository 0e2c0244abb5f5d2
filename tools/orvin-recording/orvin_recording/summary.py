"""Tells in words, or as an object for JSON, what an analysis found."""

import textwrap
from collections import Counter
from statistics import median_low

from .analysis import VERSIONS
from .device import printable

TARGETS = {0x200: "ARM", 0x201: "DSP", 0x202: "Booster ARM"}
PHASES = {
    "open": "opening, waiting for the link",
    "discovery": "looking for devices",
    "versions": "asking versions",
    "announce": "announcing",
    "transfer": "transfer",
    "pause": "pausing for the status file",
    "check": "check",
    "start": "start",
    "return": "waiting for the return",
    "close": "closing",
}
COUNTED = {"resends": "resend", "late": "late", "go_backs": "go_back", "faults": "fault"}
COLUMNS = 7, 7, 8, 6, 5, 6, 7, 7, 6, 7, 7  # widths
WIDTH = 100
DEVICES_NAMED = 3
STANDS_OUT = 1_000_000, 0.05  # a device that cost so many microseconds, and so much of the run


def _amount(count, word):
    return f"{count} {word}" if count == 1 else f"{count} {word}s"


def _rounded(microseconds):
    seconds = microseconds / 1e6
    return f"{seconds:.0f}" if seconds >= 9.95 else f"{seconds:.1f}"


def _seconds(microseconds):
    return None if microseconds is None else round(float(microseconds) / 1e6, 6)


def _percentile(values, hundredths):
    """Of a sorted list; none: it is empty."""
    return values[(len(values) - 1) * hundredths // 100] if values else None


def _reasons(device):
    return [mark.text for mark in device.marked("removed")]


def _because(device, cause):
    """Why the device cost time, as the rest of a sentence."""
    late, resends, go_backs = (len(device.marked(kind)) for kind in ("late", "resend", "go_back"))
    match cause:
        case "resends" if any("silent" in reason for reason in _reasons(device)):
            return "which fell silent"
        case "resends":
            return f"which needed {_amount(resends, 'packet')} again"
        case "late" if late:
            return f"which acknowledged {_amount(late, 'packet')} late"
        case "late":
            return f"which takes {median_low(device.needed) / 1e3:.1f} ms to acknowledge"
        case "go_backs":
            return f"which asked {_amount(go_backs, 'time')} to go back"
        case "check":
            return f"whose check took {_rounded(device.time('check'))} s"
        case "return" | "report" if "not back" in _reasons(device):
            return "which did not come back"
        case "return" | "report" if device.after.get("dsp") == 0:
            return "whose DSP stayed down"
        case "return":
            return "which was back late"
        case "report":
            return "whose return was not reported"
        case "second_attempt":
            first = [reason for reason in _reasons(device) if "(attempt" not in reason]
            return f"which needed a second attempt ({first[0] if first else 'its version stayed'})"
    return "whose calls took long"


def _blame(device):
    causes = [cause for cause, lost in device.lost.most_common(2) if lost >= device.lost.total() / 4]
    told = dict.fromkeys(_because(device, cause) for cause in causes)  # each once
    return f"{device.title}, " + " and ".join(told).replace(" and which ", " and ")


def answer(analysis):
    """What took so long, and who, in one sentence."""
    enough = max(STANDS_OUT[0], STANDS_OUT[1] * analysis.end)
    devices = [device for device in by_cost(analysis) if device.lost.total() >= enough]
    parts = [(device.lost.total(), _blame(device)) for device in devices[:DEVICES_NAMED]]
    if others := devices[DEVICES_NAMED:]:
        parts.append((sum(device.lost.total() for device in others), f"{_amount(len(others), 'other device')}"))
    took, step = _longest_step(analysis)
    if not devices or took > parts[0][0]:
        parts.append((took, step))
    told = "; ".join(f"{_rounded(time)} for {what}" for time, what in parts).replace(" for ", " of them for ", 1)
    return f"{_rounded(analysis.end)} s, {told}" + ("" if devices else "; no device stands out")


def _longest_step(analysis):
    """Its time that no device is charged with, and its name."""
    steps = Counter()
    for phase in analysis.phases:
        steps[phase.name] += phase.end - phase.begin - phase.lost
    (name, took), *_ = steps.most_common(1)
    packets = sum(phase.transfer.packets for phase in analysis.phases if phase.transfer)
    return took, f"the transfer of {_amount(packets, 'packet')}" if name == "transfer" else PHASES[name]


def about(analysis):
    return printable(f"{analysis.recording.started}  {' '.join(analysis.recording.command)}")


def by_cost(analysis):
    return sorted(analysis.devices.values(), key=lambda device: -device.lost.total())


def as_object(analysis):
    """For programs. Times are seconds."""
    recording = analysis.recording
    return {
        "answer": answer(analysis),
        "started": recording.started,
        "command": recording.command,
        "problem": recording.problem,
        "seconds": _seconds(analysis.end),
        "phases": [_phase_object(phase) for phase in analysis.phases],
        "devices": [_device_object(device) for device in analysis.devices.values()],
    }


def _phase_object(phase):
    entry = {key: getattr(phase, key) for key in ("name", "image", "attempt", "target")}
    entry |= {"begin": _seconds(phase.begin), "end": _seconds(phase.end)}
    if phase.transfer:
        entry |= {key: getattr(phase.transfer, key) for key in ("packets", "resends", "go_backs", "refused")}
    return entry


def _device_object(device):
    needed = sorted(device.needed)
    return {
        "device": device.id,
        "name": device.name,
        "acknowledged": len(device.acknowledged),
        "acknowledge_median": _seconds(_percentile(needed, 50)),
        "acknowledge_99th": _seconds(_percentile(needed, 99)),
        "acknowledge_most": _seconds(_percentile(needed, 100)),
        **{key: len(device.marked(kind)) for key, kind in COUNTED.items()},
        "failed_calls": device.failed_calls,
        "check": _seconds(device.time("check")),
        "away": _seconds(device.time("away")),
        "lost": _seconds(device.lost.total()),
        "lost_by_cause": {cause: _seconds(lost) for cause, lost in device.lost.items()},
        "versions_before": device.before,
        "versions_after": device.after,
        "removed": [{"at": _seconds(mark.begin), "reason": mark.text} for mark in device.marked("removed")],
    }


def as_text(analysis):
    """For a terminal of 100 columns."""
    lines = textwrap.wrap(answer(analysis) + ".", WIDTH) + ["", about(analysis), ""]
    lines += [f"{'':50}{'from':>10}{'to':>10}{'took':>10}  seconds"]
    lines += [_phase_line(phase) for phase in analysis.phases]
    lines += ["", f"{'':27}{'acknowledged, ms':>22}{'sent':>6}{'go':>5}{'':13}{'calls':>7}{'seconds':>20}"]
    titles = ("median", "99 %", "most", "again", "back", "late", "faults", "failed", "check", "away", "lost")
    lines += [f"{'device':27}" + "".join(f"{title:>{width}}" for title, width in zip(titles, COLUMNS))]
    devices = by_cost(analysis)
    lines += [_device_line(_device_object(device), device.title) for device in devices]
    lines += [""] + [line for device in devices for line in _story(device)]
    return "\n".join(line.rstrip() for line in lines) + "\n"


def _phase_line(phase):
    of = f"image {phase.image} ({TARGETS.get(phase.target, phase.target)}), attempt {phase.attempt}: "
    title = (of if phase.image else "") + PHASES[phase.name]
    begin, end, took = (f"{time / 1e6:10.3f}" for time in (phase.begin, phase.end, phase.end - phase.begin))
    packets = f"  {_amount(phase.transfer.packets, 'packet')}" if phase.transfer else ""
    packets += ", refused" if phase.transfer and phase.transfer.refused else ""
    return f"{title:50}{begin}{end}{took}{packets}"


def _number(value):
    return "-" if value is None else f"{value:.1f}" if isinstance(value, float) else str(value)


def _device_line(entry, title):
    needed = (entry[f"acknowledge_{key}"] for key in ("median", "99th", "most"))
    needed = (seconds if seconds is None else seconds * 1e3 for seconds in needed)
    rest = (entry[key] for key in ("resends", "go_backs", "late", "faults", "failed_calls", "check", "away", "lost"))
    values = "".join(f"{_number(value):>{width}}" for value, width in zip((*needed, *rest), COLUMNS))
    return f"{title[:26]:27}{values}"


def _story(device):
    """Versions that changed, and why the tool dropped the device."""
    before, after = device.before, device.after
    changed = [key for key in VERSIONS if key in after and before.get(key) != after[key]]
    told = [f"{key} {before[key]:08x} -> {after[key]:08x}" for key in changed if key in before]
    told += [f"dropped at {mark.begin / 1e6:.3f} s: {mark.text}" for mark in device.marked("removed")]
    if not told and device.needed:
        told = ["no version changed" if after and before else "not asked for its versions before and after"]
    return [f"{device.title[:26]:27}{what}" for what in told]
