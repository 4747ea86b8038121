#!/bin/dash
# firstRun.sh [REPORT] -- checks what only a Mac can confirm, which is the list at the end of README.md, one
# point after another.  Run it with sudo, from the account of a person, on a Mac that nobody else is using.
#
# It makes users, a group, shares and folders with names of their own, such as pelagofirst, and runs the tool
# of the bundle, which switches file sharing on and off.  When it ends, or is interrupted, it removes all of
# them.  Some points need another computer: it prints what to do there, and asks for the result.  An answer
# other than y or n leaves the point open.
#
# REPORT, by default firstRun-report.txt, gets for each point the commands, their output, and a verdict.  It
# holds no password, and no name of a user except the test's own.
# Exit status: 0 every point is as expected; 1 one is not, or something could not be removed; 2 the script
# could not run; 3 points are left open; 129, 130, 143 it was interrupted.
set -eu
umask 022
PATH=/usr/bin:/bin:/usr/sbin:/sbin LC_ALL=C
export PATH LC_ALL

here=$(cd -- "${0%/*}" && pwd -P)
SHARES=$here/shares
TOOL=$SHARES/pelagoShareTool
SMB_PREFERENCES=/Library/Preferences/SystemConfiguration/com.apple.smb.server
ACCESS_GROUP=com.apple.access_smb
STATE=/var/db/pelago
TOP=/Library/pelagofirst # only root may change what lies there
TEST_USER=pelagofirst SECOND_USER=pelagosecond TEST_GROUP=pelagofirstgroup
SHARE='Pelago test' SECOND_SHARE='Pelago second test' PERCENT_SHARE='Pelago test 100%'
O_UMLAUT=$(printf '\303\266')
DIAERESIS=$(printf '\314\210') # after its letter
FOLDER="$TOP/closed/${O_UMLAUT}ffentlich 1"
POINTS='1 2 3 4 5 6 7 8 9 10 11 13 14 15 16 17 18 19 20 21 22 23 24 25' # of the list; the gaps are its own
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
# The report of point N is collected in $work/point.N.  $work/verdict.N holds the worst verdict so far.

# hide TEXT: prints the text with the person's name and home folder and the password replaced.  The password is
# the first line of awk's input: as an argument every process could see it.
hide() {
    printf '%s\n' "$password" "$1" | awk -v "home=$personHome" -v "name=$personName" '
        function replace(line, what, by,    at, done) {
            while (what != "" && (at = index(line, what)) > 0) {
                done = done substr(line, 1, at - 1) by
                line = substr(line, at + length(what))
            }
            return done line
        }
        NR == 1 { secret = $0; next }
        { print replace(replace(replace($0, home, "~"), name, "(the person)"), secret, "(the password)") }'
}

# note TEXT: adds the text to the report of the current point.
note() {
    hide "$1" | sed 's/^/    /' >>"$work/point.$point"
}

# verdict WORD: notes a verdict, unless the point has a worse one.  From best to worst: good, open, bad.
verdict() {
    read -r worst 2>/dev/null <"$work/verdict.$point" || worst=good
    case $worst$1 in
        bad* | openopen | opengood) ;;
        *) printf '%s\n' "$1" >"$work/verdict.$point" ;;
    esac
}

# point N: makes N the current point.
point() {
    point=$1
    [ -f "$work/point.$1" ] || printf 'Looking at point %s ...\n' "$1"
}

# look COMMAND [ARG...]: runs the command, sets answer to its output and status, and notes both.
look() {
    status=0
    answer=$("$@" 2>&1) || status=$?
    note "asked: $*"
    note "answered, status $status: $answer"
}

# expect TEXT COMMAND [ARG...]: TEXT is what is expected; it is so when the command succeeds.
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

# leaveOpen REASON: notes that something was not checked, and why.
leaveOpen() {
    note "not looked at: $1"
    verdict open
}

# question TEXT: asks the person.  y is as expected, n is not, anything else leaves the point open.
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

