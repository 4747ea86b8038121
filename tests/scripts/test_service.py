"""pelago-smb-service prints the state of the SMB service from both formats of the preferences, and
switches the service by hand."""

import os
import plistlib
import shutil
import subprocess
import sys
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))
from throwAway import require_sandbox  # noqa: E402

require_sandbox()
PROGRAM = os.environ["PELAGO_LIBRARY"] + "/host/pelagoHost"
FILE = Path("/Library/Preferences/SystemConfiguration/com.apple.smb.server.plist")
WANTED, NOT_WANTED, UNKNOWN = "on\n", "off\n", ""


def xml(value):
    return plistlib.dumps(value)


def binary(value):
    return plistlib.dumps(value, fmt=plistlib.FMT_BINARY)


def service(*arguments):
    return subprocess.run([PROGRAM, "service", *arguments], capture_output=True, text=True, timeout=20)


class Case(unittest.TestCase):
    def put(self, contents):
        FILE.parent.mkdir(parents=True, exist_ok=True)
        FILE.unlink(missing_ok=True)
        if contents is not None:
            FILE.write_bytes(contents)

    def done(self, *arguments):
        run = service(*arguments)
        self.assertEqual((run.returncode, run.stderr), (0, ""))
        return run.stdout

    def services(self):
        return plistlib.loads(FILE.read_bytes())["EnabledServices"]


class Status(Case):
    def check(self, contents, status, reason=None):
        self.put(contents)
        run = service("status")
        expected = f"pelago-smb-service: the preferences cannot be read: {reason}\n" if reason else ""
        self.assertEqual((run.stdout, run.stderr, run.returncode), (status, expected, 1 if reason else 0), contents)
        self.assertEqual(FILE.read_bytes() if FILE.exists() else None, contents)
        self.assertFalse(Path(f"{FILE}-lock").exists())

    def test_status_follows_the_array_of_services(self):
        for form in (xml, binary):
            for services, status in ((["disk"], WANTED), (["print", "disk"], WANTED), ([], NOT_WANTED), (["print"], NOT_WANTED),
                                     (["Disk"], NOT_WANTED), (["disks"], NOT_WANTED), ([b"disk", 1, ["disk"]], NOT_WANTED)):
                self.check(form({"EnabledServices": services, "MaxClients": 100}), status)

    def test_status_is_off_without_the_array(self):
        self.check(None, NOT_WANTED)
        self.check(b"", NOT_WANTED)
        self.check(xml({}), NOT_WANTED)
        self.check(xml({"enabledservices": ["disk"]}), NOT_WANTED)

    def test_status_is_off_without_the_folder(self):
        self.check(None, NOT_WANTED)
        FILE.parent.rmdir()
        self.assertEqual(self.done("status"), NOT_WANTED)

    def test_status_is_unknown_for_unreadable_content(self):
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
        self.assertIn("Invalid argument", service("status").stderr)

    def test_requires_exactly_one_verb(self):
        for arguments in ((), ("maybe",), ("on", "on")):
            run = service(*arguments)
            self.assertEqual((run.returncode, run.stdout), (1, ""))
            self.assertIn("usage", run.stderr)


class Switching(Case):
    def test_off_takes_every_disk_out_in_either_format(self):
        for form in (xml, binary):
            self.put(form({"EnabledServices": ["disk", "print", "disk"], "MaxClients": 100}))
            self.done("off")
            self.assertEqual(plistlib.loads(FILE.read_bytes()), {"EnabledServices": ["print"], "MaxClients": 100})
            self.assertEqual(self.done("status"), NOT_WANTED)

    def test_on_adds_it_once_in_either_format(self):
        for form in (xml, binary):
            self.put(form({"EnabledServices": ["print"], "MaxClients": 100}))
            for _ in range(2):
                self.done("on")
                self.assertEqual(plistlib.loads(FILE.read_bytes()), {"EnabledServices": ["print", "disk"], "MaxClients": 100})

    def test_on_makes_the_array_of_an_empty_file(self):
        self.put(b"")
        self.done("on")
        self.assertEqual(self.services(), ["disk"])

    def test_a_damaged_file_is_left_alone(self):
        for verb in ("on", "off"):
            self.put(b"junk")
            run = service(verb)
            self.assertEqual((run.returncode, FILE.read_bytes()), (1, b"junk"))
            self.assertIn("cannot change the preferences", run.stderr)

    def test_init_creates_missing_preferences_and_keeps_existing_ones(self):
        shutil.rmtree("/Library", ignore_errors=True)
        self.done("init")
        self.assertEqual((FILE.read_bytes(), FILE.stat().st_mode & 0o7777, FILE.parent.stat().st_mode & 0o7777),
                         (b"", 0o644, 0o755))
        self.put(xml({"EnabledServices": ["print"]}))
        self.done("init")
        self.assertEqual(self.services(), ["print"])


if __name__ == "__main__":
    unittest.main()
