"""Callers that hand over less than the tool would like, or go away: the clean-up happens anyway."""

import os
import plistlib
import resource
import signal
import subprocess
import time
import unittest

from toolhost import (ARGUMENTS, CLOSED, DELETED, DISABLING, ENABLING, PREFS, SCRIPTS, SHARED, SHARING, STATE,
                      WAITING, ToolCase, vector)

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
        # Nothing may be written to a file that happened to get its number, and nothing of the
        # scripts' may get into the protocol.
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

    def test_each_outcome_has_its_status_though_nobody_reads_its_line(self):
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

    def test_a_killed_caller_ends_the_share(self):
        caller = subprocess.Popen([os.environ["PELAGO_SHARE_WHILE"], self.tool, *ARGUMENTS, "sleep", "600"],
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, start_new_session=True)
        self.addCleanup(self.end, caller)
        self.wait_until(lambda: "addshare" in self.called(), "the share")
        time.sleep(0.05)  # well inside the wait, mostly; any moment must do
        caller.kill()
        self.wait_until(lambda: "rmuser" in self.called(), "the clean-up")
        self.assertEqual(self.called(), list(SCRIPTS))
        self.wait_until(lambda: not os.path.exists(f"{PREFS}-lock"), "the lock given back")
        self.assertEqual(self.services(), [])
        os.killpg(caller.pid, signal.SIGKILL)  # the command that it ran


class ExampleCaller(ToolCase):
    def run_example(self, *command, **options):
        done = subprocess.run([os.environ["PELAGO_SHARE_WHILE"], self.tool, *ARGUMENTS, *command],
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

    def test_knows_the_command_s_status_where_sigchld_was_ignored(self):
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

    def test_wants_all_its_arguments(self):
        done = subprocess.run([os.environ["PELAGO_SHARE_WHILE"], self.tool, *ARGUMENTS], capture_output=True)
        self.assertEqual((done.returncode, self.called()), (2, []))


if __name__ == "__main__":
    unittest.main()
