# fish completion for proxymanagerctl(1).

set -l commands status get config off manual pacurl wpad settings watch refresh wait diagnose exec pac relay pvd
set -l updates off manual pacurl wpad
set -g __proxymanagerctl_rules host-case isinnet-name dns-first domain-dot shexp-regex https-path unreachable no-var \
    date-month-end entry-dropped entry-unknown entry-port direct-missing direct-first no-return \
    local-to-proxy too-many-names cost ignore-unknown

# The names of rules: one, or several with commas between them.
function __proxymanagerctl_lint_rules
    set -l before (string match -r '^.*,' -- (commandline -ct | string replace -r '^--[a-z]+=' ''))
    printf "$before%s\n" $__proxymanagerctl_rules
end
set -l trials eval check lint test bench explain cover diff

# The position of exec's "--". The words after it belong to another program.
function __proxymanagerctl_before_command
    not contains -- -- (commandline -opc)
end

complete -c proxymanagerctl -f
complete -c proxymanagerctl -s h -l help -n __proxymanagerctl_before_command -d 'Print the help'
complete -c proxymanagerctl -s V -l version -n __fish_use_subcommand -d 'Print the version'

complete -c proxymanagerctl -n __fish_use_subcommand -a status -d 'What is known of the daemon'
complete -c proxymanagerctl -n __fish_use_subcommand -a get -d 'Which proxies to use for URLs'
complete -c proxymanagerctl -n __fish_use_subcommand -a config -d 'The configuration in force'
complete -c proxymanagerctl -n __fish_use_subcommand -a off -d 'Use no proxy'
complete -c proxymanagerctl -n __fish_use_subcommand -a manual -d 'Use the proxy at a URL'
complete -c proxymanagerctl -n __fish_use_subcommand -a pacurl -d 'Use the PAC script at a URL'
complete -c proxymanagerctl -n __fish_use_subcommand -a wpad -d 'Use the PAC script that the network announces'
complete -c proxymanagerctl -n __fish_use_subcommand -a settings -d 'Where the configuration comes from'
complete -c proxymanagerctl -n __fish_use_subcommand -a watch -d 'What the daemon signals, until Ctrl-C'
complete -c proxymanagerctl -n __fish_use_subcommand -a refresh -d 'Fetch the script again'
complete -c proxymanagerctl -n __fish_use_subcommand -a wait -d 'Wait until the daemon is ready'
complete -c proxymanagerctl -n __fish_use_subcommand -a diagnose -d 'Try each way that the daemon gives'
complete -c proxymanagerctl -n __fish_use_subcommand -a exec -d 'Run a command with the proxy for a URL'
complete -c proxymanagerctl -n __fish_use_subcommand -a pac -d 'Try PAC scripts out, without daemon or bus'
complete -c proxymanagerctl -n __fish_use_subcommand -a relay -d 'Lead programs to the relay'
complete -c proxymanagerctl -n __fish_use_subcommand -a pvd -d 'Proxy information by provisioning domain'

complete -c proxymanagerctl -n "__proxymanagerctl_before_command; and __fish_seen_subcommand_from status get config settings watch refresh wait diagnose exec $updates" -l timeout -x -d 'Seconds an answer is waited for'
complete -c proxymanagerctl -n "__fish_seen_subcommand_from status get config settings watch eval check bench explain diff $updates" -l json -d 'Print JSON'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from status get config watch' -l show-password -d 'Show passwords'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from get' -l format -x -a 'table curl env raw' -d 'For use elsewhere'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from get eval bench explain cover diff' -s f -l file -r -F -d 'File of URLs, or -'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from get' -l with-password -d 'User name and password in the URL'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from get exec; and __proxymanagerctl_before_command' -l credentials-for -x -d 'Proxy that gets the password, too'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from get exec diagnose; and __proxymanagerctl_before_command' -l ask-local -d 'Ask about this machine, too'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from exec; and __proxymanagerctl_before_command' -l no-check -d 'Do not try the proxies'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from wait' -l configured -d 'Until it got a configuration'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from wait' -l script -d 'Until it has a script'
complete -c proxymanagerctl -n "__fish_seen_subcommand_from $updates" -l user -x -a '(__fish_complete_users)' -d 'Authenticate at the proxy'
complete -c proxymanagerctl -n "__fish_seen_subcommand_from $updates" -l password-file -r -F -d 'File whose only line is the password, or -'
complete -c proxymanagerctl -n "__fish_seen_subcommand_from $updates" -l save -d 'Keep it for every start'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from settings; and not __fish_seen_subcommand_from reset' -a reset -d 'Remove what --save has written'

