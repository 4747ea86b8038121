"""Runs of the tool on each path through it, with recording scripts and real preferences."""

import datetime
import fcntl
import plistlib
import shutil
import subprocess
import termios
import unittest
from pathlib import Path

from toolhost import (BUNDLE, CLOSED, DELETED, DISABLING, ENABLING, PREFS, SCRIPTS, SHARED, SHARES,
                      SHARING, STATE, WAITING, ToolCase, lock_preferences, vector)

USAGE = "2 - usage error. pelagoShareTool <folderPath> <shareName> <username> <pathPasswordFile\n"
FAILED_USER = "Failed to create user alice\n"


class Usage(ToolCase):
    def test_any_other_number_of_arguments(self):
        for count in (0, 1, 4, 6, 7, 50):
            with self.subTest(count):
                before = PREFS.read_bytes()
                self.assertRun(self.finish(self.start_with(["a"] * count)), USAGE, "", 2)
                self.assertEqual(self.called(), [])
                self.assertEqual(PREFS.read_bytes(), before)

    def test_comes_before_anything_else(self):
        PREFS.unlink()
        self.assertRun(self.run_tool("a"), USAGE, "", 2)


class WholeSession(ToolCase):
    def test_with_sharing_off(self):
        process = self.start()
        self.wait_until_shared(process)
        self.assertEqual(self.called(), ["adduser", "addshare"])
        self.assertEqual(self.services(), ["disk"])
        out, err, status = self.finish(process)
        self.assertEqual(out, DELETED)
        self.assertEqual(err, ENABLING + SHARING + WAITING + CLOSED + DISABLING)
        self.assertEqual(status, 0)
        self.assertEqual([call.argv for call in self.calls()], [vector(name) for name in
                         ("adduser", "addshare", "rmshare", "rmuser")])
        self.assertEqual(self.prefs(), self.OTHER_KEYS | {"EnabledServices": []},
                         "the key stays, empty")

    def test_what_each_script_sees(self):
        self.run_tool()
        self.assertEqual([(call.name, call.services, call.locked) for call in self.calls()],
                         [("adduser", ["disk"], False), ("addshare", ["disk"], False),
                          ("rmshare", ["disk"], False), ("rmuser", [], True)])
        self.assertFalse(Path(f"{PREFS}-lock").exists(), "the lock is given back at the end")

    def test_with_sharing_on(self):
        self.write_prefs(["disk"])
        before, node = PREFS.read_bytes(), PREFS.stat().st_ino
        self.assertRun(self.run_tool(), SHARED + DELETED, SHARING + WAITING + CLOSED, 0)
        self.assertEqual(PREFS.read_bytes(), before)
        self.assertEqual(PREFS.stat().st_ino, node, "the file is not even written anew")

    def test_disk_is_found_anywhere(self):
        for services in (["disk", "print"], ["print", "disk"], ["a", "b", "disk", "c"]):
            with self.subTest(services):
                self.write_prefs(services)
                self.assertRun(self.run_tool(), SHARED + DELETED, SHARING + WAITING + CLOSED, 0)
                self.assertEqual(self.services(), services)

    def test_only_the_very_string_counts(self):
        for other in ("Disk", "disk ", "disks", b"disk", {"disk": True}, ["disk"], 1, True):
            with self.subTest(other):
                self.write_prefs([other])
                process = self.start()
                self.wait_until_shared(process)
                self.assertEqual(self.services(), [other, "disk"])
                self.assertEqual(self.finish(process)[2], 0)
                self.assertEqual(self.services(), [other])

    def test_other_services_keep_value_type_and_order(self):
        services = ["print", 5, -7, 2**63, 1.5, True, b"\x00\xff", "",
                    datetime.datetime(2001, 2, 3, 4, 5, 6), {"k": ["v", {}]}, [], "gr\u00fc\u00df \U0001f600"]
        self.write_prefs(services)
        process = self.start()
        self.wait_until_shared(process)
        self.assertEqual(repr(self.services()), repr(services + ["disk"]))
        self.finish(process)
        self.assertEqual(repr(self.services()), repr(services))

    def test_runs_from_wherever_the_bundle_lies(self):
        elsewhere = Path("/srv/moved\n$(bundle)")
        shutil.rmtree(elsewhere, ignore_errors=True)
        shutil.move(BUNDLE, elsewhere)
        link = STATE / "link"
        link.symlink_to(elsewhere / "Contents/Library/shares/pelagoShareTool")
        self.tool = link  # the tool finds its bundle by the real path
        self.assertEqual(self.run_tool()[2], 0)
        self.assertEqual([call.argv[0] for call in self.calls()],
                         [f"{elsewhere}/Contents/Library/shares/{name}.sh" for name in SCRIPTS])
        shutil.rmtree(elsewhere)

    def replace_the_bundle(self):
        """Replaces each file by a newer one, as a package manager does."""
        for path in [path for path in BUNDLE.rglob("*") if path.is_file()]:
            newer = path.with_name(f"{path.name}.dpkg-new")
            shutil.copy(path, newer)
            if path.suffix == ".sh":
                newer.write_text(path.read_text() + "# newer\n")
            newer.rename(path)

    def ends_after_an_upgrade(self):
        process = self.start()
        self.wait_until_shared(process)
        self.replace_the_bundle()
        self.assertRun(self.finish(process), DELETED, ENABLING + SHARING + WAITING + CLOSED + DISABLING, 0)
        self.assertEqual([call.argv for call in self.calls()], [vector(name) for name in SCRIPTS])
        self.assertEqual(self.services(), [])

    def test_ends_normally_after_an_upgrade_of_the_bundle(self):
        self.ends_after_an_upgrade()

    def test_started_through_link_ends_normally_after_an_upgrade(self):
        link = STATE / "link"
        link.symlink_to(self.tool)
        self.tool = link
        self.ends_after_an_upgrade()

    def test_arguments_reach_the_scripts_untouched(self):
        odd = ["/srv/ $HOME;`id` \\\n\t*", "-s 'q' \"d\"", "--", "", "%s%n"]
        folder, share, user, password_file, access = odd
        out, err, status = self.run_tool(*odd)
        self.assertEqual(status, 0)
        self.assertIn(f"Sharing {folder} as {share}\n", err)
        self.assertEqual([call.argv[1:] for call in self.calls()],
                         [[user, user, password_file], [user, password_file, folder, share, access],
                          [share, folder], [user]])

    def test_long_arguments_are_never_cut(self):
        folder, share, user, password_file, access = names = [letter * 100_000 for letter in "fsupa"]
        self.assertRun(self.run_tool(*names), SHARED + DELETED,
                       ENABLING + f"Sharing {folder} as {share}\n" + WAITING + CLOSED + DISABLING, 0)
        self.assertEqual([call.argv[1:] for call in self.calls()],
                         [[user, user, password_file], [user, password_file, folder, share, access],
                          [share, folder], [user]])
        for script, out, err in (("adduser", f"1 - failed to create user {user}\n", f"Failed to create user {user}\n"),
                                 ("rmuser", SHARED + DELETED, f"Failed to delete user {user}\n")):
            self.setUp()
            self.script_does(script, "exit 1")
            said = self.run_tool(*names)
            self.assertEqual((said[0], said[1].count(err), said[2]), (out, 1, 1))

    def move_the_bundle(self, elsewhere):
        BUNDLE.rename(elsewhere)
        self.addCleanup(shutil.rmtree, elsewhere)

    def test_finds_a_moved_bundle_through_its_link(self):
        name = STATE / "current"
        name.symlink_to(BUNDLE)
        self.tool = name / "Contents/Library/shares/pelagoShareTool"
        process = self.start()
        self.wait_until_shared(process)
        elsewhere = BUNDLE.with_name("moved.app")
        self.move_the_bundle(elsewhere)
        name.unlink()
        name.symlink_to(elsewhere)
        self.assertRun(self.finish(process), DELETED, ENABLING + SHARING + WAITING + CLOSED + DISABLING, 0)
        self.assertEqual([call.argv[0] for call in self.calls()],
                         [f"{root}/Contents/Library/shares/{script}.sh" for root, script in
                          zip((BUNDLE, BUNDLE, elsewhere, elsewhere), SCRIPTS)])

    def test_a_bundle_that_only_moves_meanwhile_is_gone(self):
        # The tool was started by this path, which leads to nothing now.
        process = self.start()
        self.wait_until_shared(process)
        self.move_the_bundle(BUNDLE.with_name("moved.app"))
        out, err, status = self.finish(process)
        self.assertEqual((out, status), ("", 1))
        self.assertTrue(err.endswith(f"LocationGetRoot: Unable to get the realpath for {self.tool}"
                                     "Panic: NOT_IMPLEMENTED apps/pelagoShareTool/pelagoShareTool:415\n"), err)

    def test_standard_input_is_inherited(self):
        self.script_does("addshare", "read -r word && [ \"$word\" = 'for the script' ] || exit 9")
        self.assertRun(self.run_tool(data=b"for the script\nfor the tool\n"), SHARED + DELETED, ENABLING + SHARING
                       + WAITING + "tool deleting share because we received 'for the tool\n'." + DISABLING, 0)

    def test_script_output_goes_to_standard_error(self):
        for name in SCRIPTS:
            self.script_does(name, f"echo {name} out; echo {name} err >&2")
        said = {name: f"{name} out\n{name} err\n" for name in SCRIPTS}
        self.assertRun(self.run_tool(), SHARED + DELETED,
                       ENABLING + said["adduser"] + SHARING + said["addshare"] + WAITING + CLOSED
                       + said["rmshare"] + DISABLING + said["rmuser"], 0)


