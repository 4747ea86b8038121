#!/bin/sh
# coverage.sh -- which lines and branches of the product its tests reach.
#
# Builds with counters (preset coverage), runs the tests, on throw-away machines too, and prints a
# table of the folders.  Every line with a branch that was never taken is looked up in docs/uncovered.md,
# which gives the reason.
# Exit status: 0 when the goals are met and every such line has a reason.
set -eu
cd "$(dirname "$0")/.."
tools/setup.sh
build=$(pwd -P)/build/coverage
counts=$build/counts

cmake --preset coverage >/dev/null
cmake --build --preset coverage
rm -rf "$counts"
mkdir -p "$counts"
find "$build" -name '*.gcda' -delete
# One place for all that is counted; sandbox.sh keeps it beyond the end of its machines.
GCOV_PREFIX=$counts ctest --preset coverage --parallel 2
cp -R "$counts$build/." "$build/"
# What the compiler adds for exceptions is no decision of the product's.
gcovr --root . --filter 'apps/' --filter 'lib/' --filter 'platform/linux/' \
    --exclude-throw-branches --exclude-unreachable-branches --gcov-ignore-parse-errors \
    --json "$build/coverage.json" "$build"
python3 tools/coverage_report.py "$build/coverage.json" docs/uncovered.md
