"""Many runs of the tool, one after the other, each exactly as the first.

The preferences are real, the scripts only note that they were called.  COUNT is how many runs.  Needs
PELAGO_TOOL.  Status 1 when a run differs from the first in standard output, standard error, status, scripts
or preferences, hangs, or leaves a process or a file.
"""

import os
import sys

from toolfaults import Host, Unexplained, Scenario, claim


def main():
    host, count = Host(), int(os.environ["COUNT"])
    for scenario in (Scenario("off"), Scenario("on", services=["disk", "print"])):
        host.prepare(scenario)
        first = host.run_scenario(scenario)
        claim((first.status, first.left, first.services) == (0, [], scenario.services), f"the first run: {first}")
        for number in range(count // 2):
            run = host.run_scenario(scenario)
            claim(run == first, f"run {number} differs: {run}, not {first}")
        print(f"{scenario.name}: {count // 2} runs as the first", flush=True)


try:
    main()
except Unexplained as error:
    sys.exit(f"manyRuns: {error}")
