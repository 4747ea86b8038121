"""doxygenFilter.py HEADER -- prints a public header with its comments in the form that Doxygen reads.

The headers have plain C comments.  The first one describes the file; one after code on its line describes that
code; one that begins with "----" or that a blank line follows describes everything up
to the next such one; any other describes the declaration below it.  Indented lines are examples, which
do not change.  Every line keeps its number.  The Doxyfile defines the aliases @heading and @program.
"""

import re
import sys
from pathlib import Path

COMMENT = re.compile(r"/\*.*?\*/", re.S)
EXAMPLES = Path(__file__).resolve().parents[1] / "examples/library"
END_OF_SECTION = "/** @} */ "


def quoted(line):
    """The line with nothing in it that Doxygen would take for a command, a link or a comment's margin."""
    return re.sub(r"^\*", "* *", re.sub(r"([\\@&$#<>%\"])", r"\\\1", line))


def marked_up(text):
    lines, in_example = [], False
    for line in text.split("\n"):
        is_example = line.startswith("   ")
        if is_example != in_example:
            if in_example:
                lines[-1] += "@endverbatim"
            else:
                line = "@verbatim" + line
        lines.append(line if is_example else quoted(line))
        in_example = is_example
    return "\n".join(lines) + ("@endverbatim" if in_example else "")


class Header:
    def __init__(self, source):
        self.source = source
        self.in_section = False

    def section(self, text):
        body = text.strip()
        before, _, after = text.partition(body)
        body = body.removeprefix("---- ")
        title = re.match(r"[^.,;\n]*", body)[0]
        about = "" if body == title else marked_up(body)
        end = END_OF_SECTION if self.in_section else ""
        self.in_section = True
        return f"{end}/**{before}@heading{{{title}}}{about}{after}*/ /** @{{ */"

    def file(self, text):
        name, _, about = text.strip().partition(" -- ")
        program = "".join(f"@program{{{path.name}}}" for path in EXAMPLES.glob(f"{Path(name).stem}.*"))
        return f"/** @file {name}\n{marked_up(about)}{program}\n*/"

    def converted(self, comment):
        before = self.source[self.source.rfind("\n", 0, comment.start()) + 1:comment.start()]
        text = re.sub(r"\n *\*(?: |$|(?=\n))", "\n", comment[0][2:-2])
        if comment.start() == 0:
            return self.file(text)
        if before.startswith("#endif") or before.isspace():
            return comment[0]  # for readers of the source
        if before:
            return f"/**< {quoted(text.strip())} */"
        if text.lstrip().startswith("----") or self.source.startswith("\n\n", comment.end()):
            return self.section(text)
        return f"/**{marked_up(text)}*/"

    def filtered(self):
        result = COMMENT.sub(self.converted, self.source)
        if not self.in_section:
            return result
        body, mark, end = result.rpartition("PELAGO_END_DECLARATIONS")
        return body.removesuffix("\n") + END_OF_SECTION + "\n" + mark + end


sys.stdout.write(Header(Path(sys.argv[1]).read_text()).filtered())
