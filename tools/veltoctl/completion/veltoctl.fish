# fish completion for veltoctl(1)

function __veltoctl_names
    # None is started for this.
    VELTO_IPC_DAEMON= veltoctl list 2>/dev/null | cut -d ' ' -f 1
end

set -l commands list info wait send listen monitor bench stats top doctor
complete -c veltoctl -f
complete -c veltoctl -l json -d 'Data as JSON'
complete -c veltoctl -s h -l help -d 'Tell what it takes'
complete -c veltoctl -n "not __fish_seen_subcommand_from $commands" -l version -d 'Tell the version'
complete -c veltoctl -n "not __fish_seen_subcommand_from $commands" -a list -d 'List the names that are registered'
complete -c veltoctl -n "not __fish_seen_subcommand_from $commands" -a info -d 'Tell who serves a name'
complete -c veltoctl -n "not __fish_seen_subcommand_from $commands" -a wait -d 'Wait until a name is served'
complete -c veltoctl -n "not __fish_seen_subcommand_from $commands" -a send -d 'Send a message and print the answer'
complete -c veltoctl -n "not __fish_seen_subcommand_from $commands" -a listen -d 'Serve a name and print what comes'
complete -c veltoctl -n "not __fish_seen_subcommand_from $commands" -a monitor -d 'Show what goes over new connections'
complete -c veltoctl -n "not __fish_seen_subcommand_from $commands" -a bench -d 'Measure how long a service takes to answer'
complete -c veltoctl -n "not __fish_seen_subcommand_from $commands" -a stats -d 'Tell what has been done and is held'
complete -c veltoctl -n "not __fish_seen_subcommand_from $commands" -a top -d 'Show rates again and again'
complete -c veltoctl -n "not __fish_seen_subcommand_from $commands" -a doctor -d 'Look for what stands in the way'
complete -c veltoctl -n '__fish_seen_subcommand_from info wait send listen monitor bench' -a '(__veltoctl_names)'
complete -c veltoctl -n '__fish_seen_subcommand_from wait send bench' -l timeout -x -d 'For so many seconds at most'
complete -c veltoctl -n '__fish_seen_subcommand_from send' -l file -r -F -d 'Take the message from a file'
complete -c veltoctl -n '__fish_seen_subcommand_from send' -l async -d 'Want no answer'
complete -c veltoctl -n '__fish_seen_subcommand_from send listen bench top' -l count -x -d 'So many'
complete -c veltoctl -n '__fish_seen_subcommand_from send top' -l interval -x -d 'So many seconds between two'
complete -c veltoctl -n '__fish_seen_subcommand_from listen' -l reply -x -d 'Answer with this JSON'
complete -c veltoctl -n '__fish_seen_subcommand_from listen' -l exec -r -d 'Answer through a command'
complete -c veltoctl -n '__fish_seen_subcommand_from listen' -l take-over -d 'Take the name over'
complete -c veltoctl -n '__fish_seen_subcommand_from listen' -l strict -d 'Take plain types only'
complete -c veltoctl -n '__fish_seen_subcommand_from bench' -l duration -x -d 'For so many seconds'
complete -c veltoctl -n '__fish_seen_subcommand_from bench' -l concurrency -x -d 'So many calls at a time'
