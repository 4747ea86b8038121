#!/bin/sh
# complete.sh PROGRAM [ARG...] -- runs a test program, and fails if it ends before all of its tests have run.
# The code under test may end the process with status 0, as a daemon's parent does.  GoogleTest removes the
# file after all tests have run.
running=$(mktemp) || exit 1
TEST_PREMATURE_EXIT_FILE=$running "$@"
status=$?
if [ -e "$running" ]; then
    rm -f -- "$running"
    printf 'complete.sh: the program ended with status %d before all of its tests had run\n' "$status" >&2
    exit 1
fi
exit "$status"
