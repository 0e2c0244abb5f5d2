# fish completion for orvin-firmware-upgrade-sim(1): the tool's, and in front the launcher's own options.

set -l first 'test (count (commandline -opc)) -eq 1'

complete -c orvin-firmware-upgrade-sim -w orvin-firmware-upgrade
complete -c orvin-firmware-upgrade-sim -n $first -l fresh -d 'Put the example in the place of your bus first'
complete -c orvin-firmware-upgrade-sim -n $first -l help -d 'Print the help and exit'
complete -c orvin-firmware-upgrade-sim -n $first -l version -d 'Print the version and exit'
