#!/bin/sh
# coverage.sh -- which lines and branches of the product its tests reach.
#
# Builds with counters (preset coverage), runs the tests, on throw-away machines too, and prints a
# table of the folders.  lib/ and apps/ have goals, 99 % of the lines and 95 % of the branches, and what
# is never reached there is looked up in tools/uncovered.md, which gives the reason.
# Exit status: 0 when the goals are met, everything that is not reached has a reason, and no test failed
# but those that the counters disturb.
set -eu
cd "$(dirname "$0")/.."
# The counters open and map a file in each process: these look at all that a process has or calls.
DISTURBED=' posixExec daemonize.faults faults.sample '
tools/setup.sh
build=$(pwd -P)/build/coverage
counts=$build/counts

cmake --preset coverage >/dev/null
cmake --build --preset coverage
rm -rf "$counts"
mkdir -p "$counts"
chmod 1777 "$counts" # tests are other users, too
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
