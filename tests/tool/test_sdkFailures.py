"""The tool when an SDK call fails that rarely fails on a real system.

The tool's own objects are linked with stand-ins that fail on request and record each call.
"""

import os
import unittest

from toolhost import (CLOSED, DELETED, DISABLING, ENABLING, PREFS, SCRIPTS, SHARED, SHARING, STATE,
                      WAITING, ToolCase)

UNABLE_TO_ENABLE = "1 - Unable to enable Windows File Sharing\n"
UNABLE_TO_DISABLE = "Unable to disable Windows File Sharing\n"
RELEASE = ["CFRelease of the session"]
START = ["Location_Init shareTool", "Unicode_Init"]
LOOK = START + [f"access {PREFS} to read"]
CREATE = LOOK + ["SCPreferencesCreate", "  as pelagoShareTool", f"  on {PREFS}"]
LOCK = ["SCPreferencesLock", "  waiting"]
ARRAY_RELEASE = ["CFRelease of an array"]
OPEN = CREATE + LOCK + ["SCPreferencesGetValue"]
ENABLE = OPEN + ["SCPreferencesGetValue", "CFArrayCreateMutable", "SCPreferencesSetValue",
                 "SCPreferencesCommitChanges"] + ARRAY_RELEASE + ["SCPreferencesUnlock"]
COPY = ["SCPreferencesGetValue", "CFArrayCreateMutableCopy"]
SET = ["SCPreferencesSetValue"]
COMMIT = ["SCPreferencesCommitChanges"]
UNLOCK = ["SCPreferencesUnlock"]


class ScriptedCase(ToolCase):
    def setUp(self):
        super().setUp()
        self.install(os.environ["PELAGO_SCRIPTED_TOOL"])

    def run_failing(self, *calls):
        environment = os.environ | {"PELAGO_SDK_FAIL": " ".join(calls), "PELAGO_SDK_LOG": str(STATE / "log")}
        return self.run_tool(env=environment)

    def assertCalls(self, expected):
        self.assertEqual((STATE / "log").read_text().splitlines(), expected)


class NothingFails(ScriptedCase):
    def test_the_calls_of_a_session(self):
        self.assertEqual(self.run_failing(),
                         (SHARED + DELETED, ENABLING + SHARING + WAITING + CLOSED + DISABLING, 0))
        self.assertCalls(ENABLE + LOCK + COPY + SET + COMMIT + ARRAY_RELEASE + UNLOCK + RELEASE)

    def test_the_calls_of_a_session_with_sharing_on(self):
        self.write_prefs(["disk"])
        self.assertEqual(self.run_failing(), (SHARED + DELETED, SHARING + WAITING + CLOSED, 0))
        self.assertCalls(OPEN + UNLOCK + LOCK + UNLOCK + RELEASE)

    def test_no_second_lock_after_a_failed_script(self):
        for script, out, err in (
                ("adduser", "1 - failed to create user alice\n", ENABLING + "Failed to create user alice\n"),
                ("addshare", "1 is the sharing result (0=ok). Exiting.\n", ENABLING + SHARING)):
            with self.subTest(script):
                self.setUp()
                self.script_does(script, "exit 1")
                self.assertEqual(self.run_failing(), (out, err + DISABLING, 1))
                self.assertCalls(ENABLE + COPY + SET + COMMIT + ARRAY_RELEASE + UNLOCK + RELEASE)


class BeforeAnythingElse(ScriptedCase):
    """The tool first counts its arguments, then initialises the library, then opens the preferences."""

    def test_usage_error_makes_no_sdk_call(self):
        for count in (0, 4, 6):
            with self.subTest(count):
                environment = os.environ | {"PELAGO_SDK_LOG": str(STATE / "log")}
                self.assertEqual(self.finish(self.start_with(["a"] * count, env=environment))[2], 2)
                self.assertFalse((STATE / "log").exists())

    def test_the_preferences_are_looked_for_last(self):
        PREFS.unlink()
        self.assertEqual(self.run_failing()[2], 1)
        self.assertCalls(LOOK)


