#!/bin/dash
# firstRun.sh [REPORT] -- looks at what only a Mac can confirm: the list at the end of README.md, point by
# point.  Run it with sudo, from the account of a person, on a Mac that nobody else is using.
#
# It makes a user, a share, a group and two folders, all of them called after pelagofirst, and runs the
# tool of the bundle, which switches file sharing on and off.  When it ends, or is interrupted, it removes
# all of them again.  Some points need another computer: it says what to do there, and asks.  An answer
# other than y or n leaves the point open.
#
# REPORT, firstRun-report.txt where nothing is given, gets what was asked, what was answered, and a verdict
# for each point.  It holds no password, and no name of a user but the test's own.
# Exit status: 0 every point is as expected; 1 one is not; 2 it could not run; 3 points are left open;
# 129, 130, 143 it was interrupted.
set -eu
umask 022
PATH=/usr/bin:/bin:/usr/sbin:/sbin LC_ALL=C
export PATH LC_ALL

here=$(cd -- "${0%/*}" && pwd -P)
SHARES=$here/shares
TOOL=$SHARES/pelagoShareTool
SMB_PREFERENCES=/Library/Preferences/SystemConfiguration/com.apple.smb.server
ACCESS_GROUP=com.apple.access_smb
TOP=/Library/pelagofirst # only root may change what lies there
TEST_USER=pelagofirst SECOND_USER=pelagosecond TEST_GROUP=pelagofirstgroup
SHARE='Pelago test' SECOND_SHARE='Pelago second test'
O_UMLAUT=$(printf '\303\266')
FOLDER="$TOP/closed/${O_UMLAUT}ffentlich 1"
LAST_POINT=15
SESSION_SECONDS=90
newline='
'

say() { printf 'firstRun.sh: %s\n' "$1" >&2; }

fail() {
    say "$1"
    exit 2
}

# ---- The report
#
# The report of a point grows in $work/point.N; its verdict in $work/verdict.N is the worst so far.

# hide TEXT: without the person's name and home folder, and without the password.
hide() {
    printf '%s\n' "$1" | awk -v "home=$personHome" -v "name=$personName" -v "secret=$password" '
        function replace(line, what, by,    at, done) {
            while (what != "" && (at = index(line, what)) > 0) {
                done = done substr(line, 1, at - 1) by
                line = substr(line, at + length(what))
            }
            return done line
        }
        { print replace(replace(replace($0, home, "~"), name, "(the person)"), secret, "(the password)") }'
}

note() {
    hide "$1" | sed 's/^/    /' >>"$work/point.$point"
}

# verdict WORD: good, open, bad, from the best to the worst.
verdict() {
    read -r worst 2>/dev/null <"$work/verdict.$point" || worst=good
    case $worst$1 in
        bad* | openopen | opengood) ;;
        *) printf '%s\n' "$1" >"$work/verdict.$point" ;;
    esac
}

point() {
    point=$1
    printf 'Looking at point %s ...\n' "$1"
}

# look COMMAND [ARG...]: sets answer and status.
look() {
    status=0
    answer=$("$@" 2>&1) || status=$?
    note "asked: $*"
    note "answered, status $status: $answer"
}

# expect TEXT COMMAND [ARG...]: the command says whether it is so.
expect() {
    expectation=$1
    shift
    if "$@"; then
        note "as expected: $expectation"
        verdict good
    else
        note "NOT as expected: $expectation"
        verdict bad
    fi
}

# leaveOpen REASON
leaveOpen() {
    note "not looked at: $1"
    verdict open
}

# question TEXT: y is as expected, n is not, anything else leaves the point open.
question() {
    printf '\n%s [y/n, Enter leaves it open] ' "$1"
    reply=
    read -r reply <&5 || :
    case $reply in
        y) expect "$1" true ;;
        n) expect "$1" false ;;
        *) leaveOpen "$1" ;;
    esac
}

# instruct TEXT: and waits for Enter.
instruct() {
    printf '\n%s\nThen press Enter. ' "$1"
    read -r reply <&5 || :
}

