#!/bin/sh
# coverage.sh -- measures which lines and branches of the product the tests reach.
#
# Builds with counters (preset coverage), runs the tests, also those on throw-away machines, and prints a table
# of the folders.  lib/ and apps/ have goals: 99 % of the lines and 95 % of the branches.  For every line and
# branch there that is never reached, tools/uncovered.md must give a reason.
# Exit status: 0 when the goals are met, every line and branch that is not reached has a reason, and no test
# failed except those that the counters disturb.
set -eu
cd "$(dirname "$0")/.."
# The counters open and map a file in each process.  These tests check all open files or all calls of a process.
DISTURBED=' posixExec daemonize.faults faults.sample '
tools/setup.sh
build=$(pwd -P)/build/coverage
counts=$build/counts

cmake --preset coverage >/dev/null
cmake --build --preset coverage
rm -rf "$counts"
mkdir -p "$counts"
chmod 1777 "$counts" # some tests run as other users
PELAGO_COUNTS=$counts ctest --preset coverage --parallel 2 >"$build/tests.log" || :
grep -q '^100% tests passed\|tests FAILED:' "$build/tests.log" || { cat "$build/tests.log" >&2; exit 1; }
# shellcheck disable=SC2013 # a name a line
for name in $(sed -n 's/^[[:blank:]]*[0-9]* - \([^ ]*\) (.*/\1/p' "$build/tests.log"); do
    case $DISTURBED in
        *" $name "*) printf 'coverage.sh: disturbed by the counters: %s\n' "$name" ;;
        *) printf 'coverage.sh: failed, see build/coverage/tests.log: %s\n' "$name" >&2; exit 1 ;;
    esac
done
llvm-profdata-14 merge --output="$build/counts.profdata" "$counts"/*.profraw
llvm-cov-14 export --format=text --instr-profile="$build/counts.profdata" \
    --object "$build/lib/libpelago_foundation.a" --object "$build/platform/linux/libpelago_platform.a" \
    --object "$build/Pelago.app/Contents/Library/shares/pelagoShareTool" \
    --object "$build/tests/misc/dynbuf_test" >"$build/coverage.json" # all of dynbuf.h is inline
python3 tools/coverage_report.py "$build/coverage.json" tools/uncovered.md
