# shellcheck shell=sh
# common.sh -- functions that all share scripts use.  It is sourced by them, never run.
#
# Marks show which users and shares were made here; nothing without a mark is ever changed.  A user that
# was made here, and the user's group, have USER_MARK and their name as their full name.  A share that was
# made here has a folder of notes in SHARE_STATE, which is written before the first change.  The share is
# ours only as long as its record in the directory leads to the shared folder that is noted there.
#
# An "owner" is the session that a user or a share belongs to: the process number and the start time of the
# script's parent.  It is written last.  A user or share without an owner, or whose owner has ended, was
# left behind by a session that was killed or by one before the last boot, and may be removed.
#
# Programs that act on the system are called by their full path.  The others (awk, cat, grep, iconv and so
# on) are found in PATH, and only options that all systems have are used.

# The scripts need dash, which macOS has had since 10.15.  /bin/sh may be any of three shells on a Mac, and
# only in dash does pwd surely print the folder that cd has entered.
# Each script starts itself anew, once, without the caller's environment: the script runs as root, and a
# variable of the caller's could change what a shell or a program does.  LC_ALL=C makes programs compare
# bytes.  The fixed time zone keeps the text of a start time the same when the Mac changes its zone.
# PELAGO_STARTED_ANEW is the process number, which exec keeps.
if [ "${PELAGO_STARTED_ANEW-}" != "$$" ]; then
    exec /usr/bin/env -i "PELAGO_STARTED_ANEW=$$" PATH=/usr/bin:/bin:/usr/sbin:/sbin LC_ALL=C TZ=UTC0 \
        /bin/dash "$0" "$@"
fi

# shellcheck source=SCRIPTDIR/base.sh
. "${0%/*}/base.sh"

# Opens stdout and stderr if the caller has closed them.
(: 3>&1) 2>/dev/null || exec >/dev/null
(: 3>&2) || exec 2>/dev/null # not silenced like the line above: that would open what it tests

# Access entries on the disk survive a boot, and so must the notes of them; a boot empties /var/run.
STATE=/var/db/pelago
SHARE_STATE=$STATE/shares
USER_STATE=$STATE/users
LOCKS=/var/run/pelago
USER_MARK='Pelago share user'
ACCESS_GROUP=com.apple.access_smb # when there is such a group, only its members may use SMB
STUCK_SECONDS=30                  # how long a program may take for one file
LOCK_TRIES=600                    # how often to look, a tenth of a second apart, for another script

newline='
'

# ---- Sessions

# processMark PID: prints "PID START" for a process that runs.  START, its start time, distinguishes it from a
# later process with the same number.  Returns 1 when there is no such process, and 2 when there is one but
# its start time is unknown.
processMark() {
    processText=$(/bin/ps -p "$1" -o stat= -o lstart= 2>/dev/null) || processText=''
    # shellcheck disable=SC2086 # split on purpose: the state, and the words of a date
    set -- "$1" $processText
    case ${2-} in
        '') if kill -0 "$1" 2>/dev/null; then return 2; else return 1; fi ;;
        Z*) return 1 ;; # ended already; only its parent does not know yet
    esac
    processPid=$1
    shift 2
    printf '%s %s' "$processPid" "$*"
}

# If the caller ended before the script began, the script's parent is launchd, which never ends: then there is
# no session.
session=''
[ "$PPID" -eq 1 ] || session=$(processMark "$PPID") || session=''

# isInUse FILE: returns whether the process that the file names runs, or may run.
isInUse() {
    ownerPid='' ownerStatus=0
    [ ! -f "$1" ] || read -r ownerPid _ <"$1" || :
    [ -n "$ownerPid" ] || return 1
    ownerMark=$(processMark "$ownerPid") || ownerStatus=$?
    [ "$ownerStatus" -eq 2 ] || [ "$ownerMark" = "$(cat "$1" 2>/dev/null)" ]
}

# ---- One script at a time
#
# macOS has no program that locks a file.  The lock is a file "lock.N" that names its holder; only the
# highest N counts.  The lock is free when that holder has ended, for any reason, so it cannot stay locked.
# A script takes it by making lock.N+1 as a hard link: the link appears together with its content, and only
# one script can make it.  Lower numbers are removed only after the higher one exists.  So a script that
# makes a number too late, after that number was used and removed, then sees a higher one, and gives up
# its own.

