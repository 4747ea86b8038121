"""Makes every system call of every wrapper of the library fail in turn, with each error that it can return.

The library's wrapper and the C library's own call meet the same fault, and must have the same result and the same
errno, and leave no descriptor open.  STEP=N tries every N-th fault only.  Needs HOST_CALLS, the program that makes
the calls.  Status 1 when a wrapper differs from its call.
"""

import os
import subprocess
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
import straced  # noqa: E402

PROGRAM, STEP = os.environ["HOST_CALLS"], int(os.environ.get("STEP", 1))
# The library allocates text, and the allocator reads a random number before its first block.
MEMORY = {"brk", "mmap", "munmap", "mprotect", "getrandom"}
SAME = {"creat": "openat"}  # the C library makes one call by the other


def made(name, way, strace=()):
    """Returns the program's output for the call, or its status if it dies."""
    done = subprocess.run([*strace, PROGRAM, name, way], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=20)
    return done.stdout or f"status {done.returncode}"


def points_of(name, way):
    """Returns the system calls that the call makes, except those for memory."""
    made(name, way, straced.tracing())
    points = straced.read_log()
    begin, end = (next(i for i, point in enumerate(points) if f'"/{mark}"' in point.line) for mark in ("begin", "end"))
    return [point for point in points[begin + 1:end] if point.name not in MEMORY]


def kinds(points):
    return [SAME.get(point.name, point.name) for point in points]


def faults():
    """Yields (name, the wrapper's point, the bare call's point, error) for every fault."""
    for name in subprocess.run([PROGRAM], capture_output=True, text=True, check=True).stdout.split():
        ours, theirs = points_of(name, "wrapped"), points_of(name, "bare")
        if kinds(ours) != kinds(theirs):
            sys.exit(f"hostFaults: {name} makes other system calls: {ours}, not {theirs}")
        for our, their in zip(ours, theirs):
            for error in our.errors if our.errors == their.errors else sys.exit(f"hostFaults: {our}, {their}"):
                yield name, our, their, error


def outcome(name, way, point, error):
    result = made(name, way, straced.injecting(point.name, f"error={error}:when={point.ordinal}"))
    if not straced.was_injected():
        sys.exit(f"hostFaults: {name}: {point.name}/{point.ordinal} was never reached")
    return result


def main():
    tried = shown = different = 0
    undisturbed = {}
    for name, our, their, error in list(faults())[::STEP]:
        plain = undisturbed.setdefault(name, made(name, "bare"))
        expected = outcome(name, "bare", their, error)
        result = outcome(name, "wrapped", our, error)
        tried += 1
        shown += expected != plain
        if result != expected:
            different += 1
            print(f"  DIFFERENT {name}, {our.name}/{our.ordinal} with {error}: {result!r}, not {expected!r}")
    print(f"{tried:7} system calls failed, {shown} of which show, {different} differ from the C library's own")
    return 0 if tried and not different else 1


sys.exit(main())
