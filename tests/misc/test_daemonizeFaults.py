"""Daemonizing, killed at each system call of its three processes, and with calls that fail.

strace counts calls per process, so a point (name, ordinal) is a point of every process that makes that
many calls. The log shows which process was hit. A fault in one process alone, at a point that another
process reaches first, is left to daemonizeFaults_test, which runs inside all three.
"""

import errno
import os
import re
import subprocess
import sys
import tempfile
import unittest
from collections import Counter
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))
import straced  # noqa: E402

DRIVER = os.environ["DAEMONIZE_ONCE"]
PROGRAM = "/bin/true"
KEEP_STDIO, LOCK = 2, 8
FORKS = ("clone", "clone3", "fork", "vfork")
CALLER, CHILD, DAEMON = range(3)

ERRORS = straced.ERRORS | {
    "flock": ["EAGAIN", "EINTR", "ENOLCK"], "pipe": ["EMFILE", "ENFILE"], "pipe2": ["EMFILE", "ENFILE"],
    "fcntl": ["EBADF"], "wait4": ["EINTR", "ECHILD"], "setitimer": ["EINVAL"], "rt_sigaction": ["EINVAL"],
    "rt_sigprocmask": ["EINVAL"], "close_range": ["ENOSYS", "EPERM"], "prlimit64": ["EPERM"],
    "setsid": ["EPERM"], "chdir": ["EACCES", "EIO"], "dup2": ["EBUSY", "EINTR"], "ftruncate": ["EIO", "EINTR"],
    "getdents64": ["EIO"],
}
# These calls cannot fail here, or their failure does not matter; a real kernel never leaves a close undone.
NO_FAILURES = {"close", "exit_group", "getpid", "gettid", "set_robust_list", "brk", "mmap", "munmap", "execve",
               "rseq", "getrandom", "newfstatat", "fstat"}


