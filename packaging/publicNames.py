#!/usr/bin/env python3
"""publicNames.py FOLDER COMPILER HEADER... -- lists the functions and variables that the public headers declare.

It writes four files into the folder: publicNames.txt has one name a line; publicNames.ld makes a linker keep the
names; publicNames.map makes a shared library export no other names; sinks.list names the functions in it that a
program may replace.  Inline and static functions are not listed.
"""

import re
import subprocess
import sys
from pathlib import Path


def preprocessed(compiler, headers):
    source = "".join(f'#include "{header}"\n' for header in headers)
    return subprocess.run([compiler, "-std=c11", "-x", "c", "-E", "-"], input=source, check=True, capture_output=True, text=True).stdout


def own_lines(text, headers):
    """Yields the lines of these headers, without the lines of the headers that they include."""
    is_own = False
    for line in text.splitlines():
        if marker := re.match(r'# \d+ "(.*?)"', line):
            is_own = marker[1] in headers
        elif is_own and not line.startswith("#"):
            yield line


def replaced(pattern, by, text):
    """Returns the text with all matches of the pattern replaced, the innermost first."""
    while (changed := re.sub(pattern, by, text)) != text:
        text = changed
    return text


def names(text):
    text = re.sub(r"\b(__attribute__|__asm__)\b", "", text)
    text = replaced(r"\{[^{}]*\}", ";", text)  # the bodies of functions and types
    text = replaced(r"\(([^()]*)\)", "\0", text)  # each list of parameters becomes one character
    for statement in text.split(";"):
        if re.match(r"\s*(typedef|static)\b", statement):
            continue
        if found := re.search(r"(\w+)\s*\0", statement) or re.search(r"\bextern\b.*?(\w+)\s*(\[|$)", statement):
            yield found[1]


def main(folder, compiler, *headers):
    lines = own_lines(preprocessed(compiler, headers), headers)
    public = sorted(set(names(" ".join(lines))))
    sinks = [name for name in public if name.startswith("Pelago_")]
    listed = "".join(f"    {name};\n" for name in public)
    folder = Path(folder)
    (folder / "publicNames.txt").write_text("\n".join(public) + "\n")
    (folder / "publicNames.ld").write_text("EXTERN(" + "\n".join(public) + ")\n")
    (folder / "publicNames.map").write_text("PELAGO_0 {\nglobal:\n" + listed + "local:\n    *;\n};\n")
    (folder / "sinks.list").write_text("{ " + " ".join(f"{name};" for name in sinks) + " };\n")


if __name__ == "__main__":
    main(*sys.argv[1:])
