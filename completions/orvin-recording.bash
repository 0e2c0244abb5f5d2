# bash completion for orvin-recording(1). No candidates: bash completes file names.

_orvin_recording() {
    local current=${COMP_WORDS[COMP_CWORD]} words=''
    case $COMP_CWORD,${COMP_WORDS[1]},$current in
    1,*) words='summary plot bus check -h --help --version' ;;
    *,summary,-* | *,check,-*) words='-h --help --json' ;;
    *,plot,-*) words='-h --help -o --output --from --to' ;;
    *,bus,-*) words='-h --help' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -o default -F _orvin_recording orvin-recording
