#!/bin/dash
# rmshare.sh SHARE FOLDER -- ends a share that addshare.sh made, and takes back what it granted.
# Exit status: 0 there is no such share any more; otherwise stderr says why, and what is left.
# shellcheck source=SCRIPTDIR/common.sh
. "${0%/*}/common.sh"

# SHARE FOLDER
main() {
    shareState=$SHARE_STATE/_$1
    if [ ! -d "$shareState" ]; then
        ! surely isListed /SharePoints "$1" || fail "the share \"$1\" was not made by addshare.sh"
        say "there is no share \"$1\" any more"
        exit 0
    fi
    ! isInUseByAnother "$shareState/owner" ||
        fail "the share \"$1\" belongs to another session that runs"
    # A script that was killed as it began may have left no folder to compare.
    recall "$shareState/given"
    [ -z "$recalled" ] || [ "$recalled" = "$2" ] ||
        fail "the share \"$1\" serves another folder than \"$2\""
    removeShare "$1" || exit 1
}

checkRmshareArguments "$@"
underLock main "$1" "$2"
