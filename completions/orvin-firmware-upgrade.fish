# fish completion for orvin-firmware-upgrade(1)

function __orvin_connections
    set -l token (commandline -ct)
    if string match -q 'sim:*' -- $token
        printf 'sim:%s\n' (__fish_complete_path (string replace 'sim:' '' -- $token))
    else
        printf '%s\n' tcp:// sim:
    end
end

complete -c orvin-firmware-upgrade -s B -d 'Upgrade all Orvins on the bus'
complete -c orvin-firmware-upgrade -s c -x -a '(__orvin_connections)' -d 'Connection to the bus'
complete -c orvin-firmware-upgrade -s D -d 'Print debug output'
complete -c orvin-firmware-upgrade -s d -x -d 'Upgrade this Orvin, or print its versions'
complete -c orvin-firmware-upgrade -s f -d 'Upgrade even when update and device versions match'
complete -c orvin-firmware-upgrade -s h -d 'Print the usage text'
complete -c orvin-firmware-upgrade -s l -d 'List the bus members'
complete -c orvin-firmware-upgrade -s m -r -F -d 'Write update status messages to given file'
complete -c orvin-firmware-upgrade -s p -d 'Pretend; only list Orvins that would be updated'
complete -c orvin-firmware-upgrade -s V -d 'Print the versions of one Orvin'
complete -c orvin-firmware-upgrade -s v -d 'Print the version of the tool'
