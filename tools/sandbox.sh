#!/bin/sh
# sandbox.sh [--bind OUTSIDE INSIDE]... COMMAND [ARG...] -- runs COMMAND on a machine of its own.
#
# The command sees this machine's files, but everything it writes is thrown away when it ends: the
# system preferences, the user database and Samba's state are its own.  So are its processes, all of
# which die with it, its shared memory and message queues, its host name, and its network, which is a
# loopback that nobody else is on.  The kernel's settings in /proc and /sys it can only read; the clock,
# the kernel's log and its modules it cannot change.  /dev has terminals of its own and the devices that
# hold nothing, and no disk.
#   --bind OUTSIDE INSIDE   shows the real folder OUTSIDE at INSIDE; what is written there stays
#
# This keeps accidents from the machine, not an attacker: the command is root on the machine's own
# kernel.  It reaches a disk through a device node that it makes, and the kernel's settings and control
# groups through file systems that it mounts once more.  The machine's are also the kernel's keyrings,
# swap, modules that the kernel loads by itself, and the memory that everything written takes.
#
# Where PELAGO_MACHINE names one of those that tools/otherMachines.sh makes, the machine is that one.
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
        unshare --mount --pid --net --ipc --uts --fork --kill-child --propagation private \
        setpriv --bounding-set=-sys_time,-sys_module,-sys_rawio,-syslog \
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
makeDev() {
    mount -t tmpfs -o mode=755 tmpfs "$new/dev"
    cp -a /dev/null /dev/zero /dev/full /dev/random /dev/urandom /dev/tty "$new/dev"
    chmod 666 "$new/dev"/* # an accident of the machine, such as a null that only root may write to, ends here
    ln -s /proc/self/fd "$new/dev/fd"
    ln -s fd/0 "$new/dev/stdin"
    ln -s fd/1 "$new/dev/stdout"
    ln -s fd/2 "$new/dev/stderr"
    ln -s pts/ptmx "$new/dev/ptmx"
    mkdir "$new/dev/pts" "$new/dev/shm"
    mount -t devpts -o newinstance,mode=620,gid=tty,ptmxmode=666 devpts "$new/dev/pts"
    mount -t tmpfs -o mode=1777 tmpfs "$new/dev/shm"
    [ -d /dev/mqueue ] || return 0
    mkdir "$new/dev/mqueue"
    mount -t mqueue mqueue "$new/dev/mqueue"
}
# Whatever is there beside the processes is the kernel of the whole machine, as is /sys.
makeKernelReadOnly() {
    mount -t sysfs -o ro sysfs "$new/sys"
    find "$new/proc" -mindepth 1 -maxdepth 1 ! -name "[0-9]*" \( -type d -o -type f -perm /222 \) -print0 |
        xargs -0 -I{} mount --bind -o ro {} {}
}
base=$PELAGO_SCRATCH project=$PELAGO_PROJECT binds=$PELAGO_BINDS
unset PELAGO_SCRATCH PELAGO_PROJECT PELAGO_BINDS TMPDIR
mount -t tmpfs tmpfs "$base" || fail "cannot mount a tmpfs"
mkdir "$base/up" "$base/scratch" "$base/new"
new=$base/new
mount -t overlay overlay -o "lowerdir=/,upperdir=$base/up,workdir=$base/scratch" "$new" ||
    fail "cannot mount an overlay of /"
makeDev
mount -t proc proc "$new/proc"
makeKernelReadOnly
mount -t tmpfs -o mode=755 tmpfs "$new/run"
mount -t tmpfs -o mode=1777 tmpfs "$new/tmp"
if [ "$(stat -c %d "$project")" != "$(stat -c %d /)" ] || [ "${project#/tmp/}" != "$project" ]; then
    mkdir -p "$new$project" "$base/projectUp" "$base/projectScratch"
    lower=$(printf "%s" "$project" | sed "s/[\\\\:,]/\\\\&/g")
    mount -t overlay overlay \
        -o "lowerdir=$lower,upperdir=$base/projectUp,workdir=$base/projectScratch" "$new$project" ||
        fail "cannot mount an overlay of $project"
fi
[ -z "${PELAGO_MACHINE-}" ] || "$project/tools/otherMachines.sh" --become "$PELAGO_MACHINE" "$new" ||
    fail "cannot become another machine"
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
