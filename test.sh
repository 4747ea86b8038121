#!/bin/sh
# test.sh [all | PRESET...] -- installs the packages that are needed, builds, and runs the tests.
#
# Without arguments it builds for macOS and runs those programs' tests (macos), and runs the whole suite on the
# product as it ships (dev).  "all" is what CI runs.  It also builds with clang and clang-tidy, which must not warn
# (clang), runs the tests with threads under the thread sanitizer (tsan), runs each fuzz target for a moment (fuzz),
# and runs the suite under the address and undefined-behaviour sanitizers (asan).
# Most tests need root, for the throw-away machines that tools/sandbox.sh makes.  Without root they are not run,
# and the output says so.
# Exit status: 0 when every test that was run passed; where CI is true, no test may be left out.
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

slowest() {
    say 'the ten slowest tests, in seconds'
    for preset in $passed; do
        sed -n "s/.*<testcase name=\"\([^\"]*\)\".* time=\"\([0-9.]*\)\".*/\2 $preset \1/p" "build/$preset/tests.xml"
    done | sort -rn | head -n 10
}

# Prints why test programs left out some of their cases, as where the processor lacks what they test.
leftOut() {
    for preset in $passed; do
        sed -n 's/^not run: //p' "build/$preset/Testing/Temporary/LastTest.log"
    done | sort -u
}

# Tests that change the system's own paths, users or Samba run on throw-away machines.
withoutSandbox='' passed='' notRun=''
if ! tools/sandbox.sh --works; then
    withoutSandbox='-LE sandbox|samba'
    say 'NOT RUN: tests on throw-away machines, which need root and overlay mounts'
    [ "${CI-}" != true ] || { printf 'test.sh: where CI is true, these tests must run\n' >&2; exit 1; }
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
        say "NOT RUN: $preset, since its compiler or its sources could not be fetched"
        notRun="$notRun $preset"
        continue
    fi
    [ "$status" -eq 0 ] || exit "$status"
    if [ "$preset" = clang ]; then
        say 'clang: no warnings'
        continue
    fi
    say "$preset: test"
    # One test more than there are processors, since many tests wait most of their time.
    # shellcheck disable=SC2086 # an option and its value, or nothing
    ctest --preset "$preset" --parallel "$(($(nproc) + 1))" $withoutSandbox --output-junit tests.xml
    passed="$passed $preset"
done
[ -z "$passed" ] || slowest
[ -z "$passed" ] || say "every test passed:$passed"
[ -z "$notRun" ] || say "BUT NOT RUN:$notRun"
leftOut | while IFS= read -r reason; do say "BUT NOT RUN: some cases, since $reason"; done
case " $passed " in
    *' dev '*) [ -d build/debian/root ] || say 'BUT NOT RUN: the packages on bare hosts, since no bare host could be fetched' ;;
esac
[ -z "$withoutSandbox" ] || say 'BUT NOT RUN: tests on throw-away machines'