# instruct TEXT: prints what the person shall do, and waits for Enter.
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
        printf 'macOS %s (%s), %s\n' "$(/usr/bin/sw_vers -productVersion)" \
            "$(/usr/bin/sw_vers -buildVersion)" "$(/usr/bin/uname -m)"
        [ "$finished" = yes ] || printf 'INTERRUPTED: points are missing\n'
        for point in $POINTS; do
            [ -f "$work/verdict.$point" ] || leaveOpen 'it did not come so far'
            read -r worst <"$work/verdict.$point"
            case $worst$worstOfAll in bad* | opengood) worstOfAll=$worst ;; esac
            printf '\npoint %s, %s: %s\n' \
                "$point" "$(titleOf "$point")" "$(wordOf "$worst")"
            cat "$work/point.$point"
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
        13) printf 'GroupMembership NAME' ;;
        14) printf 'dseditgroup' ;;
        15) printf "preferences' lock" ;;
        16) printf 'percent sign in the path of a record' ;;
        17) printf "stat -f '%%d:%%i %%p %%u'" ;;
        18) printf 'pwd -P in /bin/dash' ;;
        19) printf 'are there from macOS 10.15 on' ;;
        20) printf 'root can unlock' ;;
        21) printf 'eDSRecordNotFound' ;;
        22) printf 'after a user was made' ;;
        23) printf 'ps -axo uid=' ;;
        24) printf 'the name of a user or of a volume' ;;
        25) printf 'the job of launchd' ;;
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

# startTool NUMBER FOLDER SHARE USER ACCESS: starts tool 1 or 2 in the background.  The tool ignores the signals
# that interrupt this script: they would end it before it has restored anything.  It ends when its input,
# descriptor 3 or 4, is closed.
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

# awaitResult NUMBER PID: waits until the tool prints the result of the sharing, and sets result to it; none when
# the tool ends first, or after SESSION_SECONDS.
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

# endTool NUMBER: ends the tool, if it runs, and sets status to its exit status.
endTool() {
    status=0
    case $1 in
        1) exec 3>&-; ended=$firstTool firstTool= ;;
        2) exec 4>&-; ended=$secondTool secondTool= ;;
    esac
    [ -z "$ended" ] || wait "$ended" || status=$?
}

# session FOLDER ACCESS: starts the first tool, and sets up to yes when the share was made, else to no.
session() {
    up=no sharedFolder=$1
    startTool 1 "$1" "$SHARE" "$TEST_USER" "$2"
    awaitResult 1 "$firstTool"
    [ "$result" != 0 ] || up=yes
    [ "$up" = yes ] || endTool 1
    toolSaid=$(cat "$work/output.1" "$work/errors.1")
}

# blame: counts a session that was not made against the point that its reason belongs to.
blame() {
    case $toolSaid in
        *'cannot set the password'* | *'the password was not taken'*) point 2 ;;
        *'for SMB'*) point 3 ;;
        *'SMB service has not come up'*) point 4 ;;
        *'has no -R'*) point 5 ;;
        *'does not show the share'*) point 6 ;;
        *'cannot list the shares'*) point 7 ;;
        *'access to all in'* | *'pass through'*) point 8 ;;
        *'cannot take over'*) point 10 ;;
        *"$ACCESS_GROUP"*) point 14 ;;
        *'another folder now'*) point 17 ;;
        *'another of its names'* | *'is the full name'*) point 21 ;;
        *'does not know the user'*) point 22 ;;
        *'whose processes run'*) point 23 ;;
        *) point 1 ;;
    esac
    note "the tool and its scripts said: $toolSaid"
    expect 'the tool makes a share' false
}

# blameEnd: the same for a session that did not end well.
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

# The functions up to lookAtJob need no session.
lookAtPrograms() {
    point 5
    look /usr/sbin/sharing
    expect 'sharing prints its options, and has -R' holds -R
    point 13
    lookAtGroup
}

lookAtGroup() {
    look /usr/bin/dscl . -create "/Groups/$TEST_GROUP"
    lookAtMember GroupMembership pelagogone
    lookAtMember GroupMembers 0D3A6C1E-0000-4000-8000-00000000FFFF
}