# Sets lockNumber to the highest number; 0 when there is none.
highestLock() {
    lockNumber=0
    for lockFile in "$LOCKS"/lock.*; do
        case ${lockFile##*.} in *[!0-9]*) continue ;; esac
        [ "${lockFile##*.}" -le "$lockNumber" ] || lockNumber=${lockFile##*.}
    done
}

# Sets lockNumber.  Returns 1 when two readings differ: the shell reads the folder piece by piece while other
# scripts change it.
findLock() {
    highestLock
    lockSeen=$lockNumber
    highestLock
    [ "$lockNumber" -eq "$lockSeen" ]
}

pauseBriefly() { sleep 0.1 || fail 'cannot wait: sleep has failed'; }

# Takes the lock if it is free; returns whether it did.
tryLock() {
    findLock || return 1
    ! isInUse "$LOCKS/lock.$lockNumber" || return 1
    lockTaken=$((lockNumber + 1))
    ln "$LOCKS/wait.$$" "$LOCKS/lock.$lockTaken" 2>/dev/null || return 1
    if ! findLock || [ "$lockNumber" -ne "$lockTaken" ]; then
        rm -f "$LOCKS/lock.$lockTaken"
        return 1
    fi
    for lockFile in "$LOCKS"/lock.*; do
        [ "$lockFile" = "$LOCKS/lock.$lockTaken" ] || rm -f "$lockFile"
    done
}

requireRoot() { [ "$(/usr/bin/id -u)" = 0 ] || fail 'only root may do this'; }

# underLock COMMAND [ARG...]: waits for the lock, a minute at most, and runs the command.
underLock() {
    requireRoot
    mkdir -p "$LOCKS" "$STATE" "$SHARE_STATE" "$USER_STATE" || fail "cannot make $LOCKS and $STATE"
    lockMark=$(processMark "$$") || fail 'cannot tell when this script was started'
    # An earlier process of this number may have left the file, and it may be a second name of a lock: it must
    # be removed, not written to.
    rm -f "$LOCKS/wait.$$"
    undoOnExit "rm -f $LOCKS/wait.$$"
    printf '%s\n' "$lockMark" >"$LOCKS/wait.$$" || fail "cannot write in $LOCKS"
    lockTries=0
    until tryLock; do
        lockTries=$((lockTries + 1))
        [ "$lockTries" -lt "$LOCK_TRIES" ] ||
            fail "another share script has not ended within $((LOCK_TRIES / 10)) s"
        pauseBriefly
    done
    rm -f "$LOCKS/wait.$$"
    "$@"
}

# ---- Names

# Fails for a share name that SMB, sharing or a path does not allow.
checkShareName() {
    checkSmbName "$1"
    case $1 in
        -*) fail "the share name begins with a dash, like an option: \"$1\"" ;;
        *[]\<\>*?\|/\\+=\;:\",[]*)
            fail "the share name holds one of < > * ? | / \\ + = ; : \" , [ ]: \"$1\"" ;;
    esac
    case $(printf '%s' "$1" | tr '[:upper:]' '[:lower:]') in
        . | .. | 'ipc$' | 'admin$' | 'print$') fail "the share name is reserved: \"$1\"" ;;
    esac
}

# ---- The directory
#
# The directory may not answer.  A function that reads it returns 0 for yes, 1 for no, and 2 for unknown, with
# the reason on stderr.  It does not end the script, because undoing must go on with its next step.

# ask FUNCTION [ARG...]: calls the function, and sets answer to yes, no or unknown.
ask() {
    answer=yes
    "$@" || case $? in 1) answer=no ;; *) answer=unknown ;; esac
}

# surely FUNCTION [ARG...]: returns whether the answer is yes; ends the script when it is unknown.  Only for
# places where nothing must be undone, or undoOnExit does it.
surely() {
    ask "$@"
    [ "$answer" != unknown ] || exit 1
    [ "$answer" = yes ]
}

