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
PEERS = {"dfu-util": ["--version"], "stm32flash": ["-h"], "avrdude": ["-?"]}
COMMITTED = os.path.join(os.path.dirname(os.path.abspath(__file__)), "instructions.json")
MARGIN = 0.10


class Benchmark:
    def __init__(self, build, packets, repeat, work):
        self.build, self.packets, self.repeat, self.work = build, packets, repeat, work

    def program(self, name):
        return f"{self.build}/bin/{name}"

    def progress(self, text):
        print(text, file=sys.stderr, flush=True)

    # ---- transfers ----

    def send(self, bus, image, sender):
        run = subprocess.run([self.program("transfer-benchmark"), bus, image, sender], check=True,
                             stdout=subprocess.PIPE)
        return json.loads(run.stdout)

    def transfer(self, devices, acknowledge_us, image):
        """Pairs of a transfer by the tool and one by the floor, the order changing from pair to pair."""
        bus = buses.write_bus(self.work, devices, acknowledge_us)
        runs = {"tool": [], "floor": []}
        for pair in range(self.repeat):
            self.progress(f"{devices} devices, {acknowledge_us} us, pair {pair + 1} of {self.repeat}")
            for sender in ("tool", "floor") if pair % 2 == 0 else ("floor", "tool"):
                runs[sender].append(self.send(bus, image, sender))
        pairs = list(zip(runs["tool"], runs["floor"]))
        return {
            "devices": devices,
            "acknowledge_us": acknowledge_us,
            "seconds": spread(tool["wall"] for tool in runs["tool"]),
            "packets_per_second": spread(self.packets / tool["wall"] for tool in runs["tool"]),
            "of_floor": spread(floor["wall"] / tool["wall"] for tool, floor in pairs),
            "cpu_us_per_packet": spread(tool["cpu"] / self.packets * 1e6 for tool in runs["tool"]),
            "cpu_to_floor": spread(tool["cpu"] / floor["cpu"] for tool, floor in pairs),
        }

    def transfers(self):
        image = buses.make_image(self.build, self.work, self.packets)
        rows = [self.transfer(devices, delay, image) for delay in ACKNOWLEDGE_US for devices in DEVICES]
        for row in rows:
            one = next(r for r in rows if r["devices"] == 1 and r["acknowledge_us"] == row["acknowledge_us"])
            row["time_to_one_device"] = row["seconds"]["median"] / one["seconds"]["median"]
        return rows

    # ---- whole upgrades ----

    def upgrades(self):
        """Of the tool as it is, from its start to its end."""
        seconds = {}
        image = buses.make_image(self.build, self.work, self.packets)
        for devices in (1, 63):
            self.progress(f"upgrade of {devices} devices")
            bus = buses.write_bus(self.work, devices, 300)
            start = time.monotonic()
            run = subprocess.run([self.program("orvin-firmware-upgrade"), "-B", "-c", f"sim:{bus}", image],
                                 stdout=subprocess.DEVNULL, check=False)
            if run.returncode != devices:
                raise RuntimeError(f"the upgrade of {devices} devices ended with {run.returncode}")
            seconds[devices] = time.monotonic() - start
        return {"one": seconds[1], "all": seconds[63], "ratio": seconds[63] / seconds[1]}

    # ---- processes ----

    def run_measured(self, command, libraries):
        run = subprocess.run([self.program("run-measured"), *command], stdout=subprocess.DEVNULL,
                             stderr=subprocess.PIPE, text=True, check=True,
                             env=dict(os.environ, LD_LIBRARY_PATH=libraries, LC_ALL="C"))
        return json.loads(run.stderr.rstrip().splitlines()[-1])

    def process(self, name, command, times, libraries=""):
        self.progress(name)
        runs = [self.run_measured(command, libraries) for _ in range(times)]
        return {"name": name, "cpu_us": spread(run["cpu_us"] for run in runs),
                "peak_kb": spread(run["peak_kb"] for run in runs), **self.binary(command[0], libraries)}

    def binary(self, path, libraries):
        stripped = os.path.join(self.work, "stripped")
        subprocess.run(["strip", "-o", stripped, shutil.which(path)], check=True)
        loaded = subprocess.run(["ldd", shutil.which(path)], check=True, stdout=subprocess.PIPE, text=True,
                                env=dict(os.environ, LD_LIBRARY_PATH=libraries)).stdout
        return {"libraries": len(re.findall(r"=> /", loaded)), "stripped_bytes": os.path.getsize(stripped)}

    def processes(self):
        tool = self.program("orvin-firmware-upgrade")
        bus = buses.write_bus(self.work, 63, 300)
        libraries = f"{self.build}/lib"
        return [
            self.process("orvin-firmware-upgrade -v", [tool, "-v"], 50, libraries),
            self.process("orvin-firmware-upgrade -l, 63 members", [tool, "-l", "-c", f"sim:{bus}"], 5, libraries),
            *(self.process(f"{peer} {' '.join(arguments)}", [peer, *arguments], 50)
              for peer, arguments in PEERS.items()),
        ]

    def memory(self):
        """Peak memory with a bus library that keeps nothing, by the length of the image."""
        peaks = {}
        for size in (10_000, 40_000_000):
            image = buses.make_image(self.build, self.work, size // 64)
            runs = [self.run_measured([self.program("orvin-firmware-upgrade"), "-B", "-c", "instant", image],
                                      f"{self.build}/instant:{self.build}/lib") for _ in range(5)]
            if any(run["status"] != 1 for run in runs):
                raise RuntimeError("the instant upgrade failed")
            peaks[size] = statistics.median(run["peak_kb"] for run in runs)
        return {"small_kb": peaks[10_000], "large_kb": peaks[40_000_000],
                "ratio": peaks[40_000_000] / peaks[10_000]}

    def poll(self):
        runs = [json.loads(subprocess.run([self.program("poll-length")], check=True,
                                          stdout=subprocess.PIPE).stdout) for _ in range(5)]
        return {name: spread(run[name] for run in runs) for name in ("usual", "transfer")}


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
          f"{results['machine']['kernel']}; {results['packets']} packets, {results['repeat']} pairs: median "
          "(least-most)\n")
    print("| acknowledged after | devices | packets/s | of the floor | CPU us/packet | CPU to the floor | "
          "time to 1 device |\n|---|---|---|---|---|---|---|")
    for row in results["transfers"]:
        print(f"| {row['acknowledge_us'] / 1000:g} ms | {row['devices']} | {show(row['packets_per_second'], '.0f')} "
              f"| {show(row['of_floor'], '.3f')} | {show(row['cpu_us_per_packet'], '.0f')} "
              f"| {show(row['cpu_to_floor'], '.2f')} | {row['time_to_one_device']:.3f} |")
    print("\n| devices | instructions/packet | instructions/poll more |\n|---|---|---|")
    for row in results["instructions"]:
        print(f"| {row['devices']} | {row['packet']} | {row['poll']} |")
    print("\n| process | CPU ms | peak memory kB | shared libraries | stripped bytes |\n|---|---|---|---|---|")
    for row in results["processes"]:
        cpu = {name: value / 1000 for name, value in row["cpu_us"].items()}
        print(f"| `{row['name']}` | {show(cpu, '.2f')} | {row['peak_kb']['median']:.0f} | {row['libraries']} "
              f"| {row['stripped_bytes']} |")
    upgrades, memory, poll = results["upgrades"], results["memory"], results["poll"]
    print(f"\nA poll of 1000 us takes {show(poll['usual'], '.0f')} us with the usual timer slack, "
          f"{show(poll['transfer'], '.0f')} us with that of a transfer.")
    print(f"A whole upgrade takes {upgrades['one']:.1f} s with 1 device, {upgrades['all']:.1f} s with 63: "
          f"{upgrades['ratio']:.2f} times as long.")
    print(f"Peak memory is {memory['small_kb']:.0f} kB with an image of 10 kB, {memory['large_kb']:.0f} kB with one "
          f"of 40 MB: {memory['ratio']:.4f} times as much.")


