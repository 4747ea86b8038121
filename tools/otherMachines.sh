#!/bin/sh
# otherMachines.sh [MACHINE...] [-- CTEST_OPTION...] -- runs the suite on this machine, changed in one way.
#
# The change also applies to the throw-away machines that the tests make.  Without a MACHINE the suite runs on all of
# them, one after the other.  It runs the programs in build/dev, which must be built before.
#   hostName      another host name
#   timeZone      a time zone that is a quarter of an hour off
#   users         many accounts, in another order
#   comma         a German locale, whose decimal point is a comma
#   turkish       a Turkish locale, in which I and i are not one letter in two cases
#   noIPv6        no IPv6
#   processors1, processors3, processors4, processors64
#                 this number of processors in /proc and /sys.  The kernel still has its own number of them, but
#                 on processors1 the tests run on one processor only.
#   slowDisk      calls that make files durable or rename them take a twentieth of a second longer
#   busy          four processes keep the processors busy
# It needs root.  Exit status: 0 when every test passed on each; 1 otherwise, with the names at the end.
set -eu

project=$(cd "$(dirname "$0")/.." && pwd -P)
MACHINES='hostName timeZone comma turkish users noIPv6 processors1 processors3 processors4 processors64 slowDisk busy'
build=$project/build/otherMachines

# ---- Making a machine.  $root is empty for this machine, or the root folder of a throw-away machine before it is
# entered

# Mounts the file or the folder $1 over $2.
show() { mount --bind "$1" "$root$2"; }

# Makes /proc and /sys list $1 processors, each with a rate that the kernel sets.
becomeProcessors() {
    count=$1 last=$(($1 - 1)) fake=$(mktemp -d)
    mount -t tmpfs tmpfs "$fake" || { rmdir "$fake"; exit 1; }
    one=$(sed '/^$/q' /proc/cpuinfo)
    mkdir "$fake/cpu"
    range=0-$last
    [ "$last" -gt 0 ] || range=0
    for name in online possible present; do echo "$range" >"$fake/cpu/$name"; done
    for number in $(seq 0 "$last"); do
        printf '%s\n\n' "$one" | sed "s/^\(processor[^:]*:\).*/\1 $number/" >>"$fake/cpuinfo"
        mkdir -p "$fake/cpu/cpu$number/cpufreq"
        echo 2400000 >"$fake/cpu/cpu$number/cpufreq/cpuinfo_max_freq"
    done
    show "$fake/cpuinfo" /proc/cpuinfo
    show "$fake/cpu" /sys/devices/system/cpu
    umount -l "$fake"
    rmdir "$fake"
    echo "$count processors" >&2
}

# Prints the accounts in reverse order, with many more; a second one has root's user id.  Prints them unchanged where
# this was done before, as on a throw-away machine of such a machine.
otherUsers() {
    if grep -q '^toor:' /etc/passwd; then cat /etc/passwd && return; fi
    tac /etc/passwd
    printf 'toor:x:0:0:another name of root:/root:/bin/sh\n'
    printf 'blanks:x:70001:70001:Blanks, a, b, c:/home/with a blank:/bin/false\nempty:x:70002:70002:::\n'
    seq 1 3000 | sed 's/.*/user&:x:71&:71&:User &, room &:\/home\/user&:\/bin\/false/'
}

becomeUsers() {
    page=$(mktemp)
    otherUsers >"$page"
    if [ -n "$root" ]; then cat "$page" >"$root/etc/passwd"; else chmod 644 "$page" && show "$page" /etc/passwd; fi
    rm -f "$page"
}

become() {
    root=$2
    case $1 in
        hostName) hostname another-host.example.org ;;
        timeZone) [ -z "$root" ] || ln -sf /usr/share/zoneinfo/Asia/Kathmandu "$root/etc/localtime" ;;
        users) becomeUsers ;;
        noIPv6) for name in all default; do echo 1 >"/proc/sys/net/ipv6/conf/$name/disable_ipv6"; done ;;
        processors*) becomeProcessors "${1#processors}" ;;
    esac
}

# ---- A run

# Ends the run on one machine, which could not be made.
fail() { printf 'otherMachines.sh: %s\n' "$1" >&2; exit 1; }

# Compiles the locale $1, of which Debian packages the source, and makes the tests use it.
locale() {
    mkdir -p "$build/locales"
    [ -d "$build/locales/$1.UTF-8" ] || localedef -i "$1" -f UTF-8 "$build/locales/$1.UTF-8" || fail "there is no $1"
    export "LOCPATH=$build/locales" "LC_ALL=$1.UTF-8" "LANG=$1.UTF-8"
}

slowDisk() {
    cc -shared -fPIC -O1 -Wall -Wextra -o "$build/slowDisk.so" "$project/tests/support/slowDisk.c" -ldl ||
        fail 'the slow disk does not compile'
    export "LD_PRELOAD=$build/slowDisk.so"
}

# Runs the suite on the machine $1; the other arguments are ctest's.  The caller checks the status, so set -e does not
# apply here: a command that can fail calls fail() or is in the inner shell.
runOn() (
    export "PELAGO_MACHINE=$1"
    affinity='' namespaces='--mount --uts'
    case $1 in
        timeZone) export TZ=Asia/Kathmandu ;;
        comma) locale de_DE ;;
        turkish) locale tr_TR ;;
        noIPv6) namespaces="$namespaces --net" ;;
        processors1) affinity='taskset -c 0' ;;
        slowDisk) slowDisk ;;
        busy)
            for _ in 1 2 3 4; do
                while :; do :; done &
                busy="${busy-} $!"
            done
            # shellcheck disable=SC2064,SC2086 # the present process ids, each a word
            trap "kill $busy" EXIT
            trap 'exit 129' HUP; trap 'exit 130' INT; trap 'exit 143' TERM
            ;;
    esac
    shift
    # shellcheck disable=SC2016,SC2086 # the inner shell expands; the variables are several words, or none
    unshare $namespaces --propagation private $affinity sh -eu -c '
        "$0" --become "$PELAGO_MACHINE" ""
        [ "$PELAGO_MACHINE" != noIPv6 ] || ip link set lo up
        exec "$@"' "$0" ctest --preset dev --parallel "$(($(nproc) + 1))" "$@"
)

if [ "${1-}" = --become ]; then
    become "$2" "$3"
    exit
fi
[ "$(id -u)" -eq 0 ] || { echo 'otherMachines.sh: only root can make other machines' >&2; exit 1; }
machines='' failed=''
while [ "$#" -gt 0 ] && [ "$1" != -- ]; do
    case " $MACHINES " in
        *" $1 "*) machines="$machines $1" ;;
        *) echo "otherMachines.sh: there are these machines: $MACHINES" >&2; exit 1 ;;
    esac
    shift
done
[ "${1-}" != -- ] || shift
cd "$project"
mkdir -p "$build"
for machine in ${machines:-$MACHINES}; do
    printf '\n== %s ==\n' "$machine"
    runOn "$machine" "$@" || failed="$failed $machine"
done
[ -z "$failed" ] || { printf '\n== FAILED:%s ==\n' "$failed"; exit 1; }