# isListed FOLDER NAME: returns whether the directory lists a record FOLDER/NAME.  Case is ignored.
isListed() {
    listText=$(/usr/bin/dscl . -list "$1" 2>&1) || { say "cannot list $1: $listText"; return 2; }
    printf '%s\n' "$listText" | grep -ixF -e "$2" >/dev/null
}

# readRecord RECORD KEY...: sets recordText to these attributes of the record, with a newline before and after.
readRecord() {
    recordText=$(/usr/bin/dscl . -read "$@" 2>&1) || { say "cannot read $1: $recordText"; return 2; }
    recordText=$newline$recordText$newline
}

# hasValue KEY VALUE: returns whether readRecord has found this value.  A value with a blank stands on a line
# of its own.
hasValue() {
    case $recordText in
        *"$newline$1: $2$newline"* | *"$newline$1:$newline $2$newline"*) return 0 ;;
    esac
    return 1
}

# isOurRecord FOLDER NAME NUMBER_KEY: returns whether a user or group that exists was made here.  A record
# without a number is incomplete.  It is ours if there is a note of that user: a killed script has left it.
isOurRecord() {
    readRecord "$1/$2" RealName "$3" || return 2
    ! hasValue RealName "$USER_MARK $2" || return 0
    case $recordText in *"$newline$3: "*) return 1 ;; esac
    [ -f "$USER_STATE/$2" ]
}

# isNamed FOLDER NAME: returns whether a record has that name, as its first name or as another.  isListed sees
# only first names, but a record is found, and changed, by each of its names.
isNamed() {
    namedText=$(/usr/bin/dscl . -read "$(recordPath "$1" "$2")" RecordName 2>&1) && return 0
    case $namedText in *eDSRecordNotFound*) return 1 ;; esac
    say "cannot read $1/$2: $namedText"
    return 2
}

# recordPath FOLDER NAME: prints FOLDER/NAME with % escaped, because dscl decodes percent escapes.
recordPath() { printf '%s/%s' "$1" "$2" | sed 's/%/%25/g'; }

# deleteRecord FOLDER NAME: deletes a record; returns whether it is gone, and prints a message when not.
deleteRecord() {
    deletion=$(/usr/bin/dscl . -delete "$1/$2" 2>&1) || say "cannot delete $1/$2: $deletion"
    ask isListed "$1" "$2"
    case $answer in
        yes) say "$1/$2 is still there" ;;
        unknown) say "$1/$2 may still be there" ;;
    esac
    [ "$answer" = no ]
}

# ---- Users

# findUser NAME: sets userListed, groupListed and isOurs, each to yes, no or unknown.  isOurs is about the
# user, or about the group when there is no user.
findUser() {
    ask isListed /Users "$1"
    userListed=$answer
    ask isListed /Groups "$1"
    groupListed=$answer
    case $userListed$groupListed in
        yes*) ask isOurRecord /Users "$1" UniqueID ;;
        noyes) ask isOurRecord /Groups "$1" PrimaryGroupID ;;
        nono) answer=no ;;
        *) answer=unknown ;;
    esac
    # shellcheck disable=SC2034 # the scripts look at it
    isOurs=$answer
}

# hasNtHash USER: returns whether the user has a password hash that SMB can use.  Ends the script when that
# cannot be read.
hasNtHash() {
    hashTypes=$(/usr/bin/pwpolicy -u "$1" -gethashtypes 2>&1) ||
        fail "cannot read the hash types of $1: $hashTypes"
    printf '%s\n' "$hashTypes" | grep -wF -e SMB-NT >/dev/null
}

# isMember USER: returns whether ACCESS_GROUP, which exists, lists the user by name.
isMember() {
    readRecord "/Groups/$ACCESS_GROUP" GroupMembership || return 2
    case $recordText in "${newline}GroupMembership:"*) ;; *) return 1 ;; esac
    case " $(printf '%s' "$recordText" | tr '\n' ' ') " in *" $1 "*) return 0 ;; esac
    return 1
}

