# The value of an option is the next word or follows an equals sign.

function __replay_receiver_devices
    for path in /sys/class/net/* /sys/class/net/.*
        # Files there are no devices.
        test -d $path; and string replace --regex -- '.*/' '' $path
    end
end

complete -c replay_receiver -f
complete -c replay_receiver -s h -l help -d 'print the options'
complete -c replay_receiver -l version -d 'print the version'
complete -c replay_receiver -l ip -x -d 'connect to it; UDP: listen on it'
complete -c replay_receiver -l port -x -d 'its port'
complete -c replay_receiver -l filepath -rF -d 'the recording: a file or a folder'
complete -c replay_receiver -l filetype -xa '0\t"data files" 1\tcaptures' -d 'what the recording is'
complete -c replay_receiver -l filter -x -d 'which frames of captures, as for tcpdump'
complete -c replay_receiver -l loopback -x -d 'passes, 0: without end'
complete -c replay_receiver -l mbps -x -d 'the rate asked for, 0: none'
complete -c replay_receiver -l protocol -xa 'tcp udp' -d 'what carries the replay'
complete -c replay_receiver -l device -xa '(__replay_receiver_devices)' -d 'on which to join a multicast group'
complete -c replay_receiver -l preload -xa '0\tno 1\tyes' -d 'expect the order that this gives'
complete -c replay_receiver -l debug -xa '0 1' -d 'taken and ignored'
complete -c replay_receiver -l connect-timeout -x -d 'keep trying for so long'
complete -c replay_receiver -l rcvbuf -x -d 'receive buffer, also as 8k, 64M'
complete -c replay_receiver -l window -x -d 'messages to look around for a lost place'
complete -c replay_receiver -l tolerance -x -d 'rate error that passes'
complete -c replay_receiver -l settle -x -d 'listen on behind the expected total'
complete -c replay_receiver -l idle -x -d 'end after so much silence'
complete -c replay_receiver -l duration -x -d 'end after so long in all'
complete -c replay_receiver -l messages -x -d 'end after so many messages'
complete -c replay_receiver -l bytes -x -d 'end after so many bytes'
complete -c replay_receiver -l progress -xa 'auto always never' -d 'a line of progress'
complete -c replay_receiver -l json -rF -d 'the result as JSON'
complete -c replay_receiver -l csv -rF -d 'the rate over time'
complete -c replay_receiver -l report -rF -d 'a page for the browser'
complete -c replay_receiver -l write -rF -d 'what arrives'
complete -c replay_receiver -l plan -d 'open no socket; tell what would be sent'