# lookAtMember KEY VALUE: the value names a user that does not exist.
lookAtMember() {
    look /usr/bin/dscl . -create "/Groups/$TEST_GROUP" "$1" "$2"
    look /usr/bin/dscl . -delete "/Groups/$TEST_GROUP" "$1" "$2"
    expect "dscl takes a user that is not there out of $1" succeeded
    look /usr/bin/dscl . -read "/Groups/$TEST_GROUP" "$1"
    expect 'it has gone' holdsNot "$1:"
}

lookAtRecords() {
    point 7
    sharesThere=$(/usr/bin/dscl . -list /SharePoints)
    [ -n "$sharesThere" ] || look /usr/sbin/sharing -l
    point 21
    look /usr/bin/dscl . -read "/Groups/pelagogone" RecordName
    expect 'a name that is free is not found' [ "$status" -eq 56 ]
    expect 'the error has its name' holds eDSRecordNotFound
    look /usr/bin/dscl . -read "/SharePoints/pelagogone" RecordName
    expect 'so it is for a share whose name is free' [ "$status" -eq 56 ]
    expect 'the error has the same name' holds eDSRecordNotFound
    look /usr/bin/dscl . -read /Groups/lpadmin RecordName
    expect 'a group is found by another of its names' succeeded
    look /usr/bin/dscl . -search /Users RealName pelagogone
    expect 'a full name that nobody has is not found, with status 0' isNothing
    point 23
    owners=$(/bin/ps -axo uid= | tr -d ' ' | sort -u)
    expect "ps lists root's processes and the person's" bothRun
    point 24
    leaveOpen 'such names are refused; nothing depends on it'
}

bothRun() { [ "$(printf '%s\n' "$owners" | grep -cxF -e 0 -e "$person")" -eq 2 ]; }

# Checks programs and options that another macOS may lack.
lookAtPresence() {
    point 19
    cd "$TOP" || return
    ln -s nowhere link
    look /usr/bin/readlink -n link
    expect 'readlink has -n' isExactly nowhere
    rm link
    sleep 1 &
    child=$!
    look /usr/bin/pgrep -P "$$"
    expect 'pgrep finds a child' holds "$child"
    wait "$child"
    status=0
    /usr/bin/dsmemberutil getuuid -U "$personName" >/dev/null 2>&1 || status=$?
    expect 'dsmemberutil has getuuid -U' succeeded
    point 20
    : >locked
    look /usr/bin/chflags -h uchg locked
    look /usr/sbin/chown -h "$person" locked
    expect 'nobody changes a file that is locked' failed
    point 19
    look /usr/bin/find -P . -xdev -flags +sappnd,schg,uappnd,uchg -print
    expect 'find knows -flags' isExactly ./locked
    point 20
    look /usr/bin/chflags -h nouchg locked
    expect 'chflags -h unlocks it' succeeded
    look /usr/sbin/chown -h "$person" locked
    expect 'then it can be given away' succeeded
    cd /
}

# Makes a share with the program sharing, while the service is off.  To dscl % begins an escape.
lookAtPercent() {
    point 16
    look /usr/sbin/sharing -a "$TOP/closed/second" -n "$PERCENT_SHARE" -S "$PERCENT_SHARE" -s 001 -g 000
    look /usr/bin/dscl . -read "/SharePoints/${PERCENT_SHARE}25" directory_path
    expect 'the record of a share with % in its name is found by %25' holds "$TOP/closed/second"
    look /usr/sbin/sharing -r "$PERCENT_SHARE"
    expect 'the share can be removed' succeeded
}

lookAtNumbers() {
    point 17
    for place in /Users "$personHome" "$personHome/Documents"; do
        outside=$(/usr/bin/stat -f '%d:%i %p %u' "$place")
        inside=$(cd -P -- "$place" && /usr/bin/stat -f '%d:%i %p %u' .)
        expect "$place is the same from outside and from inside" [ "$outside" = "$inside" ]
    done
}

