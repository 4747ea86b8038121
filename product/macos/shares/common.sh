# shellcheck shell=sh
# common.sh -- what the share scripts have in common.  It is sourced by them, never run.
#
# What is ours is told by marks.  A user and the group of its own carry USER_MARK and their name as
# their full name.  A share has a folder in SHARE_STATE, written before the first change is made, and
# is ours only as long as its record in the directory leads to the folder written there.  Nothing
# without its mark is ever changed.  An "owner" says which session a user or a share belongs to, by
# the process number and the start time of the script's parent.  It is written last, so what lacks
# one, or whose owner is gone, was left behind by a session that was killed or by one from before the
# last boot, and may be cleared away.
#
# Programs that act on the system are called by their full path; the others (awk, cat, grep, iconv
# and so on) are found in PATH and used with what all systems have in common.

# The scripts are written for dash, which is there since macOS 10.15: /bin/sh may be any of three shells
# on a Mac, and only in dash is the folder that pwd prints sure to be the one that cd has entered.  They
# start anew once, because we are root and each variable that a shell or a program heeds is the
# caller's: bytes are compared as bytes, and start times as text, which must not change when the Mac
# travels.  The mark is the number of the process, which stays the same.
if [ "${PELAGO_STARTED_ANEW-}" != "$$" ]; then
    exec /usr/bin/env -i "PELAGO_STARTED_ANEW=$$" PATH=/usr/bin:/bin:/usr/sbin:/sbin LC_ALL=C TZ=UTC0 \
        /bin/dash "$0" "$@"
fi

# shellcheck source=SCRIPTDIR/base.sh
. "${0%/*}/base.sh"

(: 3>&1) 2>/dev/null || exec >/dev/null
(: 3>&2) || exec 2>/dev/null # not silenced like the line above: that would open what it tests

# What was granted on the disk survives a boot, and so must the note of it: /var/run is emptied then.
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

# ---- Whose it is

# Prints "PID START" for a process that runs, where START tells it from a later one of its number.
# Returns 1 when there is no such process, and 2 when there is one but nothing else is known of it.
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

# A script whose caller ended before it began is launchd's, which never ends: it has no session.
session=''
[ "$PPID" -eq 1 ] || session=$(processMark "$PPID") || session=''

# Whether the process that FILE names is still running, or may be.
isInUse() {
    ownerPid='' ownerStatus=0
    [ ! -f "$1" ] || read -r ownerPid _ <"$1" || :
    [ -n "$ownerPid" ] || return 1
    ownerMark=$(processMark "$ownerPid") || ownerStatus=$?
    [ "$ownerStatus" -eq 2 ] || [ "$ownerMark" = "$(cat "$1" 2>/dev/null)" ]
}

# ---- One script at a time
#
# There is no program here that locks a file.  A lock is a file "lock.N" that names its holder; the
# highest N counts, and it is free when its holder has ended, however that came about, so nothing is
# ever left locked.  It is taken by making N + 1.  A link appears at once with its content, and only
# one can be made.  The lower ones go only after the higher one is there, so whoever looked too long
# ago and makes a number that has gone meanwhile then sees a higher one, and steps back.