class Waiting(ToolCase):
    def received(self, line):
        return f"tool deleting share because we received '{line}'."

    def test_ends_at_a_line(self):
        for data, line in ((b"\n", "\n"), (b"bye\n", "bye\n"), (b"no newline", "no newline"),
                           (b"two\nlines\n", "two\n")):
            with self.subTest(data):
                self.write_prefs()
                self.assertRun(self.run_tool(data=data), SHARED + DELETED,
                               ENABLING + SHARING + WAITING + self.received(line) + DISABLING, 0)

    def test_line_ends_the_share_with_pipe_still_open(self):
        process = self.start()
        self.wait_until_shared(process)
        process.stdin.write(b"now\n")
        process.stdin.flush()
        self.assertEqual(process.wait(timeout=20), 0)
        self.assertEqual(self.services(), [])

    def test_takes_79_characters_of_a_long_line(self):
        for length in (78, 79, 80, 5000):
            with self.subTest(length):
                self.write_prefs()
                out, err, status = self.run_tool(data=b"x" * length + b"\n")
                shown = ("x" * length + "\n")[:79]
                self.assertEqual(err, ENABLING + SHARING + WAITING + self.received(shown) + DISABLING)
                self.assertEqual((out, status), (SHARED + DELETED, 0))

    def test_79_characters_are_enough_to_end_it(self):
        process = self.start()
        self.wait_until_shared(process)
        process.stdin.write(b"x" * 79)  # no newline, and the pipe stays open
        process.stdin.flush()
        self.assertEqual(process.wait(timeout=20), 0)

    def hand_over(self, process, data):
        """Writes a part of a line, and waits until the tool has read it."""
        process.stdin.write(data)
        process.stdin.flush()
        self.wait_until(lambda: fcntl.ioctl(process.stdin, termios.FIONREAD, bytes(4)) == bytes(4), "a read")

    def test_a_line_may_come_in_parts(self):
        for parts, rest, line in (([b"half a line"], b", and the rest\n", "half a line, and the rest\n"),
                                  ([b"b", b"y", b"e"], b"\n", "bye\n"),
                                  ([b"x" * 40, b"y" * 38], b"zz\n", "x" * 40 + "y" * 38 + "z"),
                                  ([b"the end"], b"", "the end")):
            with self.subTest(line):
                self.setUp()
                process = self.start()
                self.wait_until_shared(process)
                for part in parts:
                    self.hand_over(process, part)
                self.assertRun(self.finish(process, rest), DELETED,
                               ENABLING + SHARING + WAITING + self.received(line) + DISABLING, 0)

    def test_incomplete_line_does_not_end_the_share(self):
        process = self.start()
        self.wait_until_shared(process)
        self.hand_over(process, b"x" * 78)
        with self.assertRaises(subprocess.TimeoutExpired):
            process.wait(timeout=0.5)
        self.assertEqual((self.called(), self.services()), (["adduser", "addshare"], ["disk"]))

    def test_waits_while_the_pipe_is_open(self):
        process = self.start()
        self.wait_until_shared(process)
        with self.assertRaises(subprocess.TimeoutExpired):
            process.wait(timeout=0.5)
        self.assertEqual(self.called(), ["adduser", "addshare"])
        self.assertEqual(self.finish(process)[2], 0)

    def test_killed_tool_restores_nothing_but_the_next_does(self):
        process = self.start()
        self.wait_until_shared(process)
        process.kill()
        process.wait()
        self.assertEqual(self.services(), ["disk"])
        self.assertEqual(self.called(), ["adduser", "addshare"])
        self.assertRun(self.run_tool(), SHARED + DELETED, ENABLING + SHARING + WAITING + CLOSED + DISABLING, 0)
        self.assertEqual(self.services(), [])

    def test_only_the_first_of_two_disks_is_removed(self):
        process = self.start()
        self.wait_until_shared(process)
        self.write_prefs(["a", "disk", "b", "disk"])
        self.assertEqual(self.finish(process), (DELETED, ENABLING + SHARING + WAITING + CLOSED + DISABLING, 0))
        self.assertEqual(self.services(), ["a", "b", "disk"])

    def test_restores_on_top_of_what_others_wrote_meanwhile(self):
        process = self.start()
        self.wait_until_shared(process)
        self.write_prefs(["print", "disk"], Workgroup="NEW")
        self.assertEqual(self.finish(process)[2], 0)
        self.assertEqual(self.prefs(), {"Workgroup": "NEW", "EnabledServices": ["print"]})

    def test_a_disk_that_others_removed_is_not_missed(self):
        for content in ({"EnabledServices": ["print"]}, {"Other": 1}):
            with self.subTest(content):
                self.write_prefs()
                process = self.start()
                self.wait_until_shared(process)
                PREFS.write_bytes(plistlib.dumps(content))
                before = PREFS.read_bytes()
                self.assertEqual(self.finish(process),
                                 (DELETED, ENABLING + SHARING + WAITING + CLOSED + DISABLING, 0))
                self.assertEqual(PREFS.read_bytes(), before)

    def test_an_array_that_others_spoilt_is_left_alone(self):
        process = self.start()
        self.wait_until_shared(process)
        self.write_prefs("disk")
        before = PREFS.read_bytes()
        self.assertEqual(self.finish(process), (
            DELETED, ENABLING + SHARING + WAITING + CLOSED + DISABLING
            + "DisableFileSharing: EnabledServicesKey has unexpected non-array type\n"
            + "Unable to disable Windows File Sharing\n", 1))
        self.assertEqual(PREFS.read_bytes(), before)
        self.assertEqual(self.called(), list(SCRIPTS), "the user goes all the same")


