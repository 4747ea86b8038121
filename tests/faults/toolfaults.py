"""Provokes every fault at every place of the tool, one at a time, and judges the outcome.

A run of the tool in each scenario is recorded.  Then, in turn, each system call of that run fails
with each error that it can return, or the tool is killed in it, or a read or write transfers only one
byte; and each allocation is refused, alone and with all after it.  The preferences are real, the scripts
only note that they were called.  After each run the preferences must be whole, standard output and exit
status must be true and among those that README.md lists; nothing may hang or be left; and the next run must
succeed.  Any other outcome is unexplained, and is printed with its PLACE.

SAMPLE=N tries every N-th fault only and those of rare kinds, PLACE=PLACE one, and shows it.  Needs
the programs PELAGO_TOOL, SHORT_TRANSFER and REFUSE_ALLOCATION, and LOADED_TOOL, the tool linked with the shared
C library, whose allocator can be replaced.  Status 1 when anything is unexplained.
"""

import contextlib
import os
import plistlib
import re
import shutil
import signal
import subprocess
import sys
import threading
import time
from collections import Counter, defaultdict
from dataclasses import dataclass, field, replace
from pathlib import Path

TESTS = Path(__file__).resolve().parents[1]
sys.path[:0] = [str(TESTS / "support"), str(TESTS / "tool")]
import straced  # noqa: E402
from toolhost import (ARGUMENTS, DELETED, PREFS, SCRIPTS, SHARED, SHARES, STATE, ToolCase,  # noqa: E402
                      lock_preferences)

HANG_SECONDS = 10
LOCK = PREFS.with_name(f"{PREFS.name}-lock")
NEW = PREFS.with_name(f"{PREFS.name}-new")
CALLED, STDERR, PROOF = STATE / "called", STATE / "stderr", STATE / "proof"
STUB = "#!/bin/sh\necho {name} >>%s\necho noise\n{does}\nexit {status}\n" % CALLED

# ---- The tool's possible output

USAGE = "2 - usage error. pelagoShareTool <folderPath> <shareName> <username> <pathPasswordFile\n"
REFUSALS = {f"1 - {reason}\n" for reason in (
    f"cannot find Samba preferences file {PREFS}.", "Failure reported by SCPreferencesCreate",
    "Unable to lock preferences. Are you running as root?",
    "Unable to determine Windows File Sharing capability", "Unable to enable Windows File Sharing")}
NO_USER = "1 - failed to create user alice\n"
NOT_SHARED = re.compile(r"([1-9]\d*) is the sharing result \(0=ok\)\. Exiting\.\n")
REMOVED = re.compile(re.escape(SHARED) + r"(\d+) is the delete share result \(0=success, nonzero=failure\)\.\n")
NOT_PUT_BACK = ("Unable to lock preferences to restore original state\n", "Unable to disable Windows File Sharing\n",
                "Failed to delete user alice\n")


def statuses_with(out):
    """Returns the exit statuses that are allowed with this standard output; none if the output itself is wrong."""
    if out == USAGE:
        return {2}
    if out in REFUSALS or out == NO_USER:
        return {1}
    if match := NOT_SHARED.fullmatch(out) or REMOVED.fullmatch(out):
        return {int(match[1]), 1}
    return set()


def may_have_been_called(names):
    """Returns whether the scripts may have been called: in this order, each only after those that it needs."""
    in_order = [name for name in SCRIPTS if name in names] == names
    return in_order and (not names or names[0] == "adduser") and ("rmshare" not in names or "addshare" in names)


# ---- Scenarios

@dataclass
class Scenario:
    name: str
    services: list | None = field(default_factory=lambda: ["print"])  # None: there is no such key
    statuses: dict = field(default_factory=dict)  # exit statuses of the scripts that fail
    arguments: tuple = ARGUMENTS
    data: bytes = b""
    has_prefs: bool = True
    is_locked: bool = False  # by another process, until the tool waits for the lock
    is_written: bool = False  # by another process during the share, so that the tool reads the file again


