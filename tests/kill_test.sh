#!/usr/bin/env bash
# Kills the installed tool at random moments of a recorded upgrade. Then the status file is complete or missing,
# the bus file and each line of the recording are complete, and the next run completes the upgrade.
# Usage: kill_test.sh BUILD-DIR [TIMES [AT-ONCE]]
set -u
build=$(cd "$1" && pwd) || exit 1
times=${2:-20}
at_once=${3:-$times}
export LC_ALL=C PATH=$build/installed/bin:$PATH
export LD_LIBRARY_PATH=$build/tests/brief-waits:$build/installed/lib/orvin-firmware-upgrade-sim
work=$(mktemp -d /tmp/orvin-test-XXXXXX)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
orvin-image create arm.img --target arm --version 2 --size 640
orvin-image create dsp.img --target dsp --version 2 --size 640
id='0a:00:00:00:00:00:00:00:00:00:00:00:00:00:00:00:0'
rest='"type": 64, "versions": {"arm": 1, "dsp": 1}, "timing": {"install_ms": 10, "restart_ms": 10}'
echo "{\"members\": [{\"id\": \"${id}1\", $rest}, {\"id\": \"${id}2\", $rest}]}" >new.json

known='^(Waiting for Lumnet bus to become active\.\.\.|Orvin firmware upgrade in progress\. Uploading Pellix (ARM|DSP) firmware, [0-9]+% completed\.\.\.|Verifying uploaded firmware image\.\.\.|Please wait\.\.\.|Installing Orvin firmware: [0-9] / 2 completed)$'

kill_after() { # LINES, of the recording
    cp ../new.json bus.json
    rm -f status
    : >recording
    orvin-record recording orvin-firmware-upgrade -B -c sim:bus.json -m status ../arm.img ../dsp.img >console 2>&1 &
    while kill -0 $! && [ "$(wc -l <recording)" -lt "$1" ]; do sleep 0.01; done
    kill -KILL $!
    wait $!
    [ $? -eq 137 ]
} 2>/dev/null

one() { # NUMBER
    mkdir "$1" && cd "$1" || exit 1
    local lines=$((RANDOM % 100)) listing # lines of the recording; an upgrade has about 100
    until kill_after "$lines"; do lines=$((lines / 2)); done # again, where the upgrade had ended before
    [ ! -e status ] || [[ $(cat status) =~ $known ]] || echo "$1: after $lines lines, status file: $(cat status)"
    grep -vq '^{.*}$' recording && echo "$1: after $lines lines, recording broken"
    listing=$(orvin-firmware-upgrade -l -c sim:bus.json) || echo "$1: after $lines lines, bus file broken"
    [ "$(grep -c Pellix <<<"$listing")" -eq 2 ] || echo "$1: after $lines lines, devices lost"
    orvin-firmware-upgrade -B -c sim:bus.json ../arm.img ../dsp.img >again 2>&1
    [ $? -le 2 ] || echo "$1: after $lines lines, the next run failed: $(tail -n 5 again)"
    [ "$(grep -cE '"(arm|dsp)": "0x00000002"' bus.json)" -eq 4 ] || echo "$1: after $lines lines, not upgraded"
}

for ((started = 0; started < times; ++started)); do
    while [ "$(jobs -rp | wc -l)" -ge "$at_once" ]; do wait -n; done
    (one "$started") >>findings 2>&1 &
done
wait
cat findings
echo "$times kills, $(grep -c . findings) findings"
[ ! -s findings ]
