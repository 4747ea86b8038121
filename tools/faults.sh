#!/bin/sh
# faults.sh [SECONDS | --place PLACE] -- provokes every failure at every place, one at a time.
#
# Builds the product, and then runs:
# - the tool: each of its system calls fails, or the tool is killed in it; reads and writes are short; each
#   allocation is refused
# - two tools at once, one of which is killed in each of its calls
# - 10,000 runs of the tool
# - the library's wrappers: each system call that they make fails
# - 10^8 floating-point formats
# - a commit of the preferences: it is killed, or fails, in each call; and 1,000 rounds of two commits at once
# - every function of the library with each of its allocations refused; the failures of starting a daemon
# - each fuzz target for SECONDS, by default 20
# Ends with a summary, which is kept in build/faults.txt.
#   --place PLACE   repeats the failure that the tool's summary lists as PLACE, and shows it
# Needs root, for the throw-away machines that tools/sandbox.sh makes.
# Exit status: 0 when every failure had the expected result, and no fuzz target found a fault.
# shellcheck disable=SC2317 # part calls the functions by their names
set -eu
cd "$(dirname "$0")/.."

fail() { printf 'faults.sh: %s\n' "$1" >&2; exit 1; }

seconds=20 place=''
case "$#:${1-}" in
    0:) ;;
    2:--place) place=$2 ;;
    1:*[!0-9]* | 1: | 1:0*) fail 'usage: faults.sh [SECONDS | --place PLACE]' ;;
    1:*) seconds=$1 ;;
    *) fail 'usage: faults.sh [SECONDS | --place PLACE]' ;;
esac
tools/sandbox.sh --works || fail 'no throw-away machine can be made here: that needs root and overlay mounts'
tools/setup.sh

build() {
    mkdir -p build
    { cmake --preset "$1" && cmake --build --preset "$1"; } >"build/$1.log" 2>&1 ||
        { cat "build/$1.log" >&2; fail "$1 does not build"; }
}

dev=$PWD/build/dev
export PYTHONDONTWRITEBYTECODE=1
toolFaults() {
    PELAGO_TOOL="$dev/Pelago.app/Contents/Library/shares/pelagoShareTool" \
        SHORT_TRANSFER="$dev/tests/faults/shortTransfer" \
        REFUSE_ALLOCATION="$dev/tests/faults/librefuseAllocation.so" \
        LOADED_TOOL="$dev/tests/faults/loadedTool" \
        SAMPLE=1 PLACE=$place tools/sandbox.sh python3 tests/faults/toolfaults.py
}

build dev
if [ -n "$place" ]; then
    toolFaults
    exit
fi
build fuzz

# A failed part does not end the run: the other parts follow.
summary=$PWD/build/faults.txt log=$PWD/build/faults.log status=0
: >"$summary"
say() { printf '%s\n' "$1" | tee -a "$summary"; }

# part TITLE PATTERN COMMAND [ARG...]: runs the command; lines of its output that match go into the summary.
part() {
    say "== $1"
    pattern=$2
    shift 2
    result=passed
    "$@" >"$log" 2>&1 || { result=FAILED status=1; }
    [ "$result" = passed ] || cat "$log"
    grep -E "$pattern" "$log" | tee -a "$summary" || :
    say "   $result"
}

# toolTest SCRIPT [VAR=VALUE...]: runs a script of tests/faults on the tool, with its parameters.
toolTest() {
    script=$1
    shift
    env "PELAGO_TOOL=$dev/Pelago.app/Contents/Library/shares/pelagoShareTool" "$@" \
        tools/sandbox.sh python3 "tests/faults/$script"
}

hostFaults() {
    HOST_CALLS="$dev/tests/faults/hostCalls" tools/sandbox.sh python3 tests/faults/hostFaults.py
}

twoCommits() {
    COMMIT_ONCE="$dev/tests/platform/commitOnce" COMMIT_ROUNDS=1000 \
        tools/sandbox.sh python3 tests/platform/test_commit_faults.py
}

fuzz() {
    mkdir -p "build/fuzz/fuzz/found/$1"
    "build/fuzz/fuzz/$1_fuzz" "-max_total_time=$seconds" -timeout=10 -rss_limit_mb=4096 \
        "-artifact_prefix=build/fuzz/fuzz/found/$1-" -print_final_stats=1 "build/fuzz/fuzz/found/$1" "fuzz/corpus/$1"
}

part 'The tool' '^( +[0-9]+ |  UNEXPLAINED|    again)' toolFaults
part 'Two tools at once, one of them killed' '^( +[0-9]+ |  UNEXPLAINED|[a-z]+: )' toolTest twoTools.py
part '10,000 runs of the tool' 'runs as|manyRuns' toolTest manyRuns.py COUNT=10000
part "The library's wrappers over failing calls" 'DIFFERENT|calls failed' hostFaults
part '10^8 floating-point formats' 'are equal|gives' "$dev/tests/faults/randomFloats" 100000000
part 'A commit of the preferences' '(killed|refused), |^Ran ' twoCommits
part 'Without memory, daemons, and failures in their words' ' Test +#' \
    ctest --preset dev -R '^(noMemory|daemonize\.faults|tool\.faults)$'
targets=0
for target in fuzz/*_fuzz.cpp; do
    target=${target#fuzz/}
    target=${target%_fuzz.cpp}
    part "Fuzz target $target, $seconds s" '^stat::number_of_executed_units|SUMMARY:' fuzz "$target"
    targets=$((targets + 1))
done
[ "$targets" -gt 0 ] || fail 'there are no fuzz targets'

printf '\n'
cat "$summary"
exit "$status"
