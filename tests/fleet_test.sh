#!/usr/bin/env bash
# Upgrades simulated controllers on this machine with the installed orvin-signed-upgrade, alone and with the playbook.
# Usage: fleet_test.sh BUILD-DIR
set -euo pipefail
build=$(cd "$1" && pwd)
work=$(mktemp -d /tmp/orvin-test-XXXXXX)
trap 'kill $(jobs -p) 2>/dev/null || true; flock --timeout 60 "$work/south/state/lock" true 2>/dev/null || true; rm -rf "$work"' EXIT
cp -r "$build/installed/share/doc/orvin-signed-upgrade/examples" "$work"
cd "$work"
export HOME=$work PATH=$work/bin:$build/installed/bin:$PATH
export LD_LIBRARY_PATH=$build/tests/brief-waits:$build/installed/lib/orvin-firmware-upgrade-sim

expect() { # REGULAR-EXPRESSION, of the output in one line
    tr -s ' \t\n' ' ' <output | grep -qE -- "$1" || { echo "missing: $1"; exit 1; }
}

run() { # STATUS COMMAND...
    local expected=$1 status=0
    shift
    echo "== $*"
    timeout 300 "$@" >output 2>&1 || status=$?
    cat output
    [ "$status" -eq "$expected" ] || { echo "status $status instead of $expected"; exit 1; }
}

alone=(orvin-signed-upgrade --key images.pub --directory north/state --connection sim:north/bus.json)
expect_refusal() { # WHAT IMAGE...
    run 3 "${alone[@]}" -- "${@:2}"
    expect "nothing is upgraded: .*$1"
}

