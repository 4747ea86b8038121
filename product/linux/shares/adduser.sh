#!/bin/sh
# adduser.sh USER USER PASSWORD_FILE -- makes the user that a share is served to.
# Exit status: 0 the user can log in to Samba with that password; otherwise nothing was changed,
# and stderr says why.
# shellcheck source=SCRIPTDIR/common.sh
. "${0%/*}/common.sh"

# smbpasswd reads it, twice, from its standard input.
setPassword() {
    { printPassword && printf '\n' && printPassword && printf '\n'; } | smbpasswd -s -a "$1" >/dev/null
}

# Removes what an earlier session left of a user of this name, or refuses what is not ours.
makeWay() {
    findUser "$1"
    if isOurUser; then
        ! isInUse "$USER_STATE/$1" || fail "the user $1 is in use by a session that runs"
        say "taking over the user $1 from a session that has ended"
        removeUser "$1" || fail "cannot take over the user $1"
    fi
    findUser "$1"
    [ -z "$userUid" ] || fail "the user $1 exists already"
    findGroup "$1"
    [ -z "$groupGid" ] || fail "the group $1 exists already"
    ! isKnownToSamba "$1" || fail "Samba knows a user $1 already"
}

# There was no such user a moment ago, so whoever has the name and the mark now was made here.
# In a shell of its own, for what it calls may end the shell.  The account stays when Samba's entry
# cannot be removed: its mark lets the next script finish the work.
undo() {
    (
        findUser "$1"
        ! isOurUser || removeUser "$1"
    ) || say "the user $1 is left behind"
}

main() {
    [ -n "$session" ] || fail 'the caller has gone'
    makeWay "$1"
    removeLeftoverShares
    undoOnExit "undo $1 9>&-"
    useradd --system --no-create-home --home-dir /nonexistent --shell /usr/sbin/nologin \
        --user-group --comment "$USER_COMMENT" -- "$1" || fail "cannot make the user $1"
    findUser "$1"
    setPassword "$1" || fail "cannot set the password of $1"
    isKnownToSamba "$1" || fail "Samba did not take the user $1"
    forgetNumbers "$userUid" "$userGid"
    claim "$USER_STATE/$1" || fail "cannot write $USER_STATE/$1"
    finish
}

checkAdduserArguments "$@"
readPassword "$3"
underLock main "$1"
