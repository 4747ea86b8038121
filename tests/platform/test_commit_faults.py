"""Tests of a commit that is killed, or refused by the kernel, at every one of its system calls.

strace records one undisturbed run, and then strikes at each call of that run in turn, by name and
ordinal.  Whatever happens, the file is whole, old or new, and the next run works.  A kill leaves the
kernel's memory whole, so a power failure is judged by the order of the calls instead.

COMMIT_ONCE is the program that commits.  Needs root and strace.
"""

import collections
import errno
import os
import plistlib
import random
import re
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))
import straced  # noqa: E402

COMMIT_ONCE = os.environ["COMMIT_ONCE"]
KEY = "EnabledServices"
OTHERS = {"ServerDescription": "a & b\rc", "MaxClients": 100, "wins server": [{"": b"\0"}], "ratio": 0.1}
MODE = 0o640
QUIET = {"capture_output": True, "text": True, "timeout": 60}
RECORD = "user.pelago.service"
ROUNDS = int(os.environ.get("COMMIT_ROUNDS", 25))  # of two commits at once


Start = collections.namedtuple("Start", "form services owner", defaults=[None])
STARTS = {
    "no file": None,
    "without the service": Start(plistlib.FMT_XML, ["print"]),
    "with the service": Start(plistlib.FMT_XML, ["print", "disk"]),
    "binary": Start(plistlib.FMT_BINARY, []),
    "with the service of a program that runs": Start(plistlib.FMT_XML, ["disk", "print"], "runs"),
    "with the service of a dead program": Start(plistlib.FMT_BINARY, ["disk", "print"], "dead"),
}
# When one of these calls fails, a program may not find out that an owner is dead, or its own mark.
UNSURE = ("fgetxattr", "kill", "openat", "read", "newfstatat", "getdents64")


def process_mark(pid):
    fields = Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return f"{pid} {fields[19]} {Path('/proc/sys/kernel/random/boot_id').read_text().strip()}".encode()


def mark_of_the_dead():
    with subprocess.Popen(["sleep", "60"]) as process:
        mark = process_mark(process.pid)
        process.kill()
    return mark


OWNERS = {None: None, "runs": process_mark(os.getpid()), "dead": mark_of_the_dead()}


def is_dead(record):
    try:
        return record is not None and process_mark(record.split()[0].decode()) != record
    except FileNotFoundError:
        return True


def toggled(services, owner_is_dead):
    """Returns the services after a run that knows whether their owner is dead."""
    seen = list(services or [])
    if owner_is_dead and "disk" in seen:
        seen.remove("disk")
    return [service for service in seen if service != "disk"] if "disk" in seen else seen + ["disk"]


class Case(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name).resolve()
        self.path = self.folder / "com.apple.smb.server.plist"

    def put(self, start):
        """Writes the file as it is before a run; None: there is no file."""
        for path in self.folder.iterdir():
            path.unlink()
        if start is not None:
            value = dict(OTHERS, **{KEY: start.services})
            if start.form == plistlib.FMT_XML:  # plistlib writes no carriage returns
                value["ServerDescription"] = "a & b"
            self.path.write_bytes(plistlib.dumps(value, fmt=start.form))
            self.path.chmod(MODE)
            if start.owner:
                os.setxattr(self.path, RECORD, OWNERS[start.owner])
        self.before = self.present()

    def record(self):
        try:
            return os.getxattr(self.path, RECORD)
        except OSError as error:
            self.assertEqual(error.errno, errno.ENODATA)
            return None

    def present(self):
        """Returns the file's bytes and record; None for no file."""
        return (self.path.read_bytes(), self.record()) if self.path.exists() else None

    @property
    def command(self):
        return [COMMIT_ONCE, str(self.path), "disk"]

    def run_once(self):
        return subprocess.run(self.command, **QUIET)

    def failing_at(self, call, ordinal, error, *selection):
        return straced.failing_at(call, ordinal, error, self.command, *selection, **QUIET)

    def outcome(self, start, point, failed=None):
        """Returns "old" or "new"; any other state is a failure.  failed names the call that was made to fail."""
        if self.present() == self.before:
            return "old"
        self.assertIsNotNone(self.present(), f"{point}: the file is gone")
        present, record = self.present()
        value = plistlib.loads(present)
        services = value.pop(KEY)
        is_dead_s = start is not None and start.owner == "dead"
        expected = [toggled(start and start.services, is_dead_s)]
        if is_dead_s and failed in UNSURE:
            expected.append(toggled(start.services, False))
        self.assertIn(services, expected, point)
        if "disk" not in services:
            self.assertIsNone(record, point)
        elif record is not None or failed not in (*UNSURE, "fsetxattr"):
            self.assertTrue(is_dead(record), f"{point}: {record}")  # that run's own
            self.assertNotIn(record, OWNERS.values(), point)
        if start is None:
            self.assertEqual(value, {}, point)
            return "new"
        before = plistlib.loads(self.before[0])
        del before[KEY]
        self.assertEqual(value, before, point)
        self.assertEqual(present.startswith(b"bplist00"), start.form == plistlib.FMT_BINARY, point)
        self.assertEqual(self.path.stat().st_mode & 0o7777, MODE, point)
        return "new"

    def judge_the_next_run(self, point):
        services = plistlib.loads(self.path.read_bytes())[KEY] if self.path.exists() else None
        expected = toggled(services, self.path.exists() and is_dead(self.record()))
        run = self.run_once()
        self.assertEqual(run.returncode, 0, f"{point}: {run.stderr}")
        self.assertEqual(plistlib.loads(self.path.read_bytes())[KEY], expected, point)
        self.assertEqual(is_dead(self.record()), "disk" in expected, point)
        self.assertEqual([path.name for path in self.folder.iterdir()], [self.path.name], point)


