#!/bin/sh
# bench.sh [NAME...] -- builds what ships, measures it beside its rivals, and prints one table.
#
# Runs those programs of bench/, by default all.  The table goes to build/bench/report.json, too, and,
# drawn, to build/bench/report.svg.  "session" and "share" need root, for the throw-away machine that
# the tool is measured on.  Ours and its rivals run in turn, the ratio is taken pair by pair, and figures
# are medians; a busy machine shows in the spread of the ratio.  BENCH_REPETITIONS is 9 when not set.
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

# Where the tool runs, what is to be written durably lies in folders of the build's on a real disk, so
# that it is.
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
    # The names become the files of their results, in turn.
    shift
    set -- "$@" "$build/$name.json"
done
python3 tools/bench_report.py "$build/report" "$@"
