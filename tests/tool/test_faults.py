"""The tool killed at each of its system calls, and system calls that fail under it."""

import plistlib
import subprocess
import sys
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))
import straced  # noqa: E402
from toolhost import (ARGUMENTS, CLOSED, DELETED, DISABLING, ENABLING, PREFS, SCRIPTS, SHARED, SHARING,  # noqa: E402
                      WAITING, ToolCase)

QUIET = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}


class Killed(ToolCase):
    def setUp(self):
        super().setUp()
        for name in SCRIPTS:  # what they see is not the question here
            (self.tool.parent / f"{name}.sh").write_text("#!/bin/sh\nexit 0\n")

    def test_at_every_system_call(self):
        for before in (None, ["print"], ["disk"]):
            with self.subTest(before):
                self.sweep(before)

    def sweep(self, before):
        self.write_prefs(before)
        old = self.prefs()
        on = old | {"EnabledServices": [*(before or []), "disk"]} if before != ["disk"] else old
        off = old | {"EnabledServices": before or []}
        points = straced.points([self.tool, *ARGUMENTS], **QUIET)
        self.assertEqual(self.prefs(), off)
        commit = {"fsync", "rename", "flock"}
        self.assertGreater(len(points), 80)
        self.assertEqual(commit & {name for name, _ in points}, commit if before != ["disk"] else {"flock"})
        seen = []
        for point in points:
            for path in PREFS.parent.iterdir():
                path.unlink()
            self.write_prefs(before)
            self.assertTrue(straced.killed_at(point, [self.tool, *ARGUMENTS], **QUIET), point)
            found = plistlib.loads(PREFS.read_bytes())  # torn, this would not load
            self.assertIn(found, (old, on, off), point)
            seen.append(found)
            # The next run copes with whatever lies around, and when it writes it clears it away.
            self.assertRun(self.run_tool()[::2], SHARED + DELETED, 0)
            self.assertEqual(self.prefs(), off if found in (old, off) else on, point)
            if found != on:
                self.assertEqual([path.name for path in PREFS.parent.iterdir()], [PREFS.name], point)
        for state in (old, on, off):
            self.assertIn(state, seen, "the sweep has passed every state")

    def assertRun(self, outcome, out, status):
        self.assertEqual(outcome, (out, status))


class Failing(ToolCase):
    def failing(self, names, ordinal, error):
        done = straced.failing_at(names, ordinal, error, [self.tool, *ARGUMENTS],
                                  stdin=subprocess.DEVNULL, capture_output=True, text=True)
        return done.stdout, done.stderr, done.returncode

    def test_no_child_for_the_first_script(self):
        self.assertRun(self.failing("clone,clone3,fork,vfork", 1, "EAGAIN"), "1 - failed to create user alice\n",
                       ENABLING + "fork() failed with error 11\nFailed to create user alice\n" + DISABLING, 1)
        self.assertEqual((self.called(), self.services()), ([], []))

    def test_no_child_for_the_second_script(self):
        self.assertRun(self.failing("clone,clone3,fork,vfork", 2, "EAGAIN"),
                       "1 is the sharing result (0=ok). Exiting.\n",
                       ENABLING + SHARING + "fork() failed with error 11\n" + DISABLING, 1)
        self.assertEqual((self.called(), self.services()), (["adduser", "rmuser"], []))

    def test_an_interrupted_wait_is_taken_up_again(self):
        self.script_does("addshare", "exit 3")
        self.assertRun(self.failing("wait4", 2, "EINTR"), "3 is the sharing result (0=ok). Exiting.\n",
                       ENABLING + SHARING + DISABLING, 3)

    def test_no_lock(self):
        PREFS.with_name(f"{PREFS.name}-lock").mkdir()  # which cannot be opened as a file
        refused = ("1 - Unable to lock preferences. Are you running as root?\n", "", 1)
        self.assertRun(self.run_tool(), *refused)
        PREFS.with_name(f"{PREFS.name}-lock").rmdir()
        self.assertRun(self.failing("flock", 1, "ENOLCK"), *refused)
        self.assertEqual(self.called(), [])

    def test_no_second_lock(self):
        self.assertRun(self.failing("flock", 2, "ENOLCK"), SHARED + DELETED,
                       ENABLING + SHARING + WAITING + CLOSED + "Unable to lock preferences to restore original state\n", 1)
        self.assertEqual((self.called(), self.services()), (["adduser", "addshare", "rmshare"], ["disk"]))

    def test_a_first_commit_that_cannot_be_written(self):
        before = PREFS.read_bytes()
        for call, ordinal, error in (("fsync", 1, "EIO"), ("rename", 1, "ENOSPC"), ("fsync", 2, "EIO")):
            with self.subTest((call, ordinal)):
                self.assertRun(self.failing(call, ordinal, error), "1 - Unable to enable Windows File Sharing\n",
                               ENABLING + "EnableFileSharing: error while committing preference change to disk\n", 1)
                self.assertEqual(plistlib.loads(PREFS.read_bytes()), plistlib.loads(before))
                self.assertEqual(self.called(), [])

    def test_a_second_commit_that_cannot_be_written(self):
        self.assertRun(self.failing("rename", 2, "ENOSPC"), SHARED + DELETED,
                       ENABLING + SHARING + WAITING + CLOSED + DISABLING
                       + "DisableFileSharing: error while committing preference change to disk\n"
                       + "Unable to disable Windows File Sharing\n", 1)
        self.assertEqual((self.called(), self.services()), (list(SCRIPTS), ["disk"]))


if __name__ == "__main__":
    unittest.main()