class KilledAnywhere(Case):
    def test_kill_leaves_file_whole_and_next_run_working(self):
        for name, start in STARTS.items():
            with self.subTest(name):
                self.put(start)
                outcomes, leftovers = collections.Counter(), collections.Counter()
                for point in straced.recorded(self.command, **QUIET):
                    self.put(start)
                    self.assertTrue(straced.killed_at(point, self.command, **QUIET), point)
                    outcome = self.outcome(start, point)
                    outcomes[outcome] += 1
                    leftovers.update(path.suffix for path in self.folder.iterdir())
                    self.judge_the_next_run(point)
                print(f"killed, {name}: {dict(outcomes)}, left behind: {dict(leftovers)}")
                self.assertGreater(sum(outcomes.values()), 40)
                self.assertGreater(outcomes["old"], 10)
                self.assertGreater(outcomes["new"], 3)
                self.assertGreater(leftovers[".plist-lock"], 10)
                self.assertGreater(leftovers[".plist-new"], 3)


class RefusedAnywhere(Case):
    def own_points(self):
        """Returns the calls from the first one that names the file.  Earlier calls only load the program."""
        points = straced.recorded(self.command, **QUIET)
        first = next(i for i, point in enumerate(points) if str(self.path) in point.line)
        for point in points[first:]:
            for error in point.errors:
                yield point.name, point.ordinal, error

    def test_success_means_new_and_failure_means_old(self):
        for name, start in STARTS.items():
            with self.subTest(name):
                self.put(start)
                outcomes = collections.Counter()
                for call, ordinal, error in list(self.own_points()):
                    point = f"{call} {ordinal} {error}"
                    self.put(start)
                    run = self.failing_at(call, ordinal, error)
                    self.assertIn(run.returncode, (0, 1, 2), f"{point}: {run.stderr}")
                    outcome = self.outcome(start, point, call)
                    self.assertEqual(outcome, "new" if run.returncode == 0 else "old", point)
                    outcomes[outcome] += 1
                    if error == "EINTR":
                        self.assertEqual(run.returncode, 0, f"{point}: tried again")
                    if call != "unlink":
                        self.assertFalse(Path(f"{self.path}-new").exists(), point)
                        self.assertFalse(Path(f"{self.path}-lock").exists() and run.returncode == 1, point)
                    self.judge_the_next_run(point)
                print(f"refused, {name}: {dict(outcomes)}")
                self.assertGreater(sum(outcomes.values()), 35)
                self.assertGreater(outcomes["old"], 20)
                self.assertGreater(outcomes["new"], 5)

    def failing_with(self, call, error, path):
        self.put(STARTS["without the service"])
        return self.failing_at(call, None, error, "-P", str(path))

    def test_the_reason_is_told(self):
        for call, error, path in (("fsync", "EIO", f"{self.path}-new"), ("rename", "ENOSPC", f"{self.path}-new"), ("fchmod", "EPERM", f"{self.path}-new"),
                                  ("write", "EDQUOT", f"{self.path}-new"), ("openat", "EMFILE", f"{self.path}-new"), ("close", "EIO", f"{self.path}-new"),
                                  ("fsync", "EIO", self.folder)):
            with self.subTest(f"{call} {path}"):
                run = self.failing_with(call, error, path)
                number = {"EIO": 5, "ENOSPC": 28, "EPERM": 1, "EDQUOT": 122, "EMFILE": 24}[error]
                self.assertEqual((run.returncode, run.stderr), (1, f"commitOnce: {number}\n"))

    def test_restores_the_old_file_when_folder_fsync_fails(self):
        for name, start in STARTS.items():
            with self.subTest(name):
                self.put(start)
                run = self.failing_at("fsync", None, "EIO", "-P", str(self.folder))
                self.assertEqual(run.returncode, 1)
                self.assertEqual(self.present(), self.before)
                if start:
                    self.assertEqual(self.path.stat().st_mode & 0o7777, MODE)

    def test_short_writes_are_continued(self):
        # A full disk takes a part of the bytes first: the kernel returns a short count.
        self.put(STARTS["without the service"])
        big = plistlib.dumps({KEY: [], "x": "y" * 300000})
        self.path.write_bytes(big)
        limit = 100000
        run = subprocess.run(["prlimit", f"--fsize={limit}", "sh", "-c", 'trap "" XFSZ; exec "$@"', "sh", *self.command],
                             capture_output=True, text=True, timeout=60)
        self.assertEqual((run.returncode, run.stderr), (1, "commitOnce: 27\n"))  # EFBIG, after a short write
        self.assertEqual(self.path.read_bytes(), big)
        self.assertEqual([path.name for path in self.folder.iterdir()], [self.path.name])


