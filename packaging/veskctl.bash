# bash completion for veskctl. Installed as /usr/share/bash-completion/completions/veskctl; ". veskctl.bash" works too.

_veskctl() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command='' i options=
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
        # An address contains ":", at which bash may break words.
        --bus) if [ "${COMP_WORDS[i + 2]-}" = : ]; then ((i += 3)); else ((i += 1)); fi ;;
        -*) ;;
        *)
            command=${COMP_WORDS[i]}
            break
            ;;
        esac
    done
    case $before in
    --bus)
        mapfile -t COMPREPLY < <(compgen -W 'unix: tcp:' -- "$word")
        compopt -o nospace 2>/dev/null
        return
        ;;
    --count | --timeout | --from | --to) return ;;
    --format)
        mapfile -t COMPREPLY < <(compgen -W 'csv json' -- "$word")
        return
        ;;
    esac
    case $command in
    '') options='--bus --json --version --help status watch storage clips index save delete format eject busy log report action' ;;
    watch) options='--count --timeout --json' ;;
    clips) options='--from --to --marked --unmarked --follow --json' ;;
    index) options='--format --json' ;;
    delete | action) options='--yes --json' ;;
    format) options='--wait --timeout --yes --json' ;;
    eject) options='--wait --timeout --json' ;;
    report) options='--timeout --json' ;;
    status | storage | save | busy | log) options='--json' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
    case $command:$word in
    *:-*) ;;
    # Clips are named by their times, where the index can be read; a colon would end the word for bash.
    save: | delete: | save:[0-9]* | delete:[0-9]*)
        [[ $COMP_WORDBREAKS == *:* && $word == *T*:* ]] && return
        local times
        times=$(veskctl --json clips 2>/dev/null | sed -n 's/.*"ts":\([0-9]*\).*/\1/p' | head -n 1000)
        mapfile -t COMPREPLY < <(compgen -W "$times" -- "$word")
        ;;
    clips:* | log:*) mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -d -- "$word") ;;
    index: | index:[a-z]*)
        mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -W 'check repair export' -- "$word")
        mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "$word")
        ;;
    index:*) mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "$word") ;;
    action:[!-]* | action:)
        mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -W 'deleteVideo deleteSaveVideo saveVideo sd_storge sd_format sd_umount' -- "$word")
        ;;
    report:*) mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "$word") ;;
    esac
}

complete -F _veskctl veskctl
