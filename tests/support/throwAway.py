"""Checks for the throw-away machine of tools/sandbox.sh."""

import os
import sys

MARK = "/run/throw-away-machine"  # tools/sandbox.sh puts it there


def require_sandbox():
    """Ends the program unless it runs on a throw-away machine.  For programs that change the machine."""
    if not os.path.exists(MARK):
        sys.exit(f"{sys.argv[0]}: run this in tools/sandbox.sh only; it changes the machine")
