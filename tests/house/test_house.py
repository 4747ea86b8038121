"""What holds the house together: who includes whom, no test of the host outside platform/, documented
headers that stand alone, one layout, hardened binaries, and nothing of Linux in the tool."""

import os
import re
import subprocess
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
PUBLIC = ROOT / "lib/public"

# The modules of each floor, from ARCHITECTURE.md's picture, by which each source includes downwards only.
FLOOR_OF = {module: int(floor) for floor, modules in
            re.findall(r"^    (\d)  (\w+(?: \w+)*)$", (ROOT / "ARCHITECTURE.md").read_text(), re.M) for module in modules.split()}
# The objects between the code sets and the location service, whose folder they ask for.
THE_HOOKS = {"codeset", "codesetConversions", "location", "posixPath", "unicodeSimpleBase"}
INTERNALS_OF_OTHERS = {("hostinfo", "posixInt.h")}  # who includes what another keeps to itself
PUBLIC_HEADERS = {path.name for path in PUBLIC.glob("*.h")}
ROOMS = {"apps/pelagoShareTool", "lib/misc", "lib/string", "lib/unicode", "lib/public"}
# The SDK's headers, and those of what each host does in a way of its own.
SDK = {str(path.relative_to(ROOT / "platform/sdk")) for path in (ROOT / "platform/sdk").rglob("*.h")}
HOSTS_OWN = {path.name for path in (ROOT / "platform/host").glob("*.h")}
BSD = {str(path.relative_to(ROOT / "platform/linux/include")) for path in (ROOT / "platform/linux/include").rglob("*.h")}
OF_THE_PLATFORM = SDK | HOSTS_OWN | BSD - {"string.h", "unistd.h"}  # which every room has
MAY_INCLUDE_OF_THE_PLATFORM = {"lib/misc": OF_THE_PLATFORM, "apps/pelagoShareTool": SDK}
# Headers that only one host has, or that only one host declares that way.
HOST_HEADERS = {
    "sys/vfs.h", "sys/statfs.h", "malloc.h", "endian.h", "byteswap.h", "features.h", "error.h", "sys/auxv.h",
    "sys/sysinfo.h", "sys/prctl.h", "sys/epoll.h", "sys/inotify.h", "linux/", "expat.h", "sys/random.h",
}
# What a room keeps away from altogether.
FILE_SYSTEM = {"fcntl.h", "unistd.h", "dirent.h", "filesystem", "fstream", "sys/stat.h", "sys/mount.h"}
MAY_NOT_INCLUDE = {"lib/string": FILE_SYSTEM}
# All that the tool's own objects ask of the host: calls that are there on either one.
TOOL_IMPORTS = {
    "CFArrayAppendArray", "CFArrayAppendValue", "CFArrayContainsValue", "CFArrayCreateMutable",
    "CFArrayCreateMutableCopy", "CFArrayGetCount", "CFArrayGetFirstIndexOfValue", "CFArrayGetTypeID",
    "CFArrayRemoveValueAtIndex", "CFGetTypeID", "CFRelease", "__CFStringMakeConstantString",
    "kCFAllocatorDefault", "kCFTypeArrayCallBacks", "SCPreferencesCommitChanges", "SCPreferencesCreate",
    "SCPreferencesGetValue", "SCPreferencesLock", "SCPreferencesSetValue", "SCPreferencesUnlock",
    "Location_Get", "Location_Init", "Pelago_Panic", "Unicode_Init",
    "access", "dup2", "execv", "exit", "fcntl", "fcntl64", "fflush", "fgets", "fork", "fprintf", "fputc", "fputs",
    "free", "fwrite", "open", "open64", "printf", "putchar", "puts", "signal", "stderr", "stdin", "stdout",
    "vfprintf", "waitpid", "errno",
}


def sources(*folders, suffixes=(".cpp", ".h")):
    for folder in folders:
        for path in sorted((ROOT / folder).rglob("*")):
            if path.suffix in suffixes:
                yield path


OF_OURS = {path.name for path in sources("apps", "lib", suffixes=(".h",))}


def module_of(name):
    """The module of a source or header."""
    found = [module for module in FLOOR_OF if Path(name).name.startswith(module)]
    if not found:
        raise AssertionError(f"{name} is of no module: ARCHITECTURE.md says on which floor each is")
    return max(found, key=len)


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, cwd=ROOT, **options)


