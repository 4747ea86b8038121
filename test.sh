#!/bin/sh
# test.sh [all | PRESET...] -- installs what is needed, builds, and runs the tests.
#
# Without arguments: that it builds for macOS and runs (macos), and the whole suite as it ships (dev).
# "all" is what CI runs.  It adds that clang and clang-tidy have nothing to warn of (clang), what has
# threads under the thread sanitizer (tsan), the fuzz targets for a moment (fuzz), and the suite under
# the address and undefined-behaviour sanitizers (asan).
# Most of it wants root, for the throw-away machines that tools/sandbox.sh makes; what is not run
# without is said.
# Exit status: 0 when every test that was run passed; where CI is true, all of them are.
set -eu
cd "$(dirname "$0")"
tools/setup.sh

say() { printf '\n== %s ==\n' "$1"; }

build() {
    if [ "$1" = macos ]; then
        tools/build-macos.sh
        return
    fi
    cmake --preset "$1" >"build/$1.log" 2>&1 || { cat "build/$1.log" >&2; exit 1; }
    cmake --build --preset "$1"
}

# Where the time went.
slowest() {
    say 'the ten tests that took longest, in seconds'
    for preset in $passed; do
        sed -n "s/.*<testcase name=\"\([^\"]*\)\".* time=\"\([0-9.]*\)\".*/\2 $preset \1/p" "build/$preset/tests.xml"
    done | sort -rn | head -n 10
}

# What touches the system's own paths, users or Samba runs on a machine of its own.
withoutSandbox='' passed='' notRun=''
if ! tools/sandbox.sh --works; then
    withoutSandbox='-LE sandbox|samba'
    say 'NOT RUN: what needs a machine of its own, for that takes root and overlay mounts'
    [ "${CI-}" != true ] || { printf 'test.sh: where CI is true they must run\n' >&2; exit 1; }
fi

mkdir -p build
case "$*" in
    '') set -- macos dev ;;
    all) set -- clang macos tsan fuzz asan dev ;;
esac
for preset in "$@"; do
    say "$preset: build"
    status=0
    build "$preset" || status=$?
    if [ "$status" -eq 75 ] && [ "${CI-}" != true ]; then
        say "NOT RUN: $preset, for what builds it could not be fetched"
        notRun="$notRun $preset"
        continue
    fi
    [ "$status" -eq 0 ] || exit "$status"
    if [ "$preset" = clang ]; then
        say 'clang: nothing to warn of'
        continue
    fi
    say "$preset: test"
    # Many of the tests wait most of their time: one more than there are processors.
    # shellcheck disable=SC2086 # an option and its value, or nothing
    ctest --preset "$preset" --parallel "$(($(nproc) + 1))" $withoutSandbox --output-junit tests.xml
    passed="$passed $preset"
done
[ -z "$passed" ] || slowest
[ -z "$passed" ] || say "every test passed:$passed"
[ -z "$notRun" ] || say "BUT NOT RUN:$notRun"
case " $passed " in
    *' dev '*) [ -d build/debian/root ] || say 'BUT NOT RUN: the packages on bare hosts, for these could not be fetched' ;;
esac
[ -z "$withoutSandbox" ] || say 'BUT NOT RUN: what needs a machine of its own'
