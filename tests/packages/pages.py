"""Installed pages and their sources."""


def differing_lines(installed, source):
    """Returns the lines of the source that differ in the installed file, except lines of pages that have links."""
    lines = zip(source.read_text().splitlines(), installed.read_text().splitlines(), strict=True)
    return [ours for ours, theirs in lines if ours != theirs and not (source.suffix == ".md" and "](" in ours)]
