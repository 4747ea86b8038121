#!/bin/sh
# fetch-icu.sh FOLDER -- fetches ICU's source into FOLDER, as icu_72.1.orig.tar.gz.
#
# It is the source of Debian 12's own ICU, so that Linux and macOS have the same converters.  It is fetched from
# the servers that this machine's apt uses.  If FOLDER has the whole file already, nothing is fetched.
# Exit status: 0 the file is there; 75 it could not be fetched; 1 apt fetched a different file, or wrong usage.
set -eu

name=icu_72.1.orig.tar.gz
sum=a2d2d38217092a7ed56635e34467f92f976b370e20182ad325edea6681a71d68
release=bookworm

say() { printf 'fetch-icu.sh: %s\n' "$1"; }

isWhole() { [ -f "$1" ] && [ "$(sha256sum <"$1")" = "$sum  -" ]; }

[ "$#" -eq 1 ] || { say 'usage: fetch-icu.sh FOLDER' >&2; exit 1; }
mkdir -p -- "$1"
folder=$(cd -- "$1" && pwd)
if isWhole "$folder/$name"; then
    say "ICU's source was fetched before"
    exit 0
fi

# apt's configuration, lists and cache are in this folder: this machine's own are not changed.
making=$folder/icu.making
log=$making/log
rm -rf -- "$making"
mkdir -p "$making/lists/partial" "$making/cache/archives/partial"

cannotBeHad() {
    [ ! -s "$log" ] || cat "$log" >&2
    say "$1; the product cannot be built for macOS now" >&2
    exit 75
}

configureApt() {
    # shellcheck disable=SC2016 # apt's own variables
    apt-get indextargets --format 'deb-src $(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' |
        awk -v release="$release" '$3 == release' | sort -u >"$making/sources.list"
    {
        apt-config dump | grep '^Acquire::' # how this machine reaches the servers
        printf 'Dir::Etc::%s;\n' "SourceList \"$making/sources.list\"" 'SourceParts "/dev/null"'
        printf 'Dir::%s;\n' "State::Lists \"$making/lists\"" "Cache \"$making/cache\""
        # apt's own user may not be allowed to enter this folder, and needs a /dev/null that all can write to.
        printf 'APT::Sandbox::User "root";\n'
    } >"$making/apt.conf"
}

say "fetching ICU's source with apt"
command -v apt-get >/dev/null || cannotBeHad 'there is no apt'
configureApt
[ -s "$making/sources.list" ] || cannotBeHad "apt has no packages of $release here"
export APT_CONFIG="$making/apt.conf"
apt-get update --error-on=any >"$log" 2>&1 || cannotBeHad 'the place that apt has packages from does not answer'
(cd "$making" && apt-get source --download-only --tar-only icu) >"$log" 2>&1 ||
    cannotBeHad "apt did not give ICU's source"
isWhole "$making/$name" || { say "what apt gave is not $name as it has to be" >&2; exit 1; }
mv -- "$making/$name" "$folder/$name"
rm -rf -- "$making"
