# bash completion for orvin-recording(1). No candidates: bash completes file names.

_orvin_recording() {
    local current=${COMP_WORDS[COMP_CWORD]} words=''
    COMPREPLY=()
    if [[ $COMP_CWORD -eq 1 ]]; then
        compopt +o default 2>/dev/null
        words='summary plot bus -h --help --version'
    elif [[ $current == -* ]]; then
        case ${COMP_WORDS[1]} in
        summary)
            words='-h --help --json'
            ;;
        plot)
            words='-h --help -o --output'
            ;;
        bus)
            words='-h --help'
            ;;
        esac
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -o default -F _orvin_recording orvin-recording