class BeforeTheFirstScript(ScriptedCase):
    def fails(self, call, out, err, calls):
        before = PREFS.read_bytes()
        self.assertEqual(self.run_failing(call), (out, err, 1))
        self.assertEqual(self.called(), [], "no script runs")
        self.assertEqual(PREFS.read_bytes(), before)
        self.assertCalls(calls)

    def test_create(self):
        self.fails("SCPreferencesCreate:1", "1 - Failure reported by SCPreferencesCreate\n", "",
                   LOOK + ["SCPreferencesCreate fails"])

    def test_first_lock(self):
        self.fails("SCPreferencesLock:1", "1 - Unable to lock preferences. Are you running as root?\n", "",
                   CREATE + ["SCPreferencesLock fails"] + RELEASE)

    def test_services_no_array_at_the_check(self):
        self.fails("SCPreferencesGetValue:1", "1 - Unable to determine Windows File Sharing capability\n",
                   "IsFileSharingEnabled result of 'EnabledServices' is not of type CFArrayRef\n",
                   CREATE + LOCK + ["SCPreferencesGetValue fails"] + UNLOCK + RELEASE)

    def test_services_no_array_when_enabling(self):
        self.fails("SCPreferencesGetValue:2", UNABLE_TO_ENABLE,
                   ENABLING + "EnableFileSharing: EnabledServicesKey has unexpected non-array type\n",
                   OPEN + ["SCPreferencesGetValue fails"] + UNLOCK + RELEASE)

    def test_new_array(self):
        self.fails("CFArrayCreateMutable:1", UNABLE_TO_ENABLE,
                   ENABLING + "EnableFileSharing: Unable to allocate mutable array for enabled services\n",
                   OPEN + ["SCPreferencesGetValue", "CFArrayCreateMutable fails"] + UNLOCK + RELEASE)

    def test_first_set(self):
        self.fails("SCPreferencesSetValue:1", UNABLE_TO_ENABLE,
                   ENABLING + "EnableFileSharing: error while enabling file sharing\n",
                   OPEN + ["SCPreferencesGetValue", "CFArrayCreateMutable", "SCPreferencesSetValue fails"]
                   + ARRAY_RELEASE + UNLOCK + RELEASE)

    def test_first_commit(self):
        self.fails("SCPreferencesCommitChanges:1", UNABLE_TO_ENABLE,
                   ENABLING + "EnableFileSharing: error while committing preference change to disk\n",
                   OPEN + ["SCPreferencesGetValue", "CFArrayCreateMutable", "SCPreferencesSetValue",
                           "SCPreferencesCommitChanges fails"] + ARRAY_RELEASE + UNLOCK + RELEASE)


class AfterTheShare(ScriptedCase):
    def fails(self, call, message, calls):
        self.assertEqual(self.run_failing(call), (
            SHARED + DELETED, ENABLING + SHARING + WAITING + CLOSED + DISABLING
            + f"DisableFileSharing: {message}\n" + UNABLE_TO_DISABLE, 1))
        self.assertEqual(self.called(), list(SCRIPTS), "the user is removed all the same")
        self.assertEqual(self.services(), ["disk"])
        self.assertCalls(ENABLE + LOCK + calls + UNLOCK + RELEASE)

    def test_second_lock(self):
        # As for a session that is refused as stale: nothing is restored and the user stays.
        self.assertEqual(self.run_failing("SCPreferencesLock:2"), (
            SHARED + DELETED, ENABLING + SHARING + WAITING + CLOSED
            + "Unable to lock preferences to restore original state\n", 1))
        self.assertEqual(self.called(), ["adduser", "addshare", "rmshare"])
        self.assertEqual(self.services(), ["disk"])
        self.assertCalls(ENABLE + ["SCPreferencesLock fails"] + RELEASE)

    def test_second_lock_releases_before_the_message(self):
        err = self.run_tool(env=os.environ | {"PELAGO_SDK_FAIL": "SCPreferencesLock:2",
                                              "PELAGO_SDK_LOG": "/dev/stderr"})[1]
        self.assertTrue(err.endswith("SCPreferencesLock fails\nCFRelease of the session\n"
                                     "Unable to lock preferences to restore original state\n"), err)

    def test_second_lock_outdoes_the_remove_share_status(self):
        self.script_does("rmshare", "exit 9")
        self.assertEqual(self.run_failing("SCPreferencesLock:2")[2], 1)

    def test_services_no_array(self):
        self.fails("SCPreferencesGetValue:3", "EnabledServicesKey has unexpected non-array type",
                   ["SCPreferencesGetValue fails"])

    def test_copy(self):
        self.fails("CFArrayCreateMutableCopy:1", "failed to create mutable copy of ENABLED_SERVICES",
                   ["SCPreferencesGetValue", "CFArrayCreateMutableCopy fails"])

    def test_set(self):
        self.fails("SCPreferencesSetValue:2", "error while disabling file sharing",
                   COPY + ["SCPreferencesSetValue fails"] + ARRAY_RELEASE)

    def test_commit(self):
        self.fails("SCPreferencesCommitChanges:2", "error while committing preference change to disk",
                   COPY + SET + ["SCPreferencesCommitChanges fails"] + ARRAY_RELEASE)

    def test_failure_of_the_last_unlock_is_ignored(self):
        self.assertEqual(self.run_failing("SCPreferencesUnlock:2")[2], 0)

    def test_disabling_outdoes_a_failed_share(self):
        self.script_does("addshare", "exit 3")
        self.assertEqual(self.run_failing("SCPreferencesCommitChanges:2"), (
            "3 is the sharing result (0=ok). Exiting.\n", ENABLING + SHARING + DISABLING
            + "DisableFileSharing: error while committing preference change to disk\n" + UNABLE_TO_DISABLE, 1))
        self.assertEqual(self.called(), ["adduser", "addshare", "rmuser"])


if __name__ == "__main__":
    unittest.main()