SCENARIOS = (
    Scenario("off"),
    Scenario("absent", services=None),
    Scenario("on", services=["disk", "print"]),
    Scenario("line", data=b"enough\n"),
    Scenario("locked", is_locked=True),
    Scenario("written", is_written=True),
    Scenario("noUser", statuses={"adduser": 4}),
    Scenario("noShare", statuses={"addshare": 3}),
    Scenario("shareStays", statuses={"rmshare": 5}),
    Scenario("userStays", statuses={"rmuser": 6}),
    Scenario("noUserOn", services=["disk"], statuses={"adduser": 4}),
    Scenario("usage", arguments=ARGUMENTS[:3]),
    Scenario("noPrefs", services=None, has_prefs=False),
    Scenario("noArray", services="disk"),
)
FIRST_OF_MAIN = ("fcntl", 1)  # the calls before it load the program, alike in every scenario


@dataclass
class Run:
    out: str
    err: str
    status: int
    services: object
    called: list
    left: list  # other files in the folder of the preferences

    def same_as(self, other):
        return replace(self, err="", left=[]) == replace(other, err="", left=[])


class Unexplained(Exception):
    pass


def claim(condition, what):
    if not condition:
        raise Unexplained(what)


def with_disk(services):
    services = services or []
    return services if "disk" in services else [*services, "disk"]


@contextlib.contextmanager
def locked_until_somebody_waits():
    """Another process has the preferences' lock, and releases it, as a tool does, when the tool waits for it."""
    lock, over = lock_preferences(), threading.Event()
    node = f":{os.fstat(lock.fileno()).st_ino} "

    def hold():
        while not over.is_set() and not any("->" in line and node in line for line in Path("/proc/locks").open()):
            time.sleep(0.001)
        with contextlib.suppress(FileNotFoundError):
            LOCK.unlink()
        lock.close()
    holder = threading.Thread(target=hold)
    holder.start()
    try:
        yield
    finally:
        over.set()
        holder.join()


def processes():
    return {name for name in os.listdir("/proc") if name.isdigit()}


class Host(ToolCase):
    """The bundle and its preferences; runs the tool, and returns what it did."""

    def __init__(self):
        super().__init__()
        self.setUp()
        self.processes = processes()
        if loaded := os.environ.get("LOADED_TOOL"):
            self.loaded_tool = shutil.copy(loaded, SHARES / "loadedTool")

    def prepare(self, scenario):
        for path in (*PREFS.parent.iterdir(), CALLED, PROOF):
            path.unlink(missing_ok=True)
        if scenario.has_prefs:
            self.write_prefs(scenario.services)
        self.write_scripts(scenario)

    @staticmethod
    def write_scripts(scenario):
        for name in SCRIPTS:
            does = f"touch {PREFS}" if scenario.is_written and name == "addshare" else ""
            text = STUB.format(name=name, does=does, status=scenario.statuses.get(name, 0))
            (SHARES / f"{name}.sh").write_text(text)

    def run_scenario(self, scenario, before=(), env=None):
        """Runs the tool in the scenario; before are words in front of the tool's command."""
        CALLED.unlink(missing_ok=True)
        with (locked_until_somebody_waits() if scenario.is_locked else contextlib.nullcontext()), STDERR.open("w") as err:
            program = self.loaded_tool if "LD_PRELOAD" in (env or {}) else self.tool
            tool = subprocess.Popen([*before, program, *scenario.arguments], env=os.environ | (env or {}), stderr=err,
                                    stdin=subprocess.PIPE, stdout=subprocess.PIPE, start_new_session=True)
            try:
                out = tool.communicate(scenario.data, timeout=HANG_SECONDS)[0].decode()
            except subprocess.TimeoutExpired:
                os.killpg(tool.pid, signal.SIGKILL)
                tool.communicate()
                raise Unexplained("it hangs")
            self.wait_for_the_children()
        return Run(out, STDERR.read_text(errors="replace"), tool.returncode, *self.found(scenario))

    def wait_for_the_children(self):
        """Waits for the children of a killed tool, which may end after it."""
        deadline = time.monotonic() + HANG_SECONDS
        while left := processes() - self.processes:
            claim(time.monotonic() < deadline, f"processes are left: {left}")
            time.sleep(0.001)

    def found(self, scenario):
        left = sorted(path.name for path in PREFS.parent.iterdir() if path != PREFS)
        called = CALLED.read_text().split() if CALLED.exists() else []
        if not PREFS.exists():
            claim(not scenario.has_prefs, "the preferences are gone")
            return None, called, left
        try:
            content = plistlib.loads(PREFS.read_bytes())
        except Exception as error:
            raise Unexplained(f"the preferences are torn: {error}")
        services = content.pop("EnabledServices", None)
        claim(content == self.OTHER_KEYS, "another key of the preferences is changed")
        claim(PREFS.stat().st_mode & 0o7777 == 0o644, "the preferences have other rights")
        return services, called, left

    def claim_the_next_succeeds(self, found):
        """Runs the tool without faults, on the state that the last run left."""
        scenario = Scenario("next", services=found)
        self.write_scripts(scenario)
        if not PREFS.exists() or not isinstance(found, list | None):
            self.write_prefs()
            found = None
        # The next run takes a service that a dead run had switched on for off, and leaves it off.
        if found and "user.pelago.service" in os.listxattr(PREFS):
            found = [service for service in found if service != "disk"]
        run = self.run_scenario(scenario)
        on = found is not None and "disk" in found
        claim((run.out, run.status, run.called) == (SHARED + DELETED, 0, list(SCRIPTS)),
              f"the next run fails: {run.status}, {run.out!r}, {run.err!r}")
        claim(run.services == (found if on else found or []), f"the next run leaves {run.services}")
        claim(not run.left or on, f"the next run does not clear away {run.left}")


