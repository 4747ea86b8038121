"""The contents of the Debian packages; test_hosts.py tests what they do to a host."""

import gzip
import os
import re
import subprocess
import tempfile
import unittest
from pathlib import Path

from pages import differing_lines

ROOT = Path(__file__).resolve().parents[2]
PACKAGES = Path(os.environ["PELAGO_PACKAGES"])
# Sources the completion file $0 and completes "$1 $2" by it.
COMPLETE = """
. "$0"
COMP_WORDS=("$@") COMP_CWORD=1
way=$(complete -p "$1")
case $way in
    'complete -F '*) set -- $way; $3; printf '%s\\n' "${COMPREPLY[@]}" ;;
    *) way=${way#complete }; eval "compgen ${way% "$1"}" -- "$2" ;;
esac
"""


def output_of(*command):
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise AssertionError(f"{command} ended with {done.returncode}: {done.stdout}{done.stderr}")
    return done.stdout


class Packages(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.files = {}
        for name in ("pelago-share-tool", "pelago-share-tool-dbgsym", "libpelago-foundation-dev", "libpelago-foundation0",
                     "libpelago-foundation0-dbgsym"):
            cls.files[name], = PACKAGES.glob(f"{name}_*.*deb")
        folder = cls.enterClassContext(tempfile.TemporaryDirectory())
        cls.trees = {name: Path(folder) / name for name in cls.files}
        for name, file in cls.files.items():
            output_of("dpkg-deb", "--raw-extract", file, cls.trees[name])
        cls.tool = cls.trees["pelago-share-tool"]
        cls.library = cls.trees["libpelago-foundation-dev"]
        cls.runtime = cls.trees["libpelago-foundation0"]

    def field(self, package, name):
        return output_of("dpkg-deb", "--field", self.files[package], name).strip()

    def test_lintian_reports_nothing(self):
        done = subprocess.run(["lintian", "--allow-root", "--fail-on=error,warning", *self.files.values()],
                              capture_output=True, text=True, check=False)
        self.assertEqual((done.stdout, done.returncode), ("", 0), done.stderr)

    def test_lintian_would_find_a_fault(self):
        (self.tool / "usr/share/doc/pelago-share-tool/copyright").rename(self.tool / "copyright")
        faulty = self.tool.with_suffix(".deb")
        output_of("dpkg-deb", "-Znone", "--build", self.tool, faulty)
        (self.tool / "copyright").rename(self.tool / "usr/share/doc/pelago-share-tool/copyright")
        done = subprocess.run(["lintian", "--allow-root", "--fail-on=error,warning", faulty],
                              capture_output=True, text=True, check=False)
        self.assertIn("no-copyright-file", done.stdout)
        self.assertNotEqual(done.returncode, 0)

    def test_dependencies_are_exactly_what_is_needed(self):
        needs = self.field("pelago-share-tool", "Depends")
        self.assertEqual(set(re.findall(r"[\w.-]+(?= \(|,|$)", needs)), {"passwd", "samba", "libc6"})
        version = self.field("libpelago-foundation0", "Version")
        self.assertEqual(self.field("libpelago-foundation-dev", "Depends"), f"libpelago-foundation0 (= {version})")
        needs = self.field("libpelago-foundation0", "Depends")
        self.assertEqual(set(re.findall(r"[\w.+-]+(?= \(|,|$)", needs)), {"libc6", "libgcc-s1", "libstdc++6"})

    def test_loader_and_packages_find_the_shared_library(self):
        self.assertEqual((self.runtime / "DEBIAN/triggers").read_text(), "activate-noawait ldconfig\n")
        version = self.field("libpelago-foundation0", "Version")
        self.assertEqual((self.runtime / "DEBIAN/shlibs").read_text(), f"libpelago_foundation 0 libpelago-foundation0 (>= {version})\n")
        library, = (path for path in self.runtime.rglob("libpelago_foundation.so.*") if not path.is_symlink())
        links = {path.name: str(path.readlink()) for tree in (self.runtime, self.library)
                 for path in tree.rglob("libpelago_foundation.so*") if path.is_symlink()}
        self.assertEqual(links, {"libpelago_foundation.so.0": library.name, "libpelago_foundation.so": "libpelago_foundation.so.0"})
        self.assertEqual([path.parent.relative_to(self.library) for path in self.library.rglob("*.so")],
                         [library.parent.relative_to(self.runtime)])

    def test_installed_size_does_not_count_link_targets(self):
        for name, tree in self.trees.items():
            size = sum(path.stat().st_size for path in (tree / "usr").rglob("*") if path.is_file() and not path.is_symlink())
            said = int(self.field(name, "Installed-Size"))
            self.assertGreaterEqual(said, size // 1024, name)
            self.assertLess(said, size // 1024 + 1024, name)

    def test_tool_package_installs_only_into_its_folders(self):
        places = {str(path.relative_to(self.tool)) for path in self.tool.rglob("*")
                  if not path.is_dir() and "DEBIAN" not in path.parts}
        self.assertIn("usr/sbin/pelagoShareTool", places)
        for place in places:
            self.assertRegex(place, r"^usr/(sbin/(pelagoShareTool|pelago-[a-z-]+)$|lib/pelago/Pelago\.app/"
                                    r"|lib/systemd/system/pelago-|share/(man/man8|doc/pelago-share-tool)/"
                                    r"|share/bash-completion/completions/pelago|share/lintian/overrides/pelago-share-tool$)")

    def test_each_link_leads_to_something(self):
        links = [path for path in self.tool.rglob("*") if path.is_symlink()]
        self.assertGreaterEqual(len(links), 4)
        for link in links:
            self.assertTrue(link.exists(), link)

    def test_tool_package_includes_its_documents(self):
        documents = self.tool / "usr/share/doc/pelago-share-tool"
        for name in ("README.md", "SECURITY.md", "product/linux/README.md", "examples/shareWhile.cpp",
                     "examples/shareWhile.py", "examples/smb.conf"):
            self.assertEqual(differing_lines(documents / name, ROOT / name), [], name)
        self.assertIn(f"({self.field('pelago-share-tool', 'Version')})",
                      gzip.decompress((documents / "changelog.gz").read_bytes()).decode().splitlines()[0])
        for command in (path.name for path in (self.tool / "usr/sbin").iterdir()):
            self.assertTrue((self.tool / f"usr/share/man/man8/{command}.8.gz").exists(), command)

    def test_library_package_includes_its_documents(self):
        documents = self.library / "usr/share/doc/libpelago-foundation-dev"
        names = {"README.md", "docs/encodings.md", "examples/greet.cpp", "examples/outside/CMakeLists.txt",
                 "examples/outside/Makefile"}
        names |= {f"examples/library/{path.name}" for path in (ROOT / "examples/library").iterdir()}
        for name in names:
            self.assertEqual(differing_lines(documents / name, ROOT / name), [], name)
        self.assertIn("Str_Snprintf", (documents / "html/str_8h.html").read_text())
        pages = self.library / "usr/share/man/man3"
        for header in (path.stem for path in (ROOT / "lib/public").glob("*.h") if path.stem != "declarations"):
            self.assertIn(f"#include <pelago/{header}.h>", gzip.decompress((pages / f"pelago_{header}.3.gz").read_bytes()).decode())
        links = [page for page in pages.iterdir() if page.is_symlink()]
        self.assertIn(pages / "HASH_INT_KEY.3.gz", links)
        for page in links:
            self.assertTrue(page.exists(), page)
        self.assertEqual([page.name for page in pages.iterdir() if not page.name.endswith(".3.gz")], [])

    def test_copyright_includes_licences_of_icu_and_expat(self):
        ours = "All rights reserved by the owners of pelagoShareTool; no licence has been\n granted yet."
        # Each package contains ICU and expat.
        for tree, inside in ((self.tool, "shares/pelagoShareTool"), (self.library, "libpelago_foundation.a"),
                             (self.runtime, "libpelago_foundation.so.*")):
            text, = (path.read_text() for path in tree.rglob("copyright"))
            self.assertIn(ours, text)
            paragraphs = [paragraph for paragraph in text.split("\n\n") if re.match(rf"Files: usr/lib/\S*{re.escape(inside)}\s", paragraph)]
            for paragraph, name, owner in zip(paragraphs, ("ICU", "expat"), ("Unicode, Inc.", "Expat maintainers"), strict=True):
                self.assertIn(f"Comment: This is for {name}, ", paragraph)
                self.assertIn(owner, paragraph)
                self.assertIn("Permission is hereby granted, free of charge", paragraph)
        self.assertRegex((self.tool / "usr/share/doc/pelago-share-tool/copyright").read_text(),
                         r"Files: .* usr/lib/pelago/Pelago.app/Contents/Library/host/pelagoHost\nComment: This is for expat")

    def test_binaries_are_stripped_and_their_symbols_packaged(self):
        binaries = [(package, path) for package in ("pelago-share-tool", "libpelago-foundation0")
                    for path in (self.trees[package] / "usr/lib").rglob("*")
                    if path.is_file() and not path.is_symlink() and path.read_bytes()[:4] == b"\x7fELF"]
        self.assertEqual(sorted(path.name.split(".")[0] for _, path in binaries),
                         ["libpelago_foundation", "pelagoHost", "pelagoShareTool"])
        for package, binary in binaries:
            self.assertNotIn(".debug_info", output_of("readelf", "-SW", binary), binary)
            build = re.search(r"Build ID: (\w+)", output_of("readelf", "-n", binary))[1]
            symbols = self.trees[f"{package}-dbgsym"] / f"usr/lib/debug/.build-id/{build[:2]}/{build[2:]}.debug"
            self.assertIn(".debug_info", output_of("readelf", "-SW", symbols), binary)

    def test_tool_contains_only_the_icu_data_it_uses(self):
        tool = self.tool / "usr/lib/pelago/Pelago.app/Contents/Library/shares/pelagoShareTool"
        self.assertLess(tool.stat().st_size, 8 << 20) # all data of ICU's would be 31 MB
        host = tool.parents[1] / "host/pelagoHost"
        for program, count in ((tool, 1), (host, 0)):
            self.assertEqual(program.read_bytes().count(b"icudt72l/cnvalias.icu\0"), count, program)

    def test_no_file_names_the_build_tree(self):
        for tree in self.trees.values():
            for path in tree.rglob("*"):
                if path.is_file() and b"\0" not in (text := path.read_bytes()):
                    self.assertNotIn(str(ROOT).encode(), text, path)

    def test_shellcheck_accepts_the_maintainer_scripts(self):
        scripts = [self.tool / "DEBIAN" / name for name in ("postinst", "prerm", "postrm")]
        output_of("shellcheck", *scripts)

    def completions(self, command, word):
        """Returns what the command's own completion file completes the word to."""
        file = self.tool / "usr/share/bash-completion/completions" / command
        return output_of("bash", "-euc", COMPLETE, file, command, word).splitlines()

    def test_completion_of_each_command_is_found_by_its_name(self):
        commands = {path.name for path in (self.tool / "usr/sbin").iterdir()} - {"pelagoShareTool"}
        completed = {"pelago-share-sessions": ("--end-", ["--end-all"]), "pelago-smb-service": ("st", ["status"]),
                     "pelago-share-check": ("/us", ["/usr"])}
        self.assertEqual(commands, set(completed))
        for command, (word, words) in completed.items():
            with self.subTest(command):
                self.assertEqual(self.completions(command, word), words)


if __name__ == "__main__":
    unittest.main()
