"""Programs outside the tree on the installed library: static and shared, by each compiler, in C and C++, with
names of their own that the library also uses inside."""

import itertools
import os
import re
import subprocess
import tempfile
import unittest
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
PROGRAMS = ROOT / "tests/packages/link"
EXPORTS = (ROOT / "tests/packages/exports.txt").read_text().split()
BUILD = Path(os.environ["PELAGO_BUILD"])
STATIC, SHARED = MODULES = ("pelago-foundation", "pelago-foundation-shared")
WARNINGS = ("-Wall", "-Wextra", "-Wpedantic", "-Werror")
C, CXX = ("gcc -std=c11", "clang -std=c11"), ("g++ -std=c++17", "g++ -std=c++20", "clang++ -std=c++17", "clang++ -std=c++20")
WARNED = 'UnicodeIANALookup: Did not find an IANA match for encoding "no such encoding"\n'
LOGGED = "Environment variable 'PELAGO_NOT_SET' not defined in '$PELAGO_NOT_SET'.\n"
LOADS = r"LOADAVG: [\d. ]+\n"
TOO_SMALL = r"lib/string/str:\d+ Buffer too small\n"


def run(*command, **options):
    return subprocess.run([*map(str, command)], capture_output=True, text=True, check=False, **options)


def must(*command, **options):
    done = run(*command, **options)
    if done.returncode != 0:
        raise AssertionError(f"{' '.join(map(str, command))} ended with {done.returncode}: {done.stdout}{done.stderr}")
    return done.stdout


