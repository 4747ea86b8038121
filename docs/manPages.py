"""manPages.py XML HEADERS EXAMPLES MAP OUTPUT -- writes the manual pages of the public headers to OUTPUT.

XML is the folder that Doxygen wrote, HEADERS that of the headers, EXAMPLES that of their examples and
MAP the page that all of these lead to, whose date and version they share.  There is a page for each header, such as
pelago_str.3; a page for each function and type; one for the constants of each enumeration and one for
the macros of each header, with a link to it for each further name.  The encodings are on the page of
their type only.  A function whose text begins with "Does the same" or "Returns the same" is
on the page of the one above it.
"""

import re
import sys
import textwrap
from dataclasses import dataclass, field
from pathlib import Path
from xml.etree import ElementTree

MAP_NAME = "pelago-foundation"
LINK = "cc program.c $(pkg-config --cflags --libs pelago-foundation)"
NOT_FOR_CALLERS = "not for callers"
OF_THE_HEADERS_THEMSELVES = re.compile(r"PELAGO_(?!VERSION)|PELAGO_\w+_H$")
TYPES_WITHOUT_PAGES_OF_VALUES = {"StringEncoding"}


# ---- roff

def escaped(text):
    text = text.replace("\\", "\\e")
    text = re.sub(r"[^\x00-\x7f]", lambda found: f"\\[u{ord(found[0]):04X}]", text)
    return re.sub(r"(?m)^(?=[.'])", r"\\&", text)


def sentences(text):
    """The text with a line for each sentence, as roff wants it, and names that are not hyphenated."""
    text = escaped(re.sub(r"([.!?][)\"']*) (?=\S)", r"\1\n", " ".join(text.split())))
    return re.sub(r"(?<!\S)(?=\S*(_|[a-z][A-Z]))", r"\\%", text).split("\n")


def literal(text, offset=" -offset indent"):
    return [f".Bd -literal{offset}", *escaped(text).replace("-", "\\-").split("\n"), ".Ed"]


def word(text):
    """The text as one argument of a macro."""
    return f'"{text}"' if " " in text or text == "" else text


def listed(macro, names):
    """A line for each name, and a comma between two."""
    lines = [macro.format(name) for name in names]
    return [f"{line} ," for line in lines[:-1]] + lines[-1:]


# ---- Descriptions: Doxygen's paragraphs, as pairs of a kind and what is in them

def flat(node):
    dashes = {"ndash": "--", "mdash": "---"}
    inner = "".join(flat(child) + (child.tail or "") for child in node)
    return dashes.get(node.tag, "") + (node.text or "") + inner


def paragraph(node):
    """The blocks of one paragraph, in which a list or an example may interrupt the text."""
    text, blocks = node.text or "", []
    for child in node:
        if child.tag == "verbatim":  # the indentation of its first line is lost
            blocks += [("text", text), ("literal", textwrap.dedent("   " + child.text))]
            text = ""
        elif child.tag == "itemizedlist":
            blocks += [("text", text), ("list", [flat(item) for item in child])]
            text = ""
        elif child.tag != "simplesect":  # the program, which the header's page has in another place
            text += flat(child)
        text += child.tail or ""
    return [(kind, inner) for kind, inner in [*blocks, ("text", text)] if kind != "text" or inner.strip()]


def description(node, *parts):
    """The blocks of these parts; the first sentence, which is a part of its own, goes on in the next."""
    first, *others = [[block for para in node.iterfind(f"{part}/para") for block in paragraph(para)] for part in parts]
    for blocks in others:
        if first and blocks and blocks[0][0] == "text":
            blocks[0] = ("text", f"{first.pop()[1]} {blocks[0][1]}")
        first += blocks
    return first


def described(blocks):
    lines = []
    for kind, inner in blocks:
        if kind == "literal":
            lines += literal(inner)
        elif kind == "list":
            lines += [".Bl -dash -compact"] + [line for item in inner for line in [".It", *sentences(item)]] + [".El"]
        else:
            lines += [".Pp"] * bool(lines) + sentences(inner)
    return lines


def plain(blocks):
    return " ".join(" ".join(inner) if kind == "list" else inner for kind, inner in blocks)


# ---- What a header declares

@dataclass
class Item:
    """A declaration with its text."""
    name: str
    kind: str  # function, define, typedef, enum, struct
    line: int
    blocks: list
    call: list  # of what has parameters: how it is called, in roff
    source: str  # of anything else: its declaration, with the comments in it
    constants: list

    def is_same_as_above(self):
        return self.kind == "function" and plain(self.blocks).startswith(("Does the same", "Returns the same"))

    def is_macro(self):
        return self.kind == "define" and not self.call

    def tag(self):
        return f".It Fn {self.name}" if self.call else f".It Dv {self.name}"


