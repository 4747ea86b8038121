"""Two tools at once, one of them killed at each of its system calls: the other one never notices.

The other one is, in turn, started together with the one that is killed, and has its share out meanwhile. It must
end as if it were alone; the preferences must be whole; nothing may hang or be left, and a run after them must
succeed.  STEP=N takes every N-th call only.  Needs PELAGO_TOOL.  Status 1 when anything is unexplained.
"""

import os
import subprocess
import sys
from collections import Counter

from toolfaults import HANG_SECONDS, Host, Unexplained, Way, claim, record, straced, with_disk
from toolhost import ARGUMENTS, DELETED, SHARED

WAYS = (Way("off"), Way("absent", services=None), Way("on", services=["disk", "print"]))


class Other:
    """The tool that is not killed."""

    def __init__(self, host):
        self.tool = subprocess.Popen([host.tool, *ARGUMENTS], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE)

    def wait_until_shared(self):
        line = self.tool.stdout.readline().decode()
        claim(line == SHARED, f"the other one says {line!r}")

    def claim_it_ends_well(self, already_read):
        try:
            out, err = self.tool.communicate(timeout=HANG_SECONDS)
        except subprocess.TimeoutExpired:
            raise Unexplained("the other one hangs")
        claim((already_read + out.decode(), self.tool.returncode) == (SHARED + DELETED, 0),
              f"the other one ends with {self.tool.returncode}, {out!r}, {err!r}")

    def end(self):
        self.tool.kill()
        self.tool.communicate()


def run_and_kill(host, point):
    """A tool that is killed in the call; returns its status.  Beside another one it may not come to that call."""
    strace = straced.injecting(point.name, f"signal=KILL:when={point.ordinal}")
    try:
        return subprocess.run([*strace, host.tool, *ARGUMENTS], stdin=subprocess.DEVNULL, capture_output=True,
                              timeout=HANG_SECONDS).returncode
    except subprocess.TimeoutExpired:
        raise Unexplained("the one to be killed hangs")


def kill_one(host, way, point, is_shared_before):
    """Kills a tool at the call, beside another one; returns what became of the service."""
    host.prepare(way)
    other = Other(host)
    try:
        if is_shared_before:
            other.wait_until_shared()
        status = run_and_kill(host, point)
        other.claim_it_ends_well(SHARED if is_shared_before else "")
    finally:
        other.end()
    host.wait_for_the_children()
    services = host.found(way)[0]
    claim(services in (way.services, with_disk(way.services), way.services or []), f"the services are {services}")
    host.claim_the_next_succeeds(services)
    is_on = services is not None and "disk" in services
    return f"{'killed' if status == -9 else 'lived on'}, the service {'on' if is_on else 'off'} after both"


def main():
    host, step, unexplained = Host(), int(os.environ.get("STEP", 1)), 0
    for way in WAYS:
        outcomes = Counter()
        points = [point for point, is_early in record(host, way)[1] if not is_early][::step]
        claim(len(points) > 2, "there are no calls")
        for is_shared_before in (False, True):
            for point in points:
                try:
                    outcomes[kill_one(host, way, point, is_shared_before)] += 1
                except Unexplained as error:
                    unexplained += 1
                    print(f"  UNEXPLAINED {way.name}:{point.name}/{point.ordinal}/{is_shared_before}: {error}")
        print(f"{way.name}: {2 * len(points)} pairs")
        for outcome, number in outcomes.most_common():
            print(f"{number:15} {outcome}")
    return 1 if unexplained else 0


sys.exit(main())
