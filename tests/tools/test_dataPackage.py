"""The data packages that the build makes, compared with those of ICU's own icupkg."""

import os
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
WHOLE, USED = Path(os.environ["PELAGO_WHOLE_DATA"]), Path(os.environ["PELAGO_USED_DATA"])


def icupkg(*arguments):
    done = subprocess.run(["icupkg", *arguments], capture_output=True, text=True, check=True,
                          env=os.environ | {"PATH": os.environ["PATH"] + ":/usr/sbin"})
    return done.stdout


class Packages(unittest.TestCase):
    def setUp(self):
        self.folder = Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.made = self.folder / WHOLE.name

    def make(self, *arguments):
        return subprocess.run([sys.executable, ROOT / "platform/icu/dataPackage.py", self.made, *arguments],
                              capture_output=True, text=True, check=False)

    def test_used_data_equals_the_package_from_icupkg(self):
        names = [name for name in icupkg("-l", WHOLE).split() if re.search(r"\.cnv$|^cnvalias\.icu$|^nfkc\.nrm$", name)]
        self.assertGreater(len(names), 150)
        listed = self.folder / "list.txt"
        listed.write_text("\n".join(names))
        (self.folder / "items").mkdir()
        icupkg("-x", listed, "-d", self.folder / "items", WHOLE)
        icupkg("-tl", "-a", listed, "-s", self.folder / "items", "new", self.made)
        self.assertEqual(USED.read_bytes(), self.made.read_bytes())

    def test_without_items_it_is_what_icupkg_makes(self):
        empty = self.folder / "empty.dat"
        icupkg("-tl", "new", empty)
        self.assertEqual(self.make().returncode, 0)
        self.assertEqual(self.made.read_bytes(), empty.read_bytes())

    def test_an_item_that_is_not_there(self):
        done = self.make(USED, "*.cnv", "root.res")
        self.assertEqual(done.returncode, 1)
        self.assertIn("has no item root.res", done.stderr)
        self.assertFalse(self.made.exists())

    def test_what_is_no_package(self):
        package = USED.read_bytes()
        for contents in (b"", b"text", package[:100], b"\0" * len(package), package[:4] + b"\1" + package[5:]):
            other = self.folder / "other.dat"
            other.write_bytes(contents)
            done = self.make(other, "*.cnv")
            self.assertEqual(done.returncode, 1, contents[:40])
            self.assertIn("is no data package", done.stderr)
            self.assertFalse(self.made.exists())


if __name__ == "__main__":
    unittest.main()
