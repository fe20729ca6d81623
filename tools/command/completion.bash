# Completion for bash. It asks the command for its subcommands and options, so it is never behind.
_cameraframeboost() {
    local command=$1 current=$2 previous=$3 subcommand="" word
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case $word in
            -*) ;;
            *) subcommand=$word; break ;;
        esac
    done
    COMPREPLY=()
    if [[ $current == -* ]]; then
        local options
        # shellcheck disable=SC2086
        options=$("$command" $subcommand --help 2>/dev/null |
            sed -n '/^Options:/,/^$/s/^ *\(-[^ ]*\).*/\1/p' | tr ',' ' ')
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    elif [[ -z $subcommand ]]; then
        local subcommands
        subcommands=$("$command" --help 2>/dev/null |
            sed -n '/^Subcommands:/,/^$/s/^  \([a-z][a-z-]*\).*/\1/p')
        mapfile -t COMPREPLY < <(compgen -W "$subcommands" -- "$current")
    else
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        compopt -o filenames 2>/dev/null
    fi
}
complete -F _cameraframeboost cameraframeboost
