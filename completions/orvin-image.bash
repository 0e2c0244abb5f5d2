# bash completion for orvin-image(1). No candidates: bash completes file names.

_orvin_image() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} words=''
    COMPREPLY=()
    if [[ $current == = ]]; then # --target=arm comes as three words
        current=''
    elif [[ $previous == = ]]; then
        previous=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    case $previous in
    --target)
        words='arm dsp booster-arm'
        ;;
    --version | --size | --manufacturer | --content-type)
        compopt +o default 2>/dev/null
        return
        ;;
    --content)
        return
        ;;
    esac
    if [[ -z $words && $COMP_CWORD -eq 1 ]]; then
        compopt +o default 2>/dev/null
        words='create show -h --help --version'
    elif [[ -z $words && $current == -* ]]; then
        case ${COMP_WORDS[1]} in
        create)
            words='-h --help --target --version --manufacturer --content-type --content --size
                --add-descriptor'
            ;;
        show)
            words='-h --help --json'
            ;;
        esac
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -o default -F _orvin_image orvin-image
