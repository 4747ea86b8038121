"""Runs two tools at once and kills one at each of its system calls: the other one must not be affected.

The other one starts together with the one that is killed, or has made its share before.  It must
end as if it were alone; the preferences must be whole; nothing may hang or be left, and the next run must
succeed.  STEP=N tries every N-th call only.  Needs PELAGO_TOOL.  Status 1 when anything is unexplained.
"""

import os
import subprocess
import sys
from collections import Counter

from toolfaults import HANG_SECONDS, Host, Unexplained, Scenario, claim, record, straced, with_disk
from toolhost import ARGUMENTS, DELETED, SHARED

SCENARIOS = (Scenario("off"), Scenario("absent", services=None), Scenario("on", services=["disk", "print"]))


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
    """Runs a tool that is killed in the call; returns its status.  With another tool it may not reach that call."""
    strace = straced.injecting(point.name, f"signal=KILL:when={point.ordinal}")
    try:
        return subprocess.run([*strace, host.tool, *ARGUMENTS], stdin=subprocess.DEVNULL, capture_output=True,
                              timeout=HANG_SECONDS).returncode
    except subprocess.TimeoutExpired:
        raise Unexplained("the one to be killed hangs")


def kill_one(host, scenario, point, is_shared_before):
    """Kills a tool at the call while another one runs; returns the state of the service."""
    host.prepare(scenario)
    other = Other(host)
    try:
        if is_shared_before:
            other.wait_until_shared()
        status = run_and_kill(host, point)
        other.claim_it_ends_well(SHARED if is_shared_before else "")
    finally:
        other.end()
    host.wait_for_the_children()
    services = host.found(scenario)[0]
    claim(services in (scenario.services, with_disk(scenario.services), scenario.services or []), f"the services are {services}")
    host.claim_the_next_succeeds(services)
    is_on = services is not None and "disk" in services
    return f"{'killed' if status == -9 else 'lived on'}, the service {'on' if is_on else 'off'} after both"


def main():
    host, step, unexplained = Host(), int(os.environ.get("STEP", 1)), 0
    for scenario in SCENARIOS:
        outcomes = Counter()
        points = [point for point, is_early in record(host, scenario)[1] if not is_early][::step]
        claim(len(points) > 2, "there are no calls")
        for is_shared_before in (False, True):
            for point in points:
                try:
                    outcomes[kill_one(host, scenario, point, is_shared_before)] += 1
                except Unexplained as error:
                    unexplained += 1
                    print(f"  UNEXPLAINED {scenario.name}:{point.name}/{point.ordinal}/{is_shared_before}: {error}")
        print(f"{scenario.name}: {2 * len(points)} pairs")
        for outcome, number in outcomes.most_common():
            print(f"{number:15} {outcome}")
    return 1 if unexplained else 0


sys.exit(main())
