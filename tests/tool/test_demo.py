"""The demo holds, tells when a step does not, and leaves nothing behind, also when it is interrupted."""

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
    """What a demo on this machine could have left."""
    with open("/proc/self/mounts") as mounts:
        return (sorted(mounts), Path("/etc/passwd").read_bytes(), os.path.exists("/Library"),
                sorted(os.listdir("/run")), sorted(os.listdir("/etc/samba")))


class Demo(unittest.TestCase):
    def setUp(self):
        # A folder of our own for temporary files shows what is left in it.
        self.scratch = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.scratch)
        self.before = host_state()

    def start(self, command=COMMAND, **options):
        return subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                text=True, env=os.environ | {"TMPDIR": self.scratch}, **options)

    def assertNothingLeft(self):
        self.assertEqual(host_state(), self.before)
        self.assertEqual(os.listdir(self.scratch), [])

    def test_every_step_holds(self):
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

    def test_a_step_that_does_not_hold_is_told(self):
        # An account whose password is not the caller's.
        broken = "sed -i 's/plaintext_passwd = password/plaintext_passwd = \"other\"/' " \
                 "\"$PELAGO_BUILD/Pelago.app/Contents/Library/host/sambaAccount.py\" && exec \"$1/demo.sh\" --session"
        process = self.start([ROOT / "tools/sandbox.sh", "sh", "-c", broken, "sh", ROOT])
        transcript = process.communicate(timeout=120)[0]
        self.assertEqual(process.returncode, 1, transcript)
        self.assertIn("FAILED  alice fetches letter.txt", transcript)
        self.assertNothingLeft()

    def test_interrupted(self):
        for number, place in ((signal.SIGINT, "sharing result"), (signal.SIGTERM, "A machine of its own"),
                              (signal.SIGHUP, "sharing result")):
            with self.subTest(number):
                process = self.start(start_new_session=True)
                for line in process.stdout:
                    if place in line:
                        break
                # Ctrl-C reaches the whole group, kill the demo alone.
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