@dataclass
class Page:
    items: list
    section: "Section"

    def names(self):
        names = []
        for item in self.items:
            names += [item.name] * bool(item.name)
            names += item.constants if item.name not in TYPES_WITHOUT_PAGES_OF_VALUES else []
        return names

    def purpose(self):
        """The first sentence of its text, or what stands before the first colon."""
        if self.items[0].is_macro():
            return f"constants of {self.section.header.file}"
        text = re.split(r"[:;] |[.] |[.:;]$", " ".join(plain(self.items[0].blocks).split()))[0]
        return text[0].lower() + text[1:] if re.match(r"[A-Z][a-z]*(?![\w(])", text) else text


@dataclass
class Section:
    header: "Header"
    title: str = ""
    blocks: list = field(default_factory=list)
    pages: list = field(default_factory=list)

    def conventions(self):
        """What holds for all in the section; a title is no sentence."""
        return self.blocks if plain(self.blocks).rstrip().endswith((".", ":")) else []

    def add(self, item):
        together = self.pages[-1:] if item.is_same_as_above() else [page for page in self.pages if page.items[0].is_macro()]
        if together and (item.is_same_as_above() or item.is_macro()):
            together[0].items.append(item)
        else:
            self.pages.append(Page([item], self))


class Header:
    def __init__(self, xml, headers, examples):
        compound = ElementTree.parse(xml).getroot().find("compounddef")
        self.file = compound.findtext("compoundname")
        self.page = f"pelago_{self.file.removesuffix('.h')}"
        self.source = (headers / self.file).read_text().split("\n")
        self.example = next(examples.glob(f"{self.file.removesuffix('.h')}.*"), None)
        self.title = plain(description(compound, "briefdescription")).strip().rstrip(".")
        self.blocks = description(compound, "detaileddescription")
        self.undefined = set(re.findall(r"^#undef (\w+)", "\n".join(self.source), re.M))
        self.sections = [Section(self)]
        self.collect(compound, xml.parent)

    def collect(self, compound, folder):
        plain_section, = self.sections
        found = [(self.item(member), plain_section) for node in compound.iterfind("sectiondef")
                 if node.get("kind") != "user-defined" for member in node.iterfind("memberdef")]
        for node in compound.iterfind("sectiondef[@kind='user-defined']"):
            section = Section(self, node.findtext("header"), description(node, "description"))
            section.title = section.title if section.conventions() or not section.blocks else plain(section.blocks).strip()
            self.sections.append(section)
            found += [(self.item(member), section) for member in node.iterfind("memberdef")]
        found.sort(key=lambda pair: pair[0].line)
        for node in compound.iterfind("innerclass"):  # Doxygen does not say which section a structure is in
            struct = self.item(ElementTree.parse(folder / f"{node.get('refid')}.xml").getroot().find("compounddef"))
            found.append((struct, next(section for item, section in found if item.line > struct.line)))
        for item, section in sorted(found, key=lambda pair: pair[0].line):
            if not self.is_internal(item):
                section.add(item)
        # A section without a title may stand before, between or after the others: its first page says where.
        self.sections = [section for section in self.sections if section.pages]
        self.sections.sort(key=lambda section: section.pages[0].items[0].line)

    def is_internal(self, item):
        return item.name in self.undefined or OF_THE_HEADERS_THEMSELVES.match(item.name) or NOT_FOR_CALLERS in plain(item.blocks)

    def item(self, node):
        kind = node.get("kind")
        name = node.findtext("name") or node.findtext("compoundname")
        line = int(node.find("location").get("line"))
        constants = [value.findtext("name") for value in node.iterfind("enumvalue")]
        blocks = description(node, "briefdescription", "detaileddescription")
        is_call = kind == "function" or node.find("param") is not None
        call, source = (self.prototype(node), "") if is_call else ([], self.declaration(line))
        comment = re.search(r"/\* (.*) \*/$", source)
        if kind == "define" and comment:  # it is in the source that is shown
            blocks = [("text", plain(blocks).strip().removesuffix(comment[1]))]
        blocks = [] if plain(blocks).strip() == "" else blocks
        return Item("" if name.startswith("@") else name, kind, line, blocks, call, source, constants)

    def prototype(self, node):
        result = re.sub(r"^static ", "", flat(node.find("type"))) if node.find("type") is not None else ""
        lines = [f".Ft {word(result)}"] if result else []
        lines.append(f".Fo {node.findtext('name')}")
        for parameter in node.iterfind("param"):
            parts = [flat(parameter.find(part)) for part in ("type", "declname", "defname", "array")
                     if parameter.find(part) is not None]
            lines.append(f".Fa {word(re.sub(r'[*] ', '*', ' '.join(parts)).replace(' []', '[]'))}")
        return [*lines, ".Fc"]

    def declaration(self, line):
        """The source from that line to where the declaration or the macro ends."""
        text, depth = [], 0
        for number in range(line - 1, len(self.source)):
            text.append(" ".join(part for part in self.source[number].split(" ") if part not in self.undefined))
            code = re.sub(r"/\*.*?(\*/|$)", "", text[-1])
            depth += code.count("{") - code.count("}")
            is_macro = text[0].startswith("#define")
            if is_macro and not code.rstrip().endswith("\\") or not is_macro and depth == 0 and ";" in code:
                return "\n".join(text)
        raise ValueError(f"{self.file}:{line} has no end")


