#!/bin/sh
# rmshare.sh SHARE FOLDER -- ends a share that addshare.sh made, and cuts its clients off.
# Exit status: 0 there is no such share any more; otherwise stderr says why it is still there.
# shellcheck source=SCRIPTDIR/common.sh
. "${0%/*}/common.sh"

# Whether the file holds just this text.  The sentinel keeps newlines at the end.
holds() { [ "$(cat -- "$1" && printf .)" = "$2." ]; }

# SHARE FOLDER
main() {
    findShare "$1"
    if [ -z "$sharePath" ]; then
        # An earlier run may have failed after the share was gone.  A share that smb.conf has of this
        # name is not ours, nor are its clients.
        testparm -s --section-name="$1" >/dev/null 2>&1 || cutOffClients "$1" || exit 1
        say "there is no share \"$1\" any more"
        exit 0
    fi
    isOurPath "$sharePath" || fail "the share \"$1\" was not made by addshare.sh"
    shareState=${sharePath%/folder}
    ! isInUseByAnother "$shareState/owner" ||
        fail "the share \"$1\" belongs to another session that runs"
    # After a reboot the file is gone, and with it the folder to compare.
    [ ! -e "$shareState/given" ] || holds "$shareState/given" "$2" ||
        fail "the share \"$1\" serves another folder than \"$2\""
    removeShare "$1" "$shareState" || exit 1
}

checkRmshareArguments "$@"
underLock main "$1" "$2"
