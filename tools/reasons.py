"""Reads the tables of reasons in tools/uncovered.md and tools/survivors.md.

A row is | file | `` a piece of a line `` | ... | reason |; the cells in between may be in `` ``, too.  A backslash
precedes a bar in a cell.
"""

import re
from pathlib import Path


def rows(page):
    """Yields the cells of each row as a tuple, without the `` `` around code."""
    for line in Path(page).read_text().splitlines():
        cells = [cell.strip().replace("\\|", "|") for cell in re.split(r"(?<!\\)\|", line)[1:-1]]
        if len(cells) > 2 and cells[1].startswith("``"):
            yield tuple(cell.strip("`").strip() for cell in cells)
