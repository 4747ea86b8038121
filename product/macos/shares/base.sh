# shellcheck shell=sh
# base.sh -- arguments, failing and the password, which the share scripts for macOS have in common.  It is
# sourced by common.sh, never run, and wants from there: checkShareName, session (which session this is) and
# isInUse (whether that of a file still runs).

set -eu
umask 077
# A caller that has died leaves a broken pipe on stderr: cleaning up goes on without its reader.
trap '' PIPE
# Standard input belongs to the session's caller; nothing here may eat a byte of it.
exec </dev/null

# ---- Telling and failing

# The second redirection silences the shell's own complaint when nobody reads any more.
say() { printf '%s: %s\n' "${0##*/}" "$1" >&2 2>/dev/null || :; }

fail() {
    say "$1"
    exit 1
}

# Runs the command, once, when the script ends early for whatever reason.  A second signal must not
# stop the undoing half-way.
undoOnExit() {
    # shellcheck disable=SC2064 # the command is known now
    trap "trap '' HUP INT TERM; $1" EXIT
}
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

# Everything is done: nothing is undone any more, and a late signal changes no status.
finish() {
    trap '' HUP INT TERM
    trap - EXIT
    exit 0
}

# ---- Names

isUtf8() { printf '%s' "$1" | iconv -f UTF-8 -t UTF-16LE >/dev/null 2>&1; }

# The same rule as on Linux.  It is less than either host takes: names are compared without case, go
# into paths and access entries, and a first @, + or & makes a group of some.
checkUserName() {
    case $1 in
        '' | [!a-z_]* | *[!a-z0-9_.-]*)
            fail "not a user name (a-z, 0-9, _ . - and first a-z or _): \"$1\"" ;;
    esac
    [ "${#1}" -le 32 ] || fail "a user name has at most 32 characters: \"$1\""
}

# What SMB itself asks of a share name.
checkSmbName() {
    [ -n "$1" ] || fail 'the share name is empty'
    isUtf8 "$1" || fail 'the share name is not valid UTF-8'
    case $1 in
        *[[:cntrl:]]*) fail 'the share name holds a control character' ;;
        ' '* | *' ') fail "the share name begins or ends with a blank: \"$1\"" ;;
    esac
    nameBytes=$(printf '%s' "$1" | iconv -f UTF-8 -t UTF-16LE | wc -c)
    [ "$((nameBytes))" -le 160 ] || fail 'the share name is longer than 80 characters'
}

# ---- Whose it is

# shellcheck disable=SC2154 # session is set in common.sh
isInUseByAnother() { isInUse "$1" && [ "$(cat "$1")" != "$session" ]; }

# Makes our caller the owner.
claim() { printf '%s\n' "$session" >"$1"; }

# ---- The password

# Sets passwordOctal to the password, each byte as a backslash and three octal digits.  An empty one, one
# that is too long and one that holds a NUL would be taken, but not as they are.
readPassword() {
    [ -r "$1" ] || fail "cannot read the password file: $1"
    [ ! -d "$1" ] || fail "the password file is a folder: $1"
    # A read that fails half-way ends in a NUL, which is refused; half a password must not count.
    passwordOctal=$({ head -c 130 || printf '\000'; } <"$1" | od -An -v -to1 |
        awk '{ for (i = 1; i <= NF; i++) printf "\\%s", $i }') ||
        fail "cannot read the password file: $1"
    passwordOctal=${passwordOctal%'\012'}
    case $passwordOctal in
        '') fail 'the password is empty' ;;
        *'\000'*) fail 'the password holds a NUL byte' ;;
        *'\012'*) fail 'the password file has more than one line' ;;
    esac
    [ "$((${#passwordOctal} / 4))" -le 127 ] || fail 'the password is longer than 127 bytes'
}

# printf is part of the shell, so that the password is in no program's arguments or environment.  The
# format is octal throughout: it holds no % of its own.
printPassword() {
    # shellcheck disable=SC2059 # the format is the text
    printf "$passwordOctal"
}

# ---- Arguments, each script's own

checkAdduserArguments() {
    [ "$#" -eq 3 ] || fail 'usage: adduser.sh USER USER PASSWORD_FILE'
    checkUserName "$1"
    [ "$1" = "$2" ] || fail "the two user names differ: \"$1\" and \"$2\""
    [ -n "$3" ] || fail 'the name of the password file is empty'
}

checkAddshareArguments() {
    [ "$#" -eq 5 ] || fail 'usage: addshare.sh USER PASSWORD_FILE FOLDER SHARE rw|ro'
    checkUserName "$1"
    [ -n "$2" ] || fail 'the name of the password file is empty'
    checkShareName "$4"
    case $5 in rw | ro) ;; *) fail "the access is neither rw nor ro: \"$5\"" ;; esac
}

checkRmshareArguments() {
    [ "$#" -eq 2 ] || fail 'usage: rmshare.sh SHARE FOLDER'
    checkShareName "$1"
    [ -n "$2" ] || fail "the folder's path is empty"
}

checkRmuserArguments() {
    [ "$#" -eq 1 ] || fail 'usage: rmuser.sh USER'
    checkUserName "$1"
}