# Sets lockNumber to the highest number, 0 when there is none.
highestLock() {
    lockNumber=0
    for lockFile in "$LOCKS"/lock.*; do
        case ${lockFile##*.} in *[!0-9]*) continue ;; esac
        [ "${lockFile##*.}" -le "$lockNumber" ] || lockNumber=${lockFile##*.}
    done
}

# The shell reads the folder piece by piece while others change it: it is believed when it looks the
# same twice.
findLock() {
    highestLock
    lockSeen=$lockNumber
    highestLock
    [ "$lockNumber" -eq "$lockSeen" ]
}

pauseBriefly() { sleep 0.1 || fail 'cannot wait: sleep has failed'; }

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

# underLock COMMAND [ARG...]: runs the command while no other script runs.
underLock() {
    requireRoot
    mkdir -p "$LOCKS" "$STATE" "$SHARE_STATE" "$USER_STATE" || fail "cannot make $LOCKS and $STATE"
    lockMark=$(processMark "$$") || fail 'cannot tell when this script was started'
    # A file left by a process of this number may be another name of a lock: it is not written to.
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
# It may give no answer.  What asks it returns 0 for yes, 1 for no, and 2 for unknown, with the reason
# on stderr: it does not end the script, because what is undone goes on with the next step.

# ask QUESTION [ARG...]: sets answer to yes, no or unknown.
ask() {
    answer=yes
    "$@" || case $? in 1) answer=no ;; *) answer=unknown ;; esac
}

# surely QUESTION [ARG...]: for where nothing is to be undone; without an answer the script ends.
surely() {
    ask "$@"
    [ "$answer" != unknown ] || exit 1
    [ "$answer" = yes ]
}

# Whether the directory lists a record FOLDER/NAME.  It compares names without case.
isListed() {
    listText=$(/usr/bin/dscl . -list "$1" 2>&1) || { say "cannot list $1: $listText"; return 2; }
    printf '%s\n' "$listText" | grep -ixF -e "$2" >/dev/null
}

# Sets recordText to attributes of a record, KEY by KEY, between newlines.
readRecord() {
    recordText=$(/usr/bin/dscl . -read "$@" 2>&1) || { say "cannot read $1: $recordText"; return 2; }
    recordText=$newline$recordText$newline
}

# Whether readRecord has found this value: one with a blank stands on a line of its own.
hasValue() {
    case $recordText in
        *"$newline$1: $2$newline"* | *"$newline$1:$newline $2$newline"*) return 0 ;;
    esac
    return 1
}

# isOurRecord FOLDER NAME NUMBER_KEY: whether a user or group that exists was made here.  One that has
# no number is none yet: when we have begun to make that user, it is what a killed script has left.
isOurRecord() {
    readRecord "$1/$2" RealName "$3" || return 2
    ! hasValue RealName "$USER_MARK $2" || return 0
    case $recordText in *"$newline$3: "*) return 1 ;; esac
    [ -f "$USER_STATE/$2" ]
}

# Whether a record has that name, as its first or another: isListed sees the first names only, and a
# record is found, and changed, by each of them.
isNamed() {
    namedText=$(/usr/bin/dscl . -read "$(recordPath "$1" "$2")" RecordName 2>&1) && return 0
    case $namedText in *eDSRecordNotFound*) return 1 ;; esac
    say "cannot read $1/$2: $namedText"
    return 2
}

# Prints FOLDER/NAME for dscl, which undoes percent escapes in it.
recordPath() { printf '%s/%s' "$1" "$2" | sed 's/%/%25/g'; }

# Deletes a record and looks whether it is gone.
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

# Sets userListed, groupListed and isOurs (of the user, or of the group when there is no user), each
# to yes, no or unknown.
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

hasNtHash() {
    hashTypes=$(/usr/bin/pwpolicy -u "$1" -gethashtypes 2>&1) ||
        fail "cannot read the hash types of $1: $hashTypes"
    printf '%s\n' "$hashTypes" | grep -wF -e SMB-NT >/dev/null
}

# Whether the user is named among the members of ACCESS_GROUP, which exists.
isMember() {
    readRecord "/Groups/$ACCESS_GROUP" GroupMembership || return 2
    case $recordText in "${newline}GroupMembership:"*) ;; *) return 1 ;; esac
    case " $(printf '%s' "$recordText" | tr '\n' ' ') " in *" $1 "*) return 0 ;; esac
    return 1
}

# Takes the user out of ACCESS_GROUP, which would keep a name that may belong to another one day.
# dseditgroup wants a user that exists.  Where it does not help the values are taken out: the group
# notes a member twice, by name and by UUID, and the latter is not known once the user has gone.
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

dropMember() { /usr/bin/dscl . -delete "/Groups/$ACCESS_GROUP" "$1" "$2"; }