class Install(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = Path(cls.enterClassContext(tempfile.TemporaryDirectory())).resolve()
        cls.installed = cls.folder / "installed"
        for component in ("development", "runtime"):
            must("cmake", "--install", BUILD, "--prefix", cls.installed, "--component", component)
        # The installation is moved, so that no file in it may name its first place.
        cls.prefix = cls.folder / "moved"
        cls.installed.rename(cls.prefix)
        cls.archive, = cls.prefix.rglob("libpelago_foundation.a")
        cls.shared, = cls.prefix.rglob("libpelago_foundation.so")
        cls.environment = os.environ | {"PKG_CONFIG_PATH": str(cls.archive.parent / "pkgconfig")}
        cls.icu = cls.folder / "icu"
        cls.icu.mkdir()
        (cls.icu / "icudt44l.dat").touch()
        headers = sorted(path.name for path in (cls.prefix / "include/pelago").glob("*.h"))
        cls.headers = headers
        (cls.folder / "allHeaders.h").write_text("".join(f"#include <pelago/{name}>\n" for name in headers))

    def flags(self, *options):
        return must("pkg-config", *options, env=self.environment).split()

    def link(self, compiler, source, module, *options, static=False, more=(), after=()):
        """Builds the program by the compiler with pkg-config's flags, and returns its path."""
        program = self.folder / "-".join(re.sub(r"\W", "", str(word)) for word in (compiler, source, module, static, *options))
        libraries = self.flags(*(["--static"] if static else []), "--libs", module)
        must(*compiler.split(), *WARNINGS, *options, *(["-static"] if static else []), "-I", self.folder,
             *self.flags("--cflags", module), PROGRAMS / source, *more, *libraries, *after, "-o", program)
        return program

    def says(self, program, *arguments):
        """Returns the status, the standard output and the standard error."""
        environment = self.environment | ({"LD_LIBRARY_PATH": str(self.shared.parent)} if "shared" in program.name else {})
        done = run(program, *arguments, env=environment)
        return f"{done.returncode}\n{done.stdout}{done.stderr}"


class Everywhere(Install):
    """Each program, built by each compiler, static and shared."""

    # source: its compilers, and its status and output
    CASES = {
        "plain.c": (C, rf"1\n{re.escape(WARNED)}Panic: {TOO_SMALL}"),
        "ownClasses.cpp": (CXX, "0\nok\n"),
        "ownCalls.c": (C, "0\nok\n"),
        "libcCalls.c": (C, "0\nok\n(Location.*\n)*"),
        "ownLog.c": (C, rf"0\n<3> own\nok\n{LOADS}{re.escape(LOGGED + WARNED)}"),
        "ownLog.cpp": (CXX, rf"0\n<3> own\nok\n{LOADS}{re.escape(LOGGED + WARNED)}"),
        "enums.c": (C, "0\nok\n"),
        "enums.cpp": (CXX, "0\nok\n"),
        "sinks.c": (C, rf"5\nLogged: own\nLogged: {re.escape(LOGGED)}Warned: {re.escape(WARNED)}Ended: {TOO_SMALL}"),
        "lateSinks.c": (C, rf"5\nLogged: own\nLogged: {re.escape(LOGGED)}Warned: {re.escape(WARNED)}Ended: {TOO_SMALL}"),
        "longSinks.cpp": (CXX, "6\nwarned\nended\nlogged\n"),
        "convert.c": (C, "0\nok\n"),
    }

    def tried(self, source, compiler, module, level):
        try:
            return self.says(self.link(compiler, source, module, level), self.icu)
        except AssertionError as failure:
            return str(failure)

    def test_every_compiler_and_library_gives_the_same_output(self):
        rows = [(source, *way) for source, (compilers, _) in self.CASES.items()
                for way in itertools.product(compilers, MODULES, ("-O0", "-O2"))]
        self.assertGreater(len(rows), 80)
        with ThreadPoolExecutor(2) as pool:
            for row, said in zip(rows, pool.map(lambda row: self.tried(*row), rows)):
                with self.subTest(row):
                    self.assertRegex(said, rf"\A{self.CASES[row[0]][1]}\Z")

    def test_shared_library_uses_sinks_of_hidden_visibility_programs(self):
        for source in ("sinks.c", "longSinks.cpp"):
            compilers, said = self.CASES[source]
            program = self.link(compilers[0], source, SHARED, "-fvisibility=hidden")
            self.assertRegex(self.says(program), rf"\A{said}\Z")

    def test_programs_can_be_linked_with_lld(self):
        for source in ("plain.c", "ownClasses.cpp"):
            compilers, said = self.CASES[source]
            for module in MODULES:
                program = self.link(compilers[-1], source, module, "-fuse-ld=lld")
                self.assertRegex(self.says(program), rf"\A{said}\Z")


class Static(Install):
    """Programs linked with -static."""

    def test_static_program_needs_no_shared_library(self):
        for source in ("plain.c", "convert.c", "ownCalls.c", "sinks.c"):
            compilers, said = Everywhere.CASES[source]
            for compiler in compilers:
                program = self.link(compiler, source, STATIC, static=True)
                self.assertNotIn("NEEDED", must("readelf", "-d", program))
                self.assertRegex(self.says(program, self.icu), rf"\A{said}\Z")

    def test_a_property_list_is_read(self):
        program = self.link("gcc -std=c11", "propertyList.c", STATIC, static=True)
        self.assertEqual(self.says(program, PROGRAMS / "version.plist"), "0\nPelago 1.2 <3A4> & more\n")


class WithTheHostsIcu(Install):
    def test_program_and_library_each_use_their_own(self):
        for module, libraries in itertools.product(MODULES, (["-licuuc"], ["-l:libicuuc.a", "-l:libicudata.a", "-lstdc++", "-lm"])):
            for before, after in ((libraries, []), ([], libraries)):
                program = self.link("gcc -std=c11", "otherIcu.c", module, f"-DORDER_{len(before)}_{len(libraries)}",
                                    more=[*before], after=after)
                self.assertEqual(self.says(program, self.icu), "0\nok\n")


class CMake(Install):
    """Projects with CMake, one in C alone and one in C++."""

    PROJECT = """cmake_minimum_required(VERSION 3.25)
project(outside LANGUAGES {language})
find_package(pelago 0.1 REQUIRED)
foreach(kind foundation foundation_shared)
    add_executable(with_${{kind}} {source})
    target_link_libraries(with_${{kind}} PRIVATE pelago::${{kind}})
endforeach()
"""

    def build(self, language, source, prefix):
        project = self.folder / f"project {language}"
        project.mkdir()
        (project / "CMakeLists.txt").write_text(self.PROJECT.format(language=language, source=PROGRAMS / source))
        must("cmake", "-S", project, "-B", project / "build", f"-DCMAKE_PREFIX_PATH={prefix}",
             "-DCMAKE_C_FLAGS=-Wall -Wextra -Werror", "-DCMAKE_CXX_FLAGS=-Wall -Wextra -Werror")
        must("cmake", "--build", project / "build")
        return project / "build"

    def test_projects_in_c_and_cxx_are_built(self):
        spaced = self.folder / "a prefix"
        spaced.symlink_to(self.prefix)
        for language, source in (("C", "plain.c"), ("CXX", "ownClasses.cpp")):
            build = self.build(language, source, spaced)
            for kind in ("foundation", "foundation_shared"):
                # CMake has written the shared library's folder into the program.
                said = run(build / f"with_{kind}")
                self.assertRegex(f"{said.returncode}\n{said.stdout}{said.stderr}", rf"\A{Everywhere.CASES[source][1]}\Z")
            self.assertIn("libpelago_foundation.so.0", must("readelf", "-d", build / "with_foundation_shared"))
            self.assertNotIn("libpelago", must("readelf", "-d", build / "with_foundation"))


class Names(Install):
    """exports.txt lists all names that a linker sees, so a new or a missing name changes that list."""

    def test_archive_exports_the_listed_names(self):
        listed = re.findall(r"^\S+ (\w) (\S+)$", must("nm", "-g", "--defined-only", self.archive), re.M)
        self.assertEqual(sorted(name for _, name in listed), EXPORTS)
        self.assertEqual({name for kind, name in listed if kind != "T"}, {"Pelago_Log", "Pelago_Panic", "Pelago_Warning"})
        self.assertEqual({kind for kind, _ in listed}, {"T", "W"})

    def test_shared_library_exports_the_listed_names(self):
        listed = re.findall(r"^\S+ [TWDBRVu] (\S+)@@PELAGO_0$", must("nm", "-D", "--defined-only", self.shared), re.M)
        self.assertEqual(sorted(listed), EXPORTS)
        everything = must("nm", "-D", "--defined-only", self.shared).splitlines()
        self.assertEqual(len(everything), len(EXPORTS) + 1, "and the name of the version")
        self.assertIn("[libpelago_foundation.so.0]", must("readelf", "-d", self.shared))

    def test_shared_object_does_not_export_archive_names(self):
        plugin = self.folder / "plugin.so"
        must("gcc", "-shared", "-fPIC", *self.flags("--cflags", STATIC), PROGRAMS / "plain.c", *self.flags("--libs", STATIC),
             "-o", plugin)
        listed = set(re.findall(r" (\w+)$", must("nm", "-D", "--defined-only", plugin), re.M))
        self.assertIn("main", listed)
        self.assertEqual(listed & set(EXPORTS), set())

    def test_declared_and_defined_names_are_the_same(self):
        must("python3", ROOT / "packaging/publicNames.py", self.folder, "gcc",
             *sorted((self.prefix / "include/pelago").glob("*.h")))
        declared = set((self.folder / "publicNames.txt").read_text().split())
        self.assertGreater(len(declared), 200)
        in_c = {name for name in re.findall(r"^\S+ [A-Z] (\w+)$", must("nm", "-g", "--defined-only", os.environ["PELAGO_FOUNDATION"]), re.M)
                if not name.startswith("_Z")}
        self.assertEqual(declared - in_c, set(), "declared, not defined")
        self.assertEqual(in_c - declared, set(), "defined, not declared")
        self.assertEqual(declared, set(EXPORTS))


class NamesOfHeaders(unittest.TestCase):
    """publicNames.py lists the names that a header declares."""

    HEADER = """#include <stdio.h>
typedef int Number;
typedef void (*Callback)(int, char **);
struct Pair { int a; Number (*b)(void); };
enum Kind { ONE, TWO };
Number First(void) __attribute__((nonnull(1)));
extern const char Second[2];
extern int Third;
static inline int NotOne(struct Pair *p) { if (p) { return p->b(); } else { return 1; } }
const struct Pair *Fourth(Callback back, int (*other)(Number)) __asm__("x");
"""

    def test_lists_functions_and_variables(self):
        with tempfile.TemporaryDirectory() as folder:
            header = Path(folder, "header.h")
            header.write_text(self.HEADER)
            must("python3", ROOT / "packaging/publicNames.py", folder, "gcc", header)
            self.assertEqual(Path(folder, "publicNames.txt").read_text().split(), ["First", "Fourth", "Second", "Third"])


class Headers(Install):
    def test_each_header_alone_causes_no_warning(self):
        strict = ("-Wold-style-cast", "-Wconversion", "-Wuseless-cast") # the last of g++ alone
        ways = [(compiler, strict[:2] if "++" in compiler else ()) for compiler in (*C, *CXX)] + [("g++ -std=c++17", strict)]
        for (compiler, warnings), header in itertools.product(ways, self.headers):
            done = run(*compiler.split(), *WARNINGS, *warnings, *self.flags("--cflags", STATIC), "-fsyntax-only",
                       "-x", "c++" if "++" in compiler else "c", "-", input=f"#include <pelago/{header}>\nint here;\n")
            self.assertEqual((done.returncode, done.stderr), (0, ""), f"{compiler}, {header}")


if __name__ == "__main__":
    unittest.main()