# Enters one folder by several paths: in other letters' case, in another normal form, on the data volume.
lookAtPaths() {
    point 18
    mkdir "$TOP/Gr${O_UMLAUT}sse"
    look /usr/sbin/sharing -a "$TOP/Gr${O_UMLAUT}sse" -n "$SECOND_SHARE" -S "$SECOND_SHARE" -s 001 -g 000
    look /usr/bin/dscl . -read "/SharePoints/$SECOND_SHARE" directory_path
    shownPath=${answer#dsAttrTypeNative:directory_path: }
    for spelling in "$TOP/Gr${O_UMLAUT}sse" "$TOP/GR${O_UMLAUT}SSE" "$TOP/Gro${DIAERESIS}sse" \
        "/System/Volumes/Data$TOP/Gr${O_UMLAUT}sse"; do
        if [ ! -d "$spelling" ]; then
            leaveOpen "there is no $spelling here"
            continue
        fi
        entered=$(cd -P -- "$spelling" && pwd -P)
        expect "pwd -P in $spelling prints $entered, as the directory does" [ "$entered" = "$shownPath" ]
    done
    /usr/sbin/sharing -r "$SECOND_SHARE" >/dev/null
}

# Makes a user without a password.  macOS is asked for the name before, so that it caches that there is none.
lookAtNewUser() {
    point 22
    number=$(/usr/bin/dscl . -list /Users UniqueID | awk '{ taken[$NF] = 1 }
        END { for (n = 499; n > 400; n--) if (!(n in taken)) { print n; exit } }')
    look /usr/bin/id -u "$SECOND_USER"
    look /usr/bin/dscl . -create "/Users/$SECOND_USER"
    look /usr/bin/dscl . -create "/Users/$SECOND_USER" UserShell /usr/bin/false
    point 10
    look /usr/bin/dscl . -create "/Users/$SECOND_USER" NFSHomeDirectory /var/empty
    expect 'root may set the home folder' succeeded
    point 22
    look /usr/bin/dscl . -create "/Users/$SECOND_USER" UniqueID "$number"
    begin=$(/bin/date +%s) looks=0
    until [ "$(/usr/bin/id -u "$SECOND_USER" 2>/dev/null)" = "$number" ] || [ "$looks" -ge 300 ]; do
        sleep 0.1
        looks=$((looks + 1))
    done
    expect "macOS knows the user, after $(($(/bin/date +%s) - begin)) s and $looks looks" [ "$looks" -lt 100 ]
    look /usr/bin/dscl . -delete "/Users/$SECOND_USER"
}

# A shell that ends at once runs adduser.sh, so that the user belongs to a session that has ended.  That needs
# neither a share nor the service.
lookAtJob() {
    point 25
    if ! /usr/bin/launchctl print system/pelago.clear >/dev/null 2>&1; then
        leaveOpen 'the job is not installed: README.md says how'
        return
    fi
    if grep -x bad "$work/verdict.10" >/dev/null; then
        leaveOpen 'no user can be deleted'
        return
    fi
    # shellcheck disable=SC2016 # it is the other shell's
    /bin/dash -c '"$1/adduser.sh" "$2" "$2" "$3"; :' dash "$SHARES" "$SECOND_USER" "$work/password" 2>/dev/null
    looks=0
    while /usr/bin/dscl . -read "/Users/$SECOND_USER" RecordName >/dev/null 2>&1 && [ "$looks" -lt 700 ]; do
        sleep 0.1
        looks=$((looks + 1))
    done
    expect "the job removes the user of a session that has ended, after $looks looks" [ "$looks" -lt 700 ]
    leaveOpen 'whether it may do so for a share in Documents, for which /bin/dash may need Full Disk Access'
}

# The first session: writable, in a folder that only its owner may enter.
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

# Runs the JavaScript of adduser.sh with a password that is too short.  The policy applies to the test's own
# user, and is removed with that user.
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

# Only the line of the test's own share goes into the report: the names of other shares are private.
lookAtNames() {
    answer=$(/usr/sbin/sharing -l 2>&1 | grep -F -e "$SHARE")
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
    printf '\nThe share is smb://%s/%s, the user %s, the password %s\n' \
        "$(/bin/hostname)" "$SHARE" "$TEST_USER" "$password"
    # Other processes can see the password meanwhile.  It opens only a folder of the test's, and is removed with
    # the user.
    status=0
    answer=$(/usr/bin/smbutil view "//$TEST_USER:$password@127.0.0.1" 2>&1) || status=$?
    note "asked: smbutil view, as the test's user; answered, status $status"
    expect 'the user can log in, and sees the share' holds "$SHARE"
    status=0
    answer=$(/usr/bin/smbutil view -g //127.0.0.1 2>&1) || status=$?
    note "asked: smbutil view, as a guest; answered, status $status"
    expect 'a guest does not see the share' holdsNot "$SHARE"
    instruct 'From another computer, or several (macOS, Windows, Linux), log in, open hello.txt, and copy a file
into the share. Stay connected. From a Mac, lock a file of yours there (Get Info, Locked); from Windows,
make one read-only.'
    question 'Could each of them log in and read hello.txt?'
    question 'Could each of them write?'
    question 'Is a guest refused?'
}

# Ends the session, and checks what happens to a connected client, to the user and to the client's files.
endSession() {
    point 20
    locks=$(/usr/bin/find -P "$FOLDER" -type f -exec /usr/bin/stat -f %Sf '{}' ';' | sort -u | tr '\n' ' ')
    note "the flags of the files in the share: $locks"
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
    point 20
    case $locks in
        *uchg*) expect 'what was locked belongs to the owner of the folder, too' isAllOfThePerson ;;
        *) leaveOpen 'no client has locked a file' ;;
    esac
}

isAllOfThePerson() { [ -z "$(/usr/bin/find -P "$FOLDER" ! -user "$person" -print)" ]; }

# A second session, whose client may only read.
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

# Tries chmod, ls and find on the test's own files, with an access entry for the person.
lookAtEntries() {
    point 8
    mkdir "$TOP/entries"
    cd "$TOP/entries" || return
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

# hasEntry NAME yes|no: returns whether ls shows an entry for the person on the file NAME, or shows none.
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
    look /usr/bin/find -P . -xdev -type f ! -execdir /bin/chmod -h -a "$entry" '{}' \; -print
    answer=$(printf '%s\n' "$answer" | grep '^[.]/')
    expect 'find prints the one name for which chmod has failed' isExactly ./inherits
    expect 'a name that begins with a dash is no option' hasEntry -R no
}

# A session for a folder that macOS guards.
lookAtConsent() {
    point 9
    if ! mkdir "$personHome/Documents/pelagofirst" 2>/dev/null; then
        expect 'root may make a folder in Documents' false
        return
    fi
    guarded=$personHome/Documents/pelagofirst
    printf 'hello\n' >"$guarded/hello.txt"
    /usr/sbin/chown -R "$person" "$guarded"
    session "$guarded" rw
    note "the tool and its scripts said: $toolSaid"
    case $up$toolSaid in
        yes*) ;;
        *'access to all in'* | *'pass through'*) expect 'root may set entries in Documents' false; return ;;
        *) leaveOpen 'the tool made no share'; return ;;
    esac
    expect 'root may set entries in Documents' true
    instruct 'Log in once more: the share is now a folder in Documents.'
    question 'Is hello.txt in the list?'
    endTool 1
    leaveOpen 'the same for Desktop, Downloads, and removable and network volumes'
}

