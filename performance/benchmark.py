"""Counts what the tool costs, on a bus in virtual time (measured_bus.cpp): the figures are the same on every run.

Prints them; with --check, compares them with figures.json; with --update, writes them there.
"""

import argparse
import json
import os
import platform
import re
import shutil
import subprocess
import sys
import tempfile
from collections.abc import Sequence
from pathlib import Path

Figures = dict[str, float | int | str]

DEVICES = 1, 10, 63
# After how many microseconds all devices but the last acknowledge a packet, and the last: on both sides of a poll.
DELAYS = (0, 0), (300, 300), (999, 999), (1001, 1001), (999, 1001), (1999, 2001)
FEW, MANY = 100, 400  # packets; the difference of two runs is what packets cost
TEN_POLLS = 10_000  # microseconds
# The C library takes other functions on other processors. Without the last comma it reads on past the list.
PLAIN_CPU = "glibc.cpu.hwcaps=-AVX,-AVX2,-BMI1,-BMI2,-ERMS,-F16C,-FMA,-LZCNT,-MOVBE,-RTM,"
SYSTEM_LIBRARIES = f"/lib/{platform.machine()}-linux-gnu"  # named, as the loader's list depends on what is installed
MARGIN = 0.05
MACHINE = f"{platform.machine()}, g++ {subprocess.getoutput('g++ -dumpversion')}"
COMMITTED = Path(__file__).with_name("figures.json")


class Benchmark:
    """Runs programs of a build on the measured bus, in a directory whose name has always the same length."""

    def __init__(self, build: str, work: str) -> None:
        self.work, self.build, self.profile = work, f"{work}/build", f"{work}/profile"
        for directory in ("bin", "lib", "measured-bus"):  # the loader takes longer for a longer path
            shutil.copytree(f"{build}/{directory}", f"{self.build}/{directory}")
        self.tool, self.baseline = f"{self.build}/bin/orvin-firmware-upgrade", f"{self.build}/bin/baseline"
        fixed_addresses = ["setarch", "-R"]  # not every system allows it
        allowed = subprocess.call([*fixed_addresses, "true"], stderr=subprocess.DEVNULL) == 0
        self.prefix = fixed_addresses if allowed else []

    def run(self, command: Sequence[str], **environment: str) -> str:
        """Returns what the command writes to standard error."""
        environment |= {"PATH": os.defpath, "LC_ALL": "C", "GLIBC_TUNABLES": PLAIN_CPU}
        environment["LD_LIBRARY_PATH"] = f"{self.build}/measured-bus:{self.build}/lib:{SYSTEM_LIBRARIES}"
        run = subprocess.run(
            [*self.prefix, *command],
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
            text=True,
            env=environment,
            cwd="/",
            check=False,
        )
        updated = command[-2].partition(",")[0] if "-B" in command else "0"
        if str(run.returncode) != updated:
            raise RuntimeError(f"{' '.join(command)}: status {run.returncode}\n{run.stderr}")
        return run.stderr

    def image(self, packets: int) -> str:
        path = f"{self.work}/{packets}.img"
        if not os.path.exists(path):
            options = ["--target", "dsp", "--version", "2", "--size", str(64 * packets)]
            self.run([f"{self.build}/bin/orvin-image", "create", path, *options])
        return path

    def transfer(self, sender: str, devices: int, delays: tuple[int, int], packets: int) -> list[str]:
        """The command for it; the sender is the tool or the baseline."""
        connection = f"{devices},{delays[0]},{delays[1]}"
        if sender == "baseline":
            return [self.baseline, connection, str(packets)]
        return [self.tool, "-B", "-c", connection, self.image(packets)]

    def instructions(self, command: Sequence[str], *toggles: str, from_start: bool = True, **environment: str) -> int:
        """The program's. Each call of a function among the toggles switches the counting off, or on again."""
        options = [f"--toggle-collect={function}" for function in toggles]
        options.append(f"--collect-atstart={'yes' if from_start else 'no'}")
        if toggles:
            environment["LD_BIND_NOW"] = "1"
        self.run(
            ["valgrind", "-q", "--tool=callgrind", f"--callgrind-out-file={self.profile}", *options, *command],
            **environment,
        )
        annotate = ["callgrind_annotate", "--show-percs=no", "--threshold=100", self.profile]
        report = subprocess.check_output(annotate, text=True)
        return _cost(report, "PROGRAM TOTALS") - (_cost(report, r":deliver \[") if toggles else 0)

    def transfer_instructions(self, devices: int) -> Figures:
        """For a packet with its acknowledgements, for one of them, and for a poll."""
        bus = "ImageTransfer_data", "usleep", "deliver"
        figures: Figures = {}
        for sender in ("tool", "baseline"):
            few, many, ten_polls_later = (
                self.transfer(sender, devices, (300, last), packets)
                for last, packets in ((300, FEW), (300, MANY), (300 + TEN_POLLS, MANY))
            )
            packets = self.instructions(many, *bus)
            polls = self.instructions(ten_polls_later, *bus) - packets
            callbacks = self.instructions(few, "deliver", from_start=False)
            name = f"devices: {devices}; {sender}"
            figures[f"{name}, packet"] = round((packets - self.instructions(few, *bus)) / (MANY - FEW))
            figures[f"{name}, acknowledgement"] = round(callbacks / FEW / devices)
            figures[f"{name}, further poll"] = round(polls / MANY / 10)
        return figures

    def recorder_instructions(self, devices: int) -> Figures:
        """What the recorder adds to an acknowledgement. Few packets, so that its memory does not grow meanwhile."""
        transfer = self.transfer("tool", devices, (300, 300), FEW)
        preload = {"LD_PRELOAD": f"{self.build}/lib/liborvin-record.so", "ORVIN_RECORDING": "/dev/null"}
        recorded = self.instructions(transfer, "deliver", from_start=False, **preload)
        alone = self.instructions(transfer, "deliver", from_start=False)
        return {f"devices: {devices}; recorder, acknowledgement": round((recorded - alone) / FEW / devices)}

    def polls(self, devices: int, delays: tuple[int, int]) -> Figures:
        """The tool's for a packet. It must sleep as often and as long as the baseline."""
        name = f"devices: {devices}; {delays[0]}-{delays[1]} us, polls/packet"
        tool, baseline = (
            self.run(self.transfer(sender, devices, delays, MANY)).splitlines()[-1] for sender in ("tool", "baseline")
        )
        if tool != baseline:
            sys.exit(f"{name}: the tool's are {tool}, the baseline's {baseline}")
        return {name: int(tool.split()[0]) / MANY}

    def memory(self, name: str, command: Sequence[str]) -> Figures:
        """The peak of heap and stack together."""
        massif = ["valgrind", "-q", "--tool=massif", "--stacks=yes", "--peak-inaccuracy=0"]
        self.run([*massif, f"--massif-out-file={self.profile}", *command])
        until_peak = Path(self.profile).read_text(encoding="ascii").partition("heap_tree=peak")[0]
        return {f"{name}: peak bytes": sum(map(int, re.findall(r"mem_\w+_B=(\d+)", until_peak)[-3:]))}

    def size(self) -> Figures:
        stripped = f"{self.work}/stripped"
        subprocess.run(["strip", "-o", stripped, self.tool], check=True)
        dynamic = subprocess.check_output(["readelf", "-d", stripped], text=True)
        needed = re.findall(r"NEEDED.*\[(.*)\]", dynamic)
        return {"tool: stripped bytes": os.path.getsize(stripped), "tool: needs": " ".join(needed)}

    def figures(self) -> Figures:
        figures: Figures = {}
        for devices in DEVICES:
            for delays in DELAYS:
                figures |= self.polls(devices, delays)
        for devices in DEVICES:
            figures |= self.transfer_instructions(devices) | self.recorder_instructions(devices)
        for name, command in (("-v", [self.tool, "-v"]), ("-l, 63 members", [self.tool, "-l", "-c", "63,300,300"])):
            figures |= {f"{name}: instructions": self.instructions(command)} | self.memory(name, command)
        for name, packets in (("10 kB image", 160), ("10 MB image", 160_000)):
            figures |= self.memory(name, self.transfer("tool", 1, (300, 300), packets))
        return figures | self.size()


