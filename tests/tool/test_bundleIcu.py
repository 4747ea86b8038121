"""A program in the built bundle uses ICU; without ICU's data file the same program does not."""

import os
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path


class Bundle(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.library = Path(self.folder.name, "moved/Pelago.app/Contents/Library")
        shutil.copytree(Path(os.environ["PELAGO_TOOL"]).parents[1], self.library)
        self.program = self.library / "shares/icuInUse"
        shutil.copy(os.environ["PELAGO_ICU_IN_USE"], self.program)

    def answer(self):
        done = subprocess.run([self.program], capture_output=True, check=True, timeout=60)
        self.assertEqual(done.stderr, b"")
        return done.stdout.decode()

    def test_icu_is_used_with_its_data_file(self):
        self.assertEqual(self.answer(), "\u3042\n")

    def test_icu_is_not_used_without_the_file(self):
        (self.library / "icu/icudt44l.dat").unlink()
        self.assertEqual(self.answer(), "without ICU\n")

    def test_icu_is_not_used_with_a_folder_instead(self):
        (self.library / "icu/icudt44l.dat").unlink()
        (self.library / "icu/icudt44l.dat").mkdir()
        self.assertEqual(self.answer(), "without ICU\n")


if __name__ == "__main__":
    unittest.main()
