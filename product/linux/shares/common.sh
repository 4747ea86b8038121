# shellcheck shell=sh
# common.sh -- what the four share scripts have in common.  It is sourced by them, never run.
#
# Two marks tell what is ours: a user carries USER_COMMENT in its passwd entry, and a share's path
# lies in SHARE_STATE.  Nothing without its mark is ever changed.  An "owner" file says which
# session a user or a share belongs to, by the process number and the start time of the script's
# parent.  It is written last, so what lacks one, or whose owner is gone, was left behind by a
# session that was killed or by one from before the last boot, and may be cleared away.

# shellcheck source=SCRIPTDIR/../../shares/base.sh
. "${0%/*}/base.sh"

# PATH is fixed because we are root; bytes are compared as bytes; and no child inherits a
# configuration other than the one that smbd itself reads.
PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C
export PATH LC_ALL
unset SMB_CONF_PATH
[ -e /proc/self/fd/1 ] || exec >/dev/null
[ -e /proc/self/fd/2 ] || exec 2>/dev/null

STATE=/run/pelago
SHARE_STATE=$STATE/shares
USER_STATE=$STATE/users
USER_COMMENT='Pelago share user'
LOCK_SECONDS=60     # how long to wait for another script
SESSION_SECONDS=5   # how long to wait for connections, and then for processes, to end

# ---- One script at a time

# underLock COMMAND [ARG...]: runs the command while no other script runs.  The descriptor is closed
# for the command, whose children could otherwise carry the lock into a daemon; the shell keeps it.
underLock() {
    [ "$(id -u)" -eq 0 ] || fail 'only root may do this'
    # smbd, acting as the owner of a folder, reaches it through these: passable, but not readable.
    # shellcheck disable=SC2174 # every level is named, parents first
    mkdir -p -m 0711 -- "$STATE" "$SHARE_STATE" "$USER_STATE" || fail "cannot make $STATE"
    exec 9>"$STATE/lock"
    flock -w "$LOCK_SECONDS" 9 || fail "another share script has not ended within $LOCK_SECONDS s"
    "$@" 9>&-
}

# Seconds since the system started; unlike the clock, nobody sets them.
uptimeSeconds() {
    read -r uptime _ </proc/uptime
    printf '%s' "${uptime%%.*}"
}

# ---- Whose it is

# Prints "PID START" for a process that runs, where START tells it from a later one of its number.
processMark() {
    processStat=$(cat "/proc/$1/stat" 2>/dev/null) || return 1
    # The second field is the name in parentheses and may hold anything, parentheses as well.
    # shellcheck disable=SC2086 # split on purpose: numbers and a letter
    set -- "$1" ${processStat##*")"}
    case $2 in Z | X) return 1 ;; esac # ended already; only its parent does not know yet
    printf '%s %s' "$1" "${21}"
}

session=$(processMark "$PPID") || session=''

# Whether the session that FILE names is still running.
isInUse() {
    ownerPid=''
    [ ! -f "$1" ] || read -r ownerPid _ <"$1" || :
    [ -n "$ownerPid" ] && [ "$(processMark "$ownerPid")" = "$(cat "$1")" ]
}

# ---- Names

# Samba itself checks nothing here: "global" would change the whole server, and a name that is too
# long makes every registry share of the host unreadable.
checkShareName() {
    checkSmbName "$1"
    case $1 in
        *'  '*) fail "the share name holds two blanks in a row: \"$1\"" ;;
        *[]%\<\>*?\|/\\+=\;:\",[]*)
            fail "the share name holds one of % < > * ? | / \\ + = ; : \" , [ ]: \"$1\"" ;;
    esac
    case $(printf '%s' "$1" | tr '[:upper:]' '[:lower:]') in
        . | .. | global | homes | printers | 'print$' | 'ipc$' | 'admin$' | netlogon | sysvol)
            fail "the share name is reserved: \"$1\"" ;;
    esac
}

# ---- Shares

# Sets sharePath to the path of the registry share NAME, or to nothing when there is no such share.
findShare() {
    if shareText=$(net conf showshare -- "$1" 2>&1); then
        sharePath=$(printf '%s\n' "$shareText" | sed -n 's/^\tpath = //p')
        [ -n "$sharePath" ] || sharePath=none
        return
    fi
    case $shareText in
        *SBC_ERR_NO_SUCH_SERVICE*) sharePath='' ;;
        *) fail "cannot read Samba's registry: $shareText" ;;
    esac
}