# Two tools at the same time.  The first switches the service on, and off again when it ends.
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
    person=${SUDO_UID-}
    case $person in '' | *[!0-9]*) person=0 ;; esac
    [ "$person" -ge 501 ] || fail 'run this with sudo from the account of a person'
    personName=$(/usr/bin/id -un "$person") || fail "there is no user with the number $person"
    personHome=$(/usr/bin/dscl . -read "/Users/$personName" NFSHomeDirectory) || fail 'cannot find the home folder'
    personHome=${personHome#NFSHomeDirectory:}
    personHome=${personHome#"$newline"}
    personHome=${personHome# }
}

# forEachRecord COMMAND: calls the command with each record that is in the directory, of all that this script and
# its tools ever make there.
forEachRecord() {
    for record in "/SharePoints/$SHARE" "/SharePoints/$SECOND_SHARE" "/SharePoints/${PERCENT_SHARE}25" \
        "/Users/$TEST_USER" "/Users/$SECOND_USER" "/Groups/$TEST_USER" "/Groups/$SECOND_USER" \
        "/Groups/$TEST_GROUP"; do
        ! /usr/bin/dscl . -read "$record" RecordName >/dev/null 2>&1 || "$1" "$record"
    done
}

refuseRecord() { fail "$1 is there already"; }

checkMac() {
    [ -x "$TOOL" ] || fail "there is no tool: $TOOL.  Run this from the bundle."
    [ ! -e "$TOP" ] || fail "$TOP is there already: remove it, if an earlier run has left it"
    forEachRecord refuseRecord
    ! isServiceOn || fail 'file sharing is on: switch it off for this, in System Settings, General, Sharing'
}

makeFolders() {
    mkdir "$TOP"
    mkdir -m 700 "$TOP/closed"
    mkdir "$FOLDER" "$TOP/closed/second"
    printf 'hello\n' >"$FOLDER/hello.txt"
    /usr/sbin/chown -R "$person" "$TOP/closed"
}

# Removes all that was made, and writes the report.  What has one of the names was made here: checkMac has found
# none at the beginning.
putBack() {
    left=
    cd /
    endTool 1
    endTool 2
    {
        "$SHARES/rmshare.sh" "$SHARE" "$sharedFolder"
        "$SHARES/rmshare.sh" "$SECOND_SHARE" "$TOP/closed/second"
        "$SHARES/rmuser.sh" "$TEST_USER"
        "$SHARES/rmuser.sh" "$SECOND_USER"
    } >/dev/null 2>&1
    forEachRecord takeRecord
    [ -z "$guarded" ] || rm -rf -- "$guarded" || left="$left $guarded"
    /usr/bin/chflags -R nouchg "$TOP" 2>/dev/null
    rm -rf -- "$TOP" || left="$left $TOP"
    [ "$stateWas" = yes ] || takeState
    ! isServiceOn || left="$left file-sharing"
    [ -z "$left" ] || say "STILL THERE, remove it by hand:$left"
    writeReport
    rm -rf -- "$work"
}

# Removes the notes of the share scripts.  Only for a Mac that had none at the beginning.
takeState() {
    rm -f "$STATE/lastNumber"
    for folder in "$STATE/shares" "$STATE/users" "$STATE"; do
        rmdir "$folder" || left="$left $folder"
    done
}

# shellcheck disable=SC2317 # forEachRecord calls it
takeRecord() {
    /usr/bin/dscl . -delete "$1" >/dev/null 2>&1 || left="$left $1"
}

# Runs at the end in any case, and sets the exit status; after an interruption it is that of the signal.
atEnd() {
    ending=$?
    trap '' HUP INT TERM
    set +e
    putBack
    [ "$finished" = yes ] || exit "$ending"
    case $left$worstOfAll in
        good) exit 0 ;;
        open) exit 3 ;;
        *) exit 1 ;;
    esac
}

# A command that fails is a result, so the script goes on with the next point.
main() {
    set +e
    lookAtPrograms
    lookAtRecords
    lookAtPresence
    lookAtNumbers
    lookAtPercent
    lookAtPaths
    lookAtNewUser
    lookAtEntries
    lookAtSession
    lookAtReading
    lookAtConsent
    lookAtLock
    lookAtJob
    finished=yes
}

# Only this script reads the person's answers, from descriptor 5; programs read nothing.
exec 5<&0 </dev/null
[ "$#" -le 1 ] || fail 'usage: firstRun.sh [REPORT]'
report=${1-firstRun-report.txt}
case $report in /*) ;; *) report=$PWD/$report ;; esac
: >"$report" || fail "cannot write $report"
point=0 firstTool='' secondTool='' sharedFolder=$FOLDER guarded='' finished=no
findPerson
checkMac
stateWas=no
[ ! -e "$STATE" ] || stateWas=yes
work=$(/usr/bin/mktemp -d /tmp/pelagofirst.XXXXXX) || fail 'cannot make a folder'
password=Px7-$(tr -dc 'a-z0-9' </dev/urandom | head -c 20)
printf '%s\n' "$password" >"$work/password"
trap atEnd EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM
makeFolders
main
