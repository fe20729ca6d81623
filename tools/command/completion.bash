# Completion for bash. It asks the command for its subcommands, options and their values, so it is
# never behind.
_cameraframeboost() {
    local command=$1 current=$2 previous=$3 subcommand="" word help words form=""
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case $word in
            -*) ;;
            *) subcommand=$word; break ;;
        esac
    done
    # shellcheck disable=SC2086
    help=$(COLUMNS=1000 "$command" $subcommand --help 2>/dev/null)
    COMPREPLY=()
    if [[ $current == -* ]]; then
        words=$(sed -n 's/^  \(-[^ ]*\).*/\1/p' <<<"$help" | tr ',' ' ')
    elif [[ -z $subcommand ]]; then
        words=$(sed -n '/^Subcommands:/,/^$/s/^  \([a-z][a-z-]*\).*/\1/p' <<<"$help")
    else
        # What the help shows behind an option: "--color auto|always|never", "--late PERIODS".
        if [[ $previous == -* ]]; then
            form=$(sed -n "s/^  \(-.,\)\?$previous \([^ ]*\).*/\2/p" <<<"$help")
        fi
        case $form in
            *\|*) words=${form//|/ } ;;
            KIND:*)
                words=$(sed -n 's/^  \([a-z-]*:\)FRAME.*/\1/p' <<<"$help")
                compopt -o nospace 2>/dev/null
                ;;
            A-B) words="120 120-140" ;;
            FORM) words="threadtime threadtime,year,usec time" ;;
            N | PERIODS) words="" ;;
            *)
                mapfile -t COMPREPLY < <(compgen -f -- "$current")
                compopt -o filenames 2>/dev/null
                return
                ;;
        esac
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}
complete -F _cameraframeboost cameraframeboost
