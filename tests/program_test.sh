#!/usr/bin/env bash
# Tests the installed programs. Usage: program_test.sh BUILD-DIR VERSION POINTER-BYTES TEST, which is one of the
# functions here.
# shellcheck disable=SC2016,SC2317  # `expect` has a shell of its own expand variables; the functions are called by name
set -u
build=$(cd "$1" && pwd) version=$2 pointer_bytes=$3 failed=0
prefix=$build/installed
work=$(mktemp -d /tmp/orvin-test-XXXXXX)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
export PATH=$prefix/bin:$PATH LC_ALL=C TEXTDOMAINDIR=/nowhere
export LD_LIBRARY_PATH=$build/tests/brief-waits:$prefix/lib/orvin-firmware-upgrade-sim

finding() { echo "$1"; failed=1; }
# Expects the status of the command, and all texts in what it prints: in the files stdout and stderr, in any order.
expect() { # STATUS COMMAND [TEXT...]
    local status=0 text printed
    sh -c "$2" >stdout 2>stderr || status=$?
    printed=$(cat stdout stderr; echo .) # keeps the last end of a line
    [ "$status" -eq "$1" ] || finding "status $status, not $1: $2: $printed"
    for text in "${@:3}"; do [[ $printed == *"$text"* ]] || finding "no '$text': $2: $printed"; done
}
same() { diff "$@" || finding "differ: $*"; } # FILE FILE
contains_only() { same "$1" <(printf '%s' "$2"); } # FILE TEXT
member() { # NUMBER [FIELDS]
    echo "{\"id\": \"0a:00:00:00:00:00:00:00:00:00:00:00:00:00:00:00:$1\", \"type\": 64, \"versions\": {},
           \"timing\": {\"install_ms\": 1, \"restart_ms\": 1}${2:+, $2}}"
}
bus() { (IFS=,; echo "{\"members\": [$*]}") >bus.json; } # MEMBER...

nl=$'\n'
start="Using locale C${nl}Using locales from /nowhere${nl}Using text domain orvin-firmware-upgrade
>> Orvin Firmware upgrade v$version$nl"
listing='orvin-firmware-upgrade -l -c sim:bus.json'
waiting='Waiting for Lumnet bus to become active...'

EndsItselfAtVersionAndHelp() {
    expect 0 'orvin-firmware-upgrade -v -x 2>&1'
    contains_only stdout "$start"
    expect 0 'orvin-firmware-upgrade -l -h -x' "${start}Usage:$nl> List:"
    mv stdout help
    expect 129 'orvin-firmware-upgrade -x -h' "invalid option -- 'x'$nl"
    same stdout help
    expect 0 'LC_ALL=xx_XX orvin-firmware-upgrade -v'
    contains_only stdout "${start#*"$nl"}"
    contains_only stderr "Could not retrieve system locale settings!$nl"
}

TellsTheVersionOfThePackageAndItsHelp() {
    local name
    for name in orvin-image orvin-record orvin-recording orvin-signed-upgrade orvin-firmware-upgrade-sim; do
        expect 0 "$name --help" "sage: $name "
        expect 0 "$name --version"
        contains_only stdout "$name $version$nl"
    done
    expect 0 'orvin-image create --help' '  --target TARGET  '
}

TakesWhicheverBusLibrariesTheSearchPathHasFirst() {
    expect 127 'LD_LIBRARY_PATH= orvin-firmware-upgrade -v' libtalm-api-v2.so
    expect 0 "LD_LIBRARY_PATH=$build/measured-bus:\$LD_LIBRARY_PATH orvin-firmware-upgrade -l -c 1,0,0" ' 1)  0a:00:'
}

LauncherRunsTheToolOnABusOfTheUsersOwn() {
    local launcher='LD_LIBRARY_PATH= XDG_STATE_HOME=$PWD/state orvin-firmware-upgrade-sim'
    local file=state/orvin-firmware-upgrade-sim/bus.json
    expect 0 "$launcher -l | grep -c 'Pellix '" "3$nl"
    mv "$file" example
    echo upgraded >"$file"
    expect 125 "flock $file env $launcher --fresh -l" "is in use$nl"
    contains_only "$file" "upgraded$nl"
    expect 0 "$launcher --fresh -l | grep -c 'Pellix '; ls state/*" "3${nl}bus.json"
    same "$file" example
}

MissesADeviceThatNeverReturnedInLaterRunsToo() {
    bus "$(member 01 '"faults": {"never_returns": true}')"
    orvin-image create arm.img --target arm --version 7 --size 100
    orvin-firmware-upgrade -B -c sim:bus.json arm.img >console &
    until grep -q on_bus bus.json || ! kill -0 $!; do sleep 0.1; done
    kill $!
    expect 0 "$listing" 'Available devices'
    ! grep -q ' 1) ' stdout || finding 'the device is there'
}

