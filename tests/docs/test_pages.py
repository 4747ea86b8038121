"""Every name that a public header declares has a manual page, without warnings, which man finds."""

import os
import re
import subprocess
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
HEADERS = {path.stem: path.read_text() for path in (ROOT / "lib/public").glob("*.h") if path.stem != "declarations"}
EXAMPLES = {path.stem: path.read_text() for path in (ROOT / "examples/library").iterdir()}
PAGES = Path(os.environ["PELAGO_PAGES"])
HTML = Path(os.environ["PELAGO_HTML"])
MAP = (ROOT / "docs/man/pelago-foundation.3").read_text()


def is_for_callers(name):
    is_version = re.fullmatch("PELAGO_VERSION(_MAJOR|_MINOR|_PATCH|_NUMBER)?", name)
    return bool(is_version) or not name.startswith(("PELAGO_", "STRING_ENCODING_"))


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, check=False, **options)


def code_of(header):
    """Returns the header without its comments, and without declarations for its own use."""
    code = re.sub(r"/\*(?:(?!\*/).)*not for callers\. \*/\n[^{;]*", "", header, flags=re.S)
    return re.sub(r"/\*.*?\*/", "", code, flags=re.S)


def declared(header):
    """Returns the names of functions, types, macros and constants, read without Doxygen."""
    code = code_of(header)
    functions = set(re.findall(r"^\w[\w *]*?\b(\w+)\((?![(*])", code, re.M)) - {"__attribute__"}
    types = set(re.findall(r"^typedef [^;{]*?(?:\(\*)?\b(\w+)\)?(?:\([^;]*\))?;", code, re.M))
    types |= set(re.findall(r"^} (\w+);", code, re.M))
    macros = set(re.findall(r"^#define (\w+)", code, re.M)) - set(re.findall(r"^#undef (\w+)", code, re.M))
    constants = set(re.findall(r"^    ([A-Z][A-Z0-9_]+)(?: =[^;]*?)?,?$", re.sub(r"[ ]+$", "", code, flags=re.M), re.M))
    names = functions | types | macros | constants
    return set(filter(is_for_callers, names))


def words(text):
    return re.sub(r"[\s\u2010\u2013\u2014\u2212-]+", "", text)


def shown(page):
    """Returns the rendered page, on a screen wide enough for each of its lines."""
    return re.sub(".\b", "", run("mandoc", "-T", "utf8", "-O", "width=300", page).stdout)


class Names(unittest.TestCase):
    def test_pages_match_declared_names_and_headers(self):
        names = set().union(*map(declared, HEADERS.values()))
        self.assertGreater(len(names), 260)
        self.assertLessEqual({"Str_Snprintf", "DynBuf_SafeAppend", "HashTableFreeEntryFn", "HASH_INT_KEY", "UTIL_NO_BUG",
                              "DynBuf", "HostinfoProcessQuery", "PELAGO_VERSION", "Pelago_Panic", "CodeSetLocationFunc"}, names)
        pages = {path.name.removesuffix(".3") for path in PAGES.iterdir()}
        self.assertEqual(pages, names | {f"pelago_{name}" for name in HEADERS})

    def test_encoding_page_lists_every_encoding(self):
        page = (PAGES / "StringEncoding.3").read_text()
        encodings = re.findall(r"\bSTRING_ENCODING_\w+(?= = )", HEADERS["unicodeTypes"])
        self.assertGreater(len(encodings), 300)
        self.assertEqual([name for name in encodings if f" {name} = " not in page], [])

    def test_library_page_refers_to_every_header_page(self):
        for name in HEADERS:
            self.assertIn(f".Xr pelago_{name} 3", MAP)

    def test_the_reference_has_every_function(self):
        text = "".join(path.read_text() for path in HTML.glob("*_8h.html"))
        for header in HEADERS.values():
            for name in re.findall(r"^\w[\w *]*?\b(\w+)\((?![(*])", code_of(header), re.M):
                self.assertRegex(text, rf">{name}</a>" if name != "__attribute__" else "")

    def test_man_and_apropos_find_each_name(self):
        pages = sorted(PAGES.iterdir())
        names = [page.name.removesuffix(".3") for page in pages]
        found = run("man", "-w", *names, env=os.environ | {"MANPATH": str(PAGES.parent)})
        self.assertEqual(found.stdout.splitlines(), [str(page.resolve()) for page in pages], found.stderr)
        summaries = set(run("lexgrog", *pages).stdout.splitlines())
        for page, name in zip(pages, names):
            self.assertTrue(any(line.startswith(f'{page}: "{name} - ') for line in summaries), name)


