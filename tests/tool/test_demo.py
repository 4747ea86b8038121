"""The demo's steps succeed; it names a step that fails; it leaves nothing, even when it is interrupted."""

import os
import shutil
import signal
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
COMMAND = [ROOT / "tools/sandbox.sh", ROOT / "demo.sh", "--session"]


def host_state():
    """Returns everything that a demo could leave on this machine."""
    with open("/proc/self/mounts") as mounts:
        return (sorted(mounts), Path("/etc/passwd").read_bytes(), os.path.exists("/Library"),
                sorted(os.listdir("/run")), sorted(os.listdir("/etc/samba")))


class Demo(unittest.TestCase):
    def setUp(self):
        # A new folder for temporary files, in which anything that is left is found.
        self.scratch = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.scratch)
        self.before = host_state()

    def start(self, command=COMMAND, **options):
        return subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                text=True, env=os.environ | {"TMPDIR": self.scratch}, **options)

    def assertNothingLeft(self):
        self.assertEqual(host_state(), self.before)
        self.assertEqual(os.listdir(self.scratch), [])

    def test_every_step_succeeds(self):
        process = self.start()
        transcript = process.communicate(timeout=120)[0]
        self.assertEqual(process.returncode, 0, transcript)
        self.assertNotIn("FAILED", transcript)
        for line in ("stdout| 0 is the sharing result (0=ok). Press Enter to delete it and exit:",
                     "stdout| 0 is the delete share result (0=success, nonzero=failure).",
                     "stderr| Disabling Windows File Sharing.",
                     r"ok      alice fetches letter.txt from \\127.0.0.1\Docs",
                     "ok      alice with a wrong password is refused",
                     "ok      bob, who has a password of his own, is refused",
                     "ok      the share is gone", "ok      alice is gone"):
            self.assertIn(line, transcript)
        self.assertNothingLeft()

    def test_names_a_step_that_fails(self):
        # Makes an account with another password than the caller's.
        broken = "sed -i 's/plaintext_passwd = password/plaintext_passwd = \"other\"/' " \
                 "\"$PELAGO_BUILD/Pelago.app/Contents/Library/host/sambaAccount.py\" && exec \"$1/demo.sh\" --session"
        process = self.start([ROOT / "tools/sandbox.sh", "sh", "-c", broken, "sh", ROOT])
        transcript = process.communicate(timeout=120)[0]
        self.assertEqual(process.returncode, 1, transcript)
        self.assertIn("FAILED  alice fetches letter.txt", transcript)
        self.assertNothingLeft()

    def test_an_interrupted_demo_leaves_nothing(self):
        for number, place in ((signal.SIGINT, "sharing result"), (signal.SIGTERM, "A machine of its own"),
                              (signal.SIGHUP, "sharing result")):
            with self.subTest(number):
                process = self.start(start_new_session=True)
                for line in process.stdout:
                    if place in line:
                        break
                # Ctrl-C reaches the whole process group; kill reaches the demo alone.
                (os.killpg if number == signal.SIGINT else os.kill)(process.pid, number)
                process.communicate(timeout=60)
                self.assertEqual(process.returncode, 128 + number)
                deadline = time.monotonic() + 20
                while os.listdir(self.scratch) and time.monotonic() < deadline:
                    time.sleep(0.05)
                self.assertNothingLeft()
                left = subprocess.run(["pgrep", "-g", str(process.pid)], capture_output=True, text=True)
                self.assertEqual(left.stdout, "")


if __name__ == "__main__":
    unittest.main()