class EarlyFailures(ToolCase):
    def test_no_preferences_file(self):
        PREFS.unlink()
        self.assertRun(self.run_tool(), f"1 - cannot find Samba preferences file {PREFS}.\n",
                       f"Samba prefs file {PREFS} not found, exiting.\n", 1)
        self.assertEqual(self.called(), [])

    def test_a_link_to_nowhere_is_no_preferences_file(self):
        PREFS.unlink()
        PREFS.symlink_to("/nonexistent")
        self.assertRun(self.run_tool(), f"1 - cannot find Samba preferences file {PREFS}.\n",
                       f"Samba prefs file {PREFS} not found, exiting.\n", 1)

    def test_not_root(self):
        self.tool.chmod(0o755)
        outcome = self.run_tool(user=65534, group=65534)
        self.assertRun(outcome, "1 - Unable to lock preferences. Are you running as root?\n", "", 1)
        self.assertEqual(self.called(), [])

    def test_a_file_that_may_not_be_read(self):
        self.tool.chmod(0o755)
        PREFS.chmod(0o600)
        self.assertRun(self.run_tool(user=65534, group=65534),
                       f"1 - cannot find Samba preferences file {PREFS}.\n",
                       f"Samba prefs file {PREFS} not found, exiting.\n", 1)

    def test_services_that_are_no_array(self):
        for value in ("disk", {"disk": True}, 1, True, b"disk"):
            with self.subTest(value):
                self.write_prefs(value)
                before = PREFS.read_bytes()
                self.assertRun(self.run_tool(), "1 - Unable to determine Windows File Sharing capability\n",
                               "IsFileSharingEnabled result of 'EnabledServices' is not of type CFArrayRef\n", 1)
                self.assertEqual(PREFS.read_bytes(), before)
                self.assertFalse(Path(f"{PREFS}-lock").exists())

    def test_a_lock_that_others_hold_is_waited_for(self):
        lock = lock_preferences()
        process = self.start()
        with self.assertRaises(subprocess.TimeoutExpired):
            process.wait(timeout=0.5)
        self.assertEqual((self.called(), self.services()), ([], None))
        lock.close()
        self.assertRun(self.finish(process), SHARED + DELETED,
                       ENABLING + SHARING + WAITING + CLOSED + DISABLING, 0)