def output_of(*command):
    done = run(*command)
    if done.returncode != 0:
        raise AssertionError(f"{command} ended with {done.returncode}: {done.stderr}")
    return done.stdout


def circles(archive):
    """The groups of objects in the archive that call each other, by the names of their sources."""
    home, needed = {}, {}
    for source, kind, name in re.findall(r":(\w+)\.cpp\.o:\S* +(\w) (\S+)$", output_of("nm", "-A", archive), re.M):
        needed.setdefault(source, set())
        if kind in "TDBR":
            home[name] = source
        elif kind == "U":
            needed[source].add(name)
    calls = {source: {home[name] for name in names if name in home} - {source} for source, names in needed.items()}
    reached = {source: reached_from(source, calls) for source in calls}
    return {frozenset(other for other in reached[source] if source in reached[other])
            for source in calls if source in reached[source]}


def reached_from(source, calls):
    reached, coming = set(), [source]
    while coming:
        new = calls[coming.pop()] - reached
        reached |= new
        coming += new
    return reached


class Rooms(unittest.TestCase):
    def test_no_room_tests_for_a_host(self):
        pattern = re.compile(r"^\s*#\s*(el)?if.*(__linux__|__APPLE__|__gnu_linux__|__MACH__|__GLIBC__|_WIN32|__has_include)", re.M)
        for path in sources("apps", "lib"):
            self.assertNotRegex(path.read_text(), pattern, path)

    def test_no_host_only_header_outside_platform(self):
        for path in sources("apps", "lib"):
            for header in re.findall(r"#\s*include\s*<([^>]+)>", path.read_text()):
                self.assertFalse(any(header.startswith(host) for host in HOST_HEADERS), f"{path}: {header}")

    def test_there_are_these_rooms(self):
        self.assertEqual({str(path.parent.relative_to(ROOT)) for path in sources("apps", "lib")}, ROOMS)

    def test_each_source_includes_its_floor_and_those_below(self):
        for path in sources(*ROOMS):
            module = module_of(path.name)
            for header in re.findall(r'#\s*include\s*"([^"]+)"', path.read_text()):
                what = f"{path} includes {header}"
                self.assertLessEqual(FLOOR_OF[module_of(header)], FLOOR_OF[module], what)
                if path.parent == PUBLIC:
                    self.assertIn(header, PUBLIC_HEADERS, what)
                elif header.endswith("Int.h") and module_of(header) != module:
                    self.assertIn((module, header), INTERNALS_OF_OTHERS, what)

    def test_objects_form_no_circle_but_the_hooks(self):
        self.assertEqual(circles(os.environ["PELAGO_FOUNDATION"]), {frozenset(THE_HOOKS)})

    def test_every_module_is_there(self):
        self.assertEqual({module_of(path.name) for path in sources(*ROOMS)}, set(FLOOR_OF))

    def test_the_tool_includes_public_headers_and_its_own(self):
        own = {path.name for path in sources("apps")}
        for path in sources("apps"):
            self.assertLessEqual(set(re.findall(r'#\s*include\s*"([^"]+)"', path.read_text())), PUBLIC_HEADERS | own, path)

    def test_pointed_brackets_are_the_host_s(self):
        for room in ROOMS:
            for path in sources(room):
                for header in re.findall(r"#\s*include\s*<([^>]+)>", path.read_text()):
                    self.assertNotIn(header, OF_OURS, f"{path}: ours stand in quotes")
                    self.assertNotIn(header, OF_THE_PLATFORM - MAY_INCLUDE_OF_THE_PLATFORM.get(room, set()), path)

    def test_rooms_keep_away_from_what_is_not_theirs(self):
        for room, forbidden in MAY_NOT_INCLUDE.items():
            for path in sources(room):
                headers = set(re.findall(r"#\s*include\s*<([^>]+)>", path.read_text()))
                self.assertEqual(headers & forbidden, set(), path)

    def test_linux_host_includes_platform_and_public_headers_only(self):
        files = list(sources("product/linux/host"))
        self.assertGreater(len(files), 10)
        allowed = {path.name for path in files} | {path.name for path in sources("platform/linux")} | HOSTS_OWN | PUBLIC_HEADERS
        for path in files:
            for header in re.findall(r'#\s*include\s*"([^"]+)"', path.read_text()):
                self.assertIn(header, allowed | {"utf.h"}, f"{path} includes {header}")

    def test_the_platform_layer_knows_nothing_above_it(self):
        for path in sources("platform"):
            for header in re.findall(r'#\s*include\s*["<]([^">]+)[">]', path.read_text()):
                self.assertNotIn(header, OF_OURS, path)


