"""The documents of an installed library, and its examples built as a user of the library builds them."""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ["PELAGO_BUILD"])
sys.path.insert(0, str(ROOT / "tests/examples"))
from pages import differing_lines  # noqa: E402
from sessions import EXAMPLES, printed, session  # noqa: E402

STRICT = ("-Wall", "-Wextra", "-Wpedantic", "-Werror")


def output_of(*command, **options):
    done = subprocess.run(command, capture_output=True, text=True, check=False, **options)
    if done.returncode != 0:
        raise AssertionError(f"{command} ended with {done.returncode}: {done.stdout}{done.stderr}")
    return done.stdout


def files(folder):
    return {str(path.relative_to(folder)): path.read_bytes() for path in folder.rglob("*") if path.is_file()}


class Installed(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        cls.prefix = cls.folder / "prefix"
        output_of("cmake", "--install", BUILD, "--prefix", cls.prefix, "--component", "development")
        cls.documents = cls.prefix / "share/doc/libpelago-foundation-dev"
        package, = cls.prefix.rglob("pelago-foundation.pc")
        cls.environment = os.environ | {"PKG_CONFIG_PATH": str(package.parent)}

    def test_every_manual_page_is_there(self):
        made = files(BUILD / "docs/reference/man3")
        self.assertGreater(len(made), 280)
        made["pelago-foundation.3"] = (BUILD / "docs/man/pelago-foundation.3").read_bytes()
        self.assertEqual(files(self.prefix / "share/man/man3"), made)

    def test_man_shows_a_page(self):
        page = output_of("man", "Str_Snprintf", env=os.environ | {"MANPATH": str(self.prefix / "share/man"), "LC_ALL": "C.UTF-8"})
        self.assertIn("#include <pelago/str.h>", page)

    def test_the_reference_is_there_and_needs_no_script(self):
        html = self.documents / "html"
        self.assertIn("Str_Snprintf", (html / "str_8h.html").read_text())
        self.assertEqual(list(html.rglob("*.js")), [])
        for page in html.glob("*.html"):
            self.assertNotIn("<script", page.read_text(), page)
            self.assertNotIn(str(ROOT), page.read_text(), page)

    def test_installs_readme_examples_and_copyright(self):
        names = {"README.md", "docs/encodings.md", "examples/greet.cpp", "examples/outside/CMakeLists.txt",
                 "examples/outside/Makefile"}
        names |= {f"examples/library/{path.name}" for path in EXAMPLES.iterdir()}
        for name in names:
            self.assertEqual(differing_lines(self.documents / name, ROOT / name), [], name)
        self.assertIn("All rights reserved by the owners of pelagoShareTool", (self.documents / "copyright").read_text())

    def test_each_example_builds_and_prints_its_documented_output(self):
        programs = self.folder / "programs"
        programs.mkdir()
        for source in sorted((self.documents / "examples/library").iterdir()):
            output_of("sh", "-c", 'exec gcc -std=c11 "$@" $(pkg-config --cflags --libs pelago-foundation)', "gcc", *STRICT,
                      "-o", programs / source.stem, source, env=self.environment)
            commands = session(source.read_text())
            with self.subTest(source.name):
                self.assertEqual(printed(programs, commands), [lines for _, lines in commands])

    def test_example_project_builds_with_its_makefile(self):
        examples = self.folder / "a copy"
        shutil.copytree(self.documents / "examples", examples)
        output_of("make", "-C", examples / "outside", env=self.environment)
        self.assertTrue((examples / "outside/greet").is_file())


if __name__ == "__main__":
    unittest.main()