class FailedUser(ToolCase):
    OUT = "1 - failed to create user alice\n"

    def test_switches_the_service_back(self):
        for body in ("exit 1", "exit 3", "exit 255", "kill -KILL $$"):
            with self.subTest(body):
                self.setUp()
                self.script_does("adduser", body)
                self.assertRun(self.run_tool(), self.OUT, ENABLING + FAILED_USER + DISABLING, 1)
                self.assertEqual(self.called(), ["adduser"])
                self.assertEqual(self.services(), [])

    def test_leaves_a_service_on_that_was_on(self):
        self.write_prefs(["disk"])
        self.script_does("adduser", "exit 1")
        before = PREFS.read_bytes()
        self.assertRun(self.run_tool(), self.OUT, FAILED_USER, 1)
        self.assertEqual(PREFS.read_bytes(), before)

    def test_a_script_that_cannot_be_run(self):
        (SHARES / "adduser.sh").unlink()
        self.assertRun(self.run_tool(), self.OUT,
                       ENABLING + "execv() failed with error 2\n" + FAILED_USER + DISABLING, 1)
        self.assertEqual(self.services(), [])


class FailedShare(ToolCase):
    def test_passes_its_status_on(self):
        for body, status in (("exit 1", 1), ("exit 3", 3), ("exit 255", 255), ("kill -KILL $$", 1)):
            with self.subTest(body):
                self.setUp()
                self.script_does("addshare", body)
                self.assertRun(self.run_tool(), f"{status} is the sharing result (0=ok). Exiting.\n",
                               ENABLING + SHARING + DISABLING, status)
                self.assertEqual([(call.name, call.services, call.locked) for call in self.calls()],
                                 [("adduser", ["disk"], False), ("addshare", ["disk"], False),
                                  ("rmuser", [], False)], "no lock is taken on this path")

    def test_leaves_a_service_on_that_was_on(self):
        self.write_prefs(["disk"])
        self.script_does("addshare", "exit 3")
        self.assertRun(self.run_tool(), "3 is the sharing result (0=ok). Exiting.\n", SHARING, 3)
        self.assertEqual(self.services(), ["disk"])

    def test_does_not_wait_for_the_caller(self):
        self.script_does("addshare", "exit 3")
        process = self.start()
        self.assertEqual(process.wait(timeout=20), 3)

    def test_a_user_that_stays_is_the_worse_failure(self):
        self.script_does("addshare", "exit 3")
        self.script_does("rmuser", "exit 4")
        self.assertRun(self.run_tool(), "3 is the sharing result (0=ok). Exiting.\n",
                       ENABLING + SHARING + DISABLING + "Failed to delete user alice\n", 1)


