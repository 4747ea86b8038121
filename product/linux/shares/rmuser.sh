#!/bin/sh
# rmuser.sh USER -- ends the sessions of a user that adduser.sh made, and removes it.
# It works whether or not smbd runs, and asks for nothing that its caller may hold: the caller has
# the system preferences locked meanwhile.
# Exit status: 0 there is no such user any more; otherwise stderr says why it is still there.
# shellcheck source=SCRIPTDIR/common.sh
. "${0%/*}/common.sh"

# USER
main() {
    findUser "$1"
    if [ -z "$userUid" ]; then
        ! isKnownToSamba "$1" || fail "Samba knows a user $1 that was not made for a share"
        rm -f -- "$USER_STATE/$1"
        say "there is no user $1 any more"
        exit 0
    fi
    isOurUser || fail "the user $1 was not made for a share"
    ! isInUseByAnother "$USER_STATE/$1" || fail "the user $1 belongs to another session that runs"
    removeUser "$1" || exit 1
}

checkRmuserArguments "$@"
underLock main "$1"
