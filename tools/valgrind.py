#!/usr/bin/env python3
"""valgrind.py [TEST...] -- runs the test programs in build/dev under memcheck, and those with threads also under
helgrind, which looks at their locks (tools/helgrind.supp).

    TEST   ctest's name of a test; by default all of them

Prints a line for each run, with valgrind's report where it found a fault, and the programs that were not run.
Exit status: 0 when valgrind found no fault, else 1.
"""

import json
import os
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
COMPLETE = str(ROOT / "tests/support/complete.sh")
SECONDS = 3600
FOUND = 99  # the exit status of a program in which valgrind found something
TOOLS = {
    "memcheck": ["--tool=memcheck", "--expensive-definedness-checks=yes"],
    "helgrind": ["--tool=helgrind", "--history-level=none", f"--suppressions={ROOT}/tools/helgrind.supp"],
}
# Programs that cannot run under valgrind, and why.
NOT_THERE = {
    "singleStep": "sets the processor's trap flag, which valgrind's processor does not have",
}


def tests():
    """Yields the name, the command and the environment of each test program, and whether it has threads."""
    listed = subprocess.run(["ctest", "--preset", "dev", "--show-only=json-v1"], cwd=ROOT, check=True, capture_output=True)
    for test in json.loads(listed.stdout)["tests"]:
        properties = {entry["name"]: entry["value"] for entry in test["properties"]}
        if COMPLETE in test.get("command", []):
            environment = dict(line.split("=", 1) for line in properties.get("ENVIRONMENT", []))
            yield test["name"], test["command"], environment, "threads" in properties["LABELS"]


def run(name, tool, command, environment):
    at = command.index(COMPLETE) + 1
    valgrind = ["valgrind", "-q", f"--error-exitcode={FOUND}", "--child-silent-after-fork=no", *TOOLS[tool]]
    try:
        done = subprocess.run([*command[:at], *valgrind, *command[at:]], cwd=ROOT, env=os.environ | environment,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=SECONDS)
    except subprocess.TimeoutExpired:
        return name, tool, f"did not end within {SECONDS} seconds"
    return name, tool, None if done.returncode == 0 else done.stdout.decode(errors="replace")


def main(wanted):
    known = {name: rest for name, *rest in tests()}
    if unknown := set(wanted) - set(known):
        sys.exit(f"valgrind.py: no test program is called {', '.join(sorted(unknown))}")
    jobs = [(name, tool, command, environment)
            for name, (command, environment, has_threads) in known.items()
            if (not wanted or name in wanted) and name not in NOT_THERE
            for tool in TOOLS if tool == "memcheck" or has_threads]
    faults = 0
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        for name, tool, found in pool.map(lambda job: run(*job), jobs):
            faults += found is not None
            print(f"{tool:9} {name:22} {'ok' if found is None else 'FOUND'}", flush=True)
            if found is not None:
                print("  " + "\n  ".join(found.splitlines()[-60:]), flush=True)
    for name in sorted(set(NOT_THERE) & set(known)):
        print(f"not run   {name:22} {NOT_THERE[name]}")
    print(f"{len(jobs)} runs, {faults} with faults")
    return int(faults != 0)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
