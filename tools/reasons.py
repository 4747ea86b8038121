"""The rows of a page of reasons (tools/uncovered.md, tools/survivors.md).

A row is | file | `` a piece of a line `` | ... | reason |; what is between may be in `` `` as well.  A bar in a
piece has a backslash before it.
"""

import re
from pathlib import Path


def rows(page):
    """The cells of each row, without what marks them as code."""
    for line in Path(page).read_text().splitlines():
        cells = [cell.strip().replace("\\|", "|") for cell in re.split(r"(?<!\\)\|", line)[1:-1]]
        if len(cells) > 2 and cells[1].startswith("``"):
            yield tuple(cell.strip("`").strip() for cell in cells)
