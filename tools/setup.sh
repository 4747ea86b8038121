#!/bin/sh
# setup.sh [--bench] -- installs every package that building, testing and showing this project needs.
#
#   --bench   and those that ./bench.sh compares with
#
# For Debian 12.  Can be run again: what is there already is left alone.  Uses sudo when not root.
# Exit status: 0 everything is there; 1 with a reason on stderr.
set -eu

PACKAGES="
    busybox bzip2 clang clang-format clang-tidy cmake doxygen dpkg-dev file g++ git groff-base icu-devtools
    inotify-tools iproute2 libclang-rt-14-dev libexpat1-dev libgmock-dev libgtest-dev libicu-dev libplist-dev libplist-utils
    lintian llvm-14 locales make man-db mandoc mmdebstrap ninja-build original-awk pkg-config procps python3 samba shellcheck
    smbclient strace systemd unicode-data util-linux valgrind
"
BENCH_PACKAGES="
    libabsl-dev libevent-dev libfmt-dev libglib2.0-dev libssl-dev libstb-dev libtbb-dev
"

fail() { printf 'setup.sh: %s\n' "$1" >&2; exit 1; }
say() { printf 'setup.sh: %s\n' "$1"; }

case "$#:${1-}" in
    0:) ;;
    1:--bench) PACKAGES="$PACKAGES $BENCH_PACKAGES" ;;
    *) fail 'usage: setup.sh [--bench]' ;;
esac

id=unknown version=
# shellcheck disable=SC1091 # the host's own
[ ! -r /etc/os-release ] || { . /etc/os-release && id=$ID version=${VERSION_ID-}; }
[ "$id $version" = 'debian 12' ] ||
    fail "this sets up Debian 12, and here is $id $version; install the like of:$(printf '%s' "$PACKAGES" | tr -s '\n ' ' ')"

missing=
for package in $PACKAGES; do
    # shellcheck disable=SC2016 # dpkg-query's own variable
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
        missing="$missing $package"
done
# The cross compiler comes through npm, and node runs the macOS scripts' JavaScript in the tests.  Any that
# are there will do: other packages than Debian's hold both.
command -v npm >/dev/null || missing="$missing npm"
command -v node >/dev/null || missing="$missing nodejs"
if [ -z "$missing" ]; then
    say 'every package is installed'
    exit 0
fi

asRoot() { "$@"; }
if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || fail "not root, and there is no sudo to install:$missing"
    asRoot() { sudo "$@"; }
fi

say "installing:$missing"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM
quietly() {
    asRoot "$@" >"$log" 2>&1 || { cat "$log" >&2; fail "this failed: $*"; }
}
quietly apt-get update
# shellcheck disable=SC2086 # a list of names
quietly env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends $missing

# Only Samba's programs were wanted.  Where it is new and systemd has just started its service, that
# is taken back; a service that was there before is the host's own business.
case " $missing " in
    *' samba '*)
        if [ -d /run/systemd/system ]; then
            quietly systemctl disable --now smbd.service nmbd.service
            say 'Samba is installed; its services are stopped and disabled'
        fi
        ;;
esac
say 'done'
