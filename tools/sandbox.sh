#!/bin/sh
# sandbox.sh [--bind OUTSIDE INSIDE]... COMMAND [ARG...] -- runs COMMAND on a machine of its own.
#
# The command sees this machine's files, but everything it writes is thrown away when it ends: the
# system preferences, the user database and Samba's state are its own.  So are its processes, all of
# which die with it, and its network, which is a loopback that nobody else is on.
#   --bind OUTSIDE INSIDE   shows the real folder OUTSIDE at INSIDE; what is written there stays
#
# As root the root file system is a copy-on-write overlay, and everything works in it.  As an
# ordinary user it is put together read-only with bubblewrap, with private /Library, /etc, /tmp and
# /run: the command believes it is root, but there is one user number only, so no users can be made
# and no Samba can run.  The command can ask "sandbox.sh --can users" which of the two it would get.
#
# Exit status: the command's; 125 when the sandbox could not be made, with the reason on stderr.
set -eu

say() { printf 'sandbox.sh: %s\n' "$1" >&2; }

# Prints "OUTSIDE INSIDE" pairs that every sandbox needs: the project, when it lies on a file system
# of its own, which an overlay of / would show as an empty folder.
project=$(cd "$(dirname "$0")/.." && pwd -P)

runAsRoot() {
    # The folder lies on the host for as long as the sandbox runs; only a mount point, always empty.
    scratch=$(mktemp -d) || return 125
    trap 'rmdir "$scratch"' EXIT
    trap 'exit 129' HUP; trap 'exit 130' INT; trap 'exit 143' TERM
    PELAGO_SCRATCH=$scratch PELAGO_PROJECT=$project PELAGO_BINDS=$binds \
        unshare --mount --pid --net --ipc --fork --kill-child --propagation private \
        sh -c "$insideAsRoot" sandbox "$@" <&3 3<&- &
    inner=$!
    status=0
    trap 'kill "$inner" 2>/dev/null || :; wait "$inner" || :; exit 129' HUP
    trap 'kill "$inner" 2>/dev/null || :; wait "$inner" || :; exit 130' INT
    trap 'kill "$inner" 2>/dev/null || :; wait "$inner" || :; exit 143' TERM
    wait "$inner" || status=$?
    return "$status"
}

# Runs as process 1 of the sandbox, and stays: it is what reaps the orphans of daemons.
# shellcheck disable=SC2016 # expanded by the inner shell
insideAsRoot='
set -eu
fail() { printf "sandbox.sh: %s\n" "$1" >&2; exit 125; }
base=$PELAGO_SCRATCH project=$PELAGO_PROJECT binds=$PELAGO_BINDS
unset PELAGO_SCRATCH PELAGO_PROJECT PELAGO_BINDS TMPDIR
mount -t tmpfs tmpfs "$base" || fail "cannot mount a tmpfs"
mkdir "$base/up" "$base/scratch" "$base/new"
new=$base/new
mount -t overlay overlay -o "lowerdir=/,upperdir=$base/up,workdir=$base/scratch" "$new" ||
    fail "cannot mount an overlay of /"
mount --rbind /dev "$new/dev"
mount --rbind /sys "$new/sys"
mount -t proc proc "$new/proc"
mount -t tmpfs -o mode=755 tmpfs "$new/run"
mount -t tmpfs -o mode=1777 tmpfs "$new/tmp"
if [ "$(stat -c %d "$project")" != "$(stat -c %d /)" ] || [ "${project#/tmp/}" != "$project" ]; then
    mkdir -p "$new$project"
    mount --bind "$project" "$new$project"
fi
printf "%s" "$binds" | while IFS= read -r outside && IFS= read -r inside; do
    mkdir -p "$new$inside"
    mount --bind "$outside" "$new$inside"
done
here=$(pwd -P)
cd "$new"
mkdir -p old
pivot_root . old
cd /
umount -l /old
rmdir /old
cd "$here" 2>/dev/null || cd /
ip link set lo up || fail "cannot bring the loopback up"
mkdir -p /run/lock
status=0
"$@" || status=$?
exit "$status"
'

runAsOrdinaryUser() {
    private=$(mktemp -d) || return 125
    trap 'rm -rf "$private"' EXIT
    trap 'exit 129' HUP; trap 'exit 130' INT; trap 'exit 143' TERM
    mkdir "$private/Library" "$private/etc"
    cp -R /etc/. "$private/etc" 2>/dev/null || : # what only root may read is not needed
    cwd=$(pwd -P)
    set -- -- "$@"
    while [ -n "$binds" ]; do
        outside=${binds%%"$newline"*} binds=${binds#*"$newline"}
        inside=${binds%%"$newline"*} binds=${binds#*"$newline"}
        set -- --bind "$outside" "$inside" "$@"
    done
    set -- --bind "$private/Library" /Library --bind "$private/etc" /etc \
        --ro-bind "$project" "$project" --chdir "$cwd" "$@"
    for top in /*; do
        case $top in /proc | /dev | /run | /tmp | /Library | /etc) continue ;; esac
        if [ -L "$top" ]; then
            set -- --symlink "$(readlink "$top")" "$top" "$@"
        elif [ -r "$top" ]; then
            set -- --ro-bind "$top" "$top" "$@"
        fi
    done
    status=0
    bwrap --die-with-parent --unshare-user --uid 0 --gid 0 --unshare-pid --unshare-net \
        --proc /proc --dev /dev --tmpfs /run --tmpfs /tmp --unsetenv TMPDIR "$@" || status=$?
    return "$status"
}

newline='
'
binds=
if [ "${1-}" = --can ]; then
    [ "${2-}" = users ] && [ "$(id -u)" -eq 0 ] && "$0" true 2>/dev/null
    exit
fi
while [ "${1-}" = --bind ] && [ "$#" -ge 3 ]; do
    binds=$binds$2$newline$3$newline
    shift 3
done
[ "$#" -gt 0 ] || { say 'usage: sandbox.sh [--bind OUTSIDE INSIDE]... COMMAND [ARG...]'; exit 125; }

if [ "$(id -u)" -eq 0 ]; then
    exec 3<&0 # a background job would get /dev/null for its standard input
    runAsRoot "$@"
else
    runAsOrdinaryUser "$@"
fi
