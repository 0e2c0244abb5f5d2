# bash completion for orvin-image(1). No candidates: bash completes file names.

_orvin_image() {
    # --target=arm comes as three words.
    local current=${COMP_WORDS[COMP_CWORD]#=} previous=${COMP_WORDS[COMP_CWORD - 1]} words=''
    [[ $previous != = ]] || previous=${COMP_WORDS[COMP_CWORD - 2]}
    case $COMP_CWORD,${COMP_WORDS[1]},$previous,$current in
    1,*) words='create show -h --help --version' ;;
    *,--target,*) words='arm dsp booster-arm' ;;
    *,create,*,-*)
        words='-h --help --target --version --manufacturer --content-type --content --size --add-descriptor'
        ;;
    *,show,*,-*) words='-h --help --json' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -o default -F _orvin_image orvin-image
