# bash completion for qxlite-svc, the QXLite upload service: its options,
# files after --config, --token-file, --log-file, --credentials and --mail-ca-file, folders
# after --state-dir and --runtime-dir, groups after --token-group.
# Needs nothing but bash; installed as share/bash-completion/completions/qxlite-svc.

_qxlite_svc() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}
    local IFS=$'\n'
    COMPREPLY=()

    # "--config=FILE" arrives as three words: --config, =, FILE.
    [[ $cur == = ]] && cur=''
    [[ $prev == = ]] && prev=${COMP_WORDS[COMP_CWORD-2]}
    case $prev in
        --config|--token-file|--log-file|--credentials|--mail-ca-file)
            COMPREPLY=($(compgen -f -- "$cur"))
            compopt -o filenames 2>/dev/null
            return ;;
        --state-dir|--runtime-dir)
            COMPREPLY=($(compgen -d -- "$cur"))
            compopt -o filenames 2>/dev/null
            return ;;
        --token-group)
            COMPREPLY=($(compgen -g -- "$cur"))
            return ;;
        --port|--threads|--scan-interval|--settle-time|--retry-after|--multipart-from|--part-size|--http-timeout|--mail-window|--mail-per-hour)
            return ;;
    esac
    COMPREPLY=($(compgen -W '--config
--token-file
--token-group
--port
--runtime-dir
--foreground
--log-file
--verbose
--threads
--scan-interval
--settle-time
--retry-after
--multipart-from
--part-size
--state-dir
--credentials
--http-timeout
--mail-window
--mail-per-hour
--mail-ca-file
--version
--help' -- "$cur"))
}

complete -F _qxlite_svc qxlite-svc