succeeded() { [ "$status" -eq 0 ]; }
failed() { [ "$status" -ne 0 ]; }
isExactly() { [ "$answer" = "$1" ]; }
isNothing() { [ -z "$answer" ]; }
holds() { case $answer in *"$1"*) ;; *) return 1 ;; esac; }
holdsNot() { ! holds "$1"; }

writeReport() {
    worstOfAll=good
    {
        printf 'macOS %s (%s), %s\n' "$(/usr/bin/sw_vers -productVersion)" "$(/usr/bin/sw_vers -buildVersion)" \
            "$(/usr/bin/uname -m)"
        [ "$finished" = yes ] || printf 'INTERRUPTED: points are missing\n'
        point=1
        while [ "$point" -le "$LAST_POINT" ]; do
            [ -f "$work/verdict.$point" ] || leaveOpen 'it did not come so far'
            read -r worst <"$work/verdict.$point"
            case $worst$worstOfAll in bad* | opengood) worstOfAll=$worst ;; esac
            printf '\npoint %s, %s: %s\n' "$point" "$(titleOf "$point")" "$(wordOf "$worst")"
            cat "$work/point.$point"
            point=$((point + 1))
        done
    } >"$report"
    printf '\nThe report is in %s.\n' "$report"
}

titleOf() {
    case $1 in
        1) printf 'a login over SMB' ;;
        2) printf 'the JavaScript' ;;
        3) printf 'pwpolicy -sethashtypes' ;;
        4) printf '"disk" in the preferences' ;;
        5) printf 'sharing -R' ;;
        6) printf 'dscl -read' ;;
        7) printf 'sharing -l' ;;
        8) printf 'chmod -h' ;;
        9) printf 'Full Disk Access' ;;
        10) printf 'dscl -delete' ;;
        11) printf 'cuts off a client' ;;
        12) printf 'nc -z' ;;
        13) printf 'GroupMembership NAME' ;;
        14) printf 'dseditgroup' ;;
        15) printf "preferences' lock" ;;
    esac
}

wordOf() {
    case $1 in
        good) printf 'as expected' ;;
        bad) printf 'not as expected' ;;
        *) printf 'not looked at, or not in full' ;;
    esac
}

# ---- Sessions of the tool

isServiceOn() { /usr/bin/defaults read "$SMB_PREFERENCES" EnabledServices 2>/dev/null | grep -w disk >/dev/null; }
isListening() { /usr/bin/nc -z -G 1 -w 1 127.0.0.1 445 >/dev/null 2>&1; }

# startTool NUMBER FOLDER SHARE USER ACCESS: in the background.  It must not die of a signal that is meant
# for this script, because it would restore nothing; it ends when descriptor 3 or 4 is closed.
startTool() {
    rm -f "$work/input.$1"
    mkfifo -m 600 "$work/input.$1"
    (
        trap '' HUP INT TERM
        exec 3>&- 4>&- 5<&-
        exec "$TOOL" "$2" "$3" "$4" "$work/password" "$5" <"$work/input.$1" >"$work/output.$1" 2>"$work/errors.$1"
    ) &
    case $1 in
        1) firstTool=$!; exec 3>"$work/input.1" ;;
        2) secondTool=$!; exec 4>"$work/input.2" ;;
    esac
}

# awaitResult NUMBER PID: sets result to that of the sharing, or to none.
awaitResult() {
    end=$(($(/bin/date +%s) + SESSION_SECONDS)) result=none
    while [ "$(/bin/date +%s)" -lt "$end" ]; do
        result=$(sed -n 's/^\([0-9]*\) is the sharing result.*/\1/p' "$work/output.$1")
        [ -z "$result" ] || return 0
        result=none
        kill -0 "$2" 2>/dev/null || return 0
        sleep 0.1
    done
}

# endTool NUMBER: sets status to the tool's.  Nothing happens when there is none.
endTool() {
    status=0
    case $1 in
        1) exec 3>&-; ended=$firstTool firstTool= ;;
        2) exec 4>&-; ended=$secondTool secondTool= ;;
    esac
    [ -z "$ended" ] || wait "$ended" || status=$?
}

