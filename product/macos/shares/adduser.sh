#!/bin/dash
# adduser.sh USER USER PASSWORD_FILE -- makes the user that a share is served to.
# Exit status: 0 the user can log in over SMB with that password; otherwise nothing was changed, and
# stderr has the reason.
# shellcheck source=SCRIPTDIR/common.sh
. "${0%/*}/common.sh"

# The numbers of accounts of people begin at 501, and those of the system's services are 200 to 400.  The login
# window shows no user below 500.
NUMBER_FIRST=401 NUMBER_LAST=499
KNOWN_TRIES=100                  # how often to look, a tenth of a second apart, until macOS knows of a change
SSH_GROUP=com.apple.access_ssh   # when there is such a group, only its members may use Remote Login

# A JavaScript program: reads a password from standard input, to its end, and sets it for the user argv[0].  As
# an argument every process could see it.
# shellcheck disable=SC2016 # the dollar signs are the program's own
SET_PASSWORD='
ObjC.import("Foundation");
ObjC.import("OpenDirectory");
function run(argv) {
    const input = $.NSFileHandle.fileHandleWithStandardInput.readDataToEndOfFile;
    const password = $.NSString.alloc.initWithDataEncoding(input, $.NSUTF8StringEncoding);
    if (password.isNil()) { throw new Error("the password is not valid UTF-8"); }
    const error = Ref();
    const complain = (what) => {
        const reason = error[0] ? ": " + ObjC.unwrap(error[0].localizedDescription) : "";
        throw new Error(what + reason);
    };
    const node = $.ODNode.nodeWithSessionNameError($.ODSession.defaultSession, "/Local/Default", error);
    if (node.isNil()) { complain("cannot open the local directory"); }
    const record = node.recordWithRecordTypeNameAttributesError(
        "dsRecTypeStandard:Users", argv[0], $(), error);
    if (record.isNil()) { complain("cannot find the user"); }
    if (!record.changePasswordToPasswordError($(), password, error)) {
        complain("the password was not taken");
    }
}'

# setPassword USER: sets the password; returns whether it was accepted.  stderr has the reason when the Mac's
# password policy refuses it.
setPassword() {
    printPassword | /usr/bin/osascript -l JavaScript -e "$SET_PASSWORD" "$1" >/dev/null
}

# makeWay NAME: removes what an earlier session left of a user of this name.  Fails when the name is taken.
makeWay() {
    findUser "$1"
    [ "$isOurs" != unknown ] || exit 1
    if [ "$isOurs" = yes ]; then
        ! isInUse "$USER_STATE/$1" || fail "the user $1 is in use by a session that runs"
        say "taking over the user $1 from a session that has ended"
        removeUser "$1" || [ "$userRemoved" = yes ] || fail "cannot take over the user $1"
        findUser "$1"
        [ "$isOurs" != unknown ] || exit 1
    elif [ "$userListed" = no ]; then
        leaveAccessGroup "$1" || exit 1
    fi
    [ "$userListed" = no ] || fail "the user $1 exists already"
    [ "$groupListed" = no ] || fail "the group $1 exists already"
    for kind in /Users /Groups; do
        ! surely isNamed "$kind" "$1" || fail "a record in $kind has $1 as another of its names"
    done
    # At a login macOS accepts a full name in place of a user name.
    ! surely isFullName "$1" || fail "$1 is the full name of a user"
    ! isElsewhere "$1" || fail "the user $1 exists already, in another directory"
}

# isElsewhere NAME: returns whether a directory server has such a user.  macOS caches for a while a user who was
# just removed: if the number is in our range it is asked again, for 10 s.
isElsewhere() {
    elsewhereTries=0
    while elsewhereNumber=$(/usr/bin/id -u "$1" 2>/dev/null); do
        elsewhereTries=$((elsewhereTries + 1))
        [ "$elsewhereNumber" -ge "$NUMBER_FIRST" ] && [ "$elsewhereNumber" -le "$NUMBER_LAST" ] &&
            [ "$elsewhereTries" -lt "$KNOWN_TRIES" ] || return 0
        pauseBriefly
    done
    return 1
}