# ---- The pages

class Manual:
    def __init__(self, headers, map_page, output):
        self.headers = headers
        self.date, self.version = (re.search(rf"^\.{macro} .*$", map_page.read_text(), re.M)[0] for macro in ("Dd", "Os"))
        self.output = output
        self.page_of = {name: page.names()[0] for header in headers for section in header.sections
                        for page in section.pages for name in page.names()}

    def write_all(self):
        for header in self.headers:
            self.write(header.page, self.page_of_header(header))
            for page in (page for section in header.sections for page in section.pages):
                first, *others = page.names()
                self.write(first, self.page_of_names(page))
                for other in others:
                    (self.output / f"{other}.3").symlink_to(f"{first}.3")

    def write(self, name, lines):
        (self.output / f"{name}.3").write_text("\n".join(lines) + "\n")

    def head(self, names, purpose, header):
        return [f'.\\" Made by docs/manPages.py from lib/public/{header.file}.', self.date, f".Dt {names[0].upper()} 3",
                self.version, ".Sh NAME", *listed(".Nm {}", names), f".Nd {escaped(purpose)}"]

    def page_of_header(self, header):
        code = header.example.read_text().rstrip("\n")
        lines = [*self.head([header.page], header.title, header), ".Sh SYNOPSIS", f".In pelago/{header.file}",
                 *literal(LINK), ".Sh EXAMPLE", *literal(code, offset=""), ".Sh DESCRIPTION", *described(header.blocks)]
        for section in header.sections:
            if section.title:
                lines += [f".Ss {escaped(section.title)}", *described(section.conventions())]
            for page in section.pages:
                lines += self.entry(page)
        return lines + self.see_also({MAP_NAME}, header.blocks)

    def entry(self, page):
        lines = self.sources(page)
        for item in page.items:
            if item.call:
                lines += [".Bl -tag -width Ds", ".It Xo", *item.call, ".Xc", *described(item.blocks), ".El"]
        return lines + [line for line in self.texts(page) if not page.items[0].call]

    def page_of_names(self, page):
        header = page.section.header
        lines = [*self.head(page.names(), page.purpose(), header), ".Sh LIBRARY",
                 f"The foundation library: pkg\\-config \\-\\-cflags \\-\\-libs {MAP_NAME}", ".Sh SYNOPSIS",
                 f".In pelago/{header.file}", *self.sources(page), *(line for item in page.items for line in item.call),
                 ".Sh DESCRIPTION", *self.texts(page)]
        conventions = page.section.conventions() + header.blocks
        if conventions:
            lines += [".Sh CONVENTIONS", *described(conventions)]
        blocks = [block for item in page.items for block in item.blocks] + conventions
        return lines + self.see_also({header.page, MAP_NAME}, blocks, page.names())

    @staticmethod
    def sources(page):
        sources = [item.source for item in page.items if item.source]
        return literal("\n".join(sources), offset="") if sources else []

    @staticmethod
    def texts(page):
        if len(page.items) == 1:
            return described(page.items[0].blocks)
        return [line for item in page.items if item.blocks
                for line in [".Bl -tag -width Ds", item.tag(), *described(item.blocks), ".El"]]

    def see_also(self, pages, blocks, but=()):
        """Leads to these pages, and to those of each function and header that the blocks name."""
        text = plain(blocks)
        pages |= {self.page_of[name] for name in re.findall(r"\b(\w+)\(", text) if name in self.page_of and name not in but}
        pages |= {header.page for header in self.headers if re.search(rf"\b{re.escape(header.file)}\b", text)}
        pages -= {self.page_of.get(name) for name in but}
        return [".Sh SEE ALSO", *listed(".Xr {} 3", sorted(pages, key=str.lower))]


def main(xml, headers, examples, map_page, output):
    headers = [Header(file, headers, examples) for file in sorted(xml.glob("*_8h.xml"))]
    output.mkdir(parents=True, exist_ok=True)
    for old in output.iterdir():
        old.unlink()
    Manual([header for header in headers if header.sections], map_page, output).write_all()


main(*map(Path, sys.argv[1:]))
