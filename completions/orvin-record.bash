# bash completion for orvin-record(1)

_orvin_record() {
    local current=${COMP_WORDS[1]} options=''
    if ((COMP_CWORD == 1)); then
        [[ $current != -* ]] || options='-h --help --version'
        mapfile -t COMPREPLY < <(compgen -f -W "$options" -- "$current")
    else
        _command_offset 2
    fi
}
complete -o filenames -F _orvin_record orvin-record