readUuid() { /usr/bin/dscl . -read "/Users/$1" GeneratedUID | sed -n 's/^GeneratedUID: //p'; }

# removeUser NAME: takes away a user of ours that findUser has found, or what is left of one.  Its
# shares go first, because entries on the disk cannot be removed by name once the name is gone.  No
# step waits for another to succeed: entries and a membership without a user let nobody in, and a user
# with a password does.  The note of the user stays as long as something is left that it is needed for.
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

# Prints the first line of a text in which there may be names of files, for a person: without what a
# terminal would take for a command.
firstLine() { printf '%s' "${1%%"$newline"*}" | tr '[:cntrl:]' '?'; }

# What is noted of them:
#
# Each folder "_SHARE" in SHARE_STATE holds, as files: "given", the folder as the caller names it;
# "folder", the same without links; "name", the share's, because a disk of a
# Mac's finds "_SHARE" in other spellings as well; "user"; "uuid", the user's; "numbers", the user's and that of
# the folder's owner;
# "entry", the access entry on the folder; "search", which folders above it have an entry as well (1
# is the next above); and "owner".

# Sets recalled to the content of a file, newlines at its end included, or to nothing.
recall() {
    recalled=$(cat "$1" 2>/dev/null && printf .) || recalled=''
    recalled=${recalled%.}
}

# Whether the record of the share NAME, which is listed, leads to FOLDER.
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

# Whether the share NAME, of which shareState tells, exists and was made here.
isOurShare() {
    isListed /SharePoints "$1" || return "$?"
    recall "$shareState/folder"
    [ -n "$recalled" ] && leadsTo "$1" "$recalled"
}

endShare() {
    removal=$(/usr/sbin/sharing -r "$1" 2>&1) || say "cannot remove the share \"$1\": $removal"
    ask isListed /SharePoints "$1"
    case $answer in
        yes) say "the share \"$1\" is still there" ;;
        unknown) say "the share \"$1\" may still be there" ;;
    esac
    [ "$answer" = no ]
}

# inFolder FOLDER COMMAND [ARG...]: runs it there.  The owner of a folder could put a link in the way
# at any time; "." cannot be led elsewhere.
inFolder() (
    { cd -P -- "$1" && [ "$(pwd -P && printf .)" = "$1$newline." ]; } ||
        fail "another folder now: \"$1\""
    shift
    "$@"
)

isThere() { inFolder "$1" : 2>/dev/null; }

# isGranted USER FOLDER [-R]: whether an access entry on the folder, or with -R on anything below it,
# names the user.  ls shows an odd byte of a name as "?", so no name of a file looks like an entry.
isGranted() {
    {
        { inFolder "$2" /bin/ls -lqed -- . && { [ "$#" -eq 2 ] || inFolder "$2" /bin/ls -lqeR -- .; }; } \
            2>/dev/null || printf 'failed\n'
    } | awk -v "entry=user:$1" '
        /^ [0-9]+: / && $2 == entry { found = 1 }
        $0 == "failed" { failed = 1 }
        END { exit found || failed ? 0 : 1 }'
}

# watched FIND [ARG...]: runs find, and kills each program of find's that runs longer than half a minute.
# chmod opens the file that it changes.  The owner of the folder may replace a file by a pipe after find
# has looked at it; chmod would wait for that pipe for ever, and the script for chmod.  No program of
# macOS's opens a file by its name without that risk.  The time limit is for one program and not for
# find, which takes long in a large folder.  A program that was killed has failed for its file only.
# A signal to the script ends find at once, although a shell's background programs ignore SIGINT.  Call
# it in a subshell: it changes the traps.
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

# endStuck PID: as long as that process runs.  It is ended as well when the script was killed, because the
# lock is free then.  SIGTERM may be ignored, as the caller has it.
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

# Whether the name of the share's user is another one's by now, whose entries are not ours to take.  Without
# an answer it is not: what was granted is taken back.
isAnothersName() {
    recall "$shareState/uuid"
    uuidNow=$(readUuid "$1" 2>/dev/null) || uuidNow=''
    [ -n "$recalled" ] && [ -n "$uuidNow" ] && [ "$uuidNow" != "$recalled" ]
}

