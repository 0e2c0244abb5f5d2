#!/usr/bin/env bash
# Compares manual pages and completions with the source, and checks the markup of the pages.
# Usage: manual_test.sh SOURCE-DIR
set -u
cd "$1" || exit 1
export LC_ALL=C.UTF-8 MANROFFSEQ=
failed=0

finding() { echo "$1"; failed=1; }
compare() { # WHAT SOURCE-LIST LIST, one item a line
    [ -n "$2" ] || finding "$1: the source has none"
    diff <(items "$2") <(items "$3") || finding "$1: differs from the source (<)"
}
items() { sort -u <<<"$1" | grep .; }
offers() { # FUNCTION WORD...: what bash offers for the last word
    COMP_WORDS=("${@:2}") COMP_CWORD=$(($# - 2))
    "$1"
    printf '%s\n' "${COMPREPLY[@]}"
}
compare_all() { # TOOL SOURCE-LIST BASH-LIST: subcommands and long options
    compare "man/$1.1" "$2" "$(sed -n 's/^\.It Fl \(. , \)\?\(-\S*\).*/-\2/p; s/^\.Cm \(\S*\)$/\1/p' "man/$1.1")"
    compare "$1.bash" "$2" "$(grep -vx -e '-.' <<<"$3")"
}
own_options() { sed -n 's/^\(-[a-z |-]*\)).*/\1/p' "$1" | grep -o -e '--[a-z]*'; } # of a script
# shellcheck source=/dev/null
for file in completions/*.bash; do . "$file"; done

for page in man/*.1; do
    while IFS= read -r line; do finding "$line"; done < <(mandoc -T lint "$page" 2>&1 | grep -v 'referenced manual not found')
    while IFS= read -r line; do finding "$page: $line"; done < <(man --warnings -l -E UTF-8 "$page" 2>&1 >/dev/null)
done
tool=orvin-firmware-upgrade page=man/orvin-firmware-upgrade.1
options=$(sed -n 's/.*getopt(argc, argv, "\(.*\)").*/\1/p' src/app/command_line.cpp | tr -d : | fold -w 1)
compare "$page, option" "$options" "$(sed -n 's/^\.It Fl \(\S\)\( Ar .*\)\?$/\1/p' $page)"
compare "$tool.bash, option" "$options" "$(offers _orvin_firmware_upgrade $tool - | tr -d -)"
compare "_$tool, option" "$options" "$(grep -oP "^ .*?-\K[^-](?=\+?\[)" completions/_$tool)"
compare "$tool.fish, option" "$options" "$(grep -oP ' -s \K\S+' completions/$tool.fish)"

members=$(grep -oP 'kMaxMembers = \K\d+' src/bus/bus_members.cpp)
statuses=$(grep -oP '^constexpr int \w+ = \K-?\d+' src/core/exit_status.h |
    while read -r status; do echo $((status & 255)); done | sed "s/^0$/0 to $members/")
compare "$page, status" "$statuses" "$(grep -oP '^\d[\d to]*(?=\tT\{)' $page)"

messages=$(find src -type f -exec cat {} + | tr '\n' ' ' | sed 's/" *"//g' | grep -oP 'gettext\( *"?\K[^"]+')
compare "$page, message" "$messages" "$(sed -n 's/\\&$//; s/^\.It Qq //p' $page)"

compare_all orvin-record "$(own_options recording/orvin-record.in)" "$(offers _orvin_record orvin-record -)"
compare_all orvin-firmware-upgrade-sim "$(own_options sim/orvin-firmware-upgrade-sim.in)" \
    "$(offers _orvin_firmware_upgrade_sim orvin-firmware-upgrade-sim -)"
options=$(grep -oP '"\K--[a-z]+(?=")' tools/orvin-signed-upgrade/orvin_signed_upgrade/__main__.py | grep -vx -e --; echo --help)
compare_all orvin-signed-upgrade "$options" "$(offers _orvin_signed_upgrade orvin-signed-upgrade -)"
options=$(grep -oP '"\K--[a-z]+(?=")|^ +\("\K[a-z]+(?=", ")' tools/orvin-recording/orvin_recording/__main__.py; echo --help)
compare_all orvin-recording "$options" "$(offers _orvin_recording orvin-recording ''
    for subcommand in summary plot bus check; do offers _orvin_recording orvin-recording $subcommand -; done)"

tool=orvin-image page=man/orvin-image.1
text=$(tr '\n' ' ' <tools/orvin-image/main.cpp)
options=$(grep -oP 'add_(option|flag)\( *"\K-[^"]+|add_subcommand\( *"\K[^"]+' <<<"$text"; echo --help)
targets=$(grep -oP '\{"\K[^"]+(?=", codeOf\()' <<<"$text")
compare_all $tool "$options" "$(offers _orvin_image $tool ''; offers _orvin_image $tool create --
    offers _orvin_image $tool show --)"
compare "$page, target" "$targets" "$(sed -n 's/^\.Cm \(\S*\) ,$/\1/p' $page)"
compare "$tool.bash, target" "$targets" "$(offers _orvin_image $tool create --target '')"

exit $failed