# session FOLDER ACCESS: sets up to yes when the share is there.
session() {
    up=no
    startTool 1 "$1" "$SHARE" "$TEST_USER" "$2"
    awaitResult 1 "$firstTool"
    [ "$result" != 0 ] || up=yes
    [ "$up" = yes ] || endTool 1
    toolSaid=$(cat "$work/output.1" "$work/errors.1")
}

# blame: a session that did not come up is held against the point that its reason belongs to.
blame() {
    case $toolSaid in
        *'cannot set the password'* | *'the password was not taken'*) point 2 ;;
        *'for SMB'*) point 3 ;;
        *'SMB service has not come up'*) point 4 ;;
        *'has no -R'*) point 5 ;;
        *'does not show the share'*) point 6 ;;
        *'cannot list the shares'*) point 7 ;;
        *'access to all in'* | *'pass through'*) point 8 ;;
        *"$ACCESS_GROUP"*) point 14 ;;
        *) point 1 ;;
    esac
    note "the tool and its scripts said: $toolSaid"
    expect 'the tool makes a share' false
}

# blameEnd: the same for one that did not end well.
blameEnd() {
    case $toolSaid in
        *'cannot take the access'* | *'cannot give all'*) point 8 ;;
        *'cannot delete'* | *'is still there'*) point 10 ;;
        *) point 1 ;;
    esac
    note "the tool ended with status $status, and said: $toolSaid"
    expect 'the tool puts everything back' false
}

# ---- The points

# Those that need no session.
lookAtPrograms() {
    point 5
    look /usr/sbin/sharing
    expect 'sharing prints its options, and has -R' holds -R
    point 12
    lookAtNc
    point 13
    lookAtGroup
}

lookAtNc() {
    if isListening; then
        leaveOpen 'something answers on port 445'
        return
    fi
    begin=$(/bin/date +%s)
    look /usr/bin/nc -z -G 1 -w 1 127.0.0.1 445
    seconds=$(($(/bin/date +%s) - begin))
    expect 'nc fails when nothing answers' failed
    expect "nc takes about a second at most, and took $seconds" [ "$seconds" -le 3 ]
}

lookAtGroup() {
    made="$made group"
    look /usr/bin/dscl . -create "/Groups/$TEST_GROUP"
    look /usr/bin/dscl . -create "/Groups/$TEST_GROUP" GroupMembership pelagogone
    look /usr/bin/dscl . -delete "/Groups/$TEST_GROUP" GroupMembership pelagogone
    expect 'dscl takes the name of a user that is not there out of a group' succeeded
    look /usr/bin/dscl . -read "/Groups/$TEST_GROUP" GroupMembership
    expect 'the name has gone' holdsNot 'GroupMembership:'
}

# With the first session: writable, in a folder that only its owner may enter.
lookAtSession() {
    session "$FOLDER" rw
    if [ "$up" = no ]; then
        blame
        return
    fi
    point 4
    note "the tool said: $toolSaid"
    expect '"disk" in the preferences alone starts the service' isListening
    lookAtAccount
    lookAtDirectory
    point 7
    lookAtNames
    lookAtMembership
    lookAtLogin
    endSession
}

lookAtAccount() {
    point 2
    expect 'adduser.sh has set a password' true
    lookAtRefusal
    point 3
    look /usr/bin/pwpolicy -u "$TEST_USER" -gethashtypes
    expect 'SMB-NT stands there as a word of its own' isWord SMB-NT
}

isWord() { printf '%s\n' "$answer" | grep -wF -e "$1" >/dev/null; }

# The JavaScript is the one in adduser.sh.  The policy holds for the test's own user, and goes with it.
lookAtRefusal() {
    program=$(sed -n "/^SET_PASSWORD='\$/,/^}'\$/p" "$SHARES/adduser.sh" | sed "1d; \$s/'\$//")
    look /usr/bin/pwpolicy -u "$TEST_USER" -setpolicy minChars=100
    if failed; then
        leaveOpen 'no policy could be made that refuses a password'
        return
    fi
    status=0
    answer=$(printf 'short' | /usr/bin/osascript -l JavaScript -e "$program" "$TEST_USER" 2>&1) || status=$?
    note "the JavaScript of adduser.sh, with a password that is too short, status $status: $answer"
    expect 'a refusal comes out as a status' failed
    expect 'a refusal comes out as an error' holds 'the password was not taken'
}