# ---- Faults

class Fault:
    """One fault in one run; name is the name of its place."""

    KIND = ""
    before = ()  # words in front of the tool's command
    env = None

    def happened(self, run):
        """Returns whether the fault happened."""
        raise NotImplementedError

    def judge(self, scenario, plain, run):
        """Returns the class of an explained outcome; raises Unexplained for any other."""
        return judge_failure(self, scenario, plain, run)

    # The files that a failure may leave, and whether it must have no visible effect.
    may_leave = frozenset()
    must_not_show = False
    is_before_main = False
    is_rare = False  # a sample includes the rare faults of the first scenario


class Error(Fault):
    KIND = "calls that failed"

    def __init__(self, point, error, is_before_main):
        self.name = f"{point.name}/{point.ordinal}/{error}"
        self.before = straced.injecting(point.name, f"error={error}:when={point.ordinal}")
        self.is_before_main = is_before_main
        self.is_rare = error == "EINTR" and not is_before_main
        self.loses_a_line = point.line.startswith("write(1,")
        on_stream = point.line.startswith(("write(2,", "read(0,"))
        # The C library's streams do not retry after EINTR, but no signal interrupts them in this tool.
        self.must_not_show = on_stream or error == "EINTR" and not (self.loses_a_line or is_before_main)
        if point.name in ("flock", "newfstatat"):
            self.may_leave = frozenset({LOCK.name})  # another process could have it by now
        if point.name == "unlink":
            self.may_leave = frozenset({LOCK.name, NEW.name})

    def happened(self, run):
        return straced.was_injected()

    def judge(self, scenario, plain, run):
        return judge_lost_line(plain, run) if self.loses_a_line else super().judge(scenario, plain, run)


class ChildError(Fault):
    """A fault in a child before it becomes the script; a path that the call names or uses identifies it."""

    KIND = "calls that failed"
    is_rare = True

    def __init__(self, call, path, error):
        self.name = f"{call}/{Path(path).stem}/{error}"
        self.before = straced.injecting(call, f"error={error}:when=1", "-f", "-P", str(path))
        self.must_not_show = error == "EINTR"

    def happened(self, run):
        return straced.was_injected()


class Short(Fault):
    KIND = "short transfers"
    must_not_show = is_rare = True
    NEVER_REACHED = 125

    def __init__(self, point):
        self.name = f"{point.name}/{point.ordinal}/SHORT"
        self.before = (os.environ["SHORT_TRANSFER"], point.name, str(point.ordinal))

    def happened(self, run):
        return run.status != self.NEVER_REACHED


class Refusal(Fault):
    KIND = "allocations refused"

    def __init__(self, at):
        self.name = f"allocation/{at}"
        self.env = {"LD_PRELOAD": os.environ["REFUSE_ALLOCATION"], "REFUSE_AT": at, "REFUSE_PROOF": str(PROOF)}

    def happened(self, run):
        return PROOF.exists()

    def judge(self, scenario, plain, run):
        if run.status >= 0:
            return super().judge(scenario, plain, run)
        # A constant of Core Foundation's cannot be NULL, so the process ends.
        claim(re.search("Core Foundation: .*: out of memory\n$", run.err), "it crashed")
        return judge_death(scenario, plain, run, "ended by Core Foundation")