class PublicHeaders(unittest.TestCase):
    def test_each_stands_alone_in_both_languages(self):
        for header in sorted(PUBLIC.glob("*.h")):
            for compiler, standard in (("gcc", "c11"), ("clang", "c11"), ("g++", "c++20"), ("clang++", "c++20")):
                language = "c" if standard == "c11" else "c++"
                done = run(compiler, f"-std={standard}", "-Wall", "-Wextra", "-Wpedantic", "-Werror", "-fsyntax-only",
                           "-x", language, "-iquote", PUBLIC, "-", input=f'#include "{header.name}"\nint here;\n')
                self.assertEqual(done.returncode, 0, f"{header.name}, {compiler}: {done.stderr}")

    def test_each_library_symbol_is_declared_and_documented(self):
        exported = set(re.findall(r" [TDBR] (\w+)$", output_of("nm", "-g", os.environ["PELAGO_FOUNDATION"]), re.M))
        symbols = {name for name in exported if not name.startswith("_Z")}
        self.assertIn("Location_Get", symbols)
        text = "".join(header.read_text() for header in PUBLIC.glob("*.h"))
        for name in symbols:
            declaration = re.search(rf"^\w[^;/{{}}]*\b{name}\(", text, re.M)
            self.assertIsNotNone(declaration, f"{name} is in no public header")
            before = text[:declaration.start()].rstrip()
            self.assertTrue(before.endswith("*/"), f"{name} has no comment")


# The words of a demangled C++ name that are the language's or its library's.
LANGUAGE = {"std", "__gnu_cxx", "bool", "char", "char8_t", "char16_t", "char32_t", "const", "double", "false", "float", "int",
            "long", "operator", "short", "signed", "true", "unsigned", "void", "wchar_t"}


def foreign_names(symbol):
    """What a demangled C++ name is made of that is neither ours nor the language's.  Names that begin with
    two underscores are reserved: in the platform layer they are the SDK's own tags."""
    symbol = re.sub(r"\[abi:\w+\]|\{lambda.*?\}|\bvtable for |\btypeinfo (name )?for |\bguard variable for ", "", symbol)
    heads = set(re.findall(r"(?<![\w:~])[A-Za-z_]\w*", symbol)) - LANGUAGE - {"pelago"}
    return {head for head in heads if not head.startswith("__")}


class Names(unittest.TestCase):
    """A program that links the archives may have a class or an inline function of any name of its own."""

    def test_a_name_of_ours_is_told_from_others(self):
        for symbol in ("pelago::ErrnoSaver::~ErrnoSaver()", "std::unique_ptr<char, pelago::FreeQuietly>::~unique_ptr()",
                       "void pelago::platform::CFDestroy<__CFArray>(pelago::platform::CFObject const*)"):
            self.assertEqual(foreign_names(self.own_part_of(symbol)), set(), symbol)
        for symbol, name in (("ErrnoSaver::~ErrnoSaver()", "ErrnoSaver"), ("ReadWholeFile(char const*)", "ReadWholeFile"),
                             ("std::unique_ptr<char, FreeQuietly>::~unique_ptr()", "FreeQuietly"),
                             ("typeinfo for PropertyList", "PropertyList")):
            self.assertEqual(foreign_names(self.own_part_of(symbol)), {name}, symbol)

    def test_every_cpp_symbol_is_in_our_namespace(self):
        for variable, ours in (("PELAGO_FOUNDATION", "pelago::CodeSetIcuKnows(char const*)"),
                               ("PELAGO_PLATFORM", "pelago::platform::PropertyListFaultText(pelago::platform::PropertyListFault)")):
            listed = output_of("nm", "-g", "--defined-only", os.environ[variable])
            mangled = sorted(set(re.findall(r" [A-Za-z] (_Z\S+)$", listed, re.M)))
            symbols = output_of("c++filt", *mangled).splitlines()
            self.assertIn(ours, symbols)
            outside = [symbol for symbol in symbols if foreign_names(self.own_part_of(symbol))]
            self.assertEqual(outside, [], os.environ[variable])

    @staticmethod
    def own_part_of(symbol):
        """A function of ours may take whatever type it likes; the library's is an instantiation for ours."""
        is_ours = re.match(r"(\S+ )?(pelago::|__)", symbol)
        return "pelago" if is_ours else symbol


