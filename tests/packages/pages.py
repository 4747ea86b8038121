"""Installed pages and their sources."""

import re


def text_of(line):
    """Returns the line with the text alone of each link, and without the notes that replace links."""
    line = re.sub(r"\[([^][]+)\]\([^)]*\)", r"\1", line)
    return re.sub(r"( \(`[^`]*` in the sources\)| in the sources)", "", line)


def differing_lines(installed, source):
    """Returns the lines of the source that differ in the installed file, in pages apart from their links."""
    lines = zip(source.read_text().splitlines(), installed.read_text().splitlines(), strict=True)
    return [ours for ours, theirs in lines
            if ours != theirs and not (source.suffix == ".md" and text_of(ours) == text_of(theirs))]