class Kill(Fault):
    KIND = "kills"

    def __init__(self, point, is_before_main):
        self.name = f"{point.name}/{point.ordinal}/KILL"
        self.before = straced.injecting(point.name, f"signal=KILL:when={point.ordinal}")
        self.is_before_main = is_before_main

    def happened(self, run):
        return run.status == -signal.SIGKILL

    def judge(self, scenario, plain, run):
        if self.is_before_main:
            claim((run.out, run.called, run.services) == ("", [], scenario.services), "something was done")
            return "killed before its own code"
        return judge_death(scenario, plain, run, "killed")


def judge_lost_line(plain, run):
    """A failed write to the caller must lose one line at most, and change nothing else."""
    lines = plain.out.splitlines(keepends=True)
    claim(all(line in lines for line in run.out.splitlines(keepends=True)), "standard output holds something else")
    claim(replace(run, out="").same_as(replace(plain, out="")), "more than a line is lost")
    return "a line on standard output lost, all else done"


def judge_death(scenario, plain, run, how):
    claim(plain.out.startswith(run.out) and run.out[-1:] in ("", "\n"), "standard output holds something else")
    claim(plain.called[:len(run.called)] == run.called, f"it called {run.called}")
    old = scenario.services
    claim(run.services in (old, with_disk(old), old or []), f"the services are {run.services}")
    state = "old" if run.services == old else "with the service on" if "disk" in run.services else "put back"
    return f"{how}, the preferences {state}"


def judge_failure(fault, scenario, plain, run):
    claim(may_have_been_called(run.called), f"it called {run.called}")
    if run.same_as(plain):
        claim(set(run.left) <= fault.may_leave, f"left behind: {run.left}")
        return "as if nothing had happened"
    claim(not fault.must_not_show, "it shows")
    old = scenario.services
    if fault.is_before_main and (run.status == 127 or run.status < 0):
        claim((run.out, run.called, run.services) == ("", [], old), "something was done")
        return "not started by the loader"
    if "Panic: " in run.err:
        claim(run.status == 1, "an internal error without its status")
        claim(run.out in ("", SHARED) or statuses_with(run.out), "standard output holds something else")
        return "internal error, shown by its status"
    claim(run.status in statuses_with(run.out), "this output with this status")
    claim(set(run.left) <= fault.may_leave, f"left behind: {run.left}")
    if run.out == USAGE or run.out in REFUSALS:
        claim((run.called, run.services) == ([], old), "something was changed before it refused")
        return "refused, nothing changed"

    def lives_on(made, removed):
        is_removed = removed in run.called and scenario.statuses.get(removed, 0) == 0
        return made in run.called and scenario.statuses.get(made, 0) == 0 and not is_removed
    claim(run.services in (old, with_disk(old), old or []), f"the services are {run.services}")
    is_on = run.services == with_disk(old) != old
    if scenario.is_written and is_on and (run.out, run.status, run.called) == (plain.out, 0, plain.called):
        # The SDK returns NULL for preferences that it cannot read, as for a missing key.
        claim(run.err.endswith("Disabling Windows File Sharing.\nnoise\n"), "another step failed")
        return "preferences unreadable at the end: the service stays on, and the status is 0"
    if lives_on("addshare", "rmshare"):
        claim(run.status != 0, "the share stays, and the status is 0")
    if is_on or lives_on("adduser", "rmuser"):
        claim(run.status == 1, f"something stays, and the status is {run.status}")
        return "failed, something stays, shown by its status"
    claim(run.status != 0, "it differs, and the status is 0")
    if REMOVED.fullmatch(run.out) and run.status == 1:
        claim(any(text in run.err for text in NOT_PUT_BACK) or not run.out.endswith(DELETED), "no reason is printed")
    return "failed, all put back"


# ---- The programme

def record(host, scenario):
    """Returns an undisturbed run of the scenario and its calls, each with whether it precedes the program's own code."""
    host.prepare(scenario)
    plain = host.run_scenario(scenario)
    host.prepare(scenario)
    traced = host.run_scenario(scenario, straced.tracing())
    claim(traced.same_as(plain), "the recorded run differs")
    points = straced.read_log()
    first = next(i for i, point in enumerate(points) if point[:2] == FIRST_OF_MAIN)
    return plain, [(point, i < first) for i, point in enumerate(points)]


