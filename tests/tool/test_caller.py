"""Callers that close streams, set limits or die: the tool cleans up in every case."""

import os
import plistlib
import re
import resource
import shutil
import signal
import subprocess
import time
import unittest
from pathlib import Path

from toolhost import (ARGUMENTS, CLOSED, DELETED, DISABLING, ENABLING, PREFS, SCRIPT, SCRIPTS, SHARED, SHARES,
                      SHARING, STATE, WAITING, ToolCase, vector)

WHOLE_ERR = ENABLING + SHARING + WAITING + CLOSED + DISABLING


class InheritedState(ToolCase):
    def assertRestored(self):
        self.assertEqual(self.called(), list(SCRIPTS))
        self.assertEqual(list((STATE / "calls.closed").iterdir()), [], "every script has its three streams")
        self.assertEqual(self.prefs(), self.OTHER_KEYS | {"EnabledServices": []})

    def test_sigchld_ignored(self):
        def ignore():
            signal.signal(signal.SIGCHLD, signal.SIG_IGN)
        self.script_does("rmshare", "exit 5")
        self.assertRun(self.run_tool(preexec_fn=ignore), SHARED
                       + "5 is the delete share result (0=success, nonzero=failure).\n", WHOLE_ERR, 5)
        self.assertRestored()

    def test_sigchld_ignored_and_a_failing_script(self):
        self.script_does("adduser", "exit 1")
        self.assertEqual(self.run_tool(preexec_fn=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN)),
                         ("1 - failed to create user alice\n",
                          ENABLING + "Failed to create user alice\n" + DISABLING, 1))

    def test_stderr_closed(self):
        # No other file may get the number of standard error and be written to, and no output of a
        # script may get into the protocol.
        self.script_does("adduser", "echo noise && echo more >&2 || exit 9")
        self.assertRun(self.run_tool(stderr=None, preexec_fn=lambda: os.close(2)), SHARED + DELETED, None, 0)
        self.assertRestored()

    def test_stdin_closed(self):
        self.assertRun(self.run_tool(stdin=None, preexec_fn=lambda: os.close(0)),
                       SHARED + DELETED, WHOLE_ERR, 0)
        self.assertRestored()

    def test_stdin_not_readable(self):
        with open("/dev/null", "wb") as unreadable:
            self.assertRun(self.run_tool(stdin=unreadable), SHARED + DELETED, WHOLE_ERR, 0)
        self.assertRestored()

    def test_stdout_closed(self):
        self.assertRun(self.run_tool(stdout=None, preexec_fn=lambda: os.close(1)), None, WHOLE_ERR, 0)
        self.assertRestored()

    def test_everything_closed(self):
        process = self.start(stdin=None, stdout=None, stderr=None,
                             preexec_fn=lambda: os.closerange(0, 3))
        self.assertEqual(process.wait(timeout=30), 0)
        self.assertRestored()

    def test_usage_error_with_everything_closed(self):
        process = self.start("one", stdin=None, stdout=None, stderr=None,
                             preexec_fn=lambda: os.closerange(0, 3))
        self.assertEqual(process.wait(timeout=30), 2)

    def test_full_disk_as_stdout(self):
        with open("/dev/full", "wb") as full:
            self.assertRun(self.run_tool(stdout=full), None, WHOLE_ERR, 0)
        self.assertRestored()

    def test_exit_status_stays_right_without_a_usable_stdout(self):
        services_are_text = plistlib.dumps({"EnabledServices": "disk"})
        outcomes = {
            "usage": (lambda: None, ["one"], 2),
            "no preferences": (PREFS.unlink, ARGUMENTS, 1),
            "unexpected preferences": (lambda: PREFS.write_bytes(services_are_text), ARGUMENTS, 1),
            "no user": (lambda: self.script_does("adduser", "exit 1"), ARGUMENTS, 1),
            "no share": (lambda: self.script_does("addshare", "exit 7"), ARGUMENTS, 7),
            "no removal": (lambda: self.script_does("rmshare", "exit 5"), ARGUMENTS, 5),
        }
        for name, (prepare, arguments, status) in outcomes.items():
            for stdout in ("/dev/full", None):
                with self.subTest(name, stdout=stdout), open(stdout or "/dev/null", "wb") as stream:
                    self.setUp()
                    prepare()
                    close = (lambda: os.close(1)) if stdout is None else None
                    self.assertEqual(self.run_tool(*arguments, stdout=stream, preexec_fn=close)[2], status)
                    self.assertTrue(not PREFS.exists() or self.services() in (None, [], "disk"), "as it was")

    def test_full_pipe_as_stdout_is_waited_for(self):
        read_end, write_end = os.pipe()
        os.set_blocking(write_end, False)
        filler = b"#" * 65536
        size = 0
        try:
            while True:
                size += os.write(write_end, filler)
        except BlockingIOError:
            pass
        os.set_blocking(write_end, True)
        process = self.start(stdout=write_end)
        os.close(write_end)
        self.wait_until(lambda: "addshare" in self.called(), "the share")
        with self.assertRaises(subprocess.TimeoutExpired):
            process.wait(timeout=0.5)
        with os.fdopen(read_end, "rb") as reader:
            self.assertEqual(len(reader.read(size)), size)
            self.assertEqual(reader.readline().decode(), SHARED)
            process.stdin.close()
            self.assertEqual(reader.read().decode(), DELETED)
        self.assertEqual(process.wait(timeout=30), 0)
        self.assertRestored()

    def test_a_limit_on_the_size_of_files(self):
        before = PREFS.read_bytes()
        self.assertRun(self.run_tool(preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (100, 100))),
                       "1 - Unable to enable Windows File Sharing\n",
                       ENABLING + "EnableFileSharing: error while committing preference change to disk\n", 1)
        self.assertEqual(PREFS.read_bytes(), before)
        self.assertEqual(os.listdir(PREFS.parent), [PREFS.name])

    def test_a_limit_that_comes_while_sharing(self):
        process = self.start()
        self.wait_until_shared(process)
        resource.prlimit(process.pid, resource.RLIMIT_FSIZE, (100, 100))
        out, err, status = self.finish(process)
        self.assertEqual((out, status), (DELETED, 1))
        self.assertTrue(err.endswith("Unable to disable Windows File Sharing\n"), err)
        self.assertEqual(self.called(), list(SCRIPTS), "the user goes all the same")