WritesItsStatusMessagesInTheUsersLanguage() {
    local language='LC_ALL=C.UTF-8 TEXTDOMAINDIR=$prefix/share/locale LANGUAGE='
    export prefix
    expect 0 "${language}de $listing -m status"
    contains_only status 'Warten, bis der Lumnet-Bus aktiv wird ...'
    expect 0 "${language}fr $listing -m status"
    contains_only status "En attente de l’activation du bus Lumnet..."
}

SurvivesItsEnvironment() {
    local tool="printf old >status; env --default-signal $listing -m status"
    expect 0 "exec <&- >&-; $tool"
    contains_only status "$waiting"
    expect 0 "mkfifo pipe; : <pipe & exec >pipe; wait; $tool" # its reader is gone
    contains_only status "$waiting"
    printf old >status
    expect 0 "ulimit -f 0; ${tool#*; }"
    contains_only status old
    # The bus cannot start a thread, because its stack would need half of the address space.
    expect 132 "ulimit -s $(((1 << (8 * pointer_bytes - 11)) - 1)); $tool" 'cannot start a thread'
}

RecorderLeavesTheCommandAsItIs() {
    expect 0 "$listing"
    mv stdout alone
    expect 0 "orvin-record /nowhere/x $listing" 'does not begin: cannot be opened: No such'
    same stdout alone
    expect 0 "orvin-record /dev/full $listing" "ends: No space left on device$nl"
    same stdout alone
    expect 0 "orvin-record recording $listing"
    same stdout alone
    expect 0 'cat recording' '{"orvin-recording":1,"invocation":"' '"call":"BusMember_get_type",' ',"device":"0a:00:' \
        '"call":"TalmApiClose",'
    mv stdout before
    # A recording stays unchanged if another run is writing it, or if no call comes.
    expect 0 "flock recording orvin-record recording $listing; orvin-record recording true || :" \
        'another run is being recorded'
    same recording before
    # All runs of one command replace it. They start without orvin-record here, because a sanitizer's library cannot be
    # loaded into its shell.
    local run="LD_LIBRARY_PATH=$prefix/lib/orvin-firmware-upgrade:\$LD_LIBRARY_PATH LD_PRELOAD=liborvin-record.so"
    run+=" ORVIN_RECORDING=recording ORVIN_RECORD_INVOCATION=one $listing >x"
    expect 0 "$run; $run; grep -c '\"invocation\":\"one\"' recording" "2$nl"
    # Without a call of the bus, there is no recording.
    expect 0 'orvin-record y orvin-firmware-upgrade -v; ! [ -e y ]'
    contains_only stdout "$start"
    expect 143 "orvin-record x $listing & kill -TERM \$!; wait \$!"
}

RecordingShowsWhatWentWrongAndBringsItBack() {
    bus "$(member 01 '"name": "Gate", "faults": {"fault_result": [{"at": 1, "result": 3}]}')" \
        "$(member 02 '"name": "Hall", "faults": {"go_back": [{"at": 2, "to": 0}]}')"
    orvin-image create arm.img --target arm --version 7 --size 200
    local upgrade='orvin-firmware-upgrade -B arm.img -c sim:'
    expect 139 "orvin-record recording ${upgrade}bus.json >first"
    expect 0 'orvin-recording summary recording' Gate 'fault 3' Hall '00000001 -> 00000007'
    expect 0 "PYTHONPATH=$prefix/share/orvin-firmware-upgrade-sim python3 ${0%/*}/recording_test.py recording"
    expect 0 'for it in summary check; do orvin-recording $it --json recording | python3 -m json.tool; done' \
        '"seconds": {' '"state": "kept"'
    expect 0 'orvin-recording plot recording -o recording.svg'
    expect 0 'python3 -c "import xml.dom.minidom as xml; xml.parse(\"recording.svg\")"'
    # It may take a second more or less, and ask the restarting device once more.
    expect 139 "orvin-recording bus recording >again.json; ${upgrade}again.json >now"
    sed -i '/took/d; s/\.\.\.<*/.../' first now
    same first now
    expect 1 "sed '4s/}/, \"members\": [[1]]}/' recording >damaged; orvin-recording summary damaged" \
        ': line 4: damaged' Gate
    expect 1 'sed \$d recording >damaged; orvin-recording summary damaged' 'cut off, the session does not end' Gate
    expect 2 'sed 1d recording >damaged; orvin-recording summary damaged' ': line 1: not a recording'
    contains_only stdout ''
}

