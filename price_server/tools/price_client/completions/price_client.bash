# bash completion of price_client

# The options of the line that say which server is asked.
_price_client_access()
{
    local -a words
    local i
    read -ra words <<< "${COMP_LINE:0:COMP_POINT}"
    access=()
    for ((i = 1; i < ${#words[@]}; ++i)); do
        case "${words[i]}" in
            --url=?* | --token-file=?* | --ca=?*)
                access+=("${words[i]}")
                ;;
            --url | --token-file | --ca)
                [[ -n "${words[i + 1]}" ]] && access+=("${words[i]}" "${words[i + 1]}")
                ;;
        esac
    done
}

_price_client()
{
    local commands="watch subscribe instruments status explain completion"
    local common="--url --token-file --ca --timeout --help"
    local line="${COMP_LINE:0:COMP_POINT}"
    local cur="${line##*[[:space:]]}"
    local head="${line%"$cur"}"
    local prev="" command="" word names options=""
    local -a access
    COMPREPLY=()
    for word in $head; do
        case "$prev" in
            --url | --token-file | --ca | --timeout) ;;
            *) [[ -z "$command" && " $commands " == *" $word "* ]] && command="$word" ;;
        esac
        prev="$word"
    done

    case "$prev" in
        --token-file | --ca)
            compopt -o filenames 2> /dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
            return
            ;;
        --url | --timeout | --interval | --search | --market | --limit | --count)
            return
            ;;
        --depth)
            mapfile -t COMPREPLY < <(compgen -W "default max" -- "$cur")
            return
            ;;
        --kinds)
            mapfile -t COMPREPLY < <(compgen -W "book trades fields" -- "$cur")
            return
            ;;
    esac

    case "$command" in
        "") options="$commands --version" ;;
        watch) options="--depth --interval" ;;
        subscribe) options="--depth --interval --json --books --kinds --count" ;;
        instruments) options="--search --market --limit --names --json" ;;
        status | explain) options="--json" ;;
        completion) options="bash zsh fish" ;;
    esac
    if [[ "$cur" == -* || -z "$command" || "$command" == completion ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options $common" -- "$cur")
        return
    fi

    case "$command" in
        watch | subscribe | explain)
            _price_client_access
            names="$("${COMP_WORDS[0]}" instruments --names --limit 500 --search "$cur" "${access[@]}" --timeout 1 \
                2> /dev/null)"
            mapfile -t COMPREPLY < <(compgen -W "$names" -- "$cur")
            # Readline takes what stands behind the last colon for the word.
            if [[ "$cur" == *:* && "$COMP_WORDBREAKS" == *:* ]]; then
                COMPREPLY=("${COMPREPLY[@]#"${cur%"${cur##*:}"}"}")
            fi
            ;;
    esac
}

complete -F _price_client price_client
