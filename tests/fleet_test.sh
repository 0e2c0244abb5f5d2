#!/usr/bin/env bash
# Upgrades three simulated controllers on this machine with the playbook of the installed examples: with a changed
# image, with faults, and after the faults.
# Usage: fleet_test.sh BUILD-DIR
set -euo pipefail
build=$(cd "$1" && pwd)
work=$(mktemp -d /tmp/orvin-test-XXXXXX)
trap 'kill $(jobs -p) 2>/dev/null || true; flock --timeout 60 "$work/south/fleet/lock" true 2>/dev/null || true; rm -rf "$work"' EXIT
cp -r "$build/installed/share/doc/orvin-firmware-upgrade/examples/." "$work"
cd "$work/fleet"
export HOME=$work PATH=$build/installed/bin:$PATH

# Replaces ssh: each controller is this machine. The connection to south breaks once, when Orvins check images.
cat >ssh <<SH
#!/bin/sh
for command; do :; done
case \$* in *192.0.2.13*) ! grep -qs Verifying "$work/south/status" || ! mkdir "$work/lost" 2>/dev/null || exit 255 ;; esac
exec sh -c "\$command"
SH
chmod +x ssh
cat >site.yml <<YAML
controllers:
  vars:
    ansible_ssh_executable: $work/fleet/ssh
    ansible_ssh_transfer_method: piped
    orvin_key: $work/image.pub
    orvin_directory: "$work/{{ inventory_hostname }}/fleet"
    orvin_status_file: "$work/{{ inventory_hostname }}/status"
    orvin_environment:
      PATH: $PATH
      LD_LIBRARY_PATH: $build/tests/brief-waits:$build/installed/lib/orvin-firmware-upgrade-sim
    orvin_arguments: [-c, "sim:$work/{{ inventory_hostname }}/bus.json"]
YAML
mkdir images "$work"/{north,east,south}
orvin-image create images/arm.img --target arm --version 0x10300 --size 6400
orvin-image create images/dsp.img --target dsp --version 0x10200 --size 640
minisign -G -W -p "$work/image.pub" -s image.key >/dev/null
minisign -S -s image.key -m images/*.img

bus() { # CONTROLLER BUS-FIELDS MEMBER...
    local fields=$2 file=$work/$1/bus.json
    shift 2
    (IFS=,; echo "{$fields \"members\": [$*]}") >"$file"
}

orvin() { # NUMBER [FAULTS]
    echo "{\"id\": \"0a:00:00:00:00:00:00:00:00:00:00:00:00:00:00:00:$1\", \"type\": 64, \"name\": \"Room $1\",
           \"versions\": {\"hw\": 3, \"arm\": \"0x10200\", \"dsp\": \"0x10100\"}, \"faults\": {${2:-}},
           \"timing\": {\"install_ms\": 10, \"restart_ms\": 10}}"
}

# Runs the playbook and expects it to end with STATUS.
play() { # STATUS OPTION...
    local expected=$1 status=0
    shift
    ansible-playbook -i inventory.yml -i site.yml upgrade.yml "$@" >output 2>&1 || status=$?
    echo "== $*"
    cat output
    [ "$status" -eq "$expected" ] || { echo "status $status instead of $expected"; exit 1; }
}

expect() { # REGULAR-EXPRESSION, of the output in one line
    tr -s ' \t\n' ' ' <output | grep -qE -- "$1" || { echo "missing: $1"; exit 1; }
}

bus north '' "$(orvin 11)" "$(orvin 12)"
bus east '' "$(orvin 11)" "$(orvin 12 '"keeps_old_version": "always"')" "$(orvin 13)"
bus south '"link": {"active_after_ms": 1000000},' "$(orvin 11)"

# One byte of an image was changed: the first controller stops before anything is sent, and no other begins.
cp images/dsp.img signed.img
printf '\377' | dd of=images/dsp.img bs=1 seek=200 conv=notrunc status=none
play 2
expect '"Verify the signatures".*dsp.img is not signed with the key .*, or was changed'
expect 'east: \{ "Orvins": "not begun"\} north: \{ "Orvins": "stopped before the upgrade"\} south: .*"not begun"'
[ ! -e "$work/north/status" ]
cp signed.img images/dsp.img

# One device keeps its old firmware, and one bus never becomes active: these controllers fail, the first does not.
play 2
expect 'fatal: \[south\]: FAILED! => \{ "changed": false, "msg": \[ "List the bus members", .* "Bus not ACTIVE, exiting." \]'
expect 'The following Orvin could not be upgraded: .*"not new: [0-9a-f:]*:12 \(hw:00000003, arm:00010200,.*Room 12'
expect 'north: \{ "Orvins": \{ "missing": \[\], "new": "2", "not new": \[\], "status": "2" \}\} south: .*"stopped before the upgrade"'

# The faults are gone, but an expected device is missing. Half of a batch fails, so no other batch begins.
bus east '' "$(orvin 11)" "$(orvin 12)"
cp "$work/east/bus.json" before.json
play 2 --check -e '{"orvin_batches": [2]}'
expect 'fatal: \[east\].*"missing: [0-9a-f:]*:13 .*Room 13'
expect '"missing": \[ "[0-9a-f:]*:13 [^"]*" \], "new": "0", "not new": \[ "[^"]*:11 [^"]*", "[^"]*:12 [^"]*" \], "status": "2"'
expect 'south: \{ "Orvins": "not begun"'
cmp "$work/east/bus.json" before.json

# The device is back. An upgrade continues without a connection, and in the end all devices are new.
bus east '' "$(orvin 11)" "$(orvin 12)" "$(orvin 13)"
bus south '' "$(orvin 11 '"check": {"calls": [1], "result": 0, "answer": [1, 1], "carried_out": true, "takes_us": 40000000}')"
play 0 -e orvin_record=true
expect '"The connection is lost'
expect '"msg": "Verifying uploaded firmware image..."'
expect 'east : ok=[0-9]* changed=1 .* north : ok=[0-9]* changed=0 .* south : ok=[0-9]* changed=1'
expect 'east: \{ "Orvins": \{ "missing": \[\], "new": "3", "not new": \[\], .* north: .*"new": "2".* south: .*"new": "1"'
grep -q TalmApiClose recordings/south.jsonl

# Nothing changes, and no upgrade begins on a controller where another one is running.
flock --no-fork "$work/south/fleet/lock" sleep 1000 &
play 2
expect 'fatal: \[south\].*"An upgrade is running on this controller'
expect 'east : ok=[0-9]* changed=0 .* north : ok=[0-9]* changed=0 .* "stopped before the upgrade"'