class FailedRemoval(ToolCase):
    def test_failed_rmshare_sets_exit_status_and_stops_nothing(self):
        for body, status in (("exit 5", 5), ("exit 255", 255), ("kill -TERM $$", 1)):
            with self.subTest(body):
                self.setUp()
                self.script_does("rmshare", body)
                self.assertRun(self.run_tool(), SHARED
                               + f"{status} is the delete share result (0=success, nonzero=failure).\n",
                               ENABLING + SHARING + WAITING + CLOSED + DISABLING, status)
                self.assertEqual(self.called(), list(SCRIPTS))
                self.assertEqual(self.services(), [])

    def test_of_the_user(self):
        for share_status, body in ((0, "exit 5"), (7, "exit 2"), (0, "kill -KILL $$")):
            with self.subTest((share_status, body)):
                self.setUp()
                self.script_does("rmshare", f"exit {share_status}")
                self.script_does("rmuser", body)
                self.assertRun(self.run_tool(), SHARED
                               + f"{share_status} is the delete share result (0=success, nonzero=failure).\n",
                               ENABLING + SHARING + WAITING + CLOSED + DISABLING
                               + "Failed to delete user alice\n", 1)
                self.assertEqual(self.services(), [])

    def test_failed_exec_repeats_unflushed_output_on_stderr(self):
        # The child flushes its copy of the tool's output at exit, to standard error and not to the caller.
        (SHARES / "rmuser.sh").unlink()
        self.assertRun(self.run_tool(), SHARED + DELETED,
                       ENABLING + SHARING + WAITING + CLOSED + DISABLING
                       + "execv() failed with error 2\n" + DELETED + "Failed to delete user alice\n", 1)


