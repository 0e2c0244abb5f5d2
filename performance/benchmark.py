"""Measures the tool on two buses; see ./bench.

On the measured bus of measured_bus.cpp all is the same on every run: what is counted there is compared with
figures.json. One figure is a time, that of transfers on the simulated bus as it is shipped.
"""

import json
import os
import platform
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
from functools import partial

output = partial(subprocess.check_output, text=True)
DEVICES = (1, 10, 63)
# After how many microseconds a packet is acknowledged, and by the last device: on both sides of a poll's end.
DELAYS = ((0, 0), (300, 300), (999, 999), (1001, 1001), (999, 1001), (1999, 2001))
FEW, MANY = 100, 400  # packets; the difference leaves out all but the packets
ROUNDS, ROUND_PACKETS = 100, 150
POLL_INSTRUCTIONS = 600_000  # that a slow host executes in the millisecond of a poll
ARM_BUS_BYTES = 0x10000  # of code in the measured bus, at most
# The C library takes other functions on other processors. Without the last comma it reads on past the list.
PLAIN_CPU = "glibc.cpu.hwcaps=-AVX,-AVX2,-BMI1,-BMI2,-ERMS,-F16C,-FMA,-LZCNT,-MOVBE,-RTM,"
SYSTEM_LIBRARIES = f"/lib/{platform.machine()}-linux-gnu"  # named, as the loader's list depends on what is installed
PEERS = {"dfu-util": "--version", "stm32flash": "-h", "avrdude": "-?"}
MARGIN = 0.05
MACHINE = f"{platform.machine()}, g++ {subprocess.getoutput('g++ -dumpversion')}"
COMMITTED = os.path.join(os.path.dirname(os.path.abspath(__file__)), "figures.json")


