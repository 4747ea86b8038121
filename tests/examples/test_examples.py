"""Each example of the library prints the lines in its last comment; the README's example works in any folder."""

import getpass
import os
import subprocess
import tempfile
import unittest
from pathlib import Path

from sessions import EXAMPLES, printed, session

PROGRAMS = Path(os.environ["PELAGO_EXAMPLES"])


class Sessions(unittest.TestCase):
    def test_each_header_with_functions_has_an_example(self):
        headers = {path.stem for path in (EXAMPLES.parents[1] / "lib/public").glob("*.h")}
        self.assertEqual({path.stem for path in EXAMPLES.iterdir()}, headers - {"declarations"})

    def test_each_example_prints_what_it_says(self):
        for source in sorted(EXAMPLES.iterdir()):
            commands = session(source.read_text())
            self.assertTrue(commands, source)
            with self.subTest(source.name):
                self.assertEqual(printed(PROGRAMS, commands), [lines for _, lines in commands])

    def test_another_output_would_be_found(self):
        commands = session((EXAMPLES / "dynbuf.c").read_text().replace("red, green, blue\n", "red, green\n"))
        self.assertEqual(commands, [("./dynbuf", "red, green\n")])
        self.assertNotEqual(printed(PROGRAMS, commands), ["red, green\n"])


class Greeting(unittest.TestCase):
    """The README's example in a folder whose name is UTF-8, and in one whose name is not."""

    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory())
        subprocess.run(["icupkg", "-tl", "new", f"{self.folder}/icudt44l.dat"], check=True,
                       env={"PATH": os.environ["PATH"] + ":/usr/sbin"})

    def greeting(self, program, name):
        folder = os.fsencode(self.folder) + b"/" + name
        os.makedirs(folder, exist_ok=True)
        done = subprocess.run([program], cwd=folder, env=os.environ | {"PELAGO_TEST_ICU": self.folder},
                              capture_output=True, check=False)
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        return done.stdout.decode()

    def test_is_the_same_with_icu_and_without(self):
        hello = f"Grüß Gott, {getpass.getuser()}! This is {self.folder}"
        for program in (PROGRAMS / "greet", os.environ["PELAGO_GREET_WITH_ICU"]):
            self.assertEqual(self.greeting(program, "café".encode()), f"{hello}/café.\n")
            self.assertEqual(self.greeting(program, b"caf\xe9"), f"{hello}/caf\\xE9.\n")

    def test_without_a_folder_says_why(self):
        with tempfile.TemporaryDirectory() as folder:
            done = subprocess.run(["sh", "-c", 'rmdir "$PWD" && exec "$0"', PROGRAMS / "greet"], cwd=folder,
                                  capture_output=True, text=True, check=False)
            os.mkdir(folder)
        self.assertEqual((done.returncode, done.stdout, done.stderr),
                         (1, "", "greet: there is no path to this folder: No such file or directory\n"))


if __name__ == "__main__":
    unittest.main()
