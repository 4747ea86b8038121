"""Tells the machine that tools/sandbox.sh makes, and throws away, from all others."""

import os
import sys

MARK = "/run/throw-away-machine"  # tools/sandbox.sh puts it there


def require_sandbox():
    """For what changes the machine.  It ends the program on any other."""
    if not os.path.exists(MARK):
        sys.exit(f"{sys.argv[0]}: run this in tools/sandbox.sh only; it changes the machine")
