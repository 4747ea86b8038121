"""System calls of the tool that fail, and its exact message for each."""

import plistlib
import subprocess
import sys
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))
import straced  # noqa: E402
from toolhost import (ARGUMENTS, CLOSED, DELETED, DISABLING, ENABLING, PREFS, SCRIPTS, SHARED, SHARES, SHARING,  # noqa: E402
                      STATE, WAITING, ToolCase, host_number)

NO_CHILD = f"fork() failed with error {host_number('EAGAIN')}\n"


class Failing(ToolCase):
    def failing(self, names, ordinal, error):
        done = straced.failing_at(names, ordinal, error, [self.tool, *ARGUMENTS],
                                  stdin=subprocess.DEVNULL, capture_output=True, text=True)
        return done.stdout, done.stderr, done.returncode

    def test_no_child_for_the_first_script(self):
        self.assertRun(self.failing("clone,clone3,fork,vfork", 1, "EAGAIN"), "1 - failed to create user alice\n",
                       ENABLING + NO_CHILD + "Failed to create user alice\n" + DISABLING, 1)
        self.assertEqual((self.called(), self.services()), ([], []))

    def test_no_child_for_the_second_script(self):
        self.assertRun(self.failing("clone,clone3,fork,vfork", 2, "EAGAIN"),
                       "1 is the sharing result (0=ok). Exiting.\n",
                       ENABLING + SHARING + NO_CHILD + DISABLING, 1)
        self.assertEqual((self.called(), self.services()), (["adduser", "rmuser"], []))

    def test_an_interrupted_wait_is_taken_up_again(self):
        self.script_does("addshare", "exit 3")
        self.assertRun(self.failing("wait4", 2, "EINTR"), "3 is the sharing result (0=ok). Exiting.\n",
                       ENABLING + SHARING + DISABLING, 3)

    def test_interrupted_dup2_keeps_script_output_on_stderr(self):
        for name in SCRIPTS:  # scripts that change no streams
            (SHARES / f"{name}.sh").write_text("#!/bin/sh\necho noise\n")
        said = STATE / "said"  # only the children use this path, and only before they become scripts
        with said.open("w") as err:
            done = straced.failing_at("dup2", 1, "EINTR", [self.tool, *ARGUMENTS], "-f", "-P", said, text=True,
                                      stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=err)
        self.assertRun((done.stdout, said.read_text().count("noise\n"), done.returncode), SHARED + DELETED, 4, 0)

    def test_no_lock(self):
        PREFS.with_name(f"{PREFS.name}-lock").mkdir()  # a folder cannot be opened as the lock file
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

    def test_a_file_system_without_attributes(self):
        for call, error in (("fsetxattr", "EOPNOTSUPP"), ("fsetxattr", "ENOSPC"), ("fgetxattr", "EOPNOTSUPP")):
            with self.subTest((call, error)):
                self.write_prefs(["print"])
                self.assertRun(self.failing(call, None, error), SHARED + DELETED,
                               ENABLING + SHARING + WAITING + CLOSED + DISABLING, 0)
                self.assertEqual(self.services(), ["print"])


if __name__ == "__main__":
    unittest.main()
