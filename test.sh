#!/bin/sh
# test.sh [PRESET...] -- installs what is needed, builds, and runs the tests.
#
# Without arguments everything is proved: the whole suite as it ships (dev) and under the address and
# undefined-behaviour sanitizers (asan), what has threads under the thread sanitizer (tsan), the fuzz
# targets for a moment (fuzz), and that clang has nothing to warn of (clang).
# Exit status: 0 when every test of every preset passed.
set -eu
cd "$(dirname "$0")"
tools/setup.sh

say() { printf '\n== %s ==\n' "$1"; }

build() {
    cmake --preset "$1" >"build/$1.log" 2>&1 || { cat "build/$1.log" >&2; exit 1; }
    cmake --build --preset "$1"
}

# Users and a Samba of its own need a sandbox that only root can make, on a kernel that lets it.
withoutSamba=
if ! tools/sandbox.sh --can users; then
    withoutSamba='-LE samba'
    say 'NOT RUN: no test with users and a real Samba, for this needs root and overlay mounts here'
    [ "${CI-}" != true ] || { printf 'test.sh: where CI is true they must run\n' >&2; exit 1; }
fi

mkdir -p build
[ "$#" -gt 0 ] || set -- clang tsan fuzz asan dev
for preset in "$@"; do
    say "$preset: build"
    build "$preset"
    [ "$preset" != clang ] || continue
    say "$preset: test"
    # shellcheck disable=SC2086 # an option and its value, or nothing
    ctest --preset "$preset" --parallel 2 $withoutSamba
done
say "every test passed: $*"
[ -z "$withoutSamba" ] || say 'BUT NOT RUN: the tests with users and a real Samba'
