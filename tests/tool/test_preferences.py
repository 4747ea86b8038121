"""The tool on preferences of every kind, and several tools on the same file."""

import os
import plistlib
import random
import stat
import unittest

from toolhost import (CLOSED, DELETED, DISABLING, ENABLING, PREFS, SHARED, SHARING, WAITING,
                      ToolCase)

WHOLE_ERR = ENABLING + SHARING + WAITING + CLOSED + DISABLING
REFUSED = ("1 - Unable to enable Windows File Sharing\n",
           ENABLING + "EnableFileSharing: error while committing preference change to disk\n", 1)

GOOD = plistlib.dumps({"EnabledServices": ["print"], "Workgroup": "W"})
GOOD_BINARY = plistlib.dumps({"EnabledServices": ["print"], "Workgroup": "W"}, fmt=plistlib.FMT_BINARY)


def nested_xml(levels):
    return b'<plist version="1.0"><dict><key>k</key>' + b"<array>" * levels + b"</array>" * levels + b"</dict></plist>"


def binary_plist(objects, root=0):
    """A binary property list of hand-made objects."""
    body, offsets = b"bplist00", []
    for item in objects:
        offsets.append(len(body))
        body += item
    table = b"".join(offset.to_bytes(4, "big") for offset in offsets)
    return (body + table + bytes(6) + bytes([4, 2]) + len(objects).to_bytes(8, "big")
            + root.to_bytes(8, "big") + len(body).to_bytes(8, "big"))


def references(*numbers):
    return b"".join(number.to_bytes(2, "big") for number in numbers)


def nested_binary(levels):
    arrays = [b"\xa1" + references(i + 1) for i in range(2, levels + 2)] + [b"\xa0"]
    return binary_plist([b"\xd1" + references(1, 2), b"\x51k"] + arrays)


def multiplying_binary(levels=7, width=14):
    arrays = [bytes([0xA0 + width]) + references(*[i + 1] * width) for i in range(2, levels + 2)]
    return binary_plist([b"\xd1" + references(1, 2), b"\x51k"] + arrays + [b"\x51x"])


