# bash completion for orvin-signed-upgrade(1)

_orvin_signed_upgrade() {
    local current=${COMP_WORDS[COMP_CWORD]} options=''
    [[ $current != -* ]] ||
        options='-h --help --version --key --directory --connection --pretend --record --metrics'
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
}

complete -o default -F _orvin_signed_upgrade orvin-signed-upgrade