class Roff(unittest.TestCase):
    def warnings(self, *pages):
        """Returns the warnings of mandoc and groff."""
        said = run("mandoc", "-T", "lint", "-W", "warning", *pages)
        return said.stdout + said.stderr + run("groff", "-k", "-mandoc", "-ww", "-T", "utf8", "-z", *pages).stderr

    def test_there_is_nothing_to_warn_of(self):
        pages = sorted(path for path in PAGES.iterdir() if not path.is_symlink())
        self.assertGreater(len(pages), 200)
        self.assertEqual(self.warnings(*pages), "")

    def test_a_fault_would_be_found(self):
        with tempfile.TemporaryDirectory() as folder:
            page = Path(folder, "faulty.3")
            page.write_text((PAGES / "Err_NumberToText.3").read_text().replace(".Ed\n", "", 1))
            self.assertIn("Bd", self.warnings(page))

    def test_man_has_no_warning_either(self):
        for name in ("Str_Snprintf", "pelago_bsd_vsnprintf", "pelago_escape"):
            done = run("man", "--warnings", "-E", "UTF-8", "-l", PAGES / f"{name}.3", env=os.environ | {"LC_ALL": "C.UTF-8"})
            self.assertEqual((done.returncode, done.stderr), (0, ""))
            self.assertIn(name.lower(), done.stdout.lower())


class Headers(unittest.TestCase):
    def test_header_pages_start_with_synopsis_and_example(self):
        for name in HEADERS:
            page = (PAGES / f"pelago_{name}.3").read_text()
            self.assertEqual(re.findall(r"^\.Sh (.*)$", page, re.M), ["NAME", "SYNOPSIS", "EXAMPLE", "DESCRIPTION", "SEE ALSO"])
            self.assertIn(f".In pelago/{name}.h\n", page)
            self.assertIn("$(pkg\\-config \\-\\-cflags \\-\\-libs pelago\\-foundation)", page)
            lines = [line.removeprefix("     ") for line in shown(PAGES / f"pelago_{name}.3").splitlines()]
            example = EXAMPLES[name].replace("\t", " ").splitlines()
            at = lines.index("EXAMPLE") + 1
            self.assertEqual(lines[at:at + len(example)], example, name)

    def test_each_page_has_every_word_of_every_comment(self):
        for name, header in HEADERS.items():
            page = words(shown(PAGES / f"pelago_{name}.3"))
            comments = list(self.for_callers(header))
            self.assertGreater(len(comments), 3, name)
            for comment in comments:
                for sentence in re.split(r"(?<=\.)\s", self.text(comment)):
                    self.assertTrue(words(sentence).rstrip(".") in page, f"{name}: {sentence}")

    @staticmethod
    def for_callers(header):
        """Yields the comments, except those inside functions and on guards and internal names."""
        for found in re.finditer(r"/\*.*?\*/", header, re.S):
            before = header[header.rfind("\n", 0, found.start()) + 1:found.start()]
            macro = re.match(r"\n(?:#ifdef \w+\n)?#define (\w+)", header[found.end():])
            is_internal = macro and (not is_for_callers(macro[1]) or f"#undef {macro[1]}\n" in header)
            is_inside = before.isspace() or before.startswith(("#endif", "#ifdef"))
            if not is_internal and not is_inside and "not for callers" not in found[0]:
                yield found[0]

    @staticmethod
    def text(comment):
        text = re.sub(r"\n *\*", "\n", comment[2:-2])
        return text.partition(" -- ")[2] or text.strip().removeprefix("---- ")


if __name__ == "__main__":
    unittest.main()
