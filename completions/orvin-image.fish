# fish completion for orvin-image(1)

set -l create '__fish_seen_subcommand_from create'
set -l show '__fish_seen_subcommand_from show'

complete -c orvin-image -s h -l help -d 'Print the help and exit'
complete -c orvin-image -n __fish_use_subcommand -l version -d 'Print the version and exit'
complete -c orvin-image -n __fish_use_subcommand -f -a create -d 'Make an image file'
complete -c orvin-image -n __fish_use_subcommand -f -a show -d 'Print the header of an image file'
complete -c orvin-image -n $create -l target -x -a 'arm dsp booster-arm' -d 'What it is for'
complete -c orvin-image -n $create -l version -x -d 'Version of the firmware'
complete -c orvin-image -n $create -l manufacturer -x -d 'Manufacturer code'
complete -c orvin-image -n $create -l content-type -x -d 'Content type code'
complete -c orvin-image -n $create -l content -r -F -d 'File with the content'
complete -c orvin-image -n $create -l size -x -d 'Generate so many bytes of content'
complete -c orvin-image -n $create -l add-descriptor -d 'Put the descriptor that simulated devices read in front of the content'
complete -c orvin-image -n $show -l json -d 'Print JSON'