# Writes the environment of its own process to files in the folder $NOTES.
OBSERVER = """#!/bin/sh
cat "/proc/$$/environ" >"$NOTES/environment"
readlink "/proc/$$/cwd" "/proc/$$/root" >"$NOTES/folders"
cat "/proc/$$/limits" "/proc/$$/oom_score_adj" "/proc/$$/personality" "/proc/$$/timerslack_ns" >"$NOTES/limits"
# Without the fields that differ in each process, its use of memory and time, and what a shell blocks for a moment.
sed -E '/^(Name|Pid|Tgid|Ngid|PPid|NStgid|NSpid|NSpgid|NSsid|State|FDSize|SigQ|SigPnd|ShdPnd|SigBlk|Vm|Rss|Hugetlb|Threads|.*ctxt_switches)/d' \
    "/proc/$$/status" >"$NOTES/status"
cut -d ' ' -f 5-8,18,19,40,41 "/proc/$$/stat" >"$NOTES/session" # group, session, terminal, its group, priorities
for fd in "/proc/$$/fd/"*; do
    case $(readlink "$fd") in "$0") ;; *) readlink "$fd" && grep flags "/proc/$$/fdinfo/${fd##*/}" ;; esac
done >"$NOTES/descriptors"
exec python3 -c 'import signal, sys
print([signal.getitimer(timer) != (0, 0) for timer in (signal.ITIMER_REAL, signal.ITIMER_VIRTUAL, signal.ITIMER_PROF)],
      file=open(sys.argv[1], "w"))' "$NOTES/timers"
"""


def unusual_world():
    """Changes this process's limits, signals and priority to unusual values."""
    os.umask(0o127)
    os.nice(3)
    resource.setrlimit(resource.RLIMIT_NOFILE, (200, 300))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 1000))
    resource.setrlimit(resource.RLIMIT_STACK, (4 << 20, 5 << 20))
    for number in (signal.SIGUSR1, signal.SIGHUP, signal.SIGINT, signal.SIGTTOU):
        signal.signal(number, signal.SIG_IGN)
    os.sched_setaffinity(0, {min(os.sched_getaffinity(0))})
    with open("/proc/self/oom_score_adj", "w") as file:
        file.write("200")


