"""The manual pages are well-formed, and agree with the sources."""

import os
import re
import subprocess
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
PAGES = sorted((ROOT / "docs/man").iterdir())
TOOL = (ROOT / "docs/man/pelagoShareTool.8").read_text()
LIBRARY = (ROOT / "docs/man/pelago-foundation.3").read_text()
TOOL_SOURCES = sorted((ROOT / "apps/pelagoShareTool").glob("*.cpp"))


def mandoc(*arguments, page):
    return subprocess.run([os.environ["MANDOC"], *arguments], input=page, capture_output=True, text=True)


def rendered(page):
    """Returns the lines of the page on a screen wide enough for each of them."""
    return re.sub(".\b", "", mandoc("-T", "utf8", "-O", "width=300", page=page).stdout).splitlines()


def documented_lines():
    """Returns the lines of output that the subsection about standard output lists."""
    page = rendered(TOOL)
    start = page.index("   Standard output")
    end = page.index("   Standard input")
    lines = [line.strip() for line in page[start:end] if re.match(r"     \S", line)]
    return [line for line in lines if re.match(r"[0-9] - |N ", line)]


def literals(code):
    return ["".join(re.findall(r'"((?:[^"\\]|\\.)*)"', group))
            for group in re.findall(r'"(?:[^"\\]|\\.)*"(?:\s*"(?:[^"\\]|\\.)*")*', code)]


def written_lines():
    """Returns each text that the tool writes to standard output, as a pattern for any values."""
    patterns = []
    for source in TOOL_SOURCES:
        for call in re.findall(r"(?<![a-z])(?:puts|printf)\((.*?)\);", source.read_text(), re.S):
            text, *choices = literals(call)
            text = re.escape(text.removesuffix("\\n")).replace("%d", "N")
            patterns += [text.replace("%s", re.escape(choice)) for choice in choices] or [text.replace("%s", r"\S+?")]
    return patterns


class Pages(unittest.TestCase):
    def test_there_is_nothing_to_warn_of(self):
        self.assertEqual(len(PAGES), 3)
        for page in PAGES:
            done = mandoc("-T", "lint", "-W", "warning", page=page.read_text())
            self.assertEqual((done.stdout, done.returncode), ("", 0), page)

    def test_a_fault_would_be_found(self):
        done = mandoc("-T", "lint", "-W", "warning", page=TOOL.replace(".El\n", "", 1))
        self.assertNotEqual(done.returncode, 0)


class Tool(unittest.TestCase):
    def test_finds_all_lines_that_the_sources_write(self):
        self.assertEqual(len(written_lines()), 10)

    def test_each_written_line_is_documented_once(self):
        documented = documented_lines()
        for pattern in written_lines():
            matches = [line for line in documented if re.fullmatch(pattern, line)]
            self.assertEqual(len(matches), 1, f"{pattern} in {documented}")

    def test_each_documented_line_is_written(self):
        patterns = written_lines()
        for line in documented_lines():
            self.assertTrue(any(re.fullmatch(pattern, line) for pattern in patterns), line)

    def test_manual_page_names_each_file_the_tool_uses(self):
        text = (ROOT / "lib/misc/location.cpp").read_text()
        files = re.findall(r'\{"\w+", "(/Contents/[^"]+)"\}', text)
        self.assertEqual(len(files), 6)
        files = [f"Pelago.app{file}" for file in files]
        preferences = re.search(r'#define SAMBA_PREFS_FILE "(.*)"', (ROOT / "apps/pelagoShareTool/pelagoShareTool.cpp").read_text())
        named = re.findall(r"^\.It Pa (\S+)$", TOOL, re.M)
        for file in [*files, preferences[1], f"{preferences[1]}-lock"]:
            self.assertIn(file, named)

    def test_the_exit_statuses_are_those_of_the_sources(self):
        source = "".join(path.read_text() for path in TOOL_SOURCES)
        self.assertIn("EXIT_USAGE = 2", source)
        section = TOOL[TOOL.index(".Sh EXIT STATUS"):TOOL.index(".Sh EXAMPLES")]
        self.assertEqual(re.findall(r"^\.It (\w+)$", section, re.M), ["0", "1", "2", "other"])


class Library(unittest.TestCase):
    def test_each_header_has_its_paragraph(self):
        headers = sorted(f"pelago/{path.name}" for path in (ROOT / "lib/public").glob("*.h"))
        self.assertEqual(sorted(re.findall(r"^\.It In (\S+)$", LIBRARY, re.M)), headers)

    def test_each_named_function_is_in_a_public_header(self):
        headers = "".join(path.read_text() for path in (ROOT / "lib/public").glob("*.h"))
        names = set(re.findall(r"^\.Fn (\w+)", LIBRARY, re.M)) - {"Module_Verb"}
        self.assertGreater(len(names), 5)
        for name in names:
            self.assertRegex(headers, rf"\b{name}\(")

    def test_the_example_is_the_program_in_the_tree(self):
        example = LIBRARY.split("A whole program:\n.Bd -literal\n")[1].split(".Ed\n")[0]
        self.assertEqual(example.replace("\\e", "\\"), (ROOT / "examples/greet.cpp").read_text())

    def test_linking_instructions_match_the_examples(self):
        outside = ROOT / "examples/outside"
        for line in re.findall(r"^(?:find_package|target_link_libraries).*", LIBRARY, re.M):
            self.assertIn(line, (outside / "CMakeLists.txt").read_text())
        self.assertIn("PACKAGE = pelago-foundation\n", (outside / "Makefile").read_text())


if __name__ == "__main__":
    unittest.main()
