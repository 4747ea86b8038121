"""Whole sessions on a Mac: the tool as it is built for macOS, and the share scripts for a Mac.

The tool's machine code runs in the runner; the Mac that the scripts change is the model of
tests/scripts/macos.  The preferences are those of platform/linux: what a Mac makes of them when the tool is
killed is not seen here.
"""

import os
import plistlib
import re
import shutil
import signal
import subprocess
import sys
import threading
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[3]
sys.path[:0] = [str(ROOT / "tests/scripts/macos"), str(ROOT / "tests/tool")]
import machost  # noqa: E402
from machost import HANG, SHARES, MacTest  # noqa: E402
from toolhost import (CLOSED, DELETED, DISABLING, ENABLING, PREFS, SHARED, WAITING, host_number,  # noqa: E402
                      lock_preferences)

TOOL = Path(SHARES) / "pelagoShareTool"
OTHER_KEYS = {"NetBIOSName": "HOST"}
host = None


def setUpModule():
    global host  # pylint: disable=global-statement
    host = machost.set_up()
    shutil.copy(os.environ["PELAGO_TOOL"], TOOL)
    PREFS.parent.mkdir(parents=True, exist_ok=True)


def is_call(name, *words):
    """Whether a call is of this program and has these words."""
    return lambda call: call.name == name and all(word in call.args for word in words)


ADDS_USER = is_call("dscl", "-create", "/Users/alice")
ADDS_SHARE = is_call("sharing", "-a")
REMOVES_SHARE = is_call("sharing", "-r")
REMOVES_USER = is_call("dscl", "-delete", "/Users/alice")


class SessionTest(MacTest):
    """A Mac without sharing, and a tool that has not been started."""

    def new_mac(self):
        super().new_mac()
        self.write_prefs()
        self.before = host.snapshot()

    @staticmethod
    def write_prefs(**services):
        PREFS.write_bytes(plistlib.dumps(OTHER_KEYS | services))

    def prefs(self):
        return plistlib.loads(PREFS.read_bytes())

    def begin(self, user="alice", share="Docs"):
        tool = subprocess.Popen([TOOL, self.folder, share, user, self.password_file, "rw"], stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, start_new_session=True)
        self.addCleanup(self.forget, tool)
        return tool

    @staticmethod
    def forget(tool):
        if tool.poll() is None:
            os.killpg(tool.pid, signal.SIGKILL)
        tool.wait()
        for stream in (tool.stdin, tool.stdout, tool.stderr):
            stream.close()

    def end(self, tool, line=b""):
        out, err = tool.communicate(line, timeout=HANG)
        return out.decode(), err.decode(), tool.returncode

    def run_session(self, **names):
        return self.end(self.begin(**names))

    def fail_at(self, is_the_call, times=1000):
        """Has each such call fail, or the first ones."""
        left = [times]

        def fail(call):
            fails = left[0] > 0 and is_the_call(call)
            left[0] -= fails
            number = len(host.calls) + 1
            host.fault = (number, number, "refuse") if fails else None
        host.hook = fail

    def sharing(self):
        return f"Sharing {self.folder} as Docs\n"

    def assert_said(self, outcome, out, err, status):
        """The protocol to the byte; of standard error what is the tool's own, without the scripts' reasons."""
        own = re.sub(r"(?m)^(?:(?:add|rm)(?:user|share)\.sh: .*|\w+: out of order)\n", "", outcome[1])
        self.assertEqual((outcome[0], own, outcome[2]), (out, err, status), outcome[1])