class ScriptsWorld(ToolCase):
    """A script inherits everything from the tool's caller, as if the caller had started it."""

    # Variables that a careful program might drop, and one whose value is not text.
    VARIABLES = {"PATH": "/usr/bin:/bin:/nonexistent", "LC_ALL": "tr_TR.UTF-8", "LANG": "xx", "TZ": "Asia/Kathmandu",
                 "LD_LIBRARY_PATH": "/nonexistent", "LD_BIND_NOT": "1", "TMPDIR": "/nonexistent", "IFS": ":", "HOME": "",
                 "TARVEX_LOCATION_ROOT_FULLPATH": "/nonexistent", "": "no name", "ODD": os.fsdecode(b"\xff\n=")}

    def setUp(self):
        super().setUp()
        (STATE / "folder").mkdir()
        ends = os.pipe()
        kept = *ends, os.dup2(ends[1], 150)
        for fd in kept:
            self.addCleanup(os.close, fd)
        self.err = self.enterContext((STATE / "err").open("a"))
        self.world = {"cwd": STATE / "folder", "preexec_fn": unusual_world, "pass_fds": kept,
                      "stdin": subprocess.DEVNULL, "stderr": self.err}

    def seen(self, observer, **options):
        """Runs the tool with the observer in a script's place, and returns what the observer wrote."""
        notes = STATE / "notes"
        notes.mkdir()
        observer.write_text(OBSERVER)
        observer.chmod(0o755)
        self.run_tool(env=self.VARIABLES | {"NOTES": str(notes)}, **self.world, **options)
        seen = {path.name: path.read_text(errors="surrogateescape") for path in notes.iterdir()}
        shutil.rmtree(notes)
        return seen

    def test_scripts_inherit_what_the_tool_inherited(self):
        tool, self.tool = self.tool, STATE / "observer"
        expected = self.seen(self.tool, stdout=self.err)  # as a script's standard output
        self.tool = tool
        # The tool ignores only SIGPIPE and SIGXFSZ, so that it can clean up.
        ignored = 1 << signal.SIGPIPE - 1 | 1 << signal.SIGXFSZ - 1
        expected["status"] = re.sub(r"(?<=SigIgn:\t)\w+", lambda found: f"{int(found[0], 16) | ignored:016x}",
                                    expected["status"])
        self.assertEqual(len(expected), 7)
        self.assertIn("LD_LIBRARY_PATH=/nonexistent", expected["environment"])
        self.assertEqual(expected["timers"], "[False, False, False]\n")
        for name in SCRIPTS:
            with self.subTest(name):
                self.assertEqual(self.seen(SHARES / f"{name}.sh"), expected)
                (SHARES / f"{name}.sh").write_text(SCRIPT)

    def test_a_relative_password_file_is_the_caller_s(self):
        (STATE / "folder/password").write_text("secret")
        for name in ("adduser", "addshare"):
            self.script_does(name, '[ "$(cat password)" = secret ] || exit 9')
        self.assertEqual(self.run_tool("/srv/a", "a", "alice", "password", "rw", cwd=STATE / "folder")[2], 0)

    def test_ignores_the_status_of_the_callers_child(self):
        self.script_does("rmshare", "exit 3")
        caller = ["sh", "-c", '(exit 9) & exec "$0" "$@"', self.tool, *ARGUMENTS]
        done = subprocess.run(caller, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60)
        self.assertEqual((done.stdout, done.returncode),
                         (SHARED + "3 is the delete share result (0=success, nonzero=failure).\n", 3))


class DeadCaller(ToolCase):
    def test_stdout_without_a_reader(self):
        read_end, write_end = os.pipe()
        os.close(read_end)
        process = self.start(stdout=write_end)
        os.close(write_end)
        out, err, status = self.finish(process)
        self.assertEqual((err, status), (WHOLE_ERR, 0))
        self.assertEqual(self.called(), list(SCRIPTS))

    def test_all_pipes_gone_while_sharing(self):
        self.script_does("rmshare", "echo some complaint")
        process = self.start()
        self.wait_until_shared(process)
        for stream in (process.stdout, process.stderr, process.stdin):
            stream.close()
        self.assertEqual(process.wait(timeout=30), 0)
        self.assertEqual([call.argv for call in self.calls()], [vector(name) for name in SCRIPTS])
        self.assertEqual(self.services(), [])


