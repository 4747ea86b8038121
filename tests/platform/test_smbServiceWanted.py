"""The question that the service switch asks, against files at their real place.

SMB_SERVICE_WANTED is the program.  Runs on a machine of its own.
"""

import os
import plistlib
import subprocess
import unittest
from pathlib import Path

PROGRAM = os.environ["SMB_SERVICE_WANTED"]
FILE = Path("/Library/Preferences/SystemConfiguration/com.apple.smb.server.plist")
WANTED, NOT_WANTED, UNKNOWN = 0, 1, 2


def xml(value):
    return plistlib.dumps(value)


def binary(value):
    return plistlib.dumps(value, fmt=plistlib.FMT_BINARY)


class SmbServiceWanted(unittest.TestCase):
    def ask(self, *arguments):
        run = subprocess.run([PROGRAM, *arguments], capture_output=True, text=True, timeout=20)
        self.assertEqual(run.stdout, "")
        return run.returncode, run.stderr

    def check(self, contents, status, reason=None):
        FILE.parent.mkdir(parents=True, exist_ok=True)
        FILE.unlink(missing_ok=True)
        if contents is not None:
            FILE.write_bytes(contents)
        expected = f"smbServiceWanted: {FILE}: {reason}\n" if reason else ""
        self.assertEqual(self.ask(), (status, expected), contents)
        self.assertEqual(FILE.read_bytes() if FILE.exists() else None, contents)
        self.assertFalse(Path(f"{FILE}-lock").exists())

    def test_what_the_services_say(self):
        for form in (xml, binary):
            for services, status in ((["disk"], WANTED), (["print", "disk"], WANTED), ([], NOT_WANTED), (["print"], NOT_WANTED),
                                     (["Disk"], NOT_WANTED), (["disks"], NOT_WANTED), ([b"disk", 1, ["disk"]], NOT_WANTED)):
                self.check(form({"EnabledServices": services, "MaxClients": 100}), status)

    def test_what_says_nothing(self):
        self.check(None, NOT_WANTED)
        self.check(b"", NOT_WANTED)
        self.check(xml({}), NOT_WANTED)
        self.check(xml({"enabledservices": ["disk"]}), NOT_WANTED)

    def test_a_missing_folder_says_nothing(self):
        self.check(None, NOT_WANTED)
        FILE.parent.rmdir()
        self.assertEqual(self.ask(), (NOT_WANTED, ""))

    def test_what_cannot_be_understood(self):
        for value in ("disk", {"disk": True}, True, 1):
            self.check(xml({"EnabledServices": value}), UNKNOWN, "EnabledServices is not an array")
        self.check(xml(["disk"]), UNKNOWN, "its root is not a dictionary")
        self.check(b"junk", UNKNOWN, "it is damaged, or not a property list")
        self.check(xml({"EnabledServices": ["disk"]})[:-20], UNKNOWN, "it is damaged, or not a property list")
        self.check(b"<dict>" + b"<key>k</key><dict>" * 300, UNKNOWN, "it is nested too deeply")
        self.check(b" " * (17 << 20), UNKNOWN, "File too large")

    def test_a_folder_in_its_place_cannot_be_understood(self):
        self.check(None, NOT_WANTED)
        FILE.mkdir()
        self.addCleanup(FILE.rmdir)
        self.assertEqual(self.ask(), (UNKNOWN, f"smbServiceWanted: {FILE}: Invalid argument\n"))

    def test_it_takes_no_arguments(self):
        self.assertEqual(self.ask("disk"), (UNKNOWN, "usage: smbServiceWanted\n"))


if __name__ == "__main__":
    unittest.main()