# leaveAccessGroup USER: removes the user from ACCESS_GROUP, which would otherwise keep the name: one day it
# may belong to another user.  dseditgroup needs a user that exists.  Where it fails, the values are removed
# from the record: the group lists a member by name and by UUID, and the UUID is unknown once the user has
# gone.
leaveAccessGroup() {
    [ "$userListed" = yes ] || [ -f "$USER_STATE/$1" ] || return 0
    ask isListed /Groups "$ACCESS_GROUP"
    [ "$answer" != yes ] || ask isMember "$1"
    [ "$answer" != no ] || return 0
    if [ "$userListed" = yes ]; then
        ! /usr/sbin/dseditgroup -o edit -d "$1" -t user "$ACCESS_GROUP" >/dev/null 2>&1 || return 0
        dropMember GroupMembers "$(readUuid "$1")" >/dev/null 2>&1 || :
    fi
    [ "$answer" = yes ] || { say "$1 may still be in the group $ACCESS_GROUP"; return 1; }
    removal=$(dropMember GroupMembership "$1" 2>&1) || {
        say "cannot take $1 out of the group $ACCESS_GROUP: $removal"
        return 1
    }
}

# dropMember KEY VALUE: removes one value from the record of ACCESS_GROUP.
dropMember() { /usr/bin/dscl . -delete "/Groups/$ACCESS_GROUP" "$1" "$2"; }

# readUuid USER: prints the user's UUID; nothing when it cannot be read.
readUuid() { /usr/bin/dscl . -read "/Users/$1" GeneratedUID | sed -n 's/^GeneratedUID: //p'; }

# removeUser NAME: removes a user of ours that findUser has found, or what is left of one; returns whether
# all of it is gone.  Shares are removed first, because access entries on the disk cannot be removed by name
# once the name has gone.  A step that fails does not stop the next: entries and a membership without a user
# let nobody in, but a user with a password does.  The note of the user is kept while a later attempt needs it.
removeUser() {
    sharesRemoved=yes userRemoved=yes
    removeSharesOf "$1" || sharesRemoved=no
    leaveAccessGroup "$1" || userRemoved=no
    [ "$userListed" = no ] || deleteRecord /Users "$1" || userRemoved=no
    answer=$groupListed
    [ "$answer" != yes ] || ask isOurRecord /Groups "$1" PrimaryGroupID
    case $answer in
        yes) deleteRecord /Groups "$1" || userRemoved=no ;;
        unknown) say "the group $1 may still be there"; userRemoved=no ;;
    esac
    [ "$userRemoved" = no ] || rm -f -- "$USER_STATE/$1" || userRemoved=no
    [ "$sharesRemoved$userRemoved" = yesyes ]
}

# ---- Shares

# firstLine TEXT: prints the first line of the text, which may hold names of files, with each control
# character as "?": it could be a command to a terminal.
firstLine() { printf '%s' "${1%%"$newline"*}" | tr '[:cntrl:]' '?'; }

# Each share has a folder of notes, "_SHARE" in SHARE_STATE, with these files:
#
#   given    the shared folder's path as the caller spells it
#   folder   the same path without links
#   name     the share's name, because a Mac's disk finds "_SHARE" in other spellings, too
#   user     the name of the share's user
#   uuid     the user's UUID
#   numbers  the user's number, a blank, and the number of the folder's owner
#   entry    the access entry on the folder
#   search   which folders above have an entry to pass through, a number a line; 1 is the folder next above
#   owner    the session

# recall FILE: sets recalled to the content of the file, with the newlines at its end; empty when it cannot be
# read.
recall() {
    recalled=$(cat "$1" 2>/dev/null && printf .) || recalled=''
    recalled=${recalled%.}
}

# leadsTo NAME FOLDER: returns whether the record of the share, which is listed, leads to the folder.
leadsTo() {
    shareText=$(/usr/bin/dscl . -read "$(recordPath /SharePoints "$1")" directory_path 2>&1 && printf .) || {
        say "cannot read the share \"$1\": $shareText"
        return 2
    }
    case $shareText in
        "dsAttrTypeNative:directory_path: $2$newline.") return 0 ;;
        "dsAttrTypeNative:directory_path:$newline $2$newline.") return 0 ;;
    esac
    return 1
}

# isOurShare NAME: returns whether the share exists and was made here, by the notes in shareState.
isOurShare() {
    isListed /SharePoints "$1" || return "$?"
    recall "$shareState/folder"
    [ -n "$recalled" ] && leadsTo "$1" "$recalled"
}

