#!/bin/sh
# soak.sh [SESSIONS] [MINUTES] -- runs many sessions on a real Samba, and checks that nothing is left of them.
#
# Runs SESSIONS (default 1000) one after the other, and then two at a time for MINUTES (default 10), on a
# throw-away machine with the real scripts, the service switch, its own Samba and clients.
# tests/faults/soak.py says what is counted.  Needs root, for the throw-away machine.
# Exit status: 0 when every session succeeded and nothing was left.
set -eu
cd "$(dirname "$0")/.."

fail() { printf 'soak.sh: %s\n' "$1" >&2; exit 1; }

[ "$#" -le 2 ] || fail 'usage: soak.sh [SESSIONS] [MINUTES]'
case "${1-0}${2-0}" in *[!0-9]*) fail 'usage: soak.sh [SESSIONS] [MINUTES]' ;; esac
tools/sandbox.sh --works || fail 'no throw-away machine can be made here: that needs root and overlay mounts'
tools/setup.sh
mkdir -p build
{ cmake --preset dev && cmake --build --preset dev --target pelago_bundle; } >build/dev.log 2>&1 ||
    { cat build/dev.log >&2; fail 'the product does not build'; }
library=$PWD/build/dev/Pelago.app/Contents/Library
PYTHONDONTWRITEBYTECODE=1 SESSIONS=${1-1000} MINUTES=${2-10} \
    PELAGO_LIBRARY="$library" PELAGO_TOOL="$library/shares/pelagoShareTool" \
    tools/sandbox.sh python3 tests/faults/soak.py
