# shellcheck shell=bash
# Prints usage and duration of a script from the comment at its head. The script must first change to its own directory.

own_words() { # SED-COMMAND
    sed -n "2,/^[^#]/ { $1 }" "$(basename "$0")"
}

usage_error() {
    own_words 's/^# \(Usage: \)/\1/p' >&2
    exit 2
}

# Prints how long the script takes. Call it after the arguments are checked.
say_how_long() {
    own_words 's/^# \(Takes \)/\1/p'
}

for argument in "$@"; do
    case $argument in -h | --help) own_words 's/^# \{0,1\}//p'; exit ;; esac
done