def count_allocations(host, scenario):
    """Returns the number of allocations, found by refusing one of each number."""
    low, high = 1, 2

    def is_there(number):
        host.prepare(scenario)
        host.run_scenario(scenario, env=Refusal(str(number)).env)
        return PROOF.exists()
    while is_there(high):
        low, high = high, 2 * high
    while high - low > 1:
        middle = (low + high) // 2
        low, high = (middle, high) if is_there(middle) else (low, middle)
    return low


def faults_of(host, scenario, points):
    """Yields all faults of the scenario.  Those before the program's own code are tried in the first scenario only."""
    own = [(point, early) for point, early in points if not early or scenario is SCENARIOS[0]]
    for point, early in own:
        yield Kill(point, early)
        yield from (Error(point, error, early) for error in point.errors)
        if point.name in ("read", "write") and (point.result or 0) > 1:
            yield Short(point)
    for name in SCRIPTS if scenario is SCENARIOS[0] else ():
        yield from (ChildError("execve", SHARES / f"{name}.sh", error) for error in straced.ERRORS["execve"])
    if scenario is SCENARIOS[0]:
        yield from (ChildError("dup2", STDERR, error) for error in straced.ERRORS["dup2"])
    for number in range(1, count_allocations(host, scenario) + 1):
        yield Refusal(f"{number}")
        yield Refusal(f"{number}+")


def strike(host, scenario, plain, fault):
    """Runs the tool with the fault, and once more without; returns the outcome's class and the run."""
    host.prepare(scenario)
    run = host.run_scenario(scenario, fault.before, fault.env)
    claim(fault.happened(run), "it was never reached")
    try:
        outcome = fault.judge(scenario, plain, run)
        host.claim_the_next_succeeds(run.services)
    except Unexplained as error:
        raise Unexplained(f"{error}; {run}")
    return outcome, run


class Report:
    """Counts the faults and their outcomes."""

    def __init__(self):
        self.kinds, self.outcomes, self.unexplained = Counter(), defaultdict(Counter), []

    def add(self, host, scenario, plain, fault):
        self.kinds[fault.KIND] += 1
        try:
            self.outcomes[fault.KIND][strike(host, scenario, plain, fault)[0]] += 1
        except Unexplained as error:
            self.unexplained.append((f"{scenario.name}:{fault.name}", str(error)))
            print(f"  UNEXPLAINED {scenario.name}:{fault.name}: {error}", flush=True)

    def show(self):
        print("\nTool: runs by what went wrong, and what became of them")
        for kind, count in self.kinds.items():
            print(f"{count:7} {kind}")
            for outcome, number in sorted(self.outcomes[kind].items(), key=lambda item: -item[1]):
                print(f"{number:15} {outcome}")
        print(f"{sum(self.kinds.values()):7} in all, each with a run after it; unexplained: {len(self.unexplained)}")
        for place, error in self.unexplained:
            print(f"  UNEXPLAINED {error}\n    again: tools/faults.sh --place {place}")


def main():
    step, place = int(os.environ.get("SAMPLE", 1)), os.environ.get("PLACE", "")
    host, report = Host(), Report()
    if place:
        return show_place(host, *place.partition(":")[::2])
    for scenario in SCENARIOS:
        plain, points = record(host, scenario)
        faults = list(faults_of(host, scenario, points))
        claim(len(faults) > 20, f"{scenario.name}: no places were found")
        chosen = [fault for i, fault in enumerate(faults) if i % step == 0 or fault.is_rare and scenario is SCENARIOS[0]]
        print(f"{scenario.name}: {len(points)} calls, {len(chosen)} of {len(faults)} faults", flush=True)
        for fault in chosen:
            report.add(host, scenario, plain, fault)
    report.show()
    return 1 if report.unexplained else 0


def show_place(host, scenario, place):
    scenario = next((one for one in SCENARIOS if one.name == scenario), None)
    plain, points = record(host, scenario) if scenario else (None, [])
    fault = next((one for one in faults_of(host, scenario, points) if one.name == place), None) if scenario else None
    if fault is None:
        sys.exit("toolfaults: there is no such place")
    print(f"undisturbed: {plain}")
    outcome, run = strike(host, scenario, plain, fault)
    print(f"disturbed:   {run}\noutcome:     {outcome}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