class Whole(SessionTest):
    def test_closed_pipe_ends_and_undoes_the_session(self):
        tool = self.begin()
        self.assertEqual(tool.stdout.readline().decode(), SHARED)
        self.assertEqual(list(host.mac.records["SharePoints"]), ["Docs"])
        self.assertEqual(list(host.mac.nt_hashes), ["alice"])
        self.assertEqual(self.prefs(), OTHER_KEYS | {"EnabledServices": ["disk"]})
        self.assertEqual(self.end(tool),
                         (DELETED, ENABLING + self.sharing() + WAITING + CLOSED + DISABLING, 0))
        self.assert_unchanged(self.before)
        self.assertEqual(self.prefs(), OTHER_KEYS | {"EnabledServices": []})

    def test_a_line_ends_it_as_well(self):
        tool = self.begin()
        self.assertEqual(tool.stdout.readline().decode(), SHARED)
        self.assertEqual(self.end(tool, b"\n"), (
            DELETED, ENABLING + self.sharing() + WAITING
            + "tool deleting share because we received '\n'." + DISABLING, 0))
        self.assert_unchanged(self.before)

    def test_with_the_service_on(self):
        self.write_prefs(EnabledServices=["print", "disk"])
        self.assertEqual(self.run_session(), (SHARED + DELETED, self.sharing() + WAITING + CLOSED, 0))
        self.assertEqual(self.prefs(), OTHER_KEYS | {"EnabledServices": ["print", "disk"]})
        self.assert_unchanged(self.before)

    def test_two_at_once(self):
        first = self.begin()
        self.assertEqual(first.stdout.readline().decode(), SHARED)
        second = self.begin("carol", "More")
        self.assertEqual(second.stdout.readline().decode(), SHARED)
        self.assertEqual(sorted(host.mac.records["SharePoints"]), ["Docs", "More"])
        self.assertEqual(self.end(second)[2], 0)
        self.assertEqual(list(host.mac.records["SharePoints"]), ["Docs"])
        self.assertEqual(self.end(first)[2], 0)
        self.assert_unchanged(self.before)

    def test_a_living_session_s_user_is_refused(self):
        first = self.begin()
        self.assertEqual(first.stdout.readline().decode(), SHARED)
        self.assert_said(self.run_session(share="More"), "1 - failed to create user alice\n",
                         "Failed to create user alice\n", 1)
        self.assertEqual(list(host.mac.records["SharePoints"]), ["Docs"])
        self.assertEqual(self.end(first)[2], 0)
        self.assert_unchanged(self.before)


