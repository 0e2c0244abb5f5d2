# fish completion for orvin-recording(1)

complete -c orvin-recording -s h -l help -d 'Print the help and exit'
complete -c orvin-recording -n __fish_use_subcommand -l version -d 'Print the version and exit'
complete -c orvin-recording -n __fish_use_subcommand -f -a summary -d 'Tell what took so long, and which device'
complete -c orvin-recording -n __fish_use_subcommand -f -a plot -d 'Draw a lane for each device'
complete -c orvin-recording -n __fish_use_subcommand -f -a bus -d 'Print a bus file whose devices do what those did'
complete -c orvin-recording -n '__fish_seen_subcommand_from summary' -l json -d 'Print JSON'
complete -c orvin-recording -n '__fish_seen_subcommand_from plot' -s o -l output -r -F -d 'The picture to write'
