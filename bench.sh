#!/bin/sh
# bench.sh [NAME...] -- builds the product as it ships, compares its speed with its rivals', and prints a table.
#
# Runs the benchmarks of these names in bench/, by default all.  Also writes the table to
# build/bench/report.json, and as a chart to build/bench/report.svg.  "session" and "share" need root, for
# the throw-away machine on which the tool is measured.  The product and its rivals run in turn, each ratio
# is computed from one such pair of runs, and figures are medians.  On a busy machine the ratios' spread is
# large.  BENCH_REPETITIONS is the number of pairs, by default 9.
set -eu
cd "$(dirname "$0")"
tools/setup.sh --bench
build=$PWD/build/bench
mkdir -p "$build"
{ cmake --preset bench && cmake --build --preset bench; } >"$build/build.log" 2>&1 ||
    { cat "$build/build.log" >&2; exit 1; }

if [ "$#" -eq 0 ]; then
    # shellcheck disable=SC2046 # a name a line
    set -- $(cat "$build/bench/programs")
fi

# The tool's files that must be durable are in these folders on a real disk, since the throw-away
# machine's own files are in memory.
disk=$(mktemp -d "$build/disk.XXXXXX")
mkdir "$disk/Library"
trap 'rm -rf "$disk"' EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

measure() {
    program=$build/bench/$1_bench
    shift
    case $program in
        */session_bench)
            PELAGO_TOOL="$build/Pelago.app/Contents/Library/shares/pelagoShareTool" \
                PELAGO_NOTHING="$build/bench/nothing" \
                PELAGO_LEAST_SESSION="$build/bench/leastSession" \
                PELAGO_SHARED_ICU="$build/bench/startSharedIcu" \
                PELAGO_SHARED_RUNTIME="$build/bench/startSharedRuntime" \
                PELAGO_SHARED_C="$build/bench/startSharedC" \
                tools/sandbox.sh --bind "$disk/Library" /Library "$program" "$@"
            ;;
        */share_bench)
            mkdir -p "$disk/samba/private"
            cp -a /etc "$disk"
            PELAGO_BUNDLE="$build/Pelago.app" PELAGO_SMB_CONF="$PWD/examples/smb.conf" \
                tools/sandbox.sh --bind "$disk/Library" /Library --bind "$disk/etc" /etc \
                --bind "$disk/samba" /var/lib/samba "$program" "$@"
            ;;
        *) "$program" "$@" ;;
    esac
}

for name; do
    measure "$name" --repetitions="${BENCH_REPETITIONS:-9}" >"$build/$name.json"
    # Replaces the benchmark's name in the arguments by the file of its results.
    shift
    set -- "$@" "$build/$name.json"
done
python3 tools/bench_report.py "$build/report" "$@"
