# bash completion for orvin-firmware-upgrade(1). No candidates: bash completes file names.

_orvin_firmware_upgrade() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    COMPREPLY=()
    case $previous in
    -c)
        compopt +o default -o nospace 2>/dev/null
        if [[ $current == sim:* ]]; then # in one word only where COMP_WORDBREAKS has no colon
            mapfile -t COMPREPLY < <(compgen -f -P sim: -- "${current#sim:}")
        else
            mapfile -t COMPREPLY < <(compgen -W 'tcp:// sim:' -- "$current")
        fi
        ;;
    -d)
        compopt +o default 2>/dev/null
        ;;
    -m) ;;
    *)
        [[ $current == -* && " ${COMP_WORDS[*]:0:COMP_CWORD} " != *' -- '* ]] || return
        mapfile -t COMPREPLY < <(compgen -W '-B -c -D -d -f -h -l -m -p -V -v' -- "$current")
        ;;
    esac
}

complete -o default -F _orvin_firmware_upgrade orvin-firmware-upgrade
