"""The buses and images that are measured with."""

import json
import os
import subprocess


def write_bus(directory, devices, acknowledge_us, last_acknowledges_us=None):
    members = [{
        "id": ":".join(["0a"] + 15 * ["00"] + [f"{number:02x}"]),
        "type": 64,
        "versions": {"arm": 1},
        "timing": {"acknowledge_us": acknowledge_us, "install_ms": 1, "restart_ms": 1},
    } for number in range(1, devices + 1)]
    if last_acknowledges_us is not None:
        members[-1]["timing"]["acknowledge_us"] = last_acknowledges_us
    path = os.path.join(directory, f"bus-{devices}-{acknowledge_us}.json")
    with open(path, "w", encoding="utf-8") as file:
        json.dump({"members": members}, file)
    return path


def make_image(build, directory, packets):
    path = os.path.join(directory, f"{packets}.img")
    subprocess.run([f"{build}/bin/orvin-image", "create", path, "--target", "arm", "--version", "2",
                    "--size", str(64 * packets)], check=True)
    return path