class Failing(SessionTest):
    """Each script fails, and each step of the tool's before them."""

    def test_no_preferences(self):
        PREFS.unlink()
        self.assertEqual(self.run_session(), (
            f"1 - cannot find Samba preferences file {PREFS}.\n", f"Samba prefs file {PREFS} not found, exiting.\n", 1))
        self.assertEqual(host.calls, [])

    def test_no_lock(self):
        lock = PREFS.with_name(f"{PREFS.name}-lock")
        lock.mkdir()
        self.addCleanup(lock.rmdir)
        self.assertEqual(self.run_session(),
                         ("1 - Unable to lock preferences. Are you running as root?\n", "", 1))
        self.assertEqual(host.calls, [])

    def test_waits_for_the_lock(self):
        holder = lock_preferences()
        self.addCleanup(Path(holder.name).unlink, missing_ok=True)
        tool = self.begin()
        with self.assertRaises(subprocess.TimeoutExpired):
            tool.wait(0.3)
        self.assertEqual(host.calls, [])
        holder.close()
        self.assertEqual(self.end(tool)[2], 0)

    def test_services_that_are_no_array(self):
        self.write_prefs(EnabledServices="disk")
        self.assertEqual(self.run_session(), (
            "1 - Unable to determine Windows File Sharing capability\n",
            "IsFileSharingEnabled result of 'EnabledServices' is not of type CFArrayRef\n", 1))
        self.assertEqual(host.calls, [])

    def test_adding_the_user(self):
        self.fail_at(ADDS_USER)
        self.assert_said(self.run_session(), "1 - failed to create user alice\n",
                         ENABLING + "Failed to create user alice\n" + DISABLING, 1)
        self.assert_unchanged(self.before)
        self.assertEqual(self.prefs(), OTHER_KEYS | {"EnabledServices": []})

    def test_adding_the_share(self):
        self.fail_at(ADDS_SHARE)
        self.assert_said(self.run_session(), "1 is the sharing result (0=ok). Exiting.\n",
                         ENABLING + self.sharing() + DISABLING, 1)
        self.assert_unchanged(self.before)

    def test_adding_the_share_and_removing_the_user(self):
        self.fail_at(lambda call: ADDS_SHARE(call) or REMOVES_USER(call))
        self.assert_said(self.run_session(), "1 is the sharing result (0=ok). Exiting.\n",
                         ENABLING + self.sharing() + DISABLING + "Failed to delete user alice\n", 1)
        self.assertEqual(host.mac.records["SharePoints"], {})

    def test_removing_the_share(self):
        removed = "1 is the delete share result (0=success, nonzero=failure).\n"
        ended = ENABLING + self.sharing() + WAITING + CLOSED + DISABLING
        self.fail_at(REMOVES_SHARE, times=1)
        self.assert_said(self.run_session(), SHARED + removed, ended, 1)
        self.assert_unchanged(self.before)  # the user's removal takes the share along
        self.fail_at(REMOVES_SHARE)
        self.assert_said(self.run_session(), SHARED + removed, ended + "Failed to delete user alice\n", 1)
        self.assertEqual(list(host.mac.records["SharePoints"]), ["Docs"])

    def test_removing_the_user(self):
        self.fail_at(REMOVES_USER)
        self.assert_said(self.run_session(), SHARED + DELETED,
                         ENABLING + self.sharing() + WAITING + CLOSED + DISABLING + "Failed to delete user alice\n", 1)
        self.assertEqual(host.mac.records["SharePoints"], {})

    def test_the_second_lock(self):
        tool = self.begin()
        self.assertEqual(tool.stdout.readline().decode(), SHARED)
        lock = PREFS.with_name(f"{PREFS.name}-lock")
        lock.mkdir()
        self.addCleanup(lock.rmdir)
        self.assertEqual(self.end(tool), (
            DELETED, ENABLING + self.sharing() + WAITING + CLOSED
            + "Unable to lock preferences to restore original state\n", 1))
        self.assertEqual(self.prefs(), OTHER_KEYS | {"EnabledServices": ["disk"]})
        self.assertIn("alice", host.mac.nt_hashes)

    def test_no_child_for_a_script(self):
        done = subprocess.run(["strace", "-o", "/dev/null", "-e", "trace=clone,clone3,fork,vfork", "-e",
                               "inject=clone,clone3,fork,vfork:error=EAGAIN:when=1", TOOL, self.folder, "Docs", "alice",
                               self.password_file, "rw"], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=HANG, check=False)
        self.assertEqual((done.stdout, done.stderr, done.returncode), (
            "1 - failed to create user alice\n",
            ENABLING + f"fork() failed with error {host_number('EAGAIN')}\nFailed to create user alice\n" + DISABLING, 1))
        self.assert_unchanged(self.before)


class Killed(SessionTest):
    """The tool and its script die at a call; the next session clears what they left."""

    def kill_at(self, number):
        """Kills a session once its call of this number has been answered; whether it came to that."""
        reached, go = threading.Event(), threading.Event()

        def stop(_):
            if len(host.calls) == number and not reached.is_set():
                reached.set()
                go.wait(HANG)
        host.after_hook = stop
        tool = self.begin()
        tool.stdin.close()
        came = reached.wait(HANG)
        os.killpg(tool.pid, signal.SIGKILL)
        tool.wait()
        go.set()
        host.after_hook = None
        return came

    def test_at_every_change(self):
        saved = host.save()
        self.assertEqual(self.run_session()[2], 0)
        points = [number for number, call in enumerate(host.calls, 1) if call.changes]
        self.assertGreater(len(points), 20)
        for number in points:
            with self.subTest(number=number):
                host.restore(saved)
                self.write_prefs()
                self.assertTrue(self.kill_at(number))
                self.assertEqual((self.run_session()[0]), SHARED + DELETED)
                self.assert_unchanged(self.before)

    def test_while_it_waits(self):
        tool = self.begin()
        self.assertEqual(tool.stdout.readline().decode(), SHARED)
        tool.kill()
        tool.wait()
        self.assertEqual(list(host.mac.records["SharePoints"]), ["Docs"])
        self.assertEqual(self.run_session(user="carol", share="More")[0], SHARED + DELETED)
        self.assertEqual(host.mac.records["SharePoints"], {}, "the dead one's share went, too")
        self.assertEqual(self.run_session()[0], SHARED + DELETED)
        self.assert_unchanged(self.before)


if __name__ == "__main__":
    unittest.main()