lookAtDirectory() {
    point 6
    look /usr/bin/dscl . -read "/Users/$TEST_USER" RealName
    expect 'a value with blanks stands on a line of its own' isExactly \
        "RealName:$newline Pelago share user $TEST_USER"
    look /usr/bin/dscl . -read "/Users/$TEST_USER" IsHidden
    expect 'IsHidden has its prefix' isExactly 'dsAttrTypeNative:IsHidden: 1'
    look /usr/bin/dscl . -read "/SharePoints/$SHARE" directory_path
    expect 'a path beyond ASCII is shown as it is' isExactly \
        "dsAttrTypeNative:directory_path:$newline $FOLDER"
}

# Other shares are nobody's business: only the line of the test's own goes into the report.
lookAtNames() {
    answer=$(/usr/sbin/sharing -l 2>&1 | grep -F -e "$SHARE") || :
    note "asked: sharing -l; answered, where the share stands: $answer"
    answer=$(printf '%s\n' "$answer" | sed -n 's/^[[:blank:]]*name:[[:blank:]]*//p' | sort -u)
    expect 'the name of the share stands on a line that begins with name:' isExactly "$SHARE"
}

lookAtMembership() {
    point 14
    if ! /usr/bin/dscl . -read "/Groups/$ACCESS_GROUP" RecordName >/dev/null 2>&1; then
        leaveOpen "there is no group $ACCESS_GROUP: allow file sharing to some users only, and run this again"
        return
    fi
    look /usr/bin/dsmemberutil checkmembership -U "$TEST_USER" -G "$ACCESS_GROUP"
    expect 'the user is a member at once' holds 'is a member'
}

