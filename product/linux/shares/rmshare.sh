#!/bin/sh
# rmshare.sh SHARE FOLDER -- ends a share that addshare.sh made, and cuts its clients off.
# Exit status: 0 there is no such share any more; otherwise stderr says why it is still there.
# shellcheck source=SCRIPTDIR/common.sh
. "${0%/*}/common.sh"

# Whether the link leads to the folder.  The sentinel keeps newlines at the end of a path.
leadsTo() { [ "$(readlink -n -- "$1" && printf .)" = "$2." ]; }

# SHARE FOLDER
main() {
    findShare "$1"
    if [ -z "$sharePath" ]; then
        say "there is no share \"$1\" any more"
        exit 0
    fi
    isOurPath "$sharePath" || fail "the share \"$1\" was not made by addshare.sh"
    shareState=${sharePath%/folder}
    ! isInUseByAnother "$shareState/owner" ||
        fail "the share \"$1\" belongs to another session that runs"
    # After a reboot the link is gone, and with it the folder to compare.
    [ ! -L "$sharePath" ] || leadsTo "$sharePath" "$2" ||
        fail "the share \"$1\" serves another folder than \"$2\""
    removeShare "$1" "$shareState" || exit 1
}

[ "$#" -eq 2 ] || fail 'usage: rmshare.sh SHARE FOLDER'
checkShareName "$1"
[ -n "$2" ] || fail "the folder's path is empty"
underLock main "$1" "$2"