class CallsOfACommit(Case):
    """The order of these calls decides what a power failure leaves in the file."""

    def commit_calls(self):
        self.put(STARTS["without the service"])
        points = straced.recorded(self.command, "-y", "-P", str(self.path), "-P", f"{self.path}-new", "-P", str(self.folder), **QUIET)
        return [point._replace(line=point.line.replace(str(self.path), "FILE").replace(str(self.folder), "FOLDER")) for point in points]

    def test_syncs_data_before_rename_and_folder_after(self):
        calls = self.commit_calls()

        def only(pattern):
            found = [i for i, point in enumerate(calls) if re.match(pattern, point.line)]
            self.assertEqual(len(found), 1, f"{pattern} in {calls}")
            return found[0]
        order = [only(r"write\(\d+<FILE-new>"), only(r"fsetxattr\(\d+<FILE-new>"), only(r"fsync\(\d+<FILE-new>"), only(r"close\(\d+<FILE-new>"),
                 only(r'rename\("FILE-new", "FILE"\)'), only(r"fsync\(\d+<FOLDER>")]
        self.assertEqual(order, sorted(order), calls)

    def test_there_is_none_too_many(self):
        calls = self.commit_calls()
        counts = collections.Counter("stat" if point.name in ("newfstatat", "fstat", "stat") else point.name for point in calls)
        # Read: open, stat, read, the record, close.  Commit: the stat for owner and mode, the folder, the new file
        # with its record and the stat for its signature.
        self.assertEqual(counts, {"access": 1, "openat": 3, "stat": 3, "read": 1, "fchown": 1, "fchmod": 1, "write": 1,
                                  "fgetxattr": 1, "fsetxattr": 1,
                                  "fsync": 2, "rename": 1, "close": 3}, calls)


class TwoAtOnce(Case):
    SERVICE = "fax"  # which nobody owns: whether the other run has ended makes no difference

    @property
    def command(self):
        return [COMMIT_ONCE, str(self.path), self.SERVICE]

    def race(self, mode, seed):
        """Runs the command twice at once, each with its own delays.  Returns how many of the two committed."""
        runs, chance = [], random.Random(seed)
        for i in range(2):
            log = self.folder.with_suffix(f".log{i}")
            self.addCleanup(log.unlink, missing_ok=True)
            delays = [f"-einject={call}:delay_enter={chance.randrange(5000)}" for call in ("flock", "fsync", "rename", "unlink")]
            command = ["strace", "-qq", "-o", log, "-e", "trace=flock,fsync,rename,unlink", *delays, *self.command, *mode]
            runs.append((subprocess.Popen(command, stderr=subprocess.PIPE, text=True), log))
        for run, log in runs:
            error = run.communicate(timeout=60)[1]
            self.assertIn((run.returncode, error), ((0, ""), (1, "commitOnce: 3005\n")))
            self.assertIn("(DELAYED)", log.read_text())
        return sum(run.returncode == 0 for run, _ in runs)

    def test_with_the_lock_around_it_both_changes_count(self):
        for seed in range(ROUNDS):
            with self.subTest(seed=seed):
                self.put(STARTS["without the service"])
                self.assertEqual(self.race([], seed), 2)
                self.assertEqual(plistlib.loads(self.path.read_bytes())[KEY], ["print"])

    def test_without_it_the_later_one_is_stale(self):
        counts = collections.Counter()
        for seed in range(ROUNDS):
            with self.subTest(seed=seed):
                self.put(STARTS["without the service"])
                committed = self.race(["unlocked"], seed)
                counts[committed] += 1
                self.assertGreaterEqual(committed, 1)
                self.assertEqual(plistlib.loads(self.path.read_bytes())[KEY], ["print", self.SERVICE] if committed == 1 else ["print"])
                self.assertEqual([path.name for path in self.folder.iterdir()], [self.path.name])
        self.assertGreater(counts[1], 0, "the two never met")

    def test_waiter_proceeds_when_the_lock_holder_is_killed(self):
        self.put(STARTS["without the service"])
        holder = subprocess.Popen([*straced.injecting("fsync", "delay_enter=3000000"), *self.command])
        self.addCleanup(holder.wait)
        new = Path(f"{self.path}-new")
        deadline = time.monotonic() + 10
        while not (new.exists() and new.stat().st_size > 0):
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.01)
        waiting = subprocess.Popen(self.command)
        time.sleep(0.2)
        self.assertIsNone(waiting.poll(), "it did not wait")
        # The holder dies at the end of the delay: strace holds it until then.
        os.kill(int(Path(f"{self.path}-lock").read_text()), signal.SIGKILL)
        self.assertEqual(waiting.wait(10), 0)
        self.assertEqual(plistlib.loads(self.path.read_bytes())[KEY], ["print", self.SERVICE])


if __name__ == "__main__":
    unittest.main()
