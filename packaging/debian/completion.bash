# bash completion for the administrator's commands of pelagoShareTool.

_pelago_share_sessions() {
    local word=${COMP_WORDS[COMP_CWORD]}
    if [[ $COMP_CWORD -eq 1 ]]; then
        mapfile -t COMPREPLY < <(compgen -W '--clean --end --end-all' -- "$word")
    elif [[ $COMP_CWORD -eq 2 && ${COMP_WORDS[1]} == --end ]]; then
        mapfile -t COMPREPLY < <(compgen -u -- "$word")
    fi
}
complete -F _pelago_share_sessions pelago-share-sessions
complete -W 'init off on status' pelago-smb-service
complete -d pelago-share-check # the folder to check
