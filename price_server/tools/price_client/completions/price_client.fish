# fish completion of price_client

set -g __price_client_commands watch subscribe instruments status explain completion

# Asks the server that the line names.
function __price_client_instruments
    set -l words (commandline -opc)
    set -l access
    for i in (seq 2 (count $words))
        switch $words[$i]
            case '--url=?*' '--token-file=?*' '--ca=?*'
                set -a access $words[$i]
            case --url --token-file --ca
                if test (count $words) -gt $i
                    set -a access $words[$i] $words[(math $i + 1)]
                end
        end
    end
    $words[1] instruments --names --limit 500 --search (commandline -ct) $access --timeout 1 2>/dev/null
end

function __price_client_needs_command
    not __fish_seen_subcommand_from $__price_client_commands
end

complete -c price_client -f
complete -c price_client -l url -x -d 'address of the server'
complete -c price_client -l token-file -r -F -d 'file whose first line is the token'
complete -c price_client -l ca -r -F -d 'trust these certificates'
complete -c price_client -l timeout -x -d 'seconds to wait'
complete -c price_client -s h -l help -d 'show the help'
complete -c price_client -n __price_client_needs_command -l version -d 'show the version'

complete -c price_client -n __price_client_needs_command -a watch -d 'show books as ladders'
complete -c price_client -n __price_client_needs_command -a subscribe -d 'write updates as JSON lines'
complete -c price_client -n __price_client_needs_command -a instruments -d 'list the instruments'
complete -c price_client -n __price_client_needs_command -a status -d 'show how the server does'
complete -c price_client -n __price_client_needs_command -a explain -d 'say why an instrument shows what it shows'
complete -c price_client -n __price_client_needs_command -a completion -d 'write a completion script'

set -l prices '__fish_seen_subcommand_from watch subscribe'
complete -c price_client -n "$prices" -l depth -x -a 'default max' -d 'levels a side'
complete -c price_client -n "$prices" -l interval -x -d 'milliseconds between two books'
complete -c price_client -n '__fish_seen_subcommand_from watch subscribe explain' -a '(__price_client_instruments)'

set -l subscribe '__fish_seen_subcommand_from subscribe'
complete -c price_client -n "$subscribe" -l books -d 'the whole book after each update'
complete -c price_client -n "$subscribe" -l kinds -x -a 'book trades fields' -d 'what to subscribe'
complete -c price_client -n "$subscribe" -l count -x -d 'end after so many lines'

set -l instruments '__fish_seen_subcommand_from instruments'
complete -c price_client -n "$instruments" -l search -x -d 'only names with this text'
complete -c price_client -n "$instruments" -l market -x -d 'only this market'
complete -c price_client -n "$instruments" -l limit -x -d 'at most so many'
complete -c price_client -n "$instruments" -l names -d 'names only'

complete -c price_client -n '__fish_seen_subcommand_from subscribe instruments status explain' -l json -d 'as JSON'
complete -c price_client -n '__fish_seen_subcommand_from completion' -a 'bash zsh fish'
