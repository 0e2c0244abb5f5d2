#!/usr/bin/env bash
# Kills the installed tool at random moments of an upgrade: the status file then holds a whole message or
# is not there, the bus file is whole, and the next run completes the upgrade.
# Usage: kill_test.sh PREFIX [TIMES [AT-ONCE]]
set -u
prefix=$(cd "$1" && pwd) || exit 1
times=${2:-6}
at_once=${3:-$times}
export LC_ALL=C LD_LIBRARY_PATH=$prefix/lib/orvin-firmware-upgrade-sim PATH=$prefix/bin:$PATH
work=$(mktemp -d /tmp/orvin-test-XXXXXX)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
orvin-image create arm.img --target arm --version 2 --size 64000
orvin-image create dsp.img --target dsp --version 2 --size 6400

known='^(Waiting for Lumnet bus to become active\.\.\.|Orvin firmware upgrade in progress\. Uploading Pellix (ARM|DSP) firmware, [0-9]+% completed\.\.\.|Verifying uploaded firmware image\.\.\.|Please wait\.\.\.|Installing Orvin firmware: [0-9] / 2 completed)$'

one() { # NUMBER
    mkdir "$1" && cd "$1" || exit 1
    local id='0a:00:00:00:00:00:00:00:00:00:00:00:00:00:00:00:0'
    local rest='"type": 64, "versions": {"arm": 1, "dsp": 1}, "timing": {"install_ms": 500, "restart_ms": 500}'
    echo "{\"members\": [{\"id\": \"${id}1\", $rest}, {\"id\": \"${id}2\", $rest}]}" >bus.json
    local milliseconds=$((RANDOM % 22000)) # an upgrade takes longer
    local seconds
    seconds=$(printf '%d.%03d' $((milliseconds / 1000)) $((milliseconds % 1000)))
    (exec orvin-firmware-upgrade -B -c sim:bus.json -m status ../arm.img ../dsp.img >console 2>&1) &
    sleep "$seconds"
    kill -KILL $! 2>/dev/null
    wait $! 2>/dev/null
    [ $? -eq 137 ] || echo "$1: not killed after $milliseconds ms, it had ended"
    if [ -e status ] && ! [[ $(cat status) =~ $known ]]; then
        echo "$1: status file after $milliseconds ms: $(cat status)"
    fi
    local listing
    listing=$(orvin-firmware-upgrade -l -c sim:bus.json) || echo "$1: bus file broken"
    [ "$(grep -c Pellix <<<"$listing")" -eq 2 ] || echo "$1: devices lost"
    orvin-firmware-upgrade -B -c sim:bus.json ../arm.img ../dsp.img >again 2>&1
    local status=$?
    [ "$status" -le 2 ] || echo "$1: the next run ends with $status"
    [ "$(grep -cE '"(arm|dsp)": "0x00000002"' bus.json)" -eq 4 ] ||
        echo "$1: not upgraded after a kill at $milliseconds ms"
}

for ((started = 0; started < times; ++started)); do
    while [ "$(jobs -rp | wc -l)" -ge "$at_once" ]; do
        wait -n
    done
    (one "$started") >>findings 2>&1 &
done
wait
cat findings
echo "$times kills, $(grep -c . findings) findings"
[ ! -s findings ]
