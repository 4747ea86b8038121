#!/bin/sh
# sandbox.sh [--bind OUTSIDE INSIDE]... COMMAND [ARG...] -- runs COMMAND on a throw-away copy of this machine.
#
# The command sees this machine's files, but everything that it writes is dropped when it ends: it changes its own
# copy of the system preferences, the user database and Samba's state.  It also has its own processes, all of which
# end with it, its own shared memory, message queues and host name, and its own network, which is only a loopback.
# It can read the kernel's settings in /proc and /sys, but not change them; nor can it change the clock, the kernel's
# log and the kernel's modules.  /dev has its own terminals and the devices without storage, such as /dev/null, but
# no disk.
#   --bind OUTSIDE INSIDE   mounts the real folder OUTSIDE at INSIDE; what is written there stays
#
# This protects the machine from accidents, not from an attacker: the command is root on the machine's own kernel.
# It can reach a disk through a device node that it makes, and the kernel's settings and control groups through file
# systems that it mounts again.  It also shares the kernel's keyrings, the swap, the modules that the kernel loads by
# itself, and the memory, in which everything that it writes is kept.
#
# PELAGO_MACHINE may name a machine of tools/otherMachines.sh, which the copy is then changed into.
#
# The root file system is a copy-on-write overlay, which only root can mount, and only on a kernel that allows it.
# "sandbox.sh --works" succeeds where a sandbox can be made.
#
# Exit status: the command's; 125 when the sandbox could not be made, with the reason on stderr; 1, which is
# unshare(1)'s, when the namespaces could not be made.
set -eu

say() { printf 'sandbox.sh: %s\n' "$1" >&2; }

# The project gets a second overlay if the first does not show it: an overlay of / does not contain the files of
# other file systems, and the sandbox has its own /tmp.
project=$(cd "$(dirname "$0")/.." && pwd -P)

runInside() {
    # A mount point, which stays empty on the host, and is removed when the sandbox ends.
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

# Runs as process 1 of the sandbox until the command ends, and reaps the orphans of daemons.
# shellcheck disable=SC2016 # expanded by the inner shell
insideProgram='
set -eu
trap "exit 125" EXIT # until the machine is made
fail() { printf "sandbox.sh: %s\n" "$1" >&2; exit 125; }
makeDev() {
    mount -t tmpfs -o mode=755 tmpfs "$new/dev"
    cp -a /dev/null /dev/zero /dev/full /dev/random /dev/urandom /dev/tty "$new/dev"
    chmod 666 "$new/dev"/* # the host may have wrong modes, such as a null device that only root can write to
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
# Apart from the processes, /proc shows the kernel that all machines share, as does /sys.
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
: >/run/throw-away-machine # programs that change the machine check for this file
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
# A build with counters writes them to this folder, which must outlive the sandbox.
[ -z "${PELAGO_COUNTS-}" ] || binds=$binds$PELAGO_COUNTS$newline$PELAGO_COUNTS$newline
[ "$#" -gt 0 ] || { say 'usage: sandbox.sh [--bind OUTSIDE INSIDE]... COMMAND [ARG...]'; exit 125; }
[ "$(id -u)" -eq 0 ] || { say 'only root can make a throw-away machine'; exit 125; }
exec 3<&0 # a background job would get /dev/null for its standard input
runInside "$@"