release() { # SERIAL UNTIL: new images
    rm -f images/*
    orvin-image create images/arm.img --target arm --version "$1.0.0" --size 6400
    orvin-image create images/dsp.img --target dsp --version "$1.0.0" --size 640
    examples/fleet/sign-images images.key "$1" "$2" images/*.img >/dev/null
}

bus() { # CONTROLLER BUS-FIELDS MEMBER...
    (IFS=,; echo "{$2 \"members\": [${*:3}]}") >"$1/bus.json"
}

orvin() { # NUMBER [FAULTS]
    echo "{\"id\": \"0a:00:00:00:00:00:00:00:00:00:00:00:00:00:00:00:$1\", \"type\": 64, \"name\": \"Room $1\",
           \"versions\": {\"arm\": \"0x10200\", \"dsp\": \"0x10100\"}, \"faults\": {${2:-}},
           \"timing\": {\"check_ms\": 500, \"install_ms\": 10, \"restart_ms\": 10}}"
}

run 0 examples/fleet/rehearse .
expect 'east: \{ "Orvins": "2 new \(2 updated\)"\} north: \{ "Orvins": "2 new \(2 updated\)"\} south: '
# No other user can take the lock, or see what is kept.
chmod 755 .
[ "$(stat -c %a north/state)" = 700 ]
other_user=(setpriv --reuid=65534 --regid=65534 --clear-groups)
if [ "$(id -u)" -eq 0 ] && "${other_user[@]}" flock --nonblock north/state/lock true; then
    exit 1
fi

# After the verification, an attacker renames another image over a verified one.
export ODD="- \"{{ 1 }}\" \$(x).img"
mkdir bin odd
cat >bin/minisign <<'SH'
#!/bin/sh
/usr/bin/minisign "$@" || exit
[ ! -e "$HOME/attack" ] || mv "$HOME/attack" "$HOME/odd/$ODD"
SH
chmod +x bin/minisign
release 2 2099-12-31
mv images/arm.img "odd/$ODD"
examples/fleet/sign-images images.key 2 2099-12-31 odd/*.img >/dev/null
orvin-image create attack --target arm --version 66.6.6 --size 6400
(cd odd && run 0 orvin-signed-upgrade --key ../images.pub --directory ../north/state --connection sim:../north/bus.json -- -*.img)
[ ! -e attack ]
[ "$(grep -c '"arm": "0x00020000"' north/bus.json)" -eq 2 ]

# What may not be installed. A pipe in place of an image does not block.
cp north/bus.json before.json
release 1 2099-12-31
expect_refusal 'serial 1 is older than 2' images/*.img
mv images/dsp.img images/renamed.img
mv images/dsp.img.minisig images/renamed.img.minisig
expect_refusal 'renamed.img was signed as dsp.img' images/renamed.img
release 3 2026-01-02
expect_refusal 'arm.img may be installed until 2026-01-02 only' images/arm.img
python3 -c "import sys; sys.path.append('$build/installed/share/orvin-signed-upgrade')
from datetime import date; from orvin_signed_upgrade import images; import os; os.mkdir('unset')
images.take(['images/arm.img'], 'images.pub', 'unset', 0, date(1970, 1, 1))" >output
expect 'the clock says 1970-01-01, so the date of arm.img is not checked'
examples/fleet/sign-images images.key 4 2099-12-31 images/arm.img >/dev/null
examples/fleet/sign-images images.key 3 2099-12-31 images/dsp.img >/dev/null
expect_refusal 'different releases: arm.img has serial 4, dsp.img has serial 3' images/arm.img images/dsp.img
printf '\377' | dd of=images/arm.img bs=1 seek=200 conv=notrunc status=none
expect_refusal 'arm.img is not signed with the key' images/arm.img
mkfifo pipe
expect_refusal 'not a regular file' pipe
cmp north/bus.json before.json

# One device fails in the ARM image, which is longer than the other one, and all get the DSP image. A service manager and
# metrics hear of it.
fails='"fault_result": [{"at": 50, "result": 3}]'
bus north '' "$(orvin 11)" "$(orvin 12 "$fails")"
release 5 2099-12-31
python3 -c "import os, socket
hears = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM); hears.bind('notify'); hears.settimeout(60)
while 'not new' not in (heard := hears.recv(4096).decode()): print(heard, flush=True)" >heard &
until [ -e notify ]; do sleep 0.1; done
NOTIFY_SOCKET=$work/notify run 1 "${alone[@]}" --metrics metrics.prom images/*.img
wait $!
expect '1 new \(2 updated\); 1 not new: [0-9a-f:]*:12 Room 12 \(arm.img transfer\) $'
grep -q 'STATUS=Verifying uploaded firmware image...' heard
promtool check metrics <metrics.prom
grep -q 'devices{state="failed"} 1' metrics.prom
[ "$(cat north/state/serial)" = 5 ]
python3 -c "import json; report = json.load(open('north/state/report.json'))
print([[entry['state'], entry['sent'], entry['failed']] for entry in report['devices'][1]['images']])" >output
expect "\['old', True, 'transfer'\], \['new', True, None\]"

# The playbook. The first controller stops before anything is sent, and no other begins.
unit=$(sed -n "s|^ExecStart=/bin/sh -c '\(.*\)'|\1|p" examples/orvin-signed-upgrade.service)
systemd-analyze verify --man=no examples/orvin-signed-upgrade.service
cat >ssh <<SH
#!/bin/sh
# The connection to south breaks once, during an upgrade. At this moment the unit is started.
for command; do :; done
case \$* in
*192.0.2.13*)
    if grep -qs 'retransmitted' "$work/south/state/console" && mkdir "$work/lost" 2>/dev/null; then
        sh -c '${unit/orvin-signed-upgrade/orvin-signed-upgrade --directory "$work/south/state"}'
        echo \$? >"$work/unit-status"
        exit 255
    fi ;;
esac
exec sh -c "\$command"
SH
rm south/state/console
sed -i 's/    south:/    south: {ansible_host: 192.0.2.13}/' inventory.yml
bus east '' "$(orvin 11)" "$(orvin 12 "$fails")" "$(orvin 13)"
bus south '"link": {"active_after_ms": 1000000},' "$(orvin 11)"
printf '\377' | dd of=images/dsp.img bs=1 seek=200 conv=notrunc status=none
run 2 ./play
expect 'east: \{ "Orvins": "not begun"\} north: \{ "Orvins": "nothing is upgraded: dsp.img is not signed .*"\} south: .*"not begun"'

# One device keeps its old firmware, and one bus never becomes active: these controllers fail, the first does not.
release 5 2099-12-31
bus north '' "$(orvin 11)" "$(orvin 12)"
run 2 ./play
expect 'east: \{ "Orvins": "2 new \(3 updated\); 1 not new: [0-9a-f:]*:12 Room 12 \(arm.img transfer\)"\}'
expect 'north: \{ "Orvins": "2 new \(2 updated\)"\} south: \{ "Orvins": "the bus was not listed, .* Bus not ACTIVE, exiting."\}'

# The faults are gone, but an expected device is missing. Half of a batch fails, so no other batch begins.
bus east '' "$(orvin 11)" "$(orvin 12)"
cp east/bus.json before.json
run 2 ./play --check -e '{"orvin_batches": [2]}'
expect 'east: \{ "Orvins": "0 new, 2 would be updated; 1 missing: [0-9a-f:]*:13 Room 13"\}.* south: .*"not begun"'
cmp east/bus.json before.json

# The device is back. An upgrade continues without a connection, and in the end all devices are new. Meanwhile the unit
# begins no upgrade.
bus east '' "$(orvin 11)" "$(orvin 12)" "$(orvin 13)"
bus south '' "$(orvin 11 '"check": {"calls": [1], "result": 0, "answer": [1, 1], "carried_out": true, "takes_us": 8000000}')"
run 0 ./play -e orvin_record=true
[ "$(cat unit-status)" = 4 ]
expect 'east : ok=[0-9]* changed=1 .* north : ok=[0-9]* changed=0 .* south : ok=[0-9]* changed=1'
expect 'east: \{ "Orvins": "3 new \(3 updated\)"\} north: \{ "Orvins": "2 new \(0 updated\)"\} south: \{ "Orvins": "1 new'
grep -q TalmApiClose recordings/south.jsonl
python3 -c "import json; print(*(len(entry['devices']) for entry in json.load(open('report.json')).values()))" >output
expect '^3 2 1 $'

# No upgrade begins on a controller where another one is running.
flock --no-fork south/state/lock sleep 1000 &
run 2 ./play
expect 'fatal: \[south\].*another upgrade is running'
expect 'east : ok=[0-9]* changed=0 .* south: \{ "Orvins": "Stop where the upgrade did not begin: '
