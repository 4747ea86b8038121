#!/bin/dash
# rmuser.sh USER -- removes a user that adduser.sh made, and any share of that user that was left.
# It does not need the SMB service, which may be going down, and waits for no lock that its caller may hold:
# the caller holds the lock of the system preferences meanwhile.
# Exit status: 0 there is no such user any more; otherwise stderr has the reason, and names what is left.
# shellcheck source=SCRIPTDIR/common.sh
. "${0%/*}/common.sh"

# main USER: runs under the lock.
main() {
    findUser "$1"
    [ "$isOurs" != unknown ] || exit 1
    ! isInUseByAnother "$USER_STATE/$1" || fail "the user $1 belongs to another session that runs"
    if [ "$isOurs" = no ]; then
        [ "$userListed" = no ] || fail "the user $1 was not made for a share"
        groupListed=no # whatever there is, it is not ours
        removeUser "$1" || exit 1
        say "there is no user $1 any more"
        exit 0
    fi
    removeUser "$1" || exit 1
}

checkRmuserArguments "$@"
underLock main "$1"