lookAtLogin() {
    point 1
    printf '\nThe share is smb://%s/%s, the user %s, the password %s\n' "$(/bin/hostname)" "$SHARE" "$TEST_USER" "$password"
    status=0
    answer=$(/usr/bin/smbutil view "//$TEST_USER:$password@127.0.0.1" 2>&1) || status=$?
    note "asked: smbutil view, as the test's user; answered, status $status"
    expect 'the user can log in, and sees the share' holds "$SHARE"
    status=0
    answer=$(/usr/bin/smbutil view -g //127.0.0.1 2>&1) || status=$?
    note "asked: smbutil view, as a guest; answered, status $status"
    expect 'a guest does not see the share' holdsNot "$SHARE"
    instruct 'From another computer, or several (macOS, Windows, Linux), log in, open hello.txt, and copy a file
into the share. Stay connected.'
    question 'Could each of them log in and read hello.txt?'
    question 'Could each of them write?'
    question 'Is a guest refused?'
}

# What becomes of who is connected, and of the user, when the session ends.
endSession() {
    point 11
    instruct 'Start to copy a large file from the share, and have it running.'
    endTool 1
    toolSaid=$(cat "$work/output.1" "$work/errors.1")
    [ "$status" -eq 0 ] || blameEnd
    point 10
    look /usr/bin/dscl . -read "/Users/$TEST_USER" RecordName
    expect 'root may delete the user' failed
    point 11
    question 'Was the computer cut off, so that the copy broke off?'
    point 1
    expect 'what the client wrote belongs to the owner of the folder' isAllOfThePerson
}

isAllOfThePerson() { [ -z "$(/usr/bin/find -P "$FOLDER" ! -user "$person" -print)" ]; }

# With a second session, which only reads.
lookAtReading() {
    session "$FOLDER" ro
    if [ "$up" = no ]; then
        blame
        return
    fi
    point 1
    instruct "Log in once more: the share can only be read now. Try to copy a file into it."
    question 'Was writing refused, and reading not?'
    endTool 1
}

# chmod, ls and find, on the test's own files, with an entry of the person's.
lookAtEntries() {
    point 8
    mkdir "$TOP/entries"
    cd "$TOP/entries"
    entry="user:$personName allow list,search,read,file_inherit,directory_inherit"
    look /bin/chmod -h +a "$entry" .
    expect 'chmod -h +a sets an entry on a folder' succeeded
    /usr/bin/touch -- inherits .hidden -R
    look /bin/chmod -h -a "$entry" inherits
    expect 'chmod -h -a takes away an entry that was inherited' succeeded
    look /bin/chmod -h -a "$entry" inherits
    expect 'chmod -h -a complains where there is none' failed
    lookAtListing
    ln -s inherits link
    look /bin/chmod -h +a "$entry" link
    expect 'chmod -h +a on a link does not reach what it leads to' hasEntry inherits no
    lookAtFind
    cd /
}

# hasEntry NAME yes|no: whether ls shows an entry of the person's for it.
hasEntry() {
    found=$(/bin/ls -lqeR -- . | awk -v "name=$1" -v "entry=user:$personName" '
        /^[-dl]/ { at = $9; sub(/.*\//, "", at) }
        /^ [0-9]+: / && $2 == entry && at == name { print "yes"; exit }')
    [ "${found:-no}" = "$2" ]
}

lookAtListing() {
    answer=$(/bin/ls -lqeR -- . 2>&1 | awk '{ print $1, $2 }')
    note "ls -lqeR shows: $answer"
    expect 'ls shows an entry, and hidden files too' hasEntry .hidden yes
}

lookAtFind() {
    answer=$(/usr/bin/find -P . -xdev -type f ! -execdir /bin/chmod -h -a "$entry" '{}' \; -print 2>/dev/null) || :
    note "find ... ! -execdir chmod -h -a ENTRY '{}' \\; -print answers: $answer"
    expect 'find prints the one name for which chmod has failed' isExactly ./inherits
    expect 'a name that begins with a dash is no option' hasEntry -R no
}

# A folder that macOS guards.
lookAtConsent() {
    point 9
    guarded=$personHome/Documents/pelagofirst
    if ! mkdir "$guarded" 2>/dev/null; then
        expect 'root may make a folder in Documents' false
        return
    fi
    made="$made guarded"
    printf 'hello\n' >"$guarded/hello.txt"
    /usr/sbin/chown -R "$person" "$guarded"
    session "$guarded" rw
    note "the tool and its scripts said: $toolSaid"
    expect 'root may set entries in Documents' [ "$up" = yes ]
    [ "$up" = yes ] || return 0
    instruct 'Log in once more: the share is now a folder in Documents.'
    question 'Is hello.txt in the list?'
    endTool 1
    leaveOpen 'the same for Desktop, Downloads, and removable and network volumes'
}

# Two tools at once: the first switches the service on, and off again when it ends.
lookAtLock() {
    point 15
    session "$FOLDER" rw
    if [ "$up" = no ]; then
        leaveOpen 'the first tool made no share'
        return
    fi
    startTool 2 "$TOP/closed/second" "$SECOND_SHARE" "$SECOND_USER" rw
    awaitResult 2 "$secondTool"
    note "the second tool's result of the sharing: $result"
    endTool 2
    endTool 1
    note "the first tool ended with status $status, and said: $(cat "$work/output.1" "$work/errors.1")"
    expect 'when others have not written the preferences meanwhile, the tool gets the lock' succeeded
    session "$FOLDER" rw
    startTool 2 "$TOP/closed/second" "$SECOND_SHARE" "$SECOND_USER" rw
    awaitResult 2 "$secondTool"
    endTool 1
    endTool 2
    note "the second tool ended with status $status, and said: $(cat "$work/output.2" "$work/errors.2")"
    expect 'the lock is refused to a tool when another has written the preferences' [ "$status" -eq 1 ]
}

# ---- Beginning and end

findPerson() {
    [ "$(/usr/bin/id -u)" = 0 ] || fail 'run this with sudo: most of it only root may do'
    person=${SUDO_UID:-$(/usr/bin/stat -f %u /dev/console)}
    [ "$person" -ge 501 ] || fail 'run this with sudo from the account of a person'
    personName=$(/usr/bin/id -un "$person") || fail "there is no user with the number $person"
    personHome=$(/usr/bin/dscl . -read "/Users/$personName" NFSHomeDirectory) || fail 'cannot find the home folder'
    personHome=${personHome#NFSHomeDirectory:}
    personHome=${personHome#"$newline"}
    personHome=${personHome# }
}

checkMac() {
    [ -x "$TOOL" ] || fail "there is no tool: $TOOL.  Run this from the bundle."
    [ ! -e "$TOP" ] || fail "$TOP is there already: remove it, if an earlier run has left it"
    for one in "Users/$TEST_USER" "Users/$SECOND_USER" "Groups/$TEST_GROUP" "SharePoints/$SHARE" "SharePoints/$SECOND_SHARE"; do
        ! /usr/bin/dscl . -read "/$one" RecordName >/dev/null 2>&1 || fail "/$one is there already"
    done
    ! isServiceOn || fail 'file sharing is on: switch it off for this, in System Settings, General, Sharing'
}

makeFolders() {
    made="$made folders"
    mkdir "$TOP"
    mkdir -m 700 "$TOP/closed"
    mkdir "$FOLDER" "$TOP/closed/second"
    printf 'hello\n' >"$FOLDER/hello.txt"
    /usr/sbin/chown -R "$person" "$TOP/closed"
}

# Whatever is there.  The scripts say nothing of what has gone already that anybody needs.
putBack() {
    trap '' HUP INT TERM
    left=
    cd /
    endTool 1
    endTool 2
    takeShare "$SHARE" "$FOLDER" "$TEST_USER"
    takeShare "$SECOND_SHARE" "$TOP/closed/second" "$SECOND_USER"
    case $made in *group*)
        /usr/bin/dscl . -delete "/Groups/$TEST_GROUP" >/dev/null 2>&1
        ! /usr/bin/dscl . -read "/Groups/$TEST_GROUP" RecordName >/dev/null 2>&1 || left="$left /Groups/$TEST_GROUP"
    esac
    case $made in *guarded*) rm -rf -- "$personHome/Documents/pelagofirst" || left="$left Documents/pelagofirst" ;; esac
    case $made in *folders*) rm -rf -- "$TOP" || left="$left $TOP" ;; esac
    ! isServiceOn || left="$left file-sharing"
    [ -z "$left" ] || say "STILL THERE, remove it by hand:$left"
    writeReport
    rm -rf -- "$work"
}

# Of a run that came to its end.  An interrupted one has the signal's.
exitStatus() {
    case $worstOfAll in
        good) return 0 ;;
        bad) return 1 ;;
        *) return 3 ;;
    esac
}

# takeShare SHARE FOLDER USER: what a tool has left that could not restore.
takeShare() {
    "$SHARES/rmshare.sh" "$1" "$2" >/dev/null 2>&1 || left="$left share:$1"
    "$SHARES/rmuser.sh" "$3" >/dev/null 2>&1 || left="$left user:$3"
}

main() {
    lookAtPrograms
    lookAtEntries
    lookAtSession
    lookAtReading
    lookAtConsent
    lookAtLock
    finished=yes
}

# The answers are this script's alone.
exec 5<&0 </dev/null
[ "$#" -le 1 ] || fail 'usage: firstRun.sh [REPORT]'
report=${1-firstRun-report.txt}
case $report in /*) ;; *) report=$PWD/$report ;; esac
: >"$report" || fail "cannot write $report"
point=0 firstTool='' secondTool='' made='' finished=no
findPerson
checkMac
work=$(/usr/bin/mktemp -d /tmp/pelagofirst.XXXXXX) || fail 'cannot make a folder'
password=Px7-$(tr -dc 'a-z0-9' </dev/urandom | head -c 20)
printf '%s\n' "$password" >"$work/password"
ending=2
trap 'ending=$?; set +e; putBack; exit "$ending"' EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM
makeFolders
main
trap - EXIT
set +e
putBack
exitStatus
