# shellcheck shell=bash
# What a script says of itself stands in the comment at its head; for those that have changed into their directory.

own_words() { # SED-COMMAND
    sed -n "2,/^[^#]/ { $1 }" "$(basename "$0")"
}

usage_error() {
    own_words 's/^# \(Usage: \)/\1/p' >&2
    exit 2
}

# How long it takes. First thing when the arguments are understood.
say_how_long() {
    own_words 's/^# \(Takes \)/\1/p'
}

for argument in "$@"; do
    case $argument in -h | --help) own_words 's/^# \{0,1\}//p'; exit ;; esac
done