class MissingLocation(ToolCase):
    """If a product file has no path the tool ends at once; the report's number names the file."""

    def report(self, check):
        return f"Panic: NOT_IMPLEMENTED apps/pelagoShareTool/pelagoShareTool:{check}\n"

    def test_add_user(self):
        shallow = Path("/opt/shallow")
        shutil.copy(self.tool, shallow)
        self.tool = shallow
        too_large = "LocationGetRoot: sUpCount (4) is too large for \n"
        self.assertRun(self.run_tool(), "", too_large + ENABLING + too_large + self.report(305), 1)
        self.assertEqual(self.services(), ["disk"], "nothing is undone")
        self.assertEqual(self.called(), [])

    def vanishes_after(self, script, check, out, err):
        self.script_does(script, f'rm "{self.tool}"')
        gone = f"LocationGetRoot: Unable to get the realpath for {self.tool}"
        self.assertRun(self.run_tool(), out, err + gone + self.report(check), 1)
        self.assertEqual(self.services(), ["disk"])

    def test_add_share(self):
        self.vanishes_after("adduser", 377, "", ENABLING + SHARING)
        self.assertEqual(self.called(), ["adduser"])

    def test_remove_share(self):
        self.vanishes_after("addshare", 415, SHARED, ENABLING + SHARING + WAITING + CLOSED)
        self.assertEqual(self.called(), ["adduser", "addshare"])

    def test_remove_user(self):
        self.script_does("rmshare", f'rm "{self.tool}"')
        gone = f"LocationGetRoot: Unable to get the realpath for {self.tool}"
        self.assertRun(self.run_tool(), SHARED + DELETED, ENABLING + SHARING + WAITING + CLOSED + DISABLING
                       + gone + self.report(340), 1)
        self.assertEqual(self.called(), ["adduser", "addshare", "rmshare"])
        self.assertEqual(self.services(), [], "the switch was put back before")


if __name__ == "__main__":
    unittest.main()