# endShare NAME: removes the share point; returns whether it is gone, and prints a message when not.
endShare() {
    removal=$(/usr/sbin/sharing -r "$1" 2>&1) || say "cannot remove the share \"$1\": $removal"
    ask isListed /SharePoints "$1"
    case $answer in
        yes) say "the share \"$1\" is still there" ;;
        unknown) say "the share \"$1\" may still be there" ;;
    esac
    [ "$answer" = no ]
}

# inFolder FOLDER COMMAND [ARG...]: runs the command in the folder, in a subshell, and fails when the path
# leads elsewhere by now.  The command names the folder ".": a link that the owner of a folder puts into the
# path meanwhile cannot redirect it.
inFolder() (
    { cd -P -- "$1" && [ "$(pwd -P && printf .)" = "$1$newline." ]; } ||
        fail "another folder now: \"$1\""
    shift
    "$@"
)

# isThere FOLDER: returns whether the path still leads to the folder without a link.
isThere() { inFolder "$1" : 2>/dev/null; }

# isGranted USER FOLDER [-R]: returns whether an access entry on the folder, or with -R on anything in it,
# names the user; also true when ls fails.  ls -q prints "?" for each byte of a name that is not
# printable, so no name of a file looks like an entry.
isGranted() {
    {
        { inFolder "$2" /bin/ls -lqed -- . && { [ "$#" -eq 2 ] || inFolder "$2" /bin/ls -lqeR -- .; }; } \
            2>/dev/null || printf 'failed\n'
    } | awk -v "entry=user:$1" '
        /^ [0-9]+: / && $2 == entry { found = 1 }
        $0 == "failed" { failed = 1 }
        END { exit found || failed ? 0 : 1 }'
}

# watched FIND [ARG...]: runs find, and kills each program that find starts and that runs longer than
# STUCK_SECONDS.  chmod opens the file that it changes.  The owner of the folder may replace a file by a pipe
# after find has checked it; chmod would wait for that pipe for ever, and the script for chmod.  No program of
# macOS opens a file by its name without that risk.  The time limit applies to one program and not to find,
# which takes long in a large folder.  A program that was killed has failed for its file only.
# A signal to the script kills find at once; find itself ignores SIGINT, as background programs of a shell
# do.  Call it in a subshell: it changes the traps.
watched() {
    watchedPid='' watchedStatus=0
    trap 'kill -KILL $watchedPid ${!-} 2>/dev/null; wait; exit 1' HUP INT TERM
    "$@" &
    watchedPid=$!
    endStuck "$watchedPid" >/dev/null 2>&1 &
    wait "$watchedPid" || watchedStatus=$?
    kill -KILL "$!" 2>/dev/null || :
    return "$watchedStatus"
}

# endStuck PID: checks every second, while the process PID runs, and kills its child when it has been the same
# for STUCK_SECONDS.  When the script was killed it kills PID, too, because the lock is free then.  It sends
# SIGKILL: the caller may have made its programs ignore SIGTERM.
endStuck() {
    stuckSince=0 stuckPid=''
    while kill -0 "$1"; do
        sleep 1
        kill -0 "$$" || kill -KILL "$1" || :
        startedPid=$(/usr/bin/pgrep -P "$1") || startedPid=''
        [ -n "$startedPid" ] && [ "$startedPid" = "$stuckPid" ] || stuckSince=0
        stuckPid=$startedPid stuckSince=$((stuckSince + 1))
        [ "$stuckSince" -lt "$STUCK_SECONDS" ] || kill -KILL "$stuckPid" || :
    done
}

# isAnothersName USER: returns whether another user has the name of the share's user by now, whose access
# entries must stay.  False when the directory does not answer: then the entries are removed.
isAnothersName() {
    recall "$shareState/uuid"
    uuidNow=$(readUuid "$1" 2>/dev/null) || uuidNow=''
    [ -n "$recalled" ] && [ -n "$uuidNow" ] && [ "$uuidNow" != "$recalled" ]
}