complete -c proxymanagerctl -n '__fish_seen_subcommand_from exec; and __proxymanagerctl_before_command' -a -- -d 'The command follows'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from exec; and not __proxymanagerctl_before_command' -a '(__fish_complete_subcommand --fcs-skip=(math (contains -i -- -- (commandline -opc)) - 1))'

complete -c proxymanagerctl -n "__fish_seen_subcommand_from pac; and not __fish_seen_subcommand_from $trials" -a eval -d 'Ask a script for URLs'
complete -c proxymanagerctl -n "__fish_seen_subcommand_from pac; and not __fish_seen_subcommand_from $trials" -a check -d 'Load a script'
complete -c proxymanagerctl -n "__fish_seen_subcommand_from pac; and not __fish_seen_subcommand_from $trials" -a lint -d 'Find what is probably wrong'
complete -c proxymanagerctl -n "__fish_seen_subcommand_from pac; and not __fish_seen_subcommand_from $trials" -a test -d 'Check answers against a file of cases'
complete -c proxymanagerctl -n "__fish_seen_subcommand_from pac; and not __fish_seen_subcommand_from $trials" -a bench -d 'Measure what URLs cost'
complete -c proxymanagerctl -n "__fish_seen_subcommand_from pac; and not __fish_seen_subcommand_from $trials" -a explain -d 'Show what leads to an answer'
complete -c proxymanagerctl -n "__fish_seen_subcommand_from pac; and not __fish_seen_subcommand_from $trials" -a cover -d 'Show what URLs reach'
complete -c proxymanagerctl -n "__fish_seen_subcommand_from pac; and not __fish_seen_subcommand_from $trials" -a diff -d 'Show where two scripts differ'
complete -c proxymanagerctl -n "__fish_seen_subcommand_from $trials" -F
complete -c proxymanagerctl -n '__fish_seen_subcommand_from eval explain' -l host -x -d 'Second argument of the script'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from eval check test bench explain cover diff' -l at -x -d 'The present time for the script'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from eval check test bench explain cover diff' -l tz -x -d 'Time zone'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from eval check test bench explain cover diff' -l resolve -x -d 'Addresses of a name'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from eval check test bench explain cover diff' -l my-ip -x -d 'Own addresses'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from eval check test bench explain cover diff' -l offline -d 'Look up no names'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from test' -l format -x -a 'text tap junit' -d 'Of the report'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from bench' -l repeat -x -d 'How often each URL is asked'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from lint' -l format -x -a 'text json sarif' -d 'Of the report'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from lint' -l ignore -x -a '(__proxymanagerctl_lint_rules)' -d 'Leave rules out'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from lint' -l only -x -a '(__proxymanagerctl_lint_rules)' -d 'Leave other rules out'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from lint' -l fail-on -x -a 'error warning note' -d 'Severity for status 1'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from explain cover' -l current -d 'The script in force'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from cover' -l format -x -a 'text json html' -d 'Of the report'

complete -c proxymanagerctl -n '__fish_seen_subcommand_from relay; and not __fish_seen_subcommand_from enable disable' -a enable -d 'Set the relay as the proxy of programs'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from relay; and not __fish_seen_subcommand_from enable disable' -a disable -d 'Take this setting away'

complete -c proxymanagerctl -n '__fish_seen_subcommand_from pvd; and not __fish_seen_subcommand_from show to-pac' -a show -d 'Judge a document'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from pvd; and not __fish_seen_subcommand_from show to-pac' -a to-pac -d 'Make a PAC script of a document'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from show to-pac' -F
complete -c proxymanagerctl -n '__fish_seen_subcommand_from show to-pac' -l host -x -d 'The proxy whose document it is'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from show' -l json -d 'Print JSON'
complete -c proxymanagerctl -n '__fish_seen_subcommand_from to-pac' -l otherwise -x -d 'Answer for what no rule matches'
