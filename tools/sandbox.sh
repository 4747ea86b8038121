#!/bin/sh
# sandbox.sh [--bind OUTSIDE INSIDE]... COMMAND [ARG...] -- runs COMMAND on a machine of its own.
#
# The command sees this machine's files, but everything it writes is thrown away when it ends: the
# system preferences, the user database and Samba's state are its own.  So are its processes, all of
# which die with it, and its network, which is a loopback that nobody else is on.
#   --bind OUTSIDE INSIDE   shows the real folder OUTSIDE at INSIDE; what is written there stays
#
# The root file system is a copy-on-write overlay.  Only root can make one, on a kernel that lets it;
# "sandbox.sh --works" tells, by its status, whether that is so here.
#
# Exit status: the command's; 125 when the sandbox could not be made, with the reason on stderr.  Where
# not even unshare(1) may make the namespaces it is that program's, 1.
set -eu

say() { printf 'sandbox.sh: %s\n' "$1" >&2; }

# Gets an overlay of its own where it lies on a file system of its own, of which an overlay of / would
# have an empty folder.
project=$(cd "$(dirname "$0")/.." && pwd -P)

runInside() {
    # The folder lies on the host for as long as the sandbox runs; only a mount point, always empty.
    scratch=$(mktemp -d) || return 125
    trap 'rmdir "$scratch"' EXIT
    trap 'exit 129' HUP; trap 'exit 130' INT; trap 'exit 143' TERM
    PELAGO_SCRATCH=$scratch PELAGO_PROJECT=$project PELAGO_BINDS=$binds \
        unshare --mount --pid --net --ipc --fork --kill-child --propagation private \
        sh -c "$insideProgram" sandbox "$@" <&3 3<&- &
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
insideProgram='
set -eu
trap "exit 125" EXIT # until the machine is made
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
    mkdir -p "$new$project" "$base/projectUp" "$base/projectScratch"
    lower=$(printf "%s" "$project" | sed "s/[\\\\:,]/\\\\&/g")
    mount -t overlay overlay \
        -o "lowerdir=$lower,upperdir=$base/projectUp,workdir=$base/projectScratch" "$new$project" ||
        fail "cannot mount an overlay of $project"
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
: >/run/throw-away-machine # by which is known what may be changed
status=0
trap - EXIT
"$@" || status=$?
exit "$status"
'

newline='
'
binds=
if [ "${1-}" = --works ]; then
    "$0" true 2>/dev/null
    exit
fi
while [ "${1-}" = --bind ] && [ "$#" -ge 3 ]; do
    binds=$binds$2$newline$3$newline
    shift 3
done
# What a build with counters counts there is worth keeping.
[ -z "${PELAGO_COUNTS-}" ] || binds=$binds$PELAGO_COUNTS$newline$PELAGO_COUNTS$newline
[ "$#" -gt 0 ] || { say 'usage: sandbox.sh [--bind OUTSIDE INSIDE]... COMMAND [ARG...]'; exit 125; }
[ "$(id -u)" -eq 0 ] || { say 'only root can make a machine of its own'; exit 125; }
exec 3<&0 # a background job would get /dev/null for its standard input
runInside "$@"
