"""makeRoot.sh reports that the hosts' root cannot be fetched, and fails in CI."""

import os
import subprocess
import tempfile
import unittest
from pathlib import Path

MAKE_ROOT = Path(__file__).resolve().parent / "makeRoot.sh"


class MakeRoot(unittest.TestCase):
    def setUp(self):
        self.folder = Path(self.enterContext(tempfile.TemporaryDirectory()))

    def make(self, place, **environment):
        """Runs the script on a machine whose apt uses this server; returns (status, stderr)."""
        programs = self.folder / "programs"
        programs.mkdir(exist_ok=True)
        (programs / "apt-get").write_text(f'#!/bin/sh\n. /etc/os-release\necho "{place}"\n')
        (programs / "apt-get").chmod(0o755)
        done = subprocess.run([MAKE_ROOT, self.folder / "made"], capture_output=True, text=True, check=False,
                              env=os.environ | {"PATH": f"{programs}:{os.environ['PATH']}", "CI": "false"} | environment)
        self.assertFalse((self.folder / "made/root").exists())
        return done.returncode, done.stderr

    def test_a_server_that_does_not_answer(self):
        place = "deb http://127.0.0.1:9/ $VERSION_CODENAME main"
        status, reason = self.make(place)
        self.assertEqual(status, 77, reason)
        self.assertIn("NOT RUN", reason)
        self.assertEqual(self.make(place, CI="true")[0], 1)

    def test_apt_without_a_server(self):
        for place in ("", "deb http://127.0.0.1:9/ another main"):
            status, reason = self.make(place)
            self.assertEqual(status, 1)
            self.assertIn("apt has no packages", reason)


if __name__ == "__main__":
    unittest.main()
