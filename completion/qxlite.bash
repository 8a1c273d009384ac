# bash completion for qxlite, the client of the QXLite upload service:
# its commands and their options, the configuration keys after `config set`
# (asked of the program itself with `qxlite config keys --names`, so they
# follow it), files after `drop`, `config save` and `test-config`.
# Needs nothing but bash; installed as share/bash-completion/completions/qxlite.

# COMPREPLY from the words of $1 (blank-separated) that start with $2.
_qxlite_words() {
    COMPREPLY=($(compgen -W "$1" -- "$2"))
}

# COMPREPLY from the files and folders that start with $1 (folders only with
# $2 = -d); bash then quotes them and marks folders with a slash.
_qxlite_files() {
    local IFS=$'\n'
    COMPREPLY=($(compgen "${2:--f}" -- "$1"))
    compopt -o filenames 2>/dev/null
}

_qxlite() {
    local program=$1 cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}
    local global_options='--host --port --token-file --runtime-dir --timeout --verbose --version --help'
    COMPREPLY=()

    # "--port=PORT" and "KEY=VALUE" arrive as three words: --port, =, PORT.
    local after_equals=''
    if [[ $cur == = ]]; then
        cur=''
        after_equals=1
    elif [[ $prev == = ]]; then
        prev=${COMP_WORDS[COMP_CWORD-2]}
        after_equals=1
    fi
    case $prev in
        --token-file) _qxlite_files "$cur"; return ;;
        --runtime-dir) _qxlite_files "$cur" -d; return ;;
        --host|--port|--timeout) return ;;
    esac

    # The command, its sub-command and how many arguments they already have.
    local i word command='' sub='' count=0
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        case $word in
            --host|--port|--token-file|--runtime-dir|--timeout)
                [[ ${COMP_WORDS[i+1]} == = ]] && ((i++))
                ((i++))
                continue ;;
        esac
        [[ $word == -* || $word == = ]] && continue
        # The value of KEY=VALUE, which bash splits at the "=".
        [[ ${COMP_WORDS[i-1]} == = ]] && continue
        if [[ -z $command ]]; then
            command=$word
        elif [[ $command == config && -z $sub ]]; then
            sub=$word
        else
            ((count++))
        fi
    done

    if [[ -z $command ]]; then
        if [[ $cur == -* ]]; then
            _qxlite_words "$global_options" "$cur"
        else
            _qxlite_words 'status config pause resume drop test-config call uploads cancel retry notify-test' "$cur"
        fi
        return
    fi

    local options='--help'
    case $command in
        status) options='--json --help' ;;
        pause) options='--discard --help' ;;
        uploads) options='--json --watch --help' ;;
        config)
            case $sub in
                get) options='--json --show-secrets --help' ;;
                keys) options='--names --help' ;;
            esac ;;
    esac
    if [[ $cur == -* ]]; then
        _qxlite_words "$options" "$cur"
        return
    fi

    case $command in
        drop) _qxlite_files "$cur" ;;
        test-config) ((count == 0)) && _qxlite_files "$cur" ;;
        config)
            case $sub in
                '') _qxlite_words 'get keys set save' "$cur" ;;
                save) ((count == 0)) && _qxlite_files "$cur" ;;
                set)
                    # A key before its "=", nothing after it.
                    [[ -n $after_equals ]] && return
                    local keys
                    keys=$("$program" config keys --names 2>/dev/null) || return
                    COMPREPLY=($(compgen -W "$keys" -S = -- "$cur"))
                    compopt -o nospace 2>/dev/null ;;
            esac ;;
    esac
}

complete -F _qxlite qxlite