# takeBack USER ENTRY FOLDER [-R]: removes the entry from the folder, or with -R from all in it; returns
# whether none is left.  An error of chmod does not count: a file that was moved into the folder never had the
# entry.  It tries twice at most, because chmod may remove only one of two entries of the user.  It tries all
# files, because the owner of a file and the number of its names may have changed since it got the entry.
# Links are not followed.
takeBack() {
    refusal=''
    for _ in 1 2; do
        if [ "$#" -eq 4 ]; then
            removal=$(inFolder "$3" watched /usr/bin/find -P . -xdev '(' -type d -o -type f ')' \
                ! -execdir /bin/chmod -h -a "$2" '{}' \; -print 2>&1) || :
        else
            removal=$(inFolder "$3" /bin/chmod -h -a "$2" . 2>&1) || :
        fi
        isGranted "$1" "$3" ${4+-R} || return 0
        refusal=${refusal:-$removal}
    done
    say "cannot take the access of $1 back: $(firstLine "$refusal")"
    return 1
}

# forEachOf NUMBER FOLDER WHAT FIND_ARG...: runs find with these arguments on all in the folder that belongs to
# the user of that number.  Returns 1, after a message that begins with WHAT, when find fails or prints
# something: it does not fail when its commands do, and prints the names then.
forEachOf() {
    eachNumber=$1 eachFolder=$2 eachWhat=$3
    shift 3
    { eachText=$(inFolder "$eachFolder" watched /usr/bin/find -P . -xdev -user "$eachNumber" "$@" 2>&1) &&
        [ -z "$eachText" ]; } || {
        say "$eachWhat: $(firstLine "$eachText")"
        return 1
    }
}

# unlockWritten FOLDER: unlocks what the client has written.  A client on a Mac can lock its files, and even
# root cannot change a locked file.
unlockWritten() {
    recall "$shareState/numbers"
    case $recalled in ?*' '?*) ;; *) return 0 ;; esac
    forEachOf "${recalled% *}" "$1" 'cannot unlock all that was written' -flags +sappnd,schg,uappnd,uchg \
        ! -execdir /usr/bin/chflags -h nosappnd,noschg,nouappnd,nouchg '{}' \; -print
}

# A program for dash: gives the file $2 to the owner $1, and then removes its set-user-ID and set-group-ID bits,
# so that nobody who runs the file acts as that owner.  In this order a client that is still connected cannot
# set the bits again.  exec makes chmod the child of find, so that watched can kill it.
# shellcheck disable=SC2016 # the dollar signs are the program's own
GIVE='/usr/sbin/chown -h "$1" "./$2" && { [ ! -f "./$2" ] || exec /bin/chmod -h ug-s "./$2"; }'

# giveToOwner FOLDER: gives what the client has written to the owner of the folder.  Otherwise a later user with
# the client's number would own it.  -execdir and -h keep links that the owner makes meanwhile from being
# followed.
giveToOwner() {
    recall "$shareState/numbers"
    case $recalled in ?*' '?*) ;; *) return 0 ;; esac
    forEachOf "${recalled% *}" "$1" 'cannot give all that was written to the owner of the folder' \
        ! -execdir /bin/dash -c "$GIVE" dash "${recalled#* }" '{}' \; -print
}