class Case(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.pid_file = Path(folder.name) / "pid"

    def run_traced(self, strace, program=PROGRAM, flags=LOCK, **options):
        """Runs the driver under strace, which ends after all three processes have ended."""
        self.pid_file.unlink(missing_ok=True)
        return subprocess.run([*strace, DRIVER, program, str(flags), self.pid_file],
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=30, **options)

    def lines(self):
        """Returns the log as a list of (role, text)."""
        found, pids, ends = [], [], {}
        for line in straced.LOG.read_text(errors="replace").splitlines():
            pid, text = line.split(maxsplit=1)
            if pid not in ends:
                ends[pid] = None
            found.append((pid, text))
            if match := re.search(r"(?:^|\s)(?:clone3?|v?fork)\b.* = (\d+)( \(INJECTED\))?$", text):
                ends[pid] = match[1]
        pids = [found[0][0]]
        while ends.get(pids[-1]):
            pids.append(ends[pids[-1]])
        return [(pids.index(pid), text) for pid, text in found]

    def points(self, program=PROGRAM):
        """Returns the calls of each process in an undisturbed run, as {role: [(name, ordinal)]}."""
        outcome = self.run_traced(straced.tracing("-f"), program).stdout
        self.assertEqual(outcome, "started\n" if program == PROGRAM else "failed 2\n")
        counts, points, ended = Counter(), {CALLER: [], CHILD: [], DAEMON: []}, set()
        begun = {CHILD, DAEMON}
        for role, text in self.lines():
            match = re.match(r"(\w+)\(", text)
            if not match:
                continue
            counts[role, match[1]] += 1
            if str(self.pid_file) in text and match[1] == "openat":
                begun.add(role)
            if text.startswith(("write(1,", "newfstatat(1,", "fstat(1,")):
                ended.add(role)
            if role in begun - ended:
                points[role].append((match[1], counts[role, match[1]]))
            if match[1] == "execve" and role == DAEMON:
                ended.add(role)
        return points

    def has_executed(self):
        return any(role == DAEMON and re.match(r"(execve\(|<... execve resumed>).* = 0$", text) for role, text in self.lines())


class Killed(Case):
    def sweep(self, program, undisturbed):
        points = self.points(program)
        hits = Counter()
        for point in sorted({point for role in points.values() for point in role}):
            name, ordinal = point
            if name == "execve":
                continue  # the signal would hit the caller's execution first
            run = self.run_traced(straced.injecting(name, f"signal=KILL:when={ordinal}", "-f", also=FORKS), program)
            killed = {role for role, text in self.lines() if text.startswith("+++ killed by SIGKILL")}
            self.assertTrue(killed, point)
            hits.update(killed)
            if CALLER in killed:
                self.assertEqual(run.returncode, -9, point)
                continue
            self.assertEqual(run.returncode, 0, point)
            if CHILD in killed:
                self.assertEqual(run.stdout, f"failed {errno.ECHILD}\n", point)
                self.assertFalse(self.pid_file.exists(), point)
            elif point in points[DAEMON]:
                # The pipe stays empty, as after an execution.
                self.assertEqual(run.stdout, "started\n", point)
            else:
                self.assertEqual(run.stdout, undisturbed, f"{point}: only the program itself was killed")
        print(f"killed, {undisturbed.strip()}: caller {hits[CALLER]}, child {hits[CHILD]}, daemon {hits[DAEMON]}")
        self.assertGreater(hits[CALLER], 10)
        self.assertGreater(hits[CHILD], 25)
        self.assertGreater(hits[DAEMON], 5)

    def test_the_caller_returns(self):
        self.sweep(PROGRAM, "started\n")

    def test_the_caller_returns_when_the_program_is_missing(self):
        self.sweep("/missing", f"failed {errno.ENOENT}\n")


class Failing(Case):
    def test_started_means_executed(self):
        points = self.points()
        outcomes = Counter()
        for name, ordinal in sorted({point for role in points.values() for point in role}):
            self.assertTrue(name in ERRORS or name in NO_FAILURES, f"no errors are known for {name}")
            for error in ERRORS[name] if name not in NO_FAILURES else []:
                point = f"{name} {ordinal} {error}"
                run = self.run_traced(straced.injecting(name, f"error={error}:when={ordinal}", "-f",
                                                        also=("execve", *FORKS)))
                self.assertTrue(straced.was_injected(), point)
                self.assertEqual(run.returncode, 0, point)
                self.assertRegex(run.stdout, r"^(started|failed [1-9]\d*)\n$", point)
                is_started = run.stdout == "started\n"
                self.assertEqual(is_started, self.has_executed(), point)
                outcomes[is_started] += 1
                if is_started:
                    self.assertRegex(self.pid_file.read_text(), r"^\d+\n$", point)
                elif name != "flock" and "Couldn't open PID path" not in run.stderr:
                    self.assertFalse(self.pid_file.exists(), point)
                if not is_started and name != "write":  # a failed write leaves no message
                    self.assertTrue(run.stderr.startswith("Hostinfo_Daemonize: "), point)
        print(f"failing: {outcomes[True]} started, {outcomes[False]} did not")
        self.assertGreater(outcomes[True], 40)
        self.assertGreater(outcomes[False], 15)

    def failing(self, name, error, *options, **others):
        run = self.run_traced(straced.injecting(name, f"error={error}:when=1", "-f", *options), **others)
        self.assertTrue(straced.was_injected())
        return run.stdout, re.sub(r"Child \d+ ", "Child N ", run.stderr)

    def test_the_reason_is_told(self):
        def said(*lines):
            return "".join(f"Hostinfo_Daemonize: {line}\n" for line in lines)
        path, program = self.pid_file, PROGRAM
        for name, error, lines in (
                ("flock", "EAGAIN", [f"Lock held on PID path [{path}], error 11, not daemonizing."]),
                ("clone,clone3,fork", "EAGAIN", ["Couldn't fork first child, error 11."]),
                ("setsid", "EPERM", ["Couldn't create new session, error 1.", "Child N exited with error 1."]),
                ("chdir", "EACCES", ["Couldn't chdir to /, error 13.",
                                     f"Child could not exec {program}, read 4, error 13."])):
            with self.subTest(name):
                number = errno.ECHILD if name == "setsid" else getattr(errno, error)
                self.assertEqual(self.failing(name, error), (f"failed {number}\n", said(*lines)))
        for name, error, line in (
                ("ftruncate", "EIO", f"Couldn't truncate path [{path}], error 5."),
                ("write", "ENOSPC", f"Couldn't write PID to path [{path}], error 28."),
                ("fsync", "EIO", f"Couldn't flush PID to path [{path}], error 5.")):
            with self.subTest(name):
                number = getattr(errno, error)
                self.assertEqual(self.failing(name, error, "-P", path, flags=KEEP_STDIO),
                                 (f"failed {number}\n",
                                  said(line, f"Child could not exec {program}, read 4, error {number}.")))

    def test_the_reason_arrives_although_nobody_reads_the_messages(self):
        reader, writer = os.pipe()
        os.close(reader)
        self.addCleanup(os.close, writer)
        for flags in (0, KEEP_STDIO):
            # The caller's own messages must not kill it either; it ignores SIGPIPE for itself.
            run = subprocess.run(["env", "--ignore-signal=PIPE", DRIVER, "/missing", str(flags), self.pid_file],
                                 stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=writer, text=True, timeout=30)
            self.assertEqual((run.stdout, self.pid_file.exists()), (f"failed {errno.ENOENT}\n", False))

    def test_closes_only_open_descriptors_without_close_range(self):
        with open("/dev/null") as inherited:
            high = 700
            os.dup2(inherited.fileno(), high)
            self.addCleanup(os.close, high)
            run = self.run_traced(straced.injecting("close_range", "error=ENOSYS", "-f", also=["close"]),
                                  pass_fds=[high])
        self.assertEqual(run.stdout, "started\n")
        self.assertTrue(straced.was_injected())
        log = straced.LOG.read_text(errors="replace")
        self.assertEqual(log.count(f"close({high}"), 1)
        self.assertLess(log.count("close("), 100, "not one by one")


if __name__ == "__main__":
    unittest.main()
