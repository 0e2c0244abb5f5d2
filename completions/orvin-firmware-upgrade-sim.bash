# bash completion for orvin-firmware-upgrade-sim(1): the tool's, and in front the launcher's own options.

_orvin_firmware_upgrade_sim() {
    # shellcheck source=/dev/null
    declare -F _orvin_firmware_upgrade >/dev/null || . "${BASH_SOURCE[0]%-sim*}" # beside this one
    _orvin_firmware_upgrade
    [[ $COMP_CWORD -ne 1 || ${COMP_WORDS[1]} != -* ]] ||
        mapfile -t -O ${#COMPREPLY[@]} COMPREPLY < <(compgen -W '--fresh --help --version' -- "${COMP_WORDS[1]}")
}

complete -o default -F _orvin_firmware_upgrade_sim orvin-firmware-upgrade-sim
