"""The lines in the tables of reasons are in the sources."""

import sys
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tools"))
from reasons import rows  # noqa: E402


class Reasons(unittest.TestCase):
    def test_each_line_is_in_its_file(self):
        for page in ("survivors.md", "uncovered.md"):
            found = list(rows(ROOT / "tools" / page))
            self.assertGreater(len(found), 20, page)
            for path, line, *_ in found:
                with self.subTest(page, path=path):
                    self.assertIn(line, (ROOT / path).read_text())


if __name__ == "__main__":
    unittest.main()
