# shellcheck shell=sh
# base.sh -- messages, failing, names, arguments and the password, for all share scripts for macOS.  It is
# sourced by common.sh, never run.  It uses checkShareName, session and isInUse, which common.sh defines.

set -eu
umask 077
# A caller that has died leaves a broken pipe on stderr.  Undoing goes on without a reader of messages.
trap '' PIPE
# Standard input belongs to the session's caller, which must not lose a byte of it: nothing here reads it.
exec </dev/null

# ---- Messages and failing

# say TEXT: prints a message on stderr.  The second redirection drops the shell's own error when the pipe is
# broken.
say() { printf '%s: %s\n' "${0##*/}" "$1" >&2 2>/dev/null || :; }

# fail TEXT: prints the message and ends the script with status 1.
fail() {
    say "$1"
    exit 1
}

# undoOnExit COMMAND: has the command run, once, when the script ends in any way but by finish.  Signals are
# ignored while it runs, so that the undoing is not interrupted.
undoOnExit() {
    # shellcheck disable=SC2064 # the command is known now
    trap "trap '' HUP INT TERM; $1" EXIT
}
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

# finish: ends the script with status 0 and undoes nothing.  A late signal does not change the status.
finish() {
    trap '' HUP INT TERM
    trap - EXIT
    exit 0
}

# ---- Names

isUtf8() { printf '%s' "$1" | iconv -f UTF-8 -t UTF-16LE >/dev/null 2>&1; }

# Fails for names other than those that are allowed on Linux, too.  Both hosts accept more, but names are
# compared without case and become parts of paths and of access entries, and a first @, + or & makes some
# names those of groups.
checkUserName() {
    case $1 in
        '' | [!a-z_]* | *[!a-z0-9_.-]*)
            fail "not a user name (a-z, 0-9, _ . - and first a-z or _): \"$1\"" ;;
    esac
    [ "${#1}" -le 32 ] || fail "a user name has at most 32 characters: \"$1\""
}

# Fails for a share name that SMB itself does not allow.  80 characters are 160 bytes in UTF-16.
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

# ---- Sessions

# isInUseByAnother FILE: returns whether a session other than this one runs that the file names.
# shellcheck disable=SC2154 # session is set in common.sh
isInUseByAnother() { isInUse "$1" && [ "$(cat "$1")" != "$session" ]; }

# claim FILE: writes this session, the script's caller, into the file.
claim() { printf '%s\n' "$session" >"$1"; }

# ---- The password

# readPassword FILE: sets passwordOctal to the password, each byte as a backslash and three octal digits.
# Fails for a password that macOS would accept, but not as given: an empty one, one of more than 127 bytes,
# and one with a NUL or a second line.
readPassword() {
    [ -r "$1" ] || fail "cannot read the password file: $1"
    [ ! -d "$1" ] || fail "the password file is a folder: $1"
    # A read that fails half-way adds a NUL, which is refused below: half a password must not be accepted.
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

# Prints the password.  printf is built into the shell, so no program has the password in its arguments or
# environment.  The format consists of octal escapes, and so has no %.
printPassword() {
    # shellcheck disable=SC2059 # the format is the text
    printf "$passwordOctal"
}

# ---- The arguments of each script

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