# setAbove FOLDER N: sets above to the Nth folder above FOLDER, counted from 1.
setAbove() {
    above=$1 aboveLeft=$2
    while [ "$aboveLeft" -gt 0 ]; do
        above=${above%/*} aboveLeft=$((aboveLeft - 1))
    done
    [ -n "$above" ] || above=/
}

# takeRights FOLDER: removes the access entries that addshare.sh made, on the folder first and then upwards.
# Returns 1 when the removal of an entry fails.  If a folder is not found any more, its entries stay; then
# rightsLost is yes, but the function does not fail for that.
takeRights() {
    rightsTaken=yes rightsLost=no
    recall "$shareState/user"
    rightsUser=$recalled
    if isAnothersName "$rightsUser"; then
        say "$rightsUser is another user now, whose access stays as it is"
        return 0
    fi
    recall "$shareState/entry"
    if [ -z "$recalled" ] || [ -z "$1" ]; then
        : # nothing was granted yet
    elif ! isThere "$1"; then
        rightsLost=yes
    else
        rightsEntry=$recalled
        unlockWritten "$1" || rightsTaken=no
        takeBack "$rightsUser" "$rightsEntry" "$1" -R || rightsTaken=no
        giveToOwner "$1" || rightsTaken=no
    fi
    # shellcheck disable=SC2013 # a number a line.  Sorted, they begin with the last that was granted.
    for aboveNumber in $(sort -n -- "$shareState/search" 2>/dev/null); do
        setAbove "$1" "$aboveNumber"
        if ! isThere "$above"; then
            rightsLost=yes
        else
            takeBack "$rightsUser" "user:$rightsUser allow search" "$above" || rightsTaken=no
        fi
    done
    [ "$rightsLost" = no ] ||
        say "the access of $rightsUser stays on what was \"$1\": it is not there any more"
    [ "$rightsTaken" = yes ]
}

# removeShare NAME: ends a share of ours, or what is left of one, and removes its notes; returns whether all
# of it is gone.  A share point of the name that somebody else has made meanwhile stays.  A step that fails
# does not stop the next.  If the folder has gone, a second attempt would not help: the notes are removed, but
# the function fails.  pointGone is yes when no client can reach the share any more.
removeShare() {
    shareState=$SHARE_STATE/_$1 pointGone=yes shareEnded=yes
    recall "$shareState/name"
    [ -z "$recalled" ] || set -- "$recalled"
    ask isOurShare "$1"
    case $answer in
        yes) endShare "$1" || pointGone=no ;;
        unknown) say "the share \"$1\" may still be there"; pointGone=no ;;
    esac
    recall "$shareState/folder"
    takeRights "$recalled" || shareEnded=no
    [ "$pointGone$shareEnded" = yesyes ] && forgetShare && [ "$rightsLost" = no ]
}

# Removes the share's notes, the folder shareState; returns 1 after a message when that fails.
forgetShare() {
    if ! rm -f -- "$shareState"/* || { [ -d "$shareState" ] && ! rmdir -- "$shareState"; }; then
        say "cannot remove $shareState"
        return 1
    fi
}

# removeSharesOf USER: removes all shares of the user; returns whether all are gone.
removeSharesOf() {
    allRemoved=yes
    for shareState in "$SHARE_STATE"/_*; do
        recall "$shareState/user"
        [ "$recalled" != "$1" ] || removeShare "${shareState#"$SHARE_STATE/_"}" || allRemoved=no
    done
    [ "$allRemoved" = yes ]
}

# Removes the shares that dead sessions left, so that a user of a new session never reaches the share of an
# old user of the same name.  Returns 1, after a message, when something is left of one.  leftShare is then the
# name of a share that clients may still reach, or empty.  The notes of the others are removed, because a
# file that cannot be changed would otherwise keep every later session from beginning.
removeLeftoverShares() {
    leftoversRemoved=yes leftShare=''
    for shareState in "$SHARE_STATE"/_*; do
        [ -d "$shareState" ] || continue
        ! isInUse "$shareState/owner" || continue
        leftName=${shareState#"$SHARE_STATE/_"}
        ! removeShare "$leftName" || continue
        leftoversRemoved=no
        # shellcheck disable=SC2034 # the scripts look at it
        [ "$pointGone" = yes ] && forgetShare || leftShare=$leftName
    done
    [ "$leftoversRemoved" = yes ]
}

# Removes the shares and then the users that sessions left which have ended; does not touch those of living
# sessions.  Runs under the lock.  Returns 1 when something is left, which stderr names, after it has removed
# all the rest.
clearDeadSessions() {
    allCleared=yes
    removeLeftoverShares || allCleared=no
    for userNote in "$USER_STATE"/*; do
        [ -f "$userNote" ] || continue
        ! isInUse "$userNote" || continue
        clearUser "${userNote##*/}" || allCleared=no
    done
    [ "$allCleared" = yes ]
}

# clearUser NAME: removes the user of a dead session's note.  A record of that name that is not ours stays, and
# so do the memberships of a user of that name who is not ours.
clearUser() {
    findUser "$1"
    case $isOurs$userListed in
        unknown*) return 1 ;;
        noyes) rm -f -- "$USER_STATE/$1"; return ;;
        no*) groupListed=no ;;
    esac
    removeUser "$1" || { say "the user $1, or something of it, is left behind"; return 1; }
}