BusFileNamesThePlaceOfWhatIsWrong() {
    local orvin='{"id": "0a:00:00:00:00:00:00:00:00:00:00:00:00:00:00:00:01", "type": 64, "versions": {}' content reason
    while IFS='|' read -r content reason; do
        printf '%b' "${content//ORVIN/$orvin}" >bus.json
        expect 132 "$listing" "bus.json': $reason"
    done <<'CASES'
{\n  "members": [\n|line 3, column 1: 
{"members": [], "sed": 1}|/sed: unknown field
{"members": [], "seed": "0x1ffffffff"}|/seed: expected a number or a string like
{"members": [ORVIN, "faults": {"go_back": [{"at": 1}]}}]}|/members/0/faults/go_back/0: missing "to"
{"members": [], "faults": {"get_members": {"calls": "all", "result": 5}}}|/faults/get_members/result: more than 0 members
{"members": [ORVIN, "replay": {"packets": [[[1, 2]]]}}]}|/members/0/replay/packets/0/0: expected 3 numbers
{"members": [ORVIN}, ORVIN}]}|/members/1/id: duplicate id
CASES
    expect 132 "flock bus.json $listing" 'in use by another connection'
    expect 132 'orvin-firmware-upgrade -l -c sim:/dev/zero' 'not a regular file'
    truncate -s 67108865 bus.json
    expect 132 "$listing" 'larger than 64 MiB'
}

OrvinImageShowsWhatItCreatesWithADescriptorOrWithout() {
    local command='orvin-image create image --target dsp --version 1.2.3.4 --content content'
    head -c 100000 /dev/zero | tr '\0' x >content # more than one piece
    expect 0 "$command" 'note: the content has no descriptor'
    same content <(tail -c +37 image)
    expect 0 "$command --add-descriptor"
    contains_only stderr ''
    same <(printf 'OFWD\1\2\0\0\4\3\2\1' | cat - content) <(tail -c +37 image)
    expect 0 'orvin-image show image; orvin-image show --json image' "0x201 (Pellix DSP)$nl" " (right)$nl" \
        '"accepted": true' " 0x01020304 (1.2.3.4)$nl" "\"version\": 16909060$nl" '"contentSize": 100012,'
}

OrvinImageTellsWhyTheUpgradeToolWouldRefuseAFile() {
    local other
    orvin-image create whole --target 0x203 --version 1.3.0 --size 100
    expect 0 'orvin-image show whole' 'unknown: the upgrade tool' " 0x00010300 (1.3.0)$nl"
    expect 1 'echo x | cat whole - >image; orvin-image show --json image' '"refusal": "Invalid content size"'
    expect 1 'tr v x <whole >image; orvin-image show --json image' '"refusal": "Invalid firmware image format"'
    expect 1 'head -c 35 whole >image; orvin-image show --json image' '"refusal": "File not open"'
    expect 1 'orvin-image show image' "Error in 'image': File not open${nl}note: the file has 35 bytes"
    mkfifo fifo
    for other in fifo . /proc/self/mem; do expect 2 "orvin-image show $other" "orvin-image: '$other': "; done
}

OrvinImageRefusesWhatItCannotMakeAndLeavesNothingBehind() {
    # A link may lead through another one to a file that does not exist yet.
    mkdir d && ln -s ../link d/link && ln -s image link && ln -s circle circle
    orvin-image create d/link --target arm --version 1 --size 64
    rm -r d bus.json
    mkfifo fifo && truncate -s 6G long
    local arguments reason before
    before=$(cksum image)
    while IFS='|' read -r arguments reason; do
        expect 0 "! orvin-image create $arguments" "$reason"
    done <<'CASES'
circle --target arm --version 1 --size 64|cannot be written: Too many levels
missing/x --target arm --version 1 --size 64|cannot be written: No such
x --target arm --version 1 --size 3|range 12 to 2147483611
x --target arm --version 1 --size 4000000000|range 12 to 2147483611
x --target ARM --version 1 --size 64|'ARM' is not a number
x --target arm --version 010 --size 64|without a leading zero
x --target arm --version 4294967296 --size 64|from 0 to 4294967295
x --target arm --version 1.3 --size 64|'1.3' is not a version
x --target arm --version 1.3.256 --size 64|from 0 to 255
x --target arm --version 1.3.0.x --size 64|like 1.3.0
x --target arm --version 1 --content "$(printf 'a\nb\033')"|'a?b?': cannot be opened
x --target arm --version 1 --content long|'long': is too long: at most 21
x --target arm --version 1 --content fifo|'fifo': is not a regular file
x --target arm --version 1 --content .|'.': is a directory
x --target arm --version 1 --content /proc/self/mem|mem': cannot be read
x --target arm --version 1 --content image|'image': is an image already
image --target arm --version 1 --content link|'link': is both
CASES
    expect 0 'ls -A | tr "\n" " "; cksum image' "circle fifo image link long stderr stdout $before"
}

bus "$(member 01)"
"$4"
exit $failed
