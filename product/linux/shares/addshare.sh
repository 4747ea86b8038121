#!/bin/sh
# addshare.sh USER PASSWORD_FILE FOLDER SHARE ACCESS -- serves FOLDER as SHARE to USER alone.
# ACCESS is rw or ro.  The client acts as the owner of the folder, whose rights decide.
# Exit status: 0 a client can connect now; otherwise there is no share, and stderr says why.
# shellcheck source=SCRIPTDIR/common.sh
. "${0%/*}/common.sh"

SMBD_SECONDS=10 # how long to wait for smbd to come up

# Whether nobody but root and the owner of the folder can put something else in its place, or in that
# of any folder above it: smbd finds its way along the path anew for each client.  Sets changeable to
# the part that others can change.
isSafeWay() {
    changeable=$folder
    # What others may write into the folder itself leads nowhere, but as root smbd could go anywhere.
    [ "$folderUid" -eq 0 ] || changeable=${changeable%/*}
    while :; do
        rights=$(stat -c '%u 0%a' -- "${changeable:-/}") || return 1
        mode=${rights#* }
        case ${rights% *} in 0 | "$folderUid") ;; *) return 1 ;; esac
        # In a folder with the sticky bit others cannot rename what is not theirs.
        [ "$((mode & 022))" -eq 0 ] || [ "$((mode & 01000))" -ne 0 ] || return 1
        [ -n "$changeable" ] || return 0
        changeable=${changeable%/*}
    done
}

# Sets folder to the path without links, folderOwner, folderUid and folderGid.  From here on only
# the path without links counts: a link may lead elsewhere the next moment, and what has none stays
# so when only root and the owner can change it.  smbd can act only as a user that it can name.
checkFolder() {
    case $1 in /*) ;; *) fail "the folder's path is not absolute: \"$1\"" ;; esac
    isUtf8 "$1" || fail "the folder's path is not valid UTF-8"
    [ -d "$1" ] || fail "not a folder: \"$1\""
    folder=$(readlink -e -n -- "$1" && printf .) || fail "cannot resolve the path: \"$1\""
    folder=${folder%.} # it kept newlines at the end
    folderUid=$(stat -c %u -- "$folder") || fail "cannot tell whose folder it is: \"$1\""
    folderOwner=$(stat -c %U -- "$folder") || fail "cannot tell whose folder it is: \"$1\""
    [ "$(id -u -- "$folderOwner" 2>/dev/null)" = "$folderUid" ] ||
        fail "the owner of the folder, number $folderUid, is no user of this host: \"$1\""
    isSafeWay || fail "the folder belongs to $folderOwner, but others can change \"${changeable:-/}\": \"$1\""
    case $folderOwner in
        *[%\"[:cntrl:]]* | ' '* | *' ' | *\\)
            fail "Samba cannot act as the owner of the folder, \"$folderOwner\"" ;;
    esac
    folderGid=$(id -g -- "$folderOwner") || fail "cannot tell the group of $folderOwner"
    setpriv --reuid "$folderUid" --regid "$folderGid" --init-groups \
        test -x "$folder/." || fail "the owner of the folder, $folderOwner, cannot enter it: \"$1\""
}

checkHost() {
    registryShares=$(testparm -s --parameter-name='registry shares' 2>/dev/null) ||
        fail "cannot read Samba's configuration"
    [ "$registryShares" = Yes ] ||
        fail 'Samba does not serve shares from its registry: set "registry shares = yes" in smb.conf'
}

checkUser() {
    findUser "$1"
    [ -n "$userUid" ] || fail "there is no user $1"
    isOurUser || fail "the user $1 was not made for a share"
    ! isInUseByAnother "$USER_STATE/$1" || fail "the user $1 belongs to another session that runs"
    isKnownToSamba "$1" || fail "Samba does not know the user $1"
}

# Removes a share of this name that an earlier session left, or refuses what is not ours.
makeWay() {
    findShare "$1"
    if isOurPath "$sharePath"; then
        ! isInUse "${sharePath%/folder}/owner" ||
            fail "the share \"$1\" is in use by a session that runs"
        say "removing the share \"$1\" of a session that has ended"
        removeShare "$1" "${sharePath%/folder}" || fail "cannot replace the share \"$1\""
        findShare "$1"
    fi
    [ -z "$sharePath" ] || fail "the share \"$1\" exists already"
    ! testparm -s --section-name="$1" >/dev/null 2>&1 ||
        fail "the share \"$1\" exists already in Samba's configuration file"
}

# smb.conf's syntax cannot spell every path, and expands % in it; a link with a plain name can lead
# to any folder.  rmshare.sh is given the path as it was given here.
makeState() {
    shareState=$(mktemp -d -- "$SHARE_STATE/XXXXXXXXXX") &&
        chmod 0711 -- "$shareState" &&
        printf '%s' "$1" >"$shareState/given" &&
        ln -s -- "$folder" "$shareState/folder"
}

# All settings arrive in one transaction: no moment with the share open to others.  The name as an
# argument matters, for without it the import would replace every share of the host.
importShare() {
    printf '[%s]\n path = %s\n valid users = %s\n force user = %s\n read only = %s\n guest ok = no\n' \
        "$1" "$shareState/folder" "$2" "$folderOwner" "$3" |
        net conf import /dev/stdin -- "$1"
}

waitForSmbd() {
    deadline=$(($(uptimeSeconds) + SMBD_SECONDS))
    until isSmbdRunning; do
        [ "$(uptimeSeconds)" -lt "$deadline" ] || return 1
        sleep 0.05
    done
}

# In a shell of its own, for what it calls may end the shell.  Without the link nobody can enter a
# share that is left.
undo() {
    [ -n "$shareState" ] || return 0
    (
        findShare "$share"
        [ "$sharePath" != "$shareState/folder" ] || removeShare "$share" "$shareState"
    ) || say "the share \"$share\" is left behind"
    removeShareState "$shareState" || :
}

# USER FOLDER SHARE READ_ONLY
main() {
    [ -n "$session" ] || fail 'the caller has gone'
    share=$3 shareState=''
    checkFolder "$2"
    checkHost
    checkUser "$1"
    makeWay "$3"
    undoOnExit "undo 9>&-"
    forgetNumbers "$folderUid" "$folderGid"
    makeState "$2" || fail "cannot make a folder in $SHARE_STATE"
    importShare "$3" "$1" "$4" || fail "Samba did not take the share \"$3\""
    findShare "$3"
    [ "$sharePath" = "$shareState/folder" ] || fail "Samba does not show the share \"$3\""
    waitForSmbd || fail "smbd has not come up within $SMBD_SECONDS s"
    claim "$shareState/owner" || fail "cannot write $shareState/owner"
    finish
}

checkAddshareArguments "$@"
readOnly=no
[ "$5" = rw ] || readOnly=yes
underLock main "$1" "$3" "$4" "$readOnly"