# takeBack USER ENTRY FOLDER [-R]: what was moved into the folder never had the entry, and then chmod
# complains; and where a file has two entries of the user, chmod may take only one.  So it is done
# twice at most, until no entry is seen.  Whose a file is, and how many names it has, may have changed
# since it got the entry, so all are asked; links are not followed.
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

# forEachOf NUMBER FOLDER WHAT FIND_ARG...: for all in the folder that belongs to that number.  find does
# not fail when its commands do: it prints the names then.
forEachOf() {
    eachNumber=$1 eachFolder=$2 eachWhat=$3
    shift 3
    { eachText=$(inFolder "$eachFolder" watched /usr/bin/find -P . -xdev -user "$eachNumber" "$@" 2>&1) &&
        [ -z "$eachText" ]; } || {
        say "$eachWhat: $(firstLine "$eachText")"
        return 1
    }
}

# A client of a Mac's can lock what it has made, and that keeps even root from changing it.
unlockWritten() {
    recall "$shareState/numbers"
    case $recalled in ?*' '?*) ;; *) return 0 ;; esac
    forEachOf "${recalled% *}" "$1" 'cannot unlock all that was written' -flags +sappnd,schg,uappnd,uchg \
        ! -execdir /usr/bin/chflags -h nosappnd,noschg,nouappnd,nouchg '{}' \; -print
}

# Gives a file to another owner, whom nobody shall become by running it: only then can the client, who
# may still be connected, not set the bit again.  With exec the chmod is a child of find's, and so ended by
# watched.
# shellcheck disable=SC2016 # the dollar signs are the program's own
GIVE='/usr/sbin/chown -h "$1" "./$2" && { [ ! -f "./$2" ] || exec /bin/chmod -h ug-s "./$2"; }'

# What the client has made goes to the owner of the folder: nobody else may own it one day.  -execdir
# and -h, because its owner could put links in the way meanwhile.
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

# takeRights FOLDER: the reverse of what addshare.sh granted, the folder first and then upwards.  Where
# a folder is no longer found nothing can be taken back, and rightsLost becomes yes.
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

# removeShare NAME: ends a share of ours, as much of it as there is, and forgets it.  A record that has
# come in its place meanwhile is somebody else's, and stays.  No step waits for another to succeed.
# Where the folder has gone, to try again would not help: that is a failure, but forgotten.  pointGone
# says whether no client can reach it any more.
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

forgetShare() {
    if ! rm -f -- "$shareState"/* || { [ -d "$shareState" ] && ! rmdir -- "$shareState"; }; then
        say "cannot remove $shareState"
        return 1
    fi
}

removeSharesOf() {
    allRemoved=yes
    for shareState in "$SHARE_STATE"/_*; do
        recall "$shareState/user"
        [ "$recalled" != "$1" ] || removeShare "${shareState#"$SHARE_STATE/_"}" || allRemoved=no
    done
    [ "$allRemoved" = yes ]
}

# Clears away the shares that dead sessions left, so that a user of a new session never finds the share
# of an old one whose user had the same name.  Returns 1 when something is left of one, and says what.
# leftShare is then a share that clients may still reach; anything else is forgotten, because a file
# that cannot be changed would else hinder every session to come.
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

# clearDeadSessions: takes away all that sessions which have ended left, shares first and then users,
# as underLock runs it.  What a living session has is not touched.  Returns 1 when something is left,
# which stderr names; nothing keeps it from clearing the rest.
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

# Removes the user that a dead session noted.  A record of that name that is not ours stays, and so does
# what a user of that name who is not ours is a member of.
clearUser() {
    findUser "$1"
    case $isOurs$userListed in
        unknown*) return 1 ;;
        noyes) rm -f -- "$USER_STATE/$1"; return ;;
        no*) groupListed=no ;;
    esac
    removeUser "$1" || { say "the user $1, or something of it, is left behind"; return 1; }
}
