#!/bin/sh
# makeRoot.sh FOLDER -- makes FOLDER/root, the bare root of a Debian like this machine's, with systemd,
# Samba and what the packages need besides.  A root that this script made earlier is left as it is.
#
# Everything comes from where this machine's apt has its packages.
# Exit status: 0 the root is there; 77 no such place answers, and where CI is true that is 1, as is
# everything else, with the reason on stderr.
set -eu

PACKAGES=procps,samba,smbclient,systemd
# These reach past the namespaces that the tests start systemd in: to the machine's own settings,
# modules, devices and terminals.  nmbd waits for a network other than the loopback.
MASKED='
    systemd-sysctl systemd-modules-load systemd-udevd systemd-udev-trigger systemd-remount-fs
    systemd-random-seed systemd-hwdb-update systemd-networkd-wait-online getty@tty1 console-getty nmbd
'

fail() { printf 'makeRoot.sh: %s\n' "$1" >&2; exit 1; }

[ "$#" -eq 1 ] || fail 'usage: makeRoot.sh FOLDER'
folder=$1
# shellcheck disable=SC1091 # the host's own
. /etc/os-release

mkdir -p -- "$folder"
exec 9>"$folder/lock" # two builds may share the folder
flock 9
madeBy=$(sha256sum <"$0")
if [ -d "$folder/root" ] && [ "$(cat "$folder/madeBy" 2>/dev/null)" = "$madeBy" ]; then
    exit 0
fi
rm -rf -- "$folder/root" "$folder/making" "$folder/madeBy"

# The places, one a line, as lines of sources.list, and how this machine reaches them.
# shellcheck disable=SC2016 # apt's own variables
apt-get indextargets --format 'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' |
    awk -v release="$VERSION_CODENAME" 'index($3, release) == 1' | sort -u >"$folder/sources.list"
[ -s "$folder/sources.list" ] || fail "apt has no packages of $VERSION_CODENAME here"
apt-config dump | grep '^Acquire::' >"$folder/apt.conf"
read -r _ place release _ <"$folder/sources.list"
if ! /usr/lib/apt/apt-helper download-file "${place}dists/$release/InRelease" "$folder/InRelease" >"$folder/log" 2>&1; then
    cat "$folder/log" >&2
    printf 'makeRoot.sh: NOT RUN: the place that apt has packages from does not answer\n' >&2
    [ "${CI-}" = true ] || exit 77
    exit 1
fi
mmdebstrap --quiet --mode=root --variant=minbase --aptopt="$folder/apt.conf" --include="$PACKAGES" \
    "$VERSION_CODENAME" "$folder/making" <"$folder/sources.list" >"$folder/log" 2>&1 ||
    { cat "$folder/log" >&2; fail 'cannot make the root'; }
rm -f -- "$folder/making/etc/hostname" "$folder/making/etc/resolv.conf" # this machine's
for unit in $MASKED; do
    ln -sf /dev/null "$folder/making/etc/systemd/system/$unit.service"
done
mv -- "$folder/making" "$folder/root"
printf '%s\n' "$madeBy" >"$folder/madeBy"