class Benchmark:
    def __init__(self, build, work):
        self.arm, self.build, self.work, self.profile = f"{build}-armhf", f"{work}/build", work, f"{work}/profile"
        for directory in ("bin", "lib", "measured-bus"):  # the loader takes longer for a longer path
            shutil.copytree(f"{build}/{directory}", f"{self.build}/{directory}")
        self.tool, self.floor = f"{self.build}/bin/orvin-firmware-upgrade", f"{self.build}/bin/floor"
        fixed = ["setarch", "-R"]  # addresses the same on every run, where the system allows it
        self.prefix = [] if subprocess.call([*fixed, "true"], stderr=subprocess.DEVNULL) else fixed

    def run(self, command, library="measured-bus", **environment):
        """Returns what the command writes to standard error."""
        environment.update(PATH=os.defpath, LC_ALL="C", GLIBC_TUNABLES=PLAIN_CPU,
                           LD_LIBRARY_PATH=f"{self.build}/{library}:{self.build}/lib:{SYSTEM_LIBRARIES}")
        run = subprocess.run([*self.prefix, *command], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                             text=True, env=environment, cwd="/", check=False)
        updated = command[-2].partition(",")[0] if "-B" in command else "0"
        if str(run.returncode) != updated:
            raise RuntimeError(f"{' '.join(command)}: status {run.returncode}\n{run.stderr}")
        return run.stderr

    def image(self, packets):
        path = os.path.join(self.work, f"{packets}.img")
        if not os.path.exists(path):
            self.run([f"{self.build}/bin/orvin-image", "create", path, "--target", "dsp", "--version", "2",
                      "--size", str(64 * packets)])
        return path

    def transfers(self, devices, delays, packets):
        """The commands of a transfer: the tool's, and the floor's."""
        where = [f"{devices},{delays[0]},{delays[1]}", self.image(packets)]
        return {"tool": [self.tool, "-B", "-c", *where], "floor": [self.floor, *where]}

    # ---- instructions ----

    def instructions(self, command, *switched_by, from_start=True, **environment):
        """Those of the whole run, or those before, between or after the calls of functions of the measured bus."""
        self.run(["valgrind", "-q", "--tool=callgrind", f"--callgrind-out-file={self.profile}",
                  *(f"--toggle-collect={function}" for function in switched_by),
                  f"--collect-atstart={'yes' if from_start else 'no'}", *command],
                 **({"LD_BIND_NOW": "1"} if switched_by else {}), **environment)
        report = output(["callgrind_annotate", "--show-percs=no", "--threshold=100", self.profile])

        def cost(line):
            return int(re.search(rf"^ *([\d,]+) .*{line}", report, re.M).group(1).replace(",", ""))
        return cost("PROGRAM TOTALS") - (cost(r":deliver \[") if switched_by else 0)

    def transfer_instructions(self, devices):
        """The tool's and the floor's for a packet with its acknowledgements, for one of them, and for a poll."""
        figures = {}
        bus = ("ImageTransfer_data", "usleep", "deliver")
        few, many, late = (self.transfers(devices, (300, last), packets)
                           for last, packets in ((300, FEW), (300, MANY), (10_300, MANY)))
        for sender in ("tool", "floor"):
            fewer, all_packets, ten_polls_more = (self.instructions(command[sender], *bus)
                                                  for command in (few, many, late))
            callbacks = self.instructions(few[sender], "deliver", from_start=False)
            figures[f"{sender}, packet"] = (all_packets - fewer) / (MANY - FEW)
            figures[f"{sender}, acknowledgement"] = callbacks / FEW / devices
            figures[f"{sender}, further poll"] = (ten_polls_more - all_packets) / MANY / 10
        # Of few: no clock decides whether the recorder's memory grows before its writer has emptied it.
        recorded = self.instructions(few["tool"], "deliver", from_start=False,
                                     LD_PRELOAD=f"{self.build}/lib/liborvin-record.so", ORVIN_RECORDING="/dev/null")
        figures["recorder, acknowledgement"] = recorded / FEW / devices - figures["tool, acknowledgement"]
        return {f"devices: {devices}; {name}": round(figure) for name, figure in figures.items()}

    def arm_instructions(self, *arguments):
        """The tool's, as built for 32-bit ARM. The emulator does not count them, but traces each step."""
        command = [*self.prefix, "qemu-arm", "-L", "/usr/arm-linux-gnueabihf", "-E",
                   f"LD_LIBRARY_PATH={self.arm}/measured-bus:{self.arm}/lib", "-E", "LC_ALL=C"]
        tool = f"{self.arm}/bin/orvin-firmware-upgrade"
        loaded = output([*command, "-E", "LD_TRACE_LOADED_OBJECTS=1", tool])
        bus = int(re.search(r"libtalm.*\(0x(\w+)\)", loaded).group(1), 16)
        steps = subprocess.Popen([*command, "-singlestep", "-d", "exec,nochain", tool, *arguments],
                                 stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        return sum(line.startswith(b"Trace") and not bus <= int(line.split(b"/")[1], 16) < bus + ARM_BUS_BYTES
                   for line in steps.stderr)

    def arm_packet(self, devices):
        few, many = (self.arm_instructions(*self.transfers(devices, (300, 300), packets)["tool"][1:])
                     for packets in (FEW // 10, MANY // 10))
        return (many - few) * 10 // (MANY - FEW)

    # ---- polls ----

    def polls(self):
        """The tool's for a packet. Its polls and sleeps must be the floor's to the microsecond."""
        figures = {}
        for devices in DEVICES:
            for delays in DELAYS:
                slept = {sender: self.run(command).splitlines()[-1]
                         for sender, command in self.transfers(devices, delays, MANY).items()}
                name = polls_of(devices, delays)
                figures[name] = int(slept["tool"].split()[0]) / MANY
                if slept["tool"] != slept["floor"]:
                    sys.exit(f"Not the floor's: {name}: {slept}")
        return figures

    # ---- processes ----

    def memory(self, name, command):
        """Of heap and stack together, at their peak."""
        self.run(["valgrind", "-q", "--tool=massif", "--stacks=yes", "--peak-inaccuracy=0",
                  f"--massif-out-file={self.profile}", *command])
        until_peak = output(["sed", "/heap_tree=peak/q", self.profile])
        return {f"{name}: peak bytes": sum(map(int, re.findall(r"mem_\w+_B=(\d+)", until_peak)[-3:]))}

    def process(self, name, command):
        return {f"{name}: instructions": self.instructions(command), **self.memory(name, command)}

    def binary(self, name, path):
        stripped = os.path.join(self.work, "stripped")
        subprocess.run(["strip", "-o", stripped, shutil.which(path)], check=True)
        needed = re.findall(r"NEEDED.*\[(.*)\]", output(["readelf", "-d", stripped]))
        return {f"{name}: stripped bytes": os.path.getsize(stripped), f"{name}: needs": " ".join(needed)}

    def processes(self):
        figures = {**self.process("-v", [self.tool, "-v"]),
                   **self.process("-l, 63 members", [self.tool, "-l", "-c", "63,300,300"]),
                   **self.binary("tool", self.tool)}
        for name, packets in (("10 kB image", 160), ("10 MB image", 160_000)):
            figures.update(self.memory(name, self.transfers(1, (300, 300), packets)["tool"]))
        return figures

    def peers(self):
        return {peer: self.process(peer, [peer, option]) | self.binary(peer, peer) for peer, option in PEERS.items()}

    # ---- real time ----

    def real_time(self, devices):
        """The floor's time by the tool's on the simulated bus: the quartiles of all rounds."""
        bus = os.path.join(self.work, f"{devices}.json")
        with open(bus, "w", encoding="utf-8") as file:
            json.dump({"members": [{"id": ":".join(["0a"] * 16 + [f"{device:02x}"]), "type": 64, "versions": {},
                                    "timing": {"acknowledge_us": 300}} for device in range(devices)]}, file)
        rounds = self.run([self.floor, f"sim:{bus}", self.image(ROUND_PACKETS), str(ROUNDS)], "lib")
        return statistics.quantiles(map(float, rounds.split()))


def polls_of(devices, delays):
    return f"devices: {devices}; {delays[0]}-{delays[1]} us, polls/packet"


def deterministic(benchmark):
    figures = benchmark.polls()
    for devices in DEVICES:
        figures.update(benchmark.transfer_instructions(devices))
    figures.update(benchmark.processes())
    return figures


def check(figures):
    with open(COMMITTED, encoding="utf-8") as file:
        machine, then = json.load(file).values()
    if machine != MACHINE:
        sys.exit(f"Not comparable: the committed figures are of {machine}, these of {MACHINE}")
    grown = [name for name, now in figures.items()
             if now != then.get(name) and (name not in then or isinstance(now, str) or now > then[name] * (1 + MARGIN))]
    for name in grown:
        print(f"Grew: {name}: {figures[name]}, committed {then.get(name)}")
    print(f"{len(figures)} figures, {len(grown)} grew by more than {MARGIN:.0%}")
    return not grown


def print_tables(benchmark, figures):
    print("| devices | instructions: packet (floor's) | acknowledgement (floor's) | further poll (floor's) "
          "| recorder: acknowledgement | 32-bit ARM: packet | share of a poll, x86-64, ARM | real time, of the floor's pace |"
          "\n|---|---|---|---|---|---|---|---|")
    for devices in DEVICES:
        def pair(what, of=f"devices: {devices}"):
            return f"{figures[f'{of}; tool, {what}']} ({figures[f'{of}; floor, {what}']})"
        counts = " | ".join(map(pair, ("packet", "acknowledgement", "further poll")))
        packets = (figures[f"devices: {devices}; tool, packet"], benchmark.arm_packet(devices))
        shares = ", ".join(f"{packet / POLL_INSTRUCTIONS:.1%}" for packet in packets)
        low, median, high = benchmark.real_time(devices)
        recorder = figures[f"devices: {devices}; recorder, acknowledgement"]
        print(f"| {devices} | {counts} | {recorder} | {packets[1]} | {shares} | {median:.3f} ({low:.3f}-{high:.3f}) |", flush=True)
    print("\n| polls/packet (the floor's are the same), acknowledged after | 1 device | 10 | 63 |\n|---|---|---|---|")
    for delays in DELAYS:
        polls = (f"{figures[polls_of(devices, delays)]:g}" for devices in DEVICES)
        print(f"| {delays[0]} us, the last {delays[1]} us | {' | '.join(polls)} |")
    print("\n| program | instructions | heap and stack, bytes | stripped bytes | needs |\n|---|---|---|---|---|")
    for peer, measured in benchmark.peers().items():
        print(f"| `{peer} {PEERS[peer]}` | {' | '.join(str(figure) for figure in measured.values())} |")
    for name in ("-v", "-l, 63 members", "10 kB image", "10 MB image"):
        print(f"| tool, {name} | {figures.get(f'{name}: instructions', '')} | {figures[f'{name}: peak bytes']} "
              f"| {figures['tool: stripped bytes']} | {figures['tool: needs']} |")
    print(f"| tool, -v, 32-bit ARM | {benchmark.arm_instructions('-v')} | | | |")


def main():
    build, *options = sys.argv[1:]
    with tempfile.TemporaryDirectory(prefix="orvin-bench-", dir="/tmp") as work:
        benchmark = Benchmark(build, work)
        figures = deterministic(benchmark)
        if options == ["--check"]:
            return 0 if check(figures) else 1
        if options == ["--update"]:
            with open(COMMITTED, "w", encoding="utf-8") as file:
                json.dump({"of": MACHINE, "figures": figures}, file, indent=2)
                file.write("\n")
        else:
            print_tables(benchmark, figures)
    return 0


if __name__ == "__main__":
    sys.exit(main())
