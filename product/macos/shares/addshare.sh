#!/bin/dash
# addshare.sh USER PASSWORD_FILE FOLDER SHARE ACCESS -- serves FOLDER as SHARE, with access for USER.
# ACCESS is rw or ro.  macOS decides by the permissions of the files.  So the user gets an access entry on the
# folder and on the owner's files in it, and an entry to pass through each folder above that not everybody
# may pass.
# Exit status: 0 a client can connect now; otherwise there is no share, and stderr has the reason.
# shellcheck source=SCRIPTDIR/common.sh
. "${0%/*}/common.sh"
# shellcheck source=SCRIPTDIR/folder.sh
. "${0%/*}/folder.sh"

SMB_SECONDS=30 # how long to wait for the SMB service
READ_RIGHTS=list,search,readattr,readextattr,readsecurity,read,execute
WRITE_RIGHTS=write,append,delete,delete_child,add_file,add_subdirectory,writeattr,writeextattr
INHERITANCE=file_inherit,directory_inherit

# Fails on a macOS whose sharing cannot make a share that is read only.
checkHost() {
    sharingUsage=$(/usr/sbin/sharing 2>&1) || : # without arguments it explains itself
    case $sharingUsage in
        *-R*) ;;
        *) fail 'the program "sharing" of this macOS cannot tell reading from writing: it has no -R' ;;
    esac
}

# checkUser USER: fails unless adduser.sh has made the user, and when the user belongs to another session that
# runs.  Sets userNumber and userUuid.
checkUser() {
    findUser "$1"
    [ "$isOurs" != unknown ] || exit 1
    [ "$userListed" = yes ] || fail "there is no user $1"
    [ "$isOurs" = yes ] || fail "the user $1 was not made for a share"
    ! isInUseByAnother "$USER_STATE/$1" || fail "the user $1 belongs to another session that runs"
    hasNtHash "$1" || fail "the user $1 has no password for SMB"
    userNumber=$(/usr/bin/id -u "$1") || fail "macOS does not know the user $1"
    userUuid=$(readUuid "$1")
    [ -n "$userUuid" ] || fail "cannot read the UUID of $1"
}

# checkOneShare USER: fails when the user has a share.  Two shares could need the same access entry, and the
# first to end would remove it.
checkOneShare() {
    for shareState in "$SHARE_STATE"/_*; do
        recall "$shareState/user"
        [ "$recalled" != "$1" ] || fail "the user $1 has a share already"
    done
}

# checkSystemsNames SHARE: fails for the name of a user or a volume.  macOS itself serves a user's home folder
# under the user's name, and to administrators each volume under the volume's name.
checkSystemsNames() {
    ! surely isListed /Users "$1" || fail "the share name is that of a user: \"$1\""
    for volume in /Volumes/*; do
        printf '%s\n' "${volume##*/}"
    done | grep -ixF -e "$1" >/dev/null || return 0
    fail "the share name is that of a volume: \"$1\""
}

# checkNameIsFree SHARE: fails when there is such a share.  What dead sessions left was removed before.
checkNameIsFree() {
    [ ! -d "$SHARE_STATE/_$1" ] || fail "the share \"$1\" is in use by a session that runs"
    checkSystemsNames "$1"
    ! surely isNamed /SharePoints "$1" || fail "the share \"$1\" exists already"
    ! surely isListed /SharePoints "$1" || fail "the share \"$1\" exists already"
    # sharing -l may fail when there is no share.
    [ -n "$listText" ] || return 0
    # A share's name for SMB may differ from the name of its record.
    sharingList=$(/usr/sbin/sharing -l 2>&1) || fail "cannot list the shares: $sharingList"
    ! printf '%s\n' "$sharingList" | sed -n 's/^[[:blank:]]*name:[[:blank:]]*//p' |
        grep -ixF -e "$1" >/dev/null || fail "a share is called \"$1\" already"
}

# remember NAME TEXT: writes one of the share's notes; common.sh lists them.
remember() { printf '%s' "$2" >"$shareState/$1"; }

# makeState USER GIVEN_FOLDER SHARE: writes all notes, before the first change.
makeState() {
    mkdir -- "$shareState" && remember name "$3" && remember given "$2" && remember user "$1" &&
        remember uuid "$userUuid" && remember entry "$entry" && remember numbers "$userNumber $folderOwner" &&
        remember folder "$folder"
}

# Returns whether everybody may pass through the current folder, by mode.
everybodyMayPass() { look . && case $mode in *[1357]) ;; *) return 1 ;; esac; }

