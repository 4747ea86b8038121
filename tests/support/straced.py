"""Provoking faults in a program with strace, with proof that they happened.

strace counts calls per process and per name, and injects nothing, silently, into a call that it does
not trace; so a point is a pair (name, ordinal) of a recorded run, the call is always traced as well,
and whoever injects an error checks that the log tells of it.  Without -f only the program itself is
attacked, and its children run on.
"""

import re
import subprocess
from collections import Counter
from pathlib import Path

LOG = Path("/tmp/strace.log")


def points(command, **options):
    """The system calls of one undisturbed run, in order, as (name, ordinal)."""
    subprocess.run(["strace", "-qq", "-o", LOG, *command], check=True, **options)
    counts = Counter()
    found = []
    for line in LOG.read_text(errors="replace").splitlines():
        if match := re.match(r"(\w+)\(", line):
            counts[match[1]] += 1
            found.append((match[1], counts[match[1]]))
    return found[1:]  # the first is strace's own execve


def killed_at(point, command, **options):
    """Kills the program as it enters the call; returns whether that happened."""
    name, ordinal = point
    done = subprocess.run(["strace", "-qq", "-o", LOG, "-e", f"trace={name}",
                           "-e", f"inject={name}:signal=KILL:when={ordinal}", *command], **options)
    return done.returncode == -9


def failing_at(names, ordinal, error, command, **options):
    """Makes a call fail; returns the finished process.  It is an error when nothing was injected."""
    done = subprocess.run(["strace", "-qq", "-o", LOG, "-e", f"trace={names}",
                           "-e", f"inject={names}:error={error}:when={ordinal}", *command], **options)
    if "(INJECTED)" not in LOG.read_text(errors="replace"):
        raise AssertionError(f"{names}:{ordinal} was never reached")
    return done
