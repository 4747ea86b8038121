#!/bin/sh
# bench.sh -- builds what ships, measures it beside its rivals in one run, and prints one table.
#
# The same goes to build/bench/report.json and, drawn, to build/bench/report.svg.  Needs root for the
# throw-away machine that the tool is measured on.  Ours and its rivals run in turn, the ratio is taken
# pair by pair, and figures are medians; a busy machine shows in the spread of the ratio.
set -eu
cd "$(dirname "$0")"
tools/setup.sh
mkdir -p build/bench
{ cmake --preset release && cmake --build --preset release; } >build/bench/build.log 2>&1 ||
    { cat build/bench/build.log >&2; exit 1; }

# A folder of the build's on a real disk, so that a durable write is one.
library=$(mktemp -d build/bench/Library.XXXXXX)
trap 'rm -rf "$library"' EXIT
release=$PWD/build/release
# On one processor: what it costs to wake another one is no program's own, and varies most of all.
processor=$(taskset -cp $$ | sed 's/.*: *//; s/[-,].*//')
taskset -c "$processor" env PELAGO_TOOL="$release/Pelago.app/Contents/Library/shares/pelagoShareTool" \
    PELAGO_NOTHING="$release/bench/nothing" \
    PELAGO_SHARED_ICU="$release/bench/startSharedIcu" \
    PELAGO_SHARED_RUNTIME="$release/bench/startSharedRuntime" \
    tools/sandbox.sh --bind "$PWD/$library" /Library "$release/bench/session_bench" \
    --benchmark_repetitions="${BENCH_REPETITIONS:-9}" --benchmark_format=json >build/bench/session.json
python3 tools/bench_report.py build/bench/session.json build/bench/report