class ExampleCaller:
    """The example callers, in C++ and in Python."""

    def run_example(self, *command, **options):
        done = subprocess.run([*self.CALLER, self.tool, *ARGUMENTS, *command],
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=30, text=True, **options)
        return done.returncode, done.stdout.splitlines()

    def test_shares_while_its_command_runs(self):
        status, lines = self.run_example("cp", PREFS, "/tmp/toolhost/during")
        self.assertEqual(status, 0)
        self.assertEqual([line for line in lines if line.startswith("stdout| ")],
                         ["stdout| " + line for line in (SHARED + DELETED).splitlines()])
        self.assertEqual([line for line in lines if line.startswith("stderr| ")],
                         ["stderr| " + line for line in WHOLE_ERR.splitlines()])
        with open("/tmp/toolhost/during") as file:
            self.assertIn("disk", file.read())

    def test_passes_the_command_s_status_on(self):
        self.assertEqual(self.run_example("sh", "-c", "exit 7")[0], 7)
        self.assertEqual(self.run_example("/nonexistent")[0], 127)
        self.assertEqual(self.services(), [])

    def test_returns_the_command_status_with_sigchld_ignored(self):
        def ignore():
            signal.signal(signal.SIGCHLD, signal.SIG_IGN)
        self.assertEqual(self.run_example("sh", "-c", "exit 7", preexec_fn=ignore)[0], 7)
        self.assertEqual(self.called(), list(SCRIPTS))

    def test_fails_with_the_tool(self):
        self.script_does("addshare", "exit 3")
        status, lines = self.run_example("touch", "/tmp/toolhost/ran")
        self.assertEqual(status, 1)
        self.assertIn("stdout| 3 is the sharing result (0=ok). Exiting.", lines)
        self.assertFalse(os.path.exists("/tmp/toolhost/ran"))
        self.script_does("addshare", "exit 0")
        self.script_does("rmuser", "exit 1")
        self.assertEqual(self.run_example("true")[0], 1)

    def test_takes_nothing_on_standard_error_for_the_protocol(self):
        self.script_does("adduser", f"echo '{SHARED.strip()}'; echo '{SHARED.strip()}'; exit 1")
        status, _ = self.run_example("touch", "/tmp/toolhost/ran")
        self.assertEqual(status, 1)
        self.assertFalse(os.path.exists("/tmp/toolhost/ran"))

    def test_requires_all_its_arguments(self):
        done = subprocess.run([*self.CALLER, self.tool, *ARGUMENTS], capture_output=True)
        self.assertEqual((done.returncode, self.called()), (2, []))

    def test_fails_without_a_tool(self):
        done = subprocess.run([*self.CALLER, "/nonexistent", *ARGUMENTS, "true"], capture_output=True, text=True)
        self.assertEqual(done.returncode, 1)
        self.assertIn("/nonexistent: No such file or directory\n", done.stdout + done.stderr)

    def test_keeps_reading_when_its_own_output_fails(self):
        with open("/dev/full", "wb") as full:
            done = subprocess.run([*self.CALLER, self.tool, *ARGUMENTS, "sh", "-c", "exit 7"], stdout=full, timeout=30)
        self.assertEqual((done.returncode, self.called()), (7, list(SCRIPTS)))

    def test_works_with_its_standard_streams_closed(self):
        is_shared = "sleep 0.3; ls /tmp/toolhost/calls | grep -q rmshare || exit 7"
        process = subprocess.Popen([*self.CALLER, self.tool, *ARGUMENTS, "sh", "-c", is_shared],
                                   preexec_fn=lambda: os.closerange(0, 3))
        self.addCleanup(self.end, process)
        self.assertEqual((process.wait(timeout=30), self.called()), (7, list(SCRIPTS)))

    def test_a_killed_caller_ends_the_share(self):
        caller = subprocess.Popen([*self.CALLER, self.tool, *ARGUMENTS, "sleep", "600"],
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, start_new_session=True)
        self.addCleanup(self.end, caller)
        self.wait_until(lambda: "addshare" in self.called(), "the share")
        time.sleep(0.05)  # mostly while the tool waits; any moment must work
        caller.kill()
        self.wait_until(lambda: "rmuser" in self.called(), "the clean-up")
        self.assertEqual(self.called(), list(SCRIPTS))
        self.wait_until(lambda: not os.path.exists(f"{PREFS}-lock"), "the lock given back")
        self.assertEqual(self.services(), [])
        os.killpg(caller.pid, signal.SIGKILL)  # the command that the caller ran


class CallerInCpp(ExampleCaller, ToolCase):
    CALLER = [os.environ["PELAGO_SHARE_WHILE"]]


class CallerInPython(ExampleCaller, ToolCase):
    CALLER = ["python3", Path(__file__).resolve().parents[2] / "examples/shareWhile.py"]


if __name__ == "__main__":
    unittest.main()
