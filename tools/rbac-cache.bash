# Completes the command line of rbac-cache in bash.

# The words below are those up to the one that is completed. Readline makes three words of --cache=DIR; here they are two.
_rbac_cache_words() {
    local i
    words=("${COMP_WORDS[0]}")
    for ((i = 1; i <= COMP_CWORD; ++i)); do
        if [[ ${COMP_WORDS[i]} != '=' || ${COMP_WORDS[i - 1]} != --* ]]; then
            words+=("${COMP_WORDS[i]}")
        elif ((i == COMP_CWORD)); then
            words+=("")
        fi
    done
    last=$((${#words[@]} - 1))
}

# Asks the cache that the command line is about.
_rbac_cache_ask() {
    local -a choice=()
    local i
    for ((i = 1; i < last; ++i)); do
        case ${words[i]} in
            --cache | --operations) choice+=("${words[i]}" "${words[i + 1]}") ;;
            --cache=* | --operations=* | --trust) choice+=("${words[i]}") ;;
        esac
    done
    "${words[0]}" "$@" "${choice[@]}" 2>/dev/null
}

_rbac_cache_operations() {
    mapfile -t COMPREPLY < <(compgen -W "$(_rbac_cache_ask what-can '|' --roles 0)" -- "$1")
}

# The namespaces one level below the last "|" of what has been typed. They stand in quotes, for the shell's sake; where one
# has been typed already, readline keeps it.
_rbac_cache_objects() {
    local quote="'" typed=$1 folder line
    case $typed in
        [\'\"]*) quote="" typed=${typed:1} ;;
    esac
    [[ $typed == *'|'* ]] || typed='|'
    folder=${typed%|*}'|'
    while read -r line; do
        # A line of the tree is its branch, the name, and two spaces before what is said of it.
        line=${line:4}
        line=$folder${line%%  *}'|'
        [[ $line == "$typed"* ]] && COMPREPLY+=("$quote$line")
    done < <(LC_ALL=C _rbac_cache_ask tree "$folder" --depth 1 --color never | tail -n +2)
    compopt -o nospace 2>/dev/null
}

# How many words before the last are neither options nor their values, without the command itself.
_rbac_cache_arguments() {
    local i count=0
    for ((i = 1; i < last; ++i)); do
        case ${words[i]} in
            --cache | --operations | --roles | --token | --color | --depth | --output) ((++i)) ;;
            -*) ;;
            *) ((++count)) ;;
        esac
    done
    echo "$count"
}

_rbac_cache() {
    local -a words
    local last
    _rbac_cache_words
    local current=${words[last]} previous=${words[last - 1]} subcommand=${words[1]}
    local reading="--cache --operations --trust" output="--json --color --verbose --help"
    local options=""
    COMPREPLY=()

    case $previous in
        --cache)
            mapfile -t COMPREPLY < <(compgen -d -- "$current")
            return
            ;;
        --operations | --token | --output)
            mapfile -t COMPREPLY < <(compgen -f -- "$current")
            return
            ;;
        --color)
            mapfile -t COMPREPLY < <(compgen -W "auto always never" -- "$current")
            return
            ;;
        --roles | --depth) return ;;
    esac

    if ((last == 1)); then
        mapfile -t COMPREPLY < <(compgen -W \
            "check explain who-can what-can list ls tree diff stat verify report --help --version" -- "$current")
        return
    fi
    case $subcommand in
        check | explain | what-can | list) options="--roles --token $reading $output" ;;
        who-can) options="$reading $output" ;;
        ls | tree) options="--depth $reading $output" ;;
        stat | verify) options="--cache $output" ;;
        diff) options="--all --operations --trust $output" ;;
        report) options="--output $reading $output" ;;
    esac
    if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
        return
    fi
    case $subcommand:$(_rbac_cache_arguments) in
        check:1 | explain:1 | who-can:1 | list:1) _rbac_cache_operations "$current" ;;
        check:2 | explain:2 | who-can:2 | list:2 | what-can:1 | ls:1 | tree:1) _rbac_cache_objects "$current" ;;
        diff:*) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
    esac
}

complete -F _rbac_cache rbac-cache
