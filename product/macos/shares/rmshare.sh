#!/bin/dash
# rmshare.sh SHARE FOLDER -- ends a share that addshare.sh made, and removes its access entries.
# Exit status: 0 there is no such share any more; otherwise stderr has the reason, and names what is left.
# shellcheck source=SCRIPTDIR/common.sh
. "${0%/*}/common.sh"

# main SHARE FOLDER: runs under the lock.
main() {
    shareState=$SHARE_STATE/_$1
    if [ ! -d "$shareState" ]; then
        ! surely isListed /SharePoints "$1" || fail "the share \"$1\" was not made by addshare.sh"
        say "there is no share \"$1\" any more"
        exit 0
    fi
    ! isInUseByAnother "$shareState/owner" ||
        fail "the share \"$1\" belongs to another session that runs"
    # The file may be missing or empty: addshare.sh may have been killed before it wrote the folder.
    recall "$shareState/given"
    [ -z "$recalled" ] || [ "$recalled" = "$2" ] ||
        fail "the share \"$1\" serves another folder than \"$2\""
    removeShare "$1" || exit 1
}

checkRmshareArguments "$@"
underLock main "$1" "$2"
