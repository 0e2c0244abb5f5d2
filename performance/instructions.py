"""Instructions that the tool or the floor executes in a transfer, counted by callgrind in virtual time.

No clock takes part. On every run of the same build they are the same to half a per cent: where the programs stand
and how long their paths are moves a little of it. The bus libraries' share is left out: what the calls into them
cost is taken off, and what their callbacks cost in the program is added again.
"""

import os
import re
import subprocess
import tempfile

import buses

TOOL, FLOOR = "orvin-firmware-upgrade", "floor-transfer"
PACKETS = (100, 400)  # the difference leaves out everything but the packets
ONE_POLL_US = 300
TEN_POLLS_MORE_US = 10_300  # of the last device: each further poll walks past all others


def is_bus_library(name):
    return "libtalm-api-v2" in name or "libvanid" in name


def is_program(name):
    return name.endswith((f"/{TOOL}", f"/{FLOOR}"))


def program_instructions(profile):
    """Of a callgrind profile, which has costs by object, and for each call the inclusive cost of the callee.

    Also how often the identifier library was called.
    """
    names = {}

    def resolve(text):
        number, name = re.fullmatch(r"\((\d+)\)(?: (.*))?", text).groups()
        return names.setdefault(number, name)

    total = comparisons = 0
    caller = callee = None
    is_call = False
    for line in profile:
        line = line.rstrip("\n")
        if line.startswith("ob="):
            caller = callee = resolve(line[3:])
        elif line.startswith("cob="):
            callee = resolve(line[4:])
        elif line.startswith("calls="):
            is_call = True
            if "libvanid" in callee and "libvanid" not in caller:
                comparisons += int(line[len("calls="):].split()[0])
        elif re.match(r"[-+*\d]", line):
            cost = int(line.split()[1])
            if not is_call:
                total += cost
            elif is_bus_library(callee) and not is_bus_library(caller):
                total -= cost
            elif is_program(callee) and is_bus_library(caller):
                total += cost
            callee = caller
            is_call = False
    return total, comparisons


def count(build, program, devices, packets, last_acknowledges_us):
    with tempfile.TemporaryDirectory(prefix="orvin-bench-") as work:
        bus = buses.write_bus(work, devices, ONE_POLL_US, last_acknowledges_us)
        image = buses.make_image(build, work, packets)
        profile = os.path.join(work, "profile")
        libraries = f"{build}/virtual-time:{build}/lib"
        arguments, status = {TOOL: (["-B", "-c", f"sim:{bus}", image], devices), FLOOR: ([image, bus], 0)}[program]
        run = subprocess.run(
            ["valgrind", "-q", "--tool=callgrind", f"--callgrind-out-file={profile}", f"{build}/bin/{program}",
             *arguments],
            env={"LD_LIBRARY_PATH": libraries, "LC_ALL": "C", "PATH": os.environ["PATH"]},
            stdout=subprocess.DEVNULL, check=False)
        if run.returncode != status:
            raise RuntimeError(f"{program} with {devices} devices ended with {run.returncode}")
        with open(profile, encoding="utf-8", errors="replace") as lines:
            return program_instructions(lines)


def per_packet(build, program, devices, last_acknowledges_us):
    few, many = (count(build, program, devices, packets, last_acknowledges_us) for packets in PACKETS)
    return [(more - less) / (PACKETS[1] - PACKETS[0]) for less, more in zip(few, many)]


def measure(build, devices, program=TOOL):
    """The instructions for a packet that is acknowledged at the first poll, and for each further poll."""
    one_poll, comparisons = per_packet(build, program, devices, ONE_POLL_US)
    more_polls, _ = per_packet(build, program, devices, TEN_POLLS_MORE_US)
    return {"devices": devices, "packet": round(one_poll), "poll": round((more_polls - one_poll) / 10),
            "comparisons": round(comparisons)}
