"""tools/byHand.sh runs a whole session of the tool that was built, with real scripts and Samba."""

import os
import subprocess
import unittest
from pathlib import Path

BY_HAND = Path(__file__).resolve().parents[2] / "tools/byHand.sh"


def by_hand(*prefix, **environment):
    return subprocess.run([BY_HAND, *prefix], input="\n", capture_output=True, text=True, timeout=120, check=False,
                          env=os.environ | environment)


class ByHand(unittest.TestCase):
    def test_a_session_until_enter_is_pressed(self):
        done = by_hand()
        self.assertEqual((done.stdout, done.returncode), (
            "0 is the sharing result (0=ok). Press Enter to delete it and exit:\n"
            "0 is the delete share result (0=success, nonzero=failure).\n", 0))
        self.assertIn("tool deleting share because we received '\n'.", done.stderr)

    def test_a_prefix_has_the_whole_command_line(self):
        done = by_hand("printf", "%s\n")
        tool, *arguments = done.stdout.splitlines()
        self.assertTrue(tool.endswith("/shares/pelagoShareTool"), done)
        self.assertEqual(arguments, ["/srv/docs", "Docs", "alice", "/root/password", "rw"])
        self.assertEqual(by_hand("sh", "-c", "exit 7").returncode, 7)

    def test_without_a_tool_says_what_makes_one(self):
        done = by_hand(PELAGO_BUILD="/nonexistent")
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stderr, "^byHand.sh: there is no /nonexistent/.*cmake --build --preset dev --target pelago_bundle")


if __name__ == "__main__":
    unittest.main()
