"""The reference is made without a warning, and contains everything in the public headers."""

import os
import re
import subprocess
import tempfile
import unittest
from pathlib import Path
from xml.etree import ElementTree

ROOT = Path(__file__).resolve().parents[2]
HEADERS = sorted((ROOT / "lib/public").glob("*.h"))
DOXYFILE = Path(os.environ["PELAGO_DOXYFILE"]).read_text()


def make(folder, headers=ROOT / "lib/public"):
    settings = DOXYFILE.replace(f"{ROOT}/lib/public", str(headers)) + f'\nOUTPUT_DIRECTORY = "{folder}"\n'
    return subprocess.run([os.environ["DOXYGEN"], "-"], input=settings, capture_output=True, text=True, cwd=ROOT)


def words(text):
    """Returns the text without blanks and dashes; the reference turns dashes into list items or longer dashes."""
    return re.sub(r"[\s\u2013\u2014-]+", "", text)


def comments(header):
    """Returns the comments of a header, except those for readers of its source."""
    for before, comment in re.findall(r"^(.*?)/\*(.*?)\*/", header.read_text(), re.M | re.S):
        line = before.rpartition("\n")[2]
        if not line.startswith("#endif") and (line == "" or not line.isspace()):
            yield re.sub(r"\n *\*", "\n", comment)


class Reference(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.made = make(folder.name)
        cls.pages = [ElementTree.parse(page).getroot() for page in Path(folder.name, "xml").glob("*_8h.xml")]
        cls.pages += [ElementTree.parse(page).getroot() for page in Path(folder.name, "xml").glob("struct*.xml")]

    def members(self, *kinds):
        return {member.findtext("name") for page in self.pages for member in page.iter("memberdef")
                if member.get("kind") in kinds}

    def test_it_is_made_without_a_warning(self):
        self.assertEqual((self.made.returncode, self.made.stdout, self.made.stderr), (0, "", ""))

    def test_it_has_every_function_of_the_library(self):
        listed = subprocess.run(["nm", "-g", os.environ["PELAGO_FOUNDATION"]], capture_output=True, text=True)
        symbols = re.findall(r" T (\w+)$", listed.stdout, re.M)
        functions = {name for name in symbols if not name.startswith("_")}
        self.assertGreater(len(functions), 100)
        self.assertEqual(functions - self.members("function"), set())

    def test_it_has_every_function_of_the_headers(self):
        text = "".join(re.sub(r"/\*.*?\*/", "", header.read_text(), flags=re.S) for header in HEADERS)
        functions = set(re.findall(r"^\w[\w *]*?\b(\w+)\((?!\()", text, re.M)) - {"__attribute__"}
        self.assertGreater(len(functions), 150)
        self.assertEqual(functions - self.members("function", "define"), set())

    def test_it_has_every_constant(self):
        text = "".join(header.read_text() for header in HEADERS)
        constants = set(re.findall(r"^    ([A-Z][A-Z0-9_]+) = -?\d", text, re.M))
        self.assertGreater(len(constants), 300)
        listed = {value.findtext("name") for page in self.pages for value in page.iter("enumvalue")}
        self.assertEqual(constants - listed, set())

    def test_it_has_every_word_of_every_comment(self):
        for header in HEADERS:
            page = words("".join("".join(page.itertext()) for page in self.pages
                                 if any(place.get("file") == header.name for place in page.iter("location"))))
            found = list(comments(header))
            self.assertTrue(found, header)
            for comment in found:
                about = comment.partition(" -- ")[2] if comment == found[0] else comment
                self.assertIn(words(about), page, f"{header.name}: {comment}")

    def changed(self, folder, old, new):
        """Makes the reference of one header in which the old text is replaced by the new one."""
        headers = Path(folder, "headers")
        headers.mkdir()
        source = (ROOT / "lib/public/err.h").read_text()
        self.assertEqual(source.count(old), 1)
        (headers / "err.h").write_text(source.replace(old, new))
        return make(folder, headers)

    def test_prose_is_taken_as_it_stands(self):
        prose = "The text for @param, \\b errno, <i>, &amp;, #Err_Shutdown, %Err_Shutdown and $HOME."
        with tempfile.TemporaryDirectory() as folder:
            made = self.changed(folder, "Returns the text for errno.", prose)
            self.assertEqual((made.returncode, made.stderr), (0, ""))
            page = "".join(ElementTree.parse(Path(folder, "xml/err_8h.xml")).getroot().itertext())
            self.assertIn(words(prose), words(page))

    def test_a_function_without_a_comment_would_be_found(self):
        with tempfile.TemporaryDirectory() as folder:
            made = self.changed(folder, "/* Returns the text for errno. */\n", "")
            self.assertNotEqual(made.returncode, 0)
            self.assertIn("Err_CurrentText", made.stderr)


if __name__ == "__main__":
    unittest.main()