class Layout(unittest.TestCase):
    def test_clang_format_has_nothing_to_change(self):
        files = [path for path in sources("apps", "lib", "platform", "product", "tests", "fuzz", "bench", "examples")]
        done = run("clang-format", "--dry-run", "--Werror", *files)
        self.assertEqual(done.returncode, 0, done.stderr[:3000])

    def test_shellcheck_has_nothing_to_say(self):
        scripts = [path for path in run("git", "ls-files", "--cached", "--others", "--exclude-standard",
                                        "*.sh", ".ci/run").stdout.split()] \
            or [str(path) for path in ROOT.rglob("*.sh") if "build" not in path.parts]
        self.assertGreater(len(scripts), 5)
        done = run("shellcheck", "--external-sources", *scripts)
        self.assertEqual(done.returncode, 0, done.stdout)

    def test_links_in_the_documents_lead_somewhere(self):
        for page in [*ROOT.glob("*.md"), *(ROOT / "docs").glob("*.md"), *(ROOT / "product").rglob("*.md")]:
            prose = re.sub(r"``.*?``", "", page.read_text())
            for target in re.findall(r"\]\(([^)#:]+)\)", prose):
                self.assertTrue((page.parent / target).exists(), f"{page}: {target}")


class Binaries(unittest.TestCase):
    def test_the_tool_asks_only_what_both_hosts_have(self):
        objects = os.environ["PELAGO_TOOL_OBJECTS"].split(":")
        self.assertEqual(len(objects), 2)
        names = set(re.findall(r" U (\S+)$", output_of("nm", "-u", *objects), re.M))
        self.assertLessEqual({"SCPreferencesCreate", "execv"}, names)  # one of each object's
        for name in names - {"__errno_location"}:
            # The C library's hardened forms of the same calls, and the C++ and compiler runtimes.
            plain = re.sub(r"^__(\w+)_chk$", r"\1", name)
            if not name.startswith(("_Z", "__gxx", "_Unwind", "__stack_chk", "_GLOBAL_OFFSET", "__cxa")):
                self.assertIn(plain, TOOL_IMPORTS)

    def test_the_tool_is_hardened(self):
        tool = os.environ["PELAGO_TOOL"]
        header, dynamic = output_of("readelf", "-hW", tool), output_of("readelf", "-dlW", tool)
        self.assertIn("DYN (Position-Independent Executable file)", header)
        self.assertIn("GNU_RELRO", dynamic)
        self.assertRegex(dynamic, r"FLAGS_1.*\bNOW\b")
        self.assertRegex(dynamic, r"GNU_STACK.* RW ")
        names = output_of("nm", tool)
        self.assertIn("__stack_chk_fail", names)
        self.assertIn("__fprintf_chk", names)

    def test_the_tool_loads_nothing(self):
        tool = os.environ["PELAGO_TOOL"]
        for absent in ("NEEDED", "INTERP"):
            self.assertNotIn(absent, output_of("readelf", "-dlW", tool))
        names = output_of("nm", tool)
        # For users, hosts and character sets the C library loads modules.
        self.assertNotRegex(names, r"(?m) (getpw\w+|getgr(nam|gid|ent)\w*|getaddrinfo|gethostby(name|addr)\w*_r|iconv_open)$")
        self.assertRegex(names, r"(?m) getuid$")

    def test_the_bundle_is_whole(self):
        library = Path(os.environ["PELAGO_TOOL"]).parents[1]
        for name in ("shares/adduser.sh", "shares/addshare.sh", "shares/rmshare.sh", "shares/rmuser.sh", "host/sambaAccount.py"):
            self.assertEqual((library / name).read_bytes(), (ROOT / "product/linux" / name).read_bytes())
            self.assertEqual(os.access(library / name, os.X_OK), name.endswith(".sh"), name)
        self.assertTrue(os.access(library / "host/pelagoHost", os.X_OK))
        data = library / "icu/icudt44l.dat"
        listed = run("icupkg", "-l", data, env=os.environ | {"PATH": os.environ["PATH"] + ":/usr/sbin"})
        self.assertEqual((listed.returncode, listed.stdout), (0, ""), "a valid package without an item")


if __name__ == "__main__":
    unittest.main()