# openWay FOLDER: lets the user pass through those folders above that not everybody may pass, the outermost
# first.  Notes each folder before it changes it.
openWay() {
    way=$1 depth=0
    while [ -n "$way" ]; do
        way=${way%/*} depth=$((depth + 1))
    done
    while [ "$depth" -gt 0 ]; do
        setAbove "$1" "$depth"
        inFolder "$above" everybodyMayPass || {
            printf '%s\n' "$depth" >>"$shareState/search" || fail "cannot write in $shareState"
            inFolder "$above" /bin/chmod -h +a "user:$user allow search" . ||
                fail "cannot let $user pass through \"$above\""
        }
        depth=$((depth - 1))
    done
}

# inJudged COMMAND [ARG...]: runs the command in the folder; fails when that is not the one that judgeFolder has
# checked.
inJudged() { inFolder "$folder" asJudged "$@"; }

asJudged() {
    { look . && [ "$id" = "$folderId" ]; } || fail "another folder now: \"$folder\""
    "$@"
}

# Sets the access entry on the folder and on what is in it.  Left out are a file of another user, one that has
# a second name (a hard link), and what links lead to: the owner of the folder could have put them there to
# get access to files of others.  Each entry is set from within its folder and never through a link, because
# the owner may change things meanwhile.  find does not fail when chmod does: it prints the names then.
openFolder() {
    { refused=$(inJudged watched /usr/bin/find -P . -xdev -user "$folderOwner" \
        '(' -type d -o -type f -links 1 ')' ! -execdir /bin/chmod -h +a "$entry" '{}' \; -print 2>&1) &&
        [ -z "$refused" ]; } ||
        fail "cannot give $user access to all in \"$folder\": $(firstLine "$refused")"
    leftOut=$(inJudged /usr/bin/find -P . -xdev '(' -type d -o -type f ')' \
        ! '(' -user "$folderOwner" '(' -type d -o -links 1 ')' ')' -print) ||
        fail "cannot look through \"$folder\""
    [ -z "$leftOut" ] || say "$user gets no access to what does not belong to the owner of the folder or\
 has more than one name, such as \"$(firstLine "$leftOut")\""
}

# share FOLDER SHARE: makes the share, for SMB only (-s 001) and without guests (-g 000), whom sharing admits by
# default.  Checks once more that the name is free: openFolder may have taken long, and undo must not remove
# a share that somebody else has made meanwhile.
share() {
    ! surely isListed /SharePoints "$2" || fail "the share \"$2\" exists already"
    shareTried=yes
    /usr/sbin/sharing -a "$1" -n "$2" -S "$2" -s 001 -g 000 -R "$readOnly" >/dev/null ||
        fail "macOS did not take the share \"$2\""
    isOurShare "$2" || fail "macOS does not show the share \"$2\" as it was made"
}

# Waits until something listens on port 445; returns 1 after SMB_SECONDS.  The number of attempts is limited,
# too, in case the clock is set back meanwhile.
waitForSmb() {
    smbEnd=$(($(/bin/date +%s) + SMB_SECONDS)) smbTries=0
    # Sends nothing; the connection itself starts the service.  -G limits the time of connecting, and -w the
    # time after it.
    until /usr/bin/nc -z -G 1 -w 1 127.0.0.1 445 >/dev/null 2>&1; do
        smbTries=$((smbTries + 1))
        [ "$smbTries" -lt "$((SMB_SECONDS * 10))" ] && [ "$(/bin/date +%s)" -lt "$smbEnd" ] || return 1
        pauseBriefly
    done
}

# Removes what was made.  If share was called, a share of the name is ours, however the directory spells its
# folder: there was none just before.
undo() {
    undone=yes
    if [ "$shareTried" = yes ]; then
        ask isListed /SharePoints "$shareName"
        [ "$answer" = no ] || endShare "$shareName" || undone=no
    fi
    removeShare "$shareName" || undone=no
    [ "$undone" = yes ] || say "the share \"$shareName\", or something of it, is left behind"
}

# main USER FOLDER SHARE: runs under the lock.
main() {
    [ -n "$session" ] || fail 'the caller has gone'
    user=$1 shareName=$3 shareTried=no
    checkHost
    checkUser "$1"
    removeLeftoverShares || [ -z "$leftShare" ] ||
        fail "cannot clear away the share \"$leftShare\" of an earlier session"
    checkOneShare "$1"
    checkNameIsFree "$3"
    shareState=$SHARE_STATE/_$3
    undoOnExit undo
    makeState "$1" "$2" "$3" || fail "cannot make $shareState"
    openWay "$folder"
    openFolder
    share "$folder" "$3"
    waitForSmb || fail "the SMB service has not come up within $SMB_SECONDS s"
    claim "$shareState/owner" || fail "cannot write $shareState/owner"
    isInUse "$shareState/owner" || fail 'the caller has gone'
    finish
}

checkAddshareArguments "$@"
judgeFolder "$3"
case $5 in
    rw) readOnly=0 entry="user:$1 allow $READ_RIGHTS,$WRITE_RIGHTS,$INHERITANCE" ;;
    ro) readOnly=1 entry="user:$1 allow $READ_RIGHTS,$INHERITANCE" ;;
esac
underLock main "$1" "$3" "$4"
