# fish completion for orvin-record(1)

complete -c orvin-record -n 'test (count (commandline -opc)) -eq 1' -s h -l help -d 'Print the help and exit'
complete -c orvin-record -n 'test (count (commandline -opc)) -eq 1' -l version -d 'Print the version and exit'
complete -c orvin-record -n 'test (count (commandline -opc)) -ge 2' -x -a '(__fish_complete_subcommand --fcs-skip=2)'
