# Bash completion for pxtool and pellix. Commands and options are read from the programs' own
# help, so the completion follows the program it completes for.

_pellix_help_options()
{
    sed -n 's/^  \(--[a-z0-9-]*\).*/\1/p; s/^  -[a-z], \(--[a-z0-9-]*\).*/\1/p'
}

_pxtool()
{
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local program=${COMP_WORDS[0]} commands command="" word
    commands=$("$program" --help 2>/dev/null | sed -n '/^Commands:/,/^$/s/^  \([a-z0-9-]*\) .*/\1/p')
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        if [[ " ${commands//$'\n'/ } " == *" $word "* ]]; then
            command=$word
            break
        fi
    done
    case $prev in
    --flow) mapfile -t COMPREPLY < <(compgen -W "none hardware xonxoff" -- "$cur"); return ;;
    --format) mapfile -t COMPREPLY < <(compgen -W "lod hex srec elf binary" -- "$cur"); return ;;
    --port | --baud | --host | --tcp-port | --address | --count | --timeout | --wait | --echo | \
        --max-report | --mask | --data) return ;;
    esac
    if [[ $cur == -* ]]; then
        local options
        options=$({ "$program" --help; [[ -n $command ]] && "$program" help "$command"; } 2>/dev/null |
            _pellix_help_options)
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
    elif [[ -z $command || $command == help ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$commands help" -- "$cur")
    else
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
    fi
}

_pellix()
{
    local cur=${COMP_WORDS[COMP_CWORD]}
    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$("${COMP_WORDS[0]}" --help 2>/dev/null |
            _pellix_help_options)" -- "$cur")
    else
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
    fi
}

complete -o filenames -F _pxtool pxtool
complete -o filenames -F _pellix pellix