class DamagedFiles(ToolCase):
    """A file whose content the tool could not write back is never overwritten."""

    DAMAGED = {
        "junk": b"\x00\x01junk" * 100,
        "text": b"EnabledServices = disk\n",
        "old text form": b'{ EnabledServices = ("disk"); }',
        "truncated": GOOD[:-20],
        "cut in a tag": GOOD[:len(GOOD) // 2],
        "truncated binary": GOOD_BINARY[:-10],
        "half a binary": GOOD_BINARY[:len(GOOD_BINARY) // 2],
        "binary header only": b"bplist00",
        "array at the root": plistlib.dumps(["disk"]),
        "string at the root": plistlib.dumps("disk"),
        "binary array at the root": plistlib.dumps(["disk"], fmt=plistlib.FMT_BINARY),
        "a blank": b" ",
        "10 MB of junk": os.urandom(1000) * 10000,
        "10 MB of open tags": b'<plist version="1.0"><dict><key>k</key>' + b"<array>" * 1400000,
        "deeply nested": nested_xml(40000),
        "deeply nested binary": nested_binary(40000),
        "refers to itself": binary_plist([b"\xd1" + references(1, 0), b"\x51k"]),
        "multiplies itself": multiplying_binary(),
        "multiplies itself deeply": multiplying_binary(60, 14),
    }

    def test_each_damaged_file_is_left_alone(self):
        for name, content in self.DAMAGED.items():
            with self.subTest(name):
                PREFS.write_bytes(content)
                self.assertRun(self.run_tool(), *REFUSED)
                self.assertTrue(PREFS.read_bytes() == content, "the file is as it was")
                self.assertEqual(self.called(), [])
                self.assertEqual(sorted(os.listdir(PREFS.parent)), [PREFS.name], "nothing lies around")

    def test_a_file_that_was_damaged_while_sharing(self):
        process = self.start()
        self.wait_until_shared(process)
        PREFS.write_bytes(b"junk")
        out, err, status = self.finish(process)
        self.assertEqual((out, err, status), (DELETED, WHOLE_ERR, 0), "no array: nothing to take out")
        self.assertEqual(PREFS.read_bytes(), b"junk")


class UsualFiles(ToolCase):
    def test_an_empty_file_is_preferences_without_values(self):
        PREFS.write_bytes(b"")
        self.assertRun(self.run_tool(), SHARED + DELETED, WHOLE_ERR, 0)
        self.assertEqual(self.prefs(), {"EnabledServices": []})

    def test_a_byte_order_mark_is_no_damage(self):
        PREFS.write_bytes(b"\xef\xbb\xbf" + GOOD)
        self.assertRun(self.run_tool(), SHARED + DELETED, WHOLE_ERR, 0)
        self.assertEqual(self.prefs(), plistlib.loads(GOOD))

    def test_a_binary_file_stays_binary(self):
        PREFS.write_bytes(GOOD_BINARY)
        process = self.start()
        self.wait_until_shared(process)
        self.assertTrue(PREFS.read_bytes().startswith(b"bplist00"))
        self.assertEqual(self.services(), ["print", "disk"])
        self.finish(process)
        self.assertTrue(PREFS.read_bytes().startswith(b"bplist00"))
        self.assertEqual(self.prefs(), plistlib.loads(GOOD_BINARY))

    def test_ten_megabytes_are_kept(self):
        for form in (plistlib.FMT_XML, plistlib.FMT_BINARY):
            with self.subTest(form):
                content = {f"key {i}": "value " * 20 for i in range(70000)} | {"last": [1, 2.5, True]}
                PREFS.write_bytes(plistlib.dumps(content, fmt=form))
                self.assertRun(self.run_tool(), SHARED + DELETED, WHOLE_ERR, 0)
                self.assertTrue(self.prefs() == content | {"EnabledServices": []})

    def test_owner_and_mode_are_kept(self):
        os.chown(PREFS, 12, 34)
        PREFS.chmod(0o640)
        self.run_tool()
        status = PREFS.stat()
        self.assertEqual((status.st_uid, status.st_gid, stat.S_IMODE(status.st_mode)), (12, 34, 0o640))
        self.assertEqual(self.services(), [])

    def test_removes_leftover_files_of_a_killed_tool(self):
        (PREFS.parent / f"{PREFS.name}-new").write_bytes(b"left over " * 10000)
        (PREFS.parent / f"{PREFS.name}-lock").write_bytes(b"12345\n")
        self.assertRun(self.run_tool(), SHARED + DELETED, WHOLE_ERR, 0)
        self.assertEqual(sorted(os.listdir(PREFS.parent)), [PREFS.name])


class AfterAKill(ToolCase):
    """The next tool switches off what a killed tool had switched on, but not what others had."""

    def killed_while_sharing(self):
        process = self.start()
        self.wait_until_shared(process)
        process.kill()
        process.wait()

    def test_next_tool_restores_the_original_services(self):
        for form in (plistlib.FMT_XML, plistlib.FMT_BINARY):
            for services in ([], ["print"], ["print", "web"]):
                with self.subTest((form, services)):
                    content = {"EnabledServices": services, "Workgroup": "W"}
                    PREFS.write_bytes(plistlib.dumps(content, fmt=form))
                    for _ in range(3):
                        self.killed_while_sharing()
                        self.assertEqual(self.services(), services + ["disk"], "it stays, but once")
                    self.assertRun(self.run_tool(), SHARED + DELETED, WHOLE_ERR, 0)
                    self.assertEqual(self.prefs(), content)

    def test_next_tool_undoes_a_kill_during_a_script(self):
        self.write_prefs(["print"])
        for name in ("adduser", "addshare", "rmshare"):
            with self.subTest(name):
                self.script_does(name, "kill -KILL $PPID")
                self.assertEqual(self.run_tool()[2], -9)
                self.assertEqual(self.services(), ["print", "disk"])
                self.script_does(name, "")
                self.assertRun(self.run_tool(), SHARED + DELETED, WHOLE_ERR, 0)
                self.assertEqual(self.services(), ["print"])

    def test_a_service_that_was_on_stays_on(self):
        self.write_prefs(["disk", "print"])
        self.killed_while_sharing()
        self.assertRun(self.run_tool(), SHARED + DELETED, SHARING + WAITING + CLOSED, 0)
        self.assertEqual(self.services(), ["disk", "print"])

    def test_service_stays_on_after_another_program_rewrites_preferences(self):
        self.killed_while_sharing()
        newer = PREFS.with_name("newer")
        newer.write_bytes(PREFS.read_bytes())
        newer.rename(PREFS)
        self.assertRun(self.run_tool(), SHARED + DELETED, SHARING + WAITING + CLOSED, 0)
        self.assertEqual(self.services(), ["disk"])

    def test_a_tool_that_runs_keeps_its_service(self):
        first = self.start()
        self.wait_until_shared(first)
        self.killed_while_sharing()
        self.assertRun(self.run_tool(), SHARED + DELETED, SHARING + WAITING + CLOSED, 0)
        self.assertEqual(self.services(), ["disk"])
        self.assertEqual(self.finish(first)[2], 0)
        self.assertEqual(self.services(), [])

    def test_successor_of_a_killed_tool_restores_the_services(self):
        self.killed_while_sharing()
        second = self.start()
        self.wait_until_shared(second)
        third = self.start()
        self.wait_until_shared(third)
        self.assertEqual(self.finish(third), (DELETED, SHARING + WAITING + CLOSED, 0))
        self.assertEqual(self.services(), ["disk"])
        self.assertEqual(self.finish(second)[2], 0)
        self.assertEqual(self.services(), [])


class SeveralTools(ToolCase):
    def test_two_tools_at_once_restore_the_services(self):
        chance = random.Random(1)
        for services in (None, ["print"], ["disk"]):
            for _ in range(15):
                self.write_prefs(services)
                tools = [self.start() for _ in range(2)]
                chance.shuffle(tools)
                outcomes = [self.finish(tool) for tool in tools]
                for out, err, status in outcomes:
                    self.assertEqual((out, status), (SHARED + DELETED, 0), err)
                # The tool that found the service off switched it on and off again, which leaves an empty array.
                self.assertEqual(self.services(), services or [])

    def test_the_second_leaves_the_switch_to_the_first(self):
        first = self.start()
        self.wait_until_shared(first)
        second = self.start()
        self.wait_until_shared(second)
        self.assertEqual(self.finish(second), (DELETED, SHARING + WAITING + CLOSED, 0))
        self.assertEqual(self.services(), ["disk"])
        self.assertEqual(self.finish(first)[2], 0)
        self.assertEqual(self.services(), [])

    def test_the_first_may_end_first(self):
        first = self.start()
        self.wait_until_shared(first)
        second = self.start()
        self.wait_until_shared(second)
        self.assertEqual(self.finish(first)[2], 0)
        self.assertEqual(self.services(), [])
        self.assertEqual(self.finish(second), (DELETED, SHARING + WAITING + CLOSED, 0))
        self.assertEqual(self.services(), [])

    def test_eight_at_once(self):
        tools = [self.start() for _ in range(8)]
        for tool in tools:
            self.assertEqual(self.finish(tool)[::2], (SHARED + DELETED, 0))
        self.assertEqual(self.services(), [])


if __name__ == "__main__":
    unittest.main()
