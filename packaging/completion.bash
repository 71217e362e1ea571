# bash completion of halvo, halvo-check, halvo-peer and halvo-status; installed under each name.
_halvo() {
    mapfile -t COMPREPLY < <(compgen -W '-c -s -r -w -h' -- "${COMP_WORDS[COMP_CWORD]}")
}
_halvo_check() {
    mapfile -t COMPREPLY < <(compgen -f -W '--against --errors-only --help --version' -- "${COMP_WORDS[COMP_CWORD]}")
}
_halvo_peer() {
    local word=${COMP_WORDS[COMP_CWORD]}
    case ${COMP_WORDS[COMP_CWORD - 1]} in
        --from | --listen | --lost | --back | --for) ;;
        --textfile) mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
        *)
            mapfile -t COMPREPLY < <(compgen -c -W \
                '--from --listen --lost --back --textfile --for --help --version' -- "$word")
            ;;
    esac
}
_halvo_status() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} list=
    local codes='no-daemon no-answer process-lost not-armed held-up limit-crossed heartbeat-ended failover-off
        watchdog-boot timeout-differs replaced cut-off'
    case $before in
        --output) mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
        --timeout | --wait) COMPREPLY=() ;;
        --allow)
            [[ $word != *,* ]] || list=${word%,*},
            mapfile -t COMPREPLY < <(compgen -P "$list" -W "$codes" -- "${word##*,}")
            ;;
        *)
            mapfile -t COMPREPLY < <(compgen -W '--check --json --prometheus --watch --output --allow --timeout
                --wait --help --version' -- "$word")
            ;;
    esac
}
complete -F _halvo halvo
complete -F _halvo_check halvo-check
complete -F _halvo_peer halvo-peer
complete -F _halvo_status halvo-status
