# bash completion of halvo and halvo-check; installed under both names.
_halvo() {
    mapfile -t COMPREPLY < <(compgen -W '-c -s -r -w -h' -- "${COMP_WORDS[COMP_CWORD]}")
}
complete -F _halvo halvo
complete -f halvo-check