isOurPath() {
    case $1 in
        "$SHARE_STATE"/*/*/*) return 1 ;;
        "$SHARE_STATE"/*/folder) return 0 ;;
    esac
    return 1
}

isSmbdRunning() { smbcontrol -t 1 smbd ping >/dev/null 2>&1; }

# Only these files are ever in it; the folder that the link leads to is not touched.
removeShareState() {
    stateRemoval=$({
        rm -f -- "$1/owner" "$1/given" "$1/folder" && { [ ! -d "$1" ] || rmdir -- "$1"; }
    } 2>&1) || {
        say "cannot remove $1: $stateRemoval"
        return 1
    }
}

# Closes what clients have open of a share that is gone.
cutOffClients() {
    smbcontrol -- smbd close-share "$1" >/dev/null 2>&1 || ! isSmbdRunning || {
        say "cannot cut off the clients of \"$1\""
        return 1
    }
}

# removeShare NAME STATE_FOLDER: ends the share and cuts its clients off.  A connection that is open
# still has the share in mind: with the link gone it cannot enter anew, and what it has is closed.
removeShare() {
    removal=$(net conf delshare -- "$1" 2>&1) || {
        say "cannot remove the share \"$1\": $removal"
        return 1
    }
    # A share that never had access rights of its own has none to delete, which Samba mentions.
    removal=$(printf '%s\n' "$removal" | grep -v '^delete_share_security: .*NT_STATUS_NOT_FOUND') || :
    [ -z "$removal" ] || say "$removal"
    removalStatus=0
    removeShareState "$2" || removalStatus=1
    cutOffClients "$1" || removalStatus=1
    return "$removalStatus"
}

# Prints "STATE_FOLDER NAME" for each share of ours.
listOurShares() {
    shareTexts=$(net conf list) || return 1
    printf '%s\n' "$shareTexts" | awk -v state="$SHARE_STATE/" '
        /^\[.*\]$/ { name = substr($0, 2, length($0) - 2) }
        index($0, "\tpath = " state) == 1 && /\/folder$/ {
            path = substr($0, length("\tpath = ") + 1)
            print substr(path, 1, length(path) - length("/folder")) " " name
        }'
}

# Clears away what dead sessions left, so that a user of a new session never finds the share of an
# old one whose user had the same name.
removeLeftoverShares() {
    leftovers=$(listOurShares) || fail "cannot read Samba's registry"
    printf '%s\n' "$leftovers" | while read -r shareState shareName; do
        [ -n "$shareName" ] || continue
        isInUse "$shareState/owner" || removeShare "$shareName" "$shareState" || exit 1
    done || fail 'cannot clear away the shares of an earlier session'
    for shareState in "$SHARE_STATE"/*; do
        [ ! -d "$shareState" ] || isInUse "$shareState/owner" || removeShareState "$shareState" ||
            fail 'cannot clear away what an earlier session left'
    done
}

# ---- Users

# Sets userComment, userUid and userGid of the Unix user NAME; all are empty when there is none.
findUser() {
    userComment='' userUid='' userGid=''
    account=$(getent passwd "$1") || [ "$?" -eq 2 ] || fail 'cannot read the user database'
    [ -n "$account" ] || return 0
    IFS=: read -r _ _ userUid userGid userComment _ <<END_OF_ACCOUNT
$account
END_OF_ACCOUNT
}

isOurUser() { [ -n "$userUid" ] && [ "$userComment" = "$USER_COMMENT" ]; }

isKnownToSamba() {
    if sambaAccount=$(pdbedit -L -v -u "$1" 2>&1); then return 0; fi
    case $sambaAccount in *'Username not found'*) return 1 ;; esac
    fail "cannot read Samba's password database: $sambaAccount"
}

# forgetNumbers UID GID [SID]: Samba remembers for a week who had a number, but numbers are given out
# again at once: whoever has this one now would be taken for the last, and be refused everything.
forgetNumbers() {
    for idKey in "UID2SID/$1" "GID2SID/$2" ${3:+"SID2XID/$3"}; do
        net cache del "IDMAP/$idKey" >/dev/null 2>&1 || : # it fails when there is no such key
    done
}

# Ends the smbd processes that serve the user.  They outlive account and share, and when they act as
# the owner of the folder nothing but smbd knows whose they are.
endSessions() {
    deadline=$(($(uptimeSeconds) + SESSION_SECONDS))
    while :; do
        sessions=$(smbstatus -p -u "$1" 2>&1) || { say "cannot list sessions: $sessions"; return 1; }
        sessionPids=$(printf '%s\n' "$sessions" | awk '$1 ~ /^[0-9]+$/ { print $1 }')
        [ -n "$sessionPids" ] || return 0
        [ "$(uptimeSeconds)" -lt "$deadline" ] || { say "sessions of $1 do not end"; return 1; }
        for sessionPid in $sessionPids; do
            smbcontrol "$sessionPid" shutdown >/dev/null 2>&1 || :
        done
        sleep 0.05
    done
}

# Sets groupGid to the number of the group NAME, or to nothing when there is no such group.
findGroup() {
    groupGid=''
    group=$(getent group "$1") || [ "$?" -eq 2 ] || fail 'cannot read the group database'
    [ -n "$group" ] || return 0
    IFS=: read -r _ _ groupGid _ <<END_OF_GROUP
$group
END_OF_GROUP
}

# The group that useradd made for the user.  A group carries no mark of ours: it goes while the user,
# who does, still tells that it is one.
deleteGroup() {
    findGroup "$1"
    [ -n "$groupGid" ] && [ "$groupGid" = "$userGid" ] || return 0
    complaint=$(groupdel --force -- "$1" 2>&1) || {
        say "cannot remove the group $1: $complaint"
        return 1
    }
}

# userdel refuses with 8 while a process runs as the user, and one that was ended takes a moment.
deleteAccount() {
    deadline=$(($(uptimeSeconds) + SESSION_SECONDS))
    while :; do
        deletion=0
        complaint=$(userdel -- "$1" 2>&1) || deletion=$?
        case $deletion in
            0 | 6) return ;;
            8) [ "$(uptimeSeconds)" -ge "$deadline" ] || { sleep 0.1; continue; } ;;
        esac
        say "cannot remove the user $1: $complaint"
        return 1
    done
}

# removeUser NAME: takes away a user of ours that findUser has found.  The password goes first, so
# that nobody comes in again; the account, which carries our mark, goes last.
removeUser() {
    userSid=''
    if isKnownToSamba "$1"; then
        userSid=$(printf '%s\n' "$sambaAccount" | sed -n 's/^User SID:  *//p')
        removal=$(pdbedit -x -u "$1" 2>&1) || {
            say "cannot remove $1 from Samba: $removal"
            return 1
        }
    fi
    endSessions "$1" || return 1
    deleteGroup "$1" || return 1
    deleteAccount "$1" || return 1
    forgetNumbers "$userUid" "$userGid" "$userSid"
    rm -f -- "$USER_STATE/$1"
}
