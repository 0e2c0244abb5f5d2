"""Measures the tool on the simulated bus, each figure beside a floor or a peer from the same run; see ./bench."""

import argparse
import json
import os
import platform
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

import buses
import instructions

DEVICES = (1, 10, 63)
ACKNOWLEDGE_US = (0, 300, 2000)
UPGRADE_PACKETS = 2_000
PEERS = {"dfu-util": "--version", "stm32flash": "-h", "avrdude": "-?"}
CPP_PROGRAM = "print-character (C++ library)"
LISTING = "orvin-firmware-upgrade -l, 63 members"
TIMEOUT_S = 600
COMMITTED = os.path.join(os.path.dirname(os.path.abspath(__file__)), "instructions.json")
MARGIN = 0.10


class Benchmark:
    def __init__(self, build, packets, repeat, work):
        self.build, self.packets, self.repeat, self.work = build, packets, repeat, work

    def program(self, name):
        return f"{self.build}/bin/{name}"

    # ---- transfers ----

    def round(self, acknowledge_us, image):
        """One transfer by the tool and one by the floor for each number of devices, all of them in turns."""
        paths = [buses.write_bus(self.work, devices, acknowledge_us) for devices in DEVICES]
        run = subprocess.run([self.program("transfer-benchmark"), image, *paths], check=True,
                             stdout=subprocess.PIPE, timeout=TIMEOUT_S + self.packets / 10)
        return dict(zip(DEVICES, json.loads(run.stdout), strict=True))

    def transfers(self):
        image = buses.make_image(self.build, self.work, self.packets)
        rows = []
        for delay in ACKNOWLEDGE_US:
            rounds = []
            for number in range(self.repeat):
                progress(f"transfers acknowledged after {delay} us, round {number + 1} of {self.repeat}")
                rounds.append(self.round(delay, image))
            rows += [self.summary(devices, delay, rounds) for devices in DEVICES]
        return rows

    def summary(self, devices, delay, rounds):
        pairs = [(round[devices]["tool"], round[devices]["floor"]) for round in rounds]
        return {
            "devices": devices,
            "acknowledge_us": delay,
            "packets_per_second": spread(self.packets / tool["wall"] for tool, _ in pairs),
            "of_floor": spread(floor["wall"] / tool["wall"] for tool, floor in pairs),
            "polls_per_packet": spread(tool["polls"] / self.packets for tool, _ in pairs),
            "floor_polls_per_packet": spread(floor["polls"] / self.packets for _, floor in pairs),
            "cpu_us_per_packet": spread(tool["cpu"] / self.packets * 1e6 for tool, _ in pairs),
            "cpu_to_floor": spread(tool["cpu"] / floor["cpu"] for tool, floor in pairs),
            **{f"{sender}_time_to_one_device": spread(round[devices][sender]["wall"] / round[1][sender]["wall"]
                                                      for round in rounds) for sender in ("tool", "floor")},
        }

    # ---- whole upgrades ----

    def upgrade(self, devices, image):
        """Of the tool as it is, from its start to its end."""
        bus = buses.write_bus(self.work, devices, 300)
        start = time.monotonic()
        run = subprocess.run([self.program("orvin-firmware-upgrade"), "-B", "-c", f"sim:{bus}", image],
                             stdout=subprocess.DEVNULL, check=False, timeout=TIMEOUT_S)
        if run.returncode != devices:
            raise RuntimeError(f"the upgrade of {devices} devices ended with {run.returncode}")
        return time.monotonic() - start

    def upgrades(self):
        image = buses.make_image(self.build, self.work, UPGRADE_PACKETS)
        rounds = []
        for number in range(self.repeat):
            progress(f"whole upgrades, round {number + 1} of {self.repeat}")
            rounds.append([self.upgrade(devices, image) for devices in (1, 63)])
        return {"one": spread(one for one, _ in rounds), "all": spread(all for _, all in rounds),
                "ratio": spread(all / one for one, all in rounds)}

    # ---- processes ----

    def run_measured(self, command, libraries="", status=0):
        run = subprocess.run([self.program("run-measured"), *command], stdout=subprocess.DEVNULL,
                             stderr=subprocess.PIPE, text=True, check=True, timeout=TIMEOUT_S,
                             env=dict(os.environ, LD_LIBRARY_PATH=libraries, LC_ALL="C"))
        measured = json.loads(run.stderr.rstrip().splitlines()[-1])
        if measured["status"] != status:
            raise RuntimeError(f"{command[0]} ended with {measured['status']}")
        return measured

    def binary(self, path, libraries):
        stripped = os.path.join(self.work, "stripped")
        subprocess.run(["strip", "-o", stripped, shutil.which(path)], check=True)
        loaded = subprocess.run(["ldd", shutil.which(path)], check=True, stdout=subprocess.PIPE, text=True,
                                env=dict(os.environ, LD_LIBRARY_PATH=libraries)).stdout
        return {"libraries": len(re.findall(r"=> /", loaded)), "stripped_bytes": os.path.getsize(stripped)}

    def processes(self):
        """Start-up of the tool, its peers and a C++ program in turns; the tool's with bus libraries that need nothing."""
        progress("start-up and listing")
        tool, instant = self.program("orvin-firmware-upgrade"), f"{self.build}/instant:{self.build}/lib"
        bus = buses.write_bus(self.work, 63, 300)
        commands = {"orvin-firmware-upgrade -v": ([tool, "-v"], instant)}
        commands.update((f"{peer} {option}", ([peer, option], "")) for peer, option in PEERS.items())
        commands[CPP_PROGRAM] = ([self.program("print-character")], "")
        runs = {name: [] for name in commands}
        for _ in range(50):
            for name, (command, libraries) in commands.items():
                runs[name].append(self.run_measured(command, libraries))
        commands[LISTING] = ([tool, "-l", "-c", f"sim:{bus}"], "")
        runs[LISTING] = [self.run_measured(*commands[LISTING]) for _ in range(5)]
        return [{"name": name, "cpu_us": spread(run["cpu_us"] for run in runs[name]),
                 "peak_kb": spread(run["peak_kb"] for run in runs[name]), **self.binary(command[0], libraries)}
                for name, (command, libraries) in commands.items()]

    def memory(self):
        """Peak memory with a bus library that keeps nothing, by the length of the image, in turns."""
        progress("memory")
        images = {name: buses.make_image(self.build, self.work, size // 64)
                  for name, size in {"small": 10_000, "large": 40_000_000}.items()}
        peaks = {name: [] for name in images}
        for _ in range(15):
            for name, image in images.items():
                command = ["setarch", "-R", self.program("orvin-firmware-upgrade"), "-B", "-c", "instant", image]
                peaks[name].append(self.run_measured(command, f"{self.build}/instant:{self.build}/lib", 1)["peak_kb"])
        return {"small_kb": spread(peaks["small"]), "large_kb": spread(peaks["large"]),
                "ratio": statistics.median(peaks["large"]) / statistics.median(peaks["small"])}

    def instructions(self):
        progress("instructions")
        return [{**instructions.measure(self.build, devices),
                 "floor": instructions.measure(self.build, devices, instructions.FLOOR)} for devices in DEVICES]

    def poll(self):
        runs = [json.loads(subprocess.run([self.program("poll-length")], check=True,
                                          stdout=subprocess.PIPE).stdout) for _ in range(5)]
        return {name: spread(run[name] for run in runs) for name in ("usual", "transfer")}


def progress(text):
    print(text, file=sys.stderr, flush=True)


def save(figures, path):
    with open(path, "w", encoding="utf-8") as file:
        json.dump(figures, file, indent=2)
        file.write("\n")


def spread(values):
    values = list(values)
    return {"median": statistics.median(values), "least": min(values), "most": max(values)}


def show(figures, form):
    return f"{figures['median']:{form}} ({figures['least']:{form}}-{figures['most']:{form}})"


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as cpuinfo:
        model = re.search(r"model name\s*: (.*)", cpuinfo.read())
    return {"processor": model.group(1) if model else platform.machine(), "cores": os.cpu_count(),
            "kernel": platform.release()}


def print_tables(results):
    print(f"{results['machine']['processor']}, {results['machine']['cores']} cores, Linux "
          f"{results['machine']['kernel']}; {results['packets']} packets, {results['repeat']} rounds: median "
          "(least-most)\n")
    print("| acknowledged after | devices | packets/s | of the floor's | polls/packet (floor's) | CPU us/packet "
          "| CPU, x the floor's | time, x that of 1 device (floor's) |\n|---|---|---|---|---|---|---|---|")
    for row in results["transfers"]:
        print(f"| {row['acknowledge_us'] / 1000:g} ms | {row['devices']} | {show(row['packets_per_second'], '.0f')} "
              f"| {show(row['of_floor'], '.3f')} | {row['polls_per_packet']['median']:.2f} "
              f"({row['floor_polls_per_packet']['median']:.2f}) | {show(row['cpu_us_per_packet'], '.0f')} "
              f"| {show(row['cpu_to_floor'], '.2f')} | {show(row['tool_time_to_one_device'], '.3f')} "
              f"({row['floor_time_to_one_device']['median']:.3f}) |")
    print("\n| devices | instructions/packet | x the floor's | identifier comparisons/packet "
          "| instructions for each further poll | x the floor's |\n|---|---|---|---|---|---|")
    for row in results["instructions"]:
        floor = row["floor"]
        print(f"| {row['devices']} | {row['packet']} | {row['packet'] / floor['packet']:.1f} | {row['comparisons']} "
              f"| {row['poll']} | {row['poll'] / floor['poll']:.1f} |")
    print("\n| process | CPU ms | peak memory kB | shared libraries | stripped bytes |\n|---|---|---|---|---|")
    peers = [row for row in results["processes"] if row["name"].split()[0] in PEERS]
    least = {figure: min(row[figure]["median"] for row in peers) for figure in ("cpu_us", "peak_kb")}
    smallest = min(row["stripped_bytes"] for row in peers)
    for row in results["processes"]:
        cpu = {name: value / 1000 for name, value in row["cpu_us"].items()}
        print(f"| `{row['name']}` | {show(cpu, '.2f')}, x {row['cpu_us']['median'] / least['cpu_us']:.2f} "
              f"| {show(row['peak_kb'], '.0f')}, x {row['peak_kb']['median'] / least['peak_kb']:.2f} "
              f"| {row['libraries']} | {row['stripped_bytes']}, x {row['stripped_bytes'] / smallest:.2f} |")
    print("\n(x: that of the least of the three other updaters)")
    upgrades, memory, poll = results["upgrades"], results["memory"], results["poll"]
    print(f"\nA poll of 1000 us takes {show(poll['usual'], '.0f')} us with the usual timer slack, "
          f"{show(poll['transfer'], '.0f')} us with that of a transfer.")
    print(f"\nA whole upgrade of {UPGRADE_PACKETS} packets takes {show(upgrades['one'], '.1f')} s with 1 device, "
          f"{show(upgrades['all'], '.1f')} s with 63: {show(upgrades['ratio'], '.2f')} times as long.")
    print(f"\nPeak memory is {show(memory['small_kb'], '.0f')} kB with an image of 10 kB, "
          f"{show(memory['large_kb'], '.0f')} kB with one of 40 MB: {memory['ratio']:.4f} times as much.")


def compiler():
    version = subprocess.run(["g++", "-dumpversion"], check=True, stdout=subprocess.PIPE, text=True).stdout
    return f"{platform.machine()}, g++ {version.strip()}"


def check(build, update):
    """Compares the instructions of a fixed transfer with the committed ones. No clock takes part in it."""
    measured = {"of": compiler(), "figures": [instructions.measure(build, devices) for devices in (1, 63)]}
    if update:
        save(measured, COMMITTED)
        return True
    with open(COMMITTED, encoding="utf-8") as file:
        committed = json.load(file)
    if committed["of"] != measured["of"]:
        print(f"Not comparable: the committed figures are of {committed['of']}, these of {measured['of']}")
        return False
    return all([compare(now, then, figure) for now, then in zip(measured["figures"], committed["figures"], strict=True)
                for figure in ("packet", "comparisons", "poll")])


def compare(now, then, figure):
    more = (now[figure] - then[figure]) / max(then[figure], 1)
    verdict = "too many" if more > MARGIN else "fewer: ./bench --update" if more < -MARGIN else "as before"
    print(f"{now['devices']} devices, {figure}: {now[figure]}, committed {then[figure]} ({more:+.1%}): {verdict}")
    return more <= MARGIN


def main():
    arguments = argparse.ArgumentParser()
    arguments.add_argument("build")
    arguments.add_argument("--packets", type=int, default=10_000)
    arguments.add_argument("--repeat", type=int, default=5)
    arguments.add_argument("--output", default="performance.json")
    arguments.add_argument("--check", action="store_true")
    arguments.add_argument("--update", action="store_true")
    chosen = arguments.parse_args()
    if chosen.check or chosen.update:
        return 0 if check(chosen.build, chosen.update) else 1
    with tempfile.TemporaryDirectory(prefix="orvin-bench-") as work:
        benchmark = Benchmark(chosen.build, chosen.packets, chosen.repeat, work)
        results = {"machine": machine(), "packets": chosen.packets, "repeat": chosen.repeat}
        for name, measure in (
                ("poll", benchmark.poll), ("memory", benchmark.memory), ("processes", benchmark.processes),
                ("instructions", benchmark.instructions), ("upgrades", benchmark.upgrades),
                ("transfers", benchmark.transfers)):
            results[name] = measure()
            save(results, chosen.output)
    print_tables(results)
    return 0


if __name__ == "__main__":
    sys.exit(main())