# isFullName NAME: returns whether this is a user's full name; 2 when that is unknown.
isFullName() {
    nameText=$(/usr/bin/dscl . -search /Users RealName "$1" 2>&1) ||
        { say "cannot search for the full name $1: $nameText"; return 2; }
    [ -n "$nameText" ]
}

# Prints the numbers of all users and all groups.
listNumbers() {
    /usr/bin/dscl . -list /Users UniqueID && /usr/bin/dscl . -list /Groups PrimaryGroupID
}

# Sets number to one that no user, no group and no process has: the directory itself accepts any number.
# The numbers are given in turn, downwards, because one that was just given back may still be in use: by a
# client that is connected, and in what the kernel remembers.
findNumber() {
    numbers=$(listNumbers) || fail 'cannot list the numbers of users and groups'
    running=$(/bin/ps -axo uid=) || fail 'cannot list whose processes run'
    previous=$(cat "$STATE/lastNumber" 2>/dev/null) || previous=''
    number=$(printf '%s\n' "$numbers" "$running" |
        awk -v "first=$NUMBER_FIRST" -v "last=$NUMBER_LAST" -v "previous=$previous" '
            { taken[$NF] = 1 }
            END {
                if (previous <= first || previous > last) previous = last + 1
                for (n = previous - 1; n >= first; n--) if (!(n in taken)) { print n; exit }
                for (n = last; n >= previous; n--) if (!(n in taken)) { print n; exit }
            }')
    [ -n "$number" ] || fail "no number from $NUMBER_FIRST to $NUMBER_LAST is free"
    printf '%s\n' "$number" >"$STATE/lastNumber" || fail "cannot write $STATE/lastNumber"
}

# Returns whether exactly one user and one group have the number, which are ours: another program may have
# taken it at the same time.
isNumberOurs() {
    numbers=$(listNumbers) || fail 'cannot list the numbers of users and groups'
    printf '%s\n' "$numbers" | awk -v "number=$number" '
        $NF == number { count++ }
        END { exit count == 2 ? 0 : 1 }'
}

# setAttributes RECORD [KEY VALUE]...: sets the attributes in this order.
setAttributes() {
    record=$1
    shift
    while [ "$#" -gt 0 ]; do
        /usr/bin/dscl . -create "$record" "$1" "$2" || fail "cannot set $1 of $record"
        shift 2
    done
}

# makeRecord FOLDER NAME: makes a record with our mark, and checks that the directory has the mark.  Until then
# the record has no number, by which it is known as ours; with a number but no mark it would not be.
makeRecord() {
    /usr/bin/dscl . -create "$1/$2" || fail "cannot make $1/$2"
    setAttributes "$1/$2" RealName "$USER_MARK $2"
    readRecord "$1/$2" RealName || exit 1
    hasValue RealName "$USER_MARK $2" || fail "the directory did not take our mark of $1/$2"
}

# setHome USER: sets the home folder.  Even root may need a consent for that which nobody has given.  A user
# without a home folder can use SMB, so a refusal is no failure.
setHome() {
    homeRefused=no
    /usr/bin/dscl . -create "/Users/$1" NFSHomeDirectory /var/empty ||
        { homeRefused=yes; say "the user $1 gets no home folder: macOS has refused it"; }
}

# makeUser NAME: makes the group and the user.  The number is set last: without it the record is no user yet.
makeUser() {
    makeRecord /Groups "$1"
    setAttributes "/Groups/$1" PrimaryGroupID "$number"
    makeRecord /Users "$1"
    setHome "$1"
    setAttributes "/Users/$1" UserShell /usr/bin/false IsHidden 1 PrimaryGroupID "$number" UniqueID "$number"
}

# checkRecords NAME: returns whether the records have what was set: dscl may set nothing and end with 0.
checkRecords() {
    readRecord "/Groups/$1" PrimaryGroupID || return 1
    hasValue PrimaryGroupID "$number" || return 1
    readRecord "/Users/$1" UserShell NFSHomeDirectory IsHidden PrimaryGroupID UniqueID || return 1
    [ "$homeRefused" = yes ] || hasValue NFSHomeDirectory /var/empty || return 1
    hasValue UserShell /usr/bin/false && hasValue PrimaryGroupID "$number" &&
        hasValue UniqueID "$number" || return 1
    hasValue dsAttrTypeNative:IsHidden 1 || hasValue IsHidden 1
}

# enableSmb USER: sets the password, has macOS make a hash for SMB, and sets the password again.  macOS makes
# that hash only when a password is set after the request, and the request needs an account with a password.
enableSmb() {
    setPassword "$1" || fail "cannot set the password of $1"
    /usr/bin/pwpolicy -u "$1" -sethashtypes SMB-NT on >/dev/null ||
        fail "cannot make a password of $1 for SMB"
    hasNtHash "$1" || fail "there is no password of $1 for SMB"
    setPassword "$1" || fail "cannot set the password of $1"
}

# joinAccessGroup USER: makes the user a member of ACCESS_GROUP, if there is such a group.
joinAccessGroup() {
    surely isListed /Groups "$ACCESS_GROUP" || return 0
    /usr/sbin/dseditgroup -o edit -a "$1" -t user "$ACCESS_GROUP" ||
        fail "cannot make $1 a member of the group $ACCESS_GROUP"
    surely isMember "$1" || fail "$1 is no member of the group $ACCESS_GROUP"
}

# waitUntilKnown USER: waits until macOS finds the new user, 10 s at most.  It was asked for this name before,
# and caches for a while that there was no such user, or an earlier one.
waitUntilKnown() {
    uuid=$(readUuid "$1") knownTries=0
    until [ "$(/usr/bin/id -u "$1" 2>/dev/null)" = "$number" ] &&
        [ "$(/usr/bin/dsmemberutil getuuid -U "$1" 2>/dev/null)" = "$uuid" ]; do
        knownTries=$((knownTries + 1))
        [ "$knownTries" -lt "$KNOWN_TRIES" ] ||
            fail "macOS does not know the user $1 within $((KNOWN_TRIES / 10)) s"
        pauseBriefly
    done
}

# warnOfRemoteLogin USER: prints a warning when the user can log in by ssh: the account is one of the whole Mac,
# and even without a shell sshd forwards connections for it.
warnOfRemoteLogin() {
    ask isListed /Groups "$SSH_GROUP"
    [ "$answer" = no ] || return 0
    ! /usr/bin/nc -z -G 1 -w 1 127.0.0.1 22 >/dev/null 2>&1 ||
        say "Remote Login is open to all users of this Mac, and so to $1 during the session"
}

# undo NAME: removes what was made.  There was no such user before, so a user of this name with the mark is
# ours.
undo() {
    findUser "$1"
    case $isOurs in
        yes) removeUser "$1" || say "the user $1, or something of it, is left behind" ;;
        no) rm -f -- "$USER_STATE/$1" ;;
        *) say "the user $1 may be left behind" ;;
    esac
}

# main USER: runs under the lock.
main() {
    [ -n "$session" ] || fail 'the caller has gone'
    makeWay "$1"
    clearDeadSessions || [ -z "$leftShare" ] ||
        fail "cannot clear away the share \"$leftShare\" of an earlier session"
    findNumber
    undoOnExit "undo $1"
    printf '' >"$USER_STATE/$1" || fail "cannot write $USER_STATE/$1"
    makeUser "$1"
    checkRecords "$1" || fail "the directory did not take the user $1: $recordText"
    isNumberOurs || fail "the number $number has been taken meanwhile"
    joinAccessGroup "$1"
    enableSmb "$1"
    waitUntilKnown "$1"
    warnOfRemoteLogin "$1"
    claim "$USER_STATE/$1" || fail "cannot write $USER_STATE/$1"
    isInUse "$USER_STATE/$1" || fail 'the caller has gone'
    finish
}

checkAdduserArguments "$@"
readPassword "$3"
printPassword | iconv -f UTF-8 -t UTF-16LE >/dev/null 2>&1 ||
    fail 'the password is not valid UTF-8, as which macOS keeps it'
underLock main "$1"
