#!/bin/sh
# soak.sh [SESSIONS] [MINUTES] -- many sessions on a real Samba, and what is left of them: nothing.
#
# SESSIONS (1000) one after the other, and then two at a time for MINUTES (10), on a throw-away machine
# with the real scripts, the switch, a private Samba and clients; tests/faults/soak.py tells what is
# counted.  Needs root for that.
# Exit status: 0 when every session succeeded and nothing was left.
set -eu
cd "$(dirname "$0")/.."

fail() { printf 'soak.sh: %s\n' "$1" >&2; exit 1; }

[ "$#" -le 2 ] || fail 'usage: soak.sh [SESSIONS] [MINUTES]'
case "${1-0}${2-0}" in *[!0-9]*) fail 'usage: soak.sh [SESSIONS] [MINUTES]' ;; esac
tools/sandbox.sh --works || fail 'no machine of its own can be made here: that takes root and overlay mounts'
tools/setup.sh
mkdir -p build
{ cmake --preset dev && cmake --build --preset dev --target pelago_bundle; } >build/dev.log 2>&1 ||
    { cat build/dev.log >&2; fail 'it does not build'; }
library=$PWD/build/dev/Pelago.app/Contents/Library
PYTHONDONTWRITEBYTECODE=1 SESSIONS=${1-1000} MINUTES=${2-10} \
    PELAGO_LIBRARY="$library" PELAGO_TOOL="$library/shares/pelagoShareTool" \
    tools/sandbox.sh python3 tests/faults/soak.py
