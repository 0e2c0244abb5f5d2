# bash completion for orvin-record(1)

_orvin_record() {
    if ((COMP_CWORD == 1)); then
        mapfile -t COMPREPLY < <(compgen -f -- "${COMP_WORDS[1]}")
    else
        _command_offset 2
    fi
}
complete -o filenames -F _orvin_record orvin-record
