"""The throw-away machine is made, or tells that it cannot be."""

import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
SANDBOX = ROOT / "tools/sandbox.sh"


def inside(*command, **options):
    return subprocess.run([SANDBOX, *command], stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=120,
                          **options)


class Making(unittest.TestCase):
    def test_what_is_written_to_the_project_is_thrown_away_wherever_it_lies(self):
        # /tmp is not shown as it is, so a project there is mounted by itself.
        with tempfile.TemporaryDirectory(dir="/tmp") as folder:
            project = Path(folder, "a,b:c d\\e")
            shutil.copytree(ROOT / "tools", project / "tools")
            done = subprocess.run([project / "tools/sandbox.sh", "sh", "-c", "rm -r tools && ls -A"], cwd=project,
                                  capture_output=True, text=True)
            self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))
            self.assertTrue((project / "tools/sandbox.sh").exists())

    def test_a_machine_that_cannot_be_made_is_told_by_the_status(self):
        done = inside("--bind", "/nonexistent", "/bound", "true")
        self.assertEqual(done.returncode, 125)
        self.assertIn("/nonexistent", done.stderr)

    def test_the_status_is_the_commands(self):
        for status in (0, 1, 125):
            self.assertEqual(inside("sh", "-c", f"exit {status}").returncode, status)

    def test_no_other_machine_is_changed(self):
        # Without its mark a machine that is thrown away is like any other.
        tests = ROOT / "tests"
        for command in ([ROOT / "demo.sh", "--session"],
                        ["python3", tests / "tool/test_session.py"], ["python3", tests / "scripts/test_adduser.py"],
                        ["python3", tests / "scripts/macos/test_macos.py"]):
            with self.subTest(command):
                done = inside("sh", "-c", 'rm /run/throw-away-machine && exec "$@"', "sh", *command)
                self.assertEqual(done.returncode, 1)
                self.assertIn("in tools/sandbox.sh only", done.stderr)
                self.assertNotIn("Traceback", done.stderr)


if __name__ == "__main__":
    unittest.main()
