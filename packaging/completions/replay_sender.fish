# The value of an option is the next word; the program takes no --option=value, so
# nothing is offered behind an equals sign.

function __replay_sender_separate
    not string match --quiet --regex -- '^--[^=]*=' (commandline --current-token)
end

function __replay_sender_devices
    for path in /sys/class/net/* /sys/class/net/.*
        # Files there are no devices.
        test -d $path; and string replace --regex -- '.*/' '' $path
    end
end

complete -c replay_sender -f
complete -c replay_sender -s h -l help -d 'print the options'
complete -c replay_sender -n __replay_sender_separate -l ip -x -d 'listen on it; UDP: send to it'
complete -c replay_sender -n __replay_sender_separate -l port -x -d 'its port'
complete -c replay_sender -n __replay_sender_separate -l filepath -rF -d 'the recording: a file or a folder'
complete -c replay_sender -n __replay_sender_separate -l filetype -xa '0\t"data files" 1\tcaptures' -d 'what the recording is'
complete -c replay_sender -n __replay_sender_separate -l filter -x -d 'which frames of captures, as for tcpdump'
complete -c replay_sender -n __replay_sender_separate -l loopback -x -d 'passes, 0: without end'
complete -c replay_sender -n __replay_sender_separate -l mbps -x -d 'megabits a second, 0: no limit'
complete -c replay_sender -n __replay_sender_separate -l protocol -xa 'tcp udp' -d 'what carries the replay'
complete -c replay_sender -n __replay_sender_separate -l device -xa '(__replay_sender_devices)' -d 'the network device to send from'
complete -c replay_sender -n __replay_sender_separate -l preload -xa '0\tno 1\tyes' -d 'read into memory first and send last to first'
complete -c replay_sender -n __replay_sender_separate -l debug -xa '0\tno 1\tyes' -d 'print each message in hexadecimal'
