#!/bin/sh
# coverage.sh -- which lines and branches of the product its tests reach.
#
# Builds with counters (preset coverage), runs the tests, on throw-away machines too, and prints a
# table of the folders.  lib/ and apps/ have goals, 99 % of the lines and 95 % of the branches, and what
# is never reached there is looked up in docs/uncovered.md, which gives the reason.  A test that the
# counters disturb (they take a file and a mapping of each process) is named; what tells whether the
# tests pass is test.sh.
# Exit status: 0 when the goals are met and everything that is not reached has a reason.
set -eu
cd "$(dirname "$0")/.."
tools/setup.sh
build=$(pwd -P)/build/coverage
counts=$build/counts

cmake --preset coverage >/dev/null
cmake --build --preset coverage
rm -rf "$counts"
mkdir -p "$counts"
chmod 1777 "$counts" # tests are other users, too
PELAGO_COUNTS=$counts ctest --preset coverage --parallel 2 >"$build/tests.log" || {
    printf 'coverage.sh: disturbed by the counters, or failing:\n'
    sed -n '/tests FAILED:/,$p' "$build/tests.log"
}
llvm-profdata-14 merge --output="$build/counts.profdata" "$counts"/*.profraw
llvm-cov-14 export --format=text --instr-profile="$build/counts.profdata" \
    --object "$build/lib/libpelago_foundation.a" --object "$build/platform/linux/libpelago_platform.a" \
    --object "$build/Pelago.app/Contents/Library/shares/pelagoShareTool" \
    --object "$build/tests/misc/dynbuf_test" >"$build/coverage.json" # all of dynbuf.h is inline
python3 tools/coverage_report.py "$build/coverage.json" docs/uncovered.md