def _cost(report: str, line: str) -> int:
    match = re.search(rf"^ *([\d,]+) .*{line}", report, re.M)
    if not match:
        raise RuntimeError(f"callgrind's report has no line with {line}")
    return int(match[1].replace(",", ""))


def _check(figures: Figures) -> int:
    committed = json.loads(COMMITTED.read_text(encoding="utf-8"))
    if committed["of"] != MACHINE:
        sys.exit(f"Not comparable: the committed figures are of {committed['of']}, these of {MACHINE}")
    grown = [name for name, figure in figures.items() if _has_grown(figure, committed["figures"].get(name))]
    for name in grown:
        print(f"Grew: {name}: {figures[name]}, committed {committed['figures'].get(name)}")
    print(f"{len(figures)} figures, {len(grown)} grew by more than {MARGIN:.0%}")
    return 1 if grown else 0


def _has_grown(figure: float | int | str, committed: float | int | str | None) -> bool:
    if isinstance(figure, str) or not isinstance(committed, (float, int)):
        return figure != committed
    return figure > committed * (1 + MARGIN)


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("build", metavar="BUILD-DIRECTORY")
    mode = parser.add_mutually_exclusive_group()
    mode.add_argument("--check", action="store_true")
    mode.add_argument("--update", action="store_true")
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="orvin-bench-", dir="/tmp") as work:
        figures = Benchmark(arguments.build, work).figures()
    if arguments.check:
        return _check(figures)
    text = json.dumps({"of": MACHINE, "figures": figures}, indent=2) + "\n"
    if arguments.update:
        COMMITTED.write_text(text, encoding="utf-8")
    else:
        print(text, end="")
    return 0


if __name__ == "__main__":
    sys.exit(main())
