"""Everything installed into an empty folder, and a program outside the tree built on the library."""

import getpass
import os
import re
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD = os.environ["PELAGO_BUILD"]


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, **options)


def links(page):
    """Returns the files that the page links to, relative to its folder."""
    link = r"\]\(([^)\s]+)\)" if page.suffix == ".md" else r'(?:href|src)="([^"]+)"'
    targets = {target.partition("#")[0] for target in re.findall(link, page.read_text())}
    return {target for target in targets if target and not re.match(r"[a-z]+:", target)}


class Installed(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = Path(tempfile.mkdtemp()).resolve()
        cls.addClassCleanup(shutil.rmtree, cls.folder)
        cls.prefix = cls.folder / "prefix"
        # An earlier build, of other sources, may have left such a file.
        leftover = Path(BUILD) / "Pelago.app/Contents/Library/shares/leftover.sh"
        leftover.touch()
        cls.addClassCleanup(leftover.unlink)
        done = run("cmake", "--install", BUILD, "--prefix", cls.prefix)
        assert done.returncode == 0, done.stdout + done.stderr
        cls.outside = cls.folder / "outside"
        shutil.copytree(ROOT / "examples/outside", cls.outside / "greet")
        shutil.copy(ROOT / "examples/greet.cpp", cls.outside)

    def must(self, *command, **options):
        done = run(*command, **options)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        return done.stdout

    def assertGreets(self, program):
        self.assertEqual(self.must(program, cwd=self.folder),
                         f"Grüß Gott, {getpass.getuser()}! This is {self.folder}.\n")

    def test_a_program_is_built_with_cmake(self):
        build = self.folder / "with cmake"
        self.must("cmake", "-S", self.outside / "greet", "-B", build, f"-DCMAKE_PREFIX_PATH={self.prefix}",
                  "-DCMAKE_CXX_FLAGS=-Wall -Wextra -Werror")
        self.must("cmake", "--build", build)
        self.assertGreets(build / "greet")

    def test_a_program_is_built_with_pkg_config(self):
        found, = self.prefix.rglob("pelago-foundation.pc")
        self.must("make", "-C", self.outside / "greet", "CXXFLAGS=-Wall -Wextra -Werror",
                  f"PKG_CONFIG_PATH={found.parent}")
        self.assertGreets(self.outside / "greet/greet")

    def test_cmake_refuses_a_newer_or_incompatible_version(self):
        for wanted, outcome in (("0.1", 0), ("0.2", 1), ("1.0", 1)):
            project = self.folder / f"wants {wanted}"
            project.mkdir()
            (project / "CMakeLists.txt").write_text(
                f"cmake_minimum_required(VERSION 3.25)\nproject(x CXX)\nfind_package(pelago {wanted} REQUIRED)\n")
            done = run("cmake", "-S", project, "-B", project / "build", f"-DCMAKE_PREFIX_PATH={self.prefix}")
            self.assertEqual(done.returncode, outcome, done.stderr)

    def test_the_version_is_the_same_everywhere(self):
        program = self.folder / "version.c"
        program.write_text('#include <pelago/version.h>\n#include <stdio.h>\nint main(void) { puts(PELAGO_VERSION); }\n')
        self.must("cc", f"-I{self.prefix}/include", "-o", self.folder / "version", program)
        version = self.must(self.folder / "version").strip()
        self.assertRegex(version, r"^\d+\.\d+\.\d+$")

        def at_the_end(page):
            return self.must("mandoc", page).splitlines()[-1]

        pages = self.prefix / "share/man"
        packages = {"PKG_CONFIG_PATH": str(next(self.prefix.rglob("pelago-foundation.pc")).parent)}
        said = {
            "pkg-config": self.must("pkg-config", "--modversion", "pelago-foundation", env=os.environ | packages),
            "the shared one's": self.must("pkg-config", "--modversion", "pelago-foundation-shared", env=os.environ | packages),
            "CMake": next(self.prefix.rglob("pelagoConfigVersion.cmake")).read_text(),
            "the shared library": next(self.prefix.rglob("libpelago_foundation.so.*.*.*")).name.partition(".so.")[2],
            "the tool's page": at_the_end(pages / "man8/pelagoShareTool.8"),
            "the switch's page": at_the_end(pages / "man8/pelago-smb-switch.8"),
            "the library's page": at_the_end(pages / "man3/pelago-foundation.3"),
            "a function's page": at_the_end(pages / "man3/Str_Snprintf.3"),
            "the reference": (self.prefix / "share/doc/libpelago-foundation-dev/html/index.html").read_text(),
            "the list of changes": re.search("^## .*", (ROOT / "CHANGELOG.md").read_text(), re.M)[0],
        }
        for where, text in said.items():
            self.assertRegex(text, rf"(?<![\d.]){re.escape(version)}(?![\d.])", where)

    def test_installed_texts_name_no_source_or_build_tree(self):
        for path in self.prefix.rglob("*"):
            if path.suffix in (".h", ".cmake", ".pc", ".service", ".sh"):
                for tree in (str(ROOT), BUILD):
                    self.assertNotIn(tree, path.read_text(), path)

    def test_links_of_installed_pages_lead_to_installed_files(self):
        for pattern, count in (("*.md", 5), ("*.html", 500)):
            found = [(page, target) for page in self.prefix.rglob(pattern) for target in links(page)]
            self.assertGreater(len(found), count, pattern)
            for page, target in found:
                with self.subTest(page=page.relative_to(self.prefix), target=target):
                    place = (page.parent / target).resolve()
                    self.assertTrue(place.is_relative_to(self.prefix) and place.exists())

    def test_the_tool_is_a_link_into_its_bundle(self):
        tool = self.prefix / "sbin/pelagoShareTool"
        self.assertTrue(tool.is_symlink())
        self.assertTrue(tool.resolve().is_relative_to(self.prefix / "lib/pelago/Pelago.app"), tool.resolve())
        done = run(tool)
        self.assertEqual((done.returncode, done.stdout[:16]), (2, "2 - usage error."))

    def test_the_bundle_is_exactly_what_is_listed(self):
        library = self.prefix / "lib/pelago/Pelago.app/Contents/Library"
        programs = {f"shares/{name}.sh" for name in ("adduser", "addshare", "rmshare", "rmuser")} \
            | {"shares/pelagoShareTool", "host/pelagoHost", "switch/smbdHandOver.sh"}
        files = {"host/sambaAccount.py", "icu/icudt44l.dat"}
        modes = {str(path.relative_to(library)): path.stat().st_mode & 0o777
                 for path in (self.prefix / "lib/pelago").rglob("*") if not path.is_dir()}
        self.assertEqual(modes, dict.fromkeys(programs, 0o755) | dict.fromkeys(files, 0o644))

    def test_packages_include_licences_of_icu_and_expat(self):
        for package in ("pelago-share-tool", "libpelago-foundation-dev", "libpelago-foundation0"):
            text = (self.prefix / f"share/doc/{package}/copyright").read_text()
            self.assertEqual(text.count("Permission is hereby granted, free of charge"), 2, package)
            for owner in ("Unicode, Inc.", "Expat maintainers"):
                self.assertIn(owner, text, package)

    def test_the_readme_shows_the_program_greet(self):
        self.assertIn("```cpp\n" + (ROOT / "examples/greet.cpp").read_text() + "```\n", (ROOT / "README.md").read_text())

    def test_installs_all_public_headers_and_both_manuals(self):
        headers = {path.name for path in (self.prefix / "include/pelago").iterdir()}
        self.assertEqual(headers, {path.name for path in (ROOT / "lib/public").glob("*.h")})
        for page in ("man8/pelagoShareTool.8", "man3/pelago-foundation.3"):
            self.assertTrue((self.prefix / "share/man" / page).is_file(), page)


if __name__ == "__main__":
    unittest.main()
