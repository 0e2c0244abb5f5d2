#!/usr/bin/env bash
# The installed tool where its surroundings let it down. Usage: surroundings_test.sh PREFIX [--large]
# --large also sends an image of 40 MB, which takes about twelve minutes.
set -u
prefix=$(cd "$1" && pwd) || exit 1
export LC_ALL=C LD_LIBRARY_PATH=$prefix/lib/orvin-firmware-upgrade-sim PATH=$prefix/bin:$PATH
work=$(mktemp -d /tmp/orvin-test-XXXXXX)
trap 'rm -rf "$work"' EXIT
chmod 755 "$work"
cd "$work" || exit 1

orvin() { # NUMBER ACKNOWLEDGE_US
    printf '{"id": "0a:00:00:00:00:00:00:00:00:00:00:00:00:00:00:00:%02x", "type": 64, "versions": {"arm": 1},
        "timing": {"acknowledge_us": %d, "install_ms": 1, "restart_ms": 1}}' "$1" "$2"
}
printf '{"members": [%s]}' "$(orvin 1 100)" >bus.json
printf '{"members": [%s]}' "$(orvin 1 20000)" >slow.json
{ printf '{"members": ['; for i in $(seq 70); do orvin "$i" 0; [ "$i" -eq 70 ] || printf ', '; done; printf ']}'; } >many.json
orvin-image create same.img --target arm --version 1 --size 64
orvin-image create new.img --target arm --version 2 --size 12800

tool() { orvin-firmware-upgrade "$@"; }

# Each case prints what is wrong, and nothing when all is well. $case.json is a bus of its own: the
# cases run at once, and a bus file has one user at a time.
expect() { # STATUS TEXT, of the case's output on standard input and its status in $got
    local output
    output=$(cat)
    [ "$got" -eq "$1" ] || echo "exit status $got, not $1"
    grep -qF -- "$2" <<<"$output" || printf 'no "%s" in:\n%s\n' "$2" "$output"
}
run() { output=$("$@" 2>&1); got=$?; }

missing_directory() {
    run tool -l -c "sim:$case.json" -m missing/status
    expect 0 'Could not apply message to file missing/status: No such file or directory' <<<"$output"
}
unwritable_directory() {
    mkdir -m 555 sealed
    local as_nobody=()
    [ "$(id -u)" -ne 0 ] || as_nobody=(setpriv --reuid=65534 --regid=65534 --clear-groups)
    mkdir open && cp -r "$prefix/bin" "$prefix/lib" open && cp bus.json open/bus.json
    chmod -R a+rX open
    run "${as_nobody[@]}" env LD_LIBRARY_PATH=open/lib/orvin-firmware-upgrade-sim open/bin/orvin-firmware-upgrade -l -c sim:open/bus.json \
        -m sealed/status
    expect 0 'Could not apply message to file sealed/status: Permission denied' <<<"$output"
}
other_file_system() {
    if [ "$(stat -c %d /tmp)" = "$(stat -c %d /dev/shm)" ]; then
        echo "other_file_system: skipped, /tmp and /dev/shm are one" >>skipped
        return 0
    fi
    run tool -l -c "sim:$case.json" -m "/dev/shm/$(basename "$work")"
    expect 0 'Invalid cross-device link' <<<"$output"
}
full_file_system() { # a small /tmp of its own where mounts are allowed, else a limit on the size of files
    echo old >kept
    if unshare --mount true 2>/dev/null; then
        run env prefix="$prefix" unshare --mount sh -c '
            mount -t tmpfs tmpfs /mnt && cp -r "$prefix/bin" "$prefix/lib" bus.json new.img /mnt
            mount -t tmpfs -o size=16k tmpfs /tmp && echo old >/tmp/kept
            head -c 100000 /dev/zero >/tmp/filler 2>/dev/null
            LD_LIBRARY_PATH=/mnt/lib/orvin-firmware-upgrade-sim /mnt/bin/orvin-firmware-upgrade -B -c sim:/mnt/bus.json -m /tmp/kept /mnt/new.img
            status=$?; cat /tmp/kept; exit $status'
        expect 1 'Error at write message: No space left on device' <<<"$output"
        [ "$(tail -n 1 <<<"$output")" = old ] || echo "the message that was there is lost"
    else
        run sh -c 'ulimit -f 0; exec orvin-firmware-upgrade -l -c sim:bus.json -m kept'
        expect 0 'Error at write message: File too large' <<<"$output"
        [ "$(cat kept)" = old ] || echo "the message that was there is lost"
    fi
}
broken_pipe() {
    tool -B -c "sim:$case.json" -m piped new.img | head -c 1 >first
    got=${PIPESTATUS[0]}
    expect 1 'Installing Orvin firmware: 1 / 1 completed' <piped
}
no_second_thread() { # since each has a stack of 1 GB
    run sh -c 'ulimit -s 1000000; ulimit -v 1500000; exec orvin-firmware-upgrade -l -c "sim:$0"' "$case.json"
    expect 132 'cannot start a thread' <<<"$output"
}
shrinking_image() {
    cp new.img shrinking.img
    (sleep 3; truncate -s 2000 shrinking.img) &
    run tool -B -c sim:slow.json shrinking.img
    expect 139 'Error reading firmware file' <<<"$output"
}
seventy_members() {
    run tool -l -c sim:many.json
    expect 0 '63)  0a:' <<<"$output"
    ! grep -q '^64)' <<<"$output" || echo 'more than 63 members listed'
}
thousand_images() {
    mkdir images
    for i in $(seq 1000); do ln same.img "images/$i.img"; done
    run tool -B -c "sim:$case.json" images/*.img
    expect 0 'Downloading image images/1000.img' <<<"$output"
    [ "$(grep -c 'already up to date' <<<"$output")" -eq 1000 ] || echo 'not every image was looked at'
}
large_image() {
    orvin-image create large.img --target arm --version 3 --size 41943040
    run tool -B -c "sim:$case.json" large.img
    expect 1 '>> Transferred 41943040 bytes in 655360 packets' <<<"$output"
}

cases=(missing_directory unwritable_directory other_file_system full_file_system broken_pipe
    no_second_thread shrinking_image seventy_members thousand_images)
[ "${2:-}" != --large ] || cases=(large_image)
for case in "${cases[@]}"; do
    { cp bus.json "$case.json" && "$case"; } >"$case.log" 2>&1 &
done
wait
[ ! -e skipped ] || cat skipped
failed=0
for case in "${cases[@]}"; do
    if [ -s "$case.log" ]; then
        echo "FAILED $case:"
        cat "$case.log"
        failed=1
    fi
done
exit $failed
