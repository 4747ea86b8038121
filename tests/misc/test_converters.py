"""The part of ICU's data that the tool contains is enough: each converter works as with all of the data."""

import os
import subprocess
import tempfile
import unittest
from pathlib import Path


def told_by(program):
    with tempfile.TemporaryDirectory() as folder:
        (Path(folder) / "icudt44l.dat").touch()
        done = subprocess.run([os.environ[program], folder], capture_output=True, text=True, check=True, timeout=200)
    return done.stdout.splitlines()


class Converters(unittest.TestCase):
    maxDiff = None

    def test_each_is_what_it_is_with_all_data(self):
        reduced, whole = told_by("TELL_CONVERTERS"), told_by("TELL_CONVERTERS_OF_ALL_DATA")
        self.assertEqual((reduced[0], whole[0]), ("data of converters", "all data"))
        self.assertGreater(len(whole), 200)
        self.assertEqual(reduced[1:], whole[1:])
        # The comparison is meaningful: converters differ from one another.
        self.assertGreater(len({line.split()[4] for line in whole[1:]}), 150)


if __name__ == "__main__":
    unittest.main()