def check(build, update):
    """Compares the instructions of a fixed transfer with the committed ones. No clock takes part in it."""
    measured = [instructions.measure(build, devices) for devices in (1, 63)]
    if update:
        with open(COMMITTED, "w", encoding="utf-8") as file:
            json.dump(measured, file, indent=2)
            file.write("\n")
        return True
    with open(COMMITTED, encoding="utf-8") as file:
        committed = json.load(file)
    good = True
    for now, then in zip(measured, committed, strict=True):
        for figure in ("packet", "poll"):
            more = now[figure] / then[figure] - 1
            verdict = "too many" if more > MARGIN else "fewer: ./bench --update" if more < -MARGIN else "as before"
            print(f"{now['devices']} devices, instructions for each {figure}: {now[figure]}, committed "
                  f"{then[figure]} ({more:+.1%}): {verdict}")
            good = good and more <= MARGIN
    return good


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
        results = {"machine": machine(), "packets": chosen.packets, "repeat": chosen.repeat,
                   "poll": benchmark.poll(), "memory": benchmark.memory(), "processes": benchmark.processes(),
                   "instructions": [instructions.measure(chosen.build, devices) for devices in DEVICES],
                   "upgrades": benchmark.upgrades(), "transfers": benchmark.transfers()}
    with open(chosen.output, "w", encoding="utf-8") as file:
        json.dump(results, file, indent=2)
        file.write("\n")
    print_tables(results)
    return 0


if __name__ == "__main__":
    sys.exit(main())
