# shellcheck shell=sh
# base.sh -- what the share scripts of every host have in common.  It is sourced, never run.

# A shell may take options from its environment that would export or print all that is assigned.
set +avx
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

# One rule for every host.  It is less than any of them takes: names are compared without case, go
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
