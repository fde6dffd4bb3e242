# Device ids, hosts and hardware ids come from the tool's own lists, if the daemon answers within a second.

# The rows, without their heading, that the tool prints.
function __rvusbpctl_list
    timeout 1 rvusbpctl $argv 2>/dev/null </dev/null | tail -n +2
end

# Rows are ID, HARDWARE ID, PORT and NAME /STATUS/, with tabs between.
function __rvusbpctl_devices --argument-names column
    for row in (__rvusbpctl_list dev)
        set --local columns (string split \t -- $row)
        printf '%s\t%s\n' $columns[$column] $columns[-1]
    end
end

function __rvusbpctl_preferred_ids
    __rvusbpctl_list pref | string replace --regex '\t.*' ''
end

# Rows are TYPE, HOST and PORT.
function __rvusbpctl_connections --argument-names column
    for row in (__rvusbpctl_list conn | string match --regex '^net\t.*')
        set --local columns (string split --no-empty \t -- $row)
        echo $columns[$column]
    end
end

# Whether the words between the tool and the cursor are exactly these.
function __rvusbpctl_behind
    set --local words (commandline --tokenize --cut-at-cursor --current-process)
    test "$words[2..]" = "$argv"
end

# Whether they are these two, and options of the command behind them: $argv[3] has those with an argument.
function __rvusbpctl_before_words
    set --local words (commandline --tokenize --cut-at-cursor --current-process)
    test "$words[2..3]" = "$argv[1..2]"; or return 1
    set --local pending no
    for word in $words[4..]
        if test $pending = yes
            set pending no
        else if string match --quiet --regex "^-[$argv[3]]\$" -- $word
            set pending yes
        else if not string match --quiet -- '-?*' $word
            return 1
        end
    end
    test $pending = no
end

# The last word is the option $argv[3] of the command of the first two.
function __rvusbpctl_wants
    set --local words (commandline --tokenize --cut-at-cursor --current-process)
    test "$words[2..3]" = "$argv[1..2]"; and test "$words[-1]" = "$argv[3]"
end

# One word stands behind the command of two words: the hardware id.
function __rvusbpctl_behind_id
    set --local words (commandline --tokenize --cut-at-cursor --current-process)
    test "$words[2..3]" = "$argv"; and test (count $words) -eq 4
end

complete -c rvusbpctl -f
complete -c rvusbpctl -n '__rvusbpctl_behind' -a dev -d 'devices'
complete -c rvusbpctl -n '__rvusbpctl_behind' -a conn -d 'connections'
complete -c rvusbpctl -n '__rvusbpctl_behind' -a rule -d 'sharing rules'
complete -c rvusbpctl -n '__rvusbpctl_behind' -a pref -d 'preferences of devices'
complete -c rvusbpctl -n '__rvusbpctl_behind' -a monitor -d 'print events'
complete -c rvusbpctl -n '__rvusbpctl_behind' -s h -l help -d 'print a summary of all commands'

complete -c rvusbpctl -n '__rvusbpctl_behind dev' -a list -d 'list the devices'
complete -c rvusbpctl -n '__rvusbpctl_behind dev' -a unplug -d 'disconnect a device'
complete -c rvusbpctl -n '__rvusbpctl_behind dev' -a share -d 'share exactly one device'
complete -c rvusbpctl -n '__rvusbpctl_behind dev' -a block -d 'block exactly one device'
complete -c rvusbpctl -n '__rvusbpctl_behind dev unplug' -k -a '(__rvusbpctl_devices 1)'
complete -c rvusbpctl -n '__rvusbpctl_behind dev share' -k -a '(__rvusbpctl_devices 1)'
complete -c rvusbpctl -n '__rvusbpctl_behind dev block' -k -a '(__rvusbpctl_devices 1)'

complete -c rvusbpctl -n '__rvusbpctl_behind conn' -a list -d 'list the connections'
complete -c rvusbpctl -n '__rvusbpctl_behind conn' -a drop -d 'drop the connections of a host'
complete -c rvusbpctl -n '__rvusbpctl_before_words conn drop p' -a '(__rvusbpctl_connections 2)' -d 'host'
complete -c rvusbpctl -n '__rvusbpctl_before_words conn drop p' -o p -d 'only the connection on this port'
complete -c rvusbpctl -n '__rvusbpctl_wants conn drop -p' -a '(__rvusbpctl_connections 3)' -d 'port'

complete -c rvusbpctl -n '__rvusbpctl_behind rule' -a list -d 'print the sharing rules'
complete -c rvusbpctl -n '__rvusbpctl_behind rule' -a load -d 'replace the rules by those of a file'
complete -c rvusbpctl -n '__rvusbpctl_behind rule' -a edit -d 'open the rules in an editor'
complete -c rvusbpctl -n '__rvusbpctl_behind rule' -a test -d 'tell what the rules say of a device'
complete -c rvusbpctl -n '__rvusbpctl_behind rule list' -o N -d 'without the numbers'
complete -c rvusbpctl -n '__rvusbpctl_behind rule load' -F
complete -c rvusbpctl -n '__rvusbpctl_before_words rule test fh' -k -a '(__rvusbpctl_devices 1)'
complete -c rvusbpctl -n '__rvusbpctl_before_words rule test fh' -o f -d 'rules to test by'
complete -c rvusbpctl -n '__rvusbpctl_before_words rule test fh' -o r -d 'a remote-desktop connection'
complete -c rvusbpctl -n '__rvusbpctl_before_words rule test fh' -o h -d 'a connection from a host'
complete -c rvusbpctl -n '__rvusbpctl_wants rule test -f' -F
complete -c rvusbpctl -n '__rvusbpctl_wants rule test -h' -a '(__rvusbpctl_connections 2)' -d 'host'

complete -c rvusbpctl -n '__rvusbpctl_behind pref' -a list -d 'list the preferences'
complete -c rvusbpctl -n '__rvusbpctl_behind pref' -a add -d 'set a preference'
complete -c rvusbpctl -n '__rvusbpctl_behind pref' -a remove -d 'remove preferences'
complete -c rvusbpctl -n '__rvusbpctl_behind pref add' -a '(__rvusbpctl_devices 2)'
complete -c rvusbpctl -n '__rvusbpctl_behind_id pref add' -a grab_on_plug
complete -c rvusbpctl -n '__rvusbpctl_behind pref remove' -a '(__rvusbpctl_preferred_ids)' -d 'hardware id'
