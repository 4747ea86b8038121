#!/bin/sh
# complete.sh PROGRAM [ARG...] -- runs a test program, which fails when it ends before its tests have.
# What is tested may end the process with status 0, as a daemon's parent does.  GoogleTest removes the
# file once all tests have run.
running=$(mktemp) || exit 1
TEST_PREMATURE_EXIT_FILE=$running "$@"
status=$?
if [ -e "$running" ]; then
    rm -f -- "$running"
    printf 'complete.sh: it ended with status %d before its tests had\n' "$status" >&2
    exit 1
fi
exit "$status"
