"""installedPage.py SOURCE PAGE OUTPUT INSTALLED... -- writes the page as it is installed.

SOURCE is the folder of the sources.  PAGE and INSTALLED, the files and folders that are installed with it, are paths
in it.  A link to anything else becomes text that names the file, since an installation does not have it.
"""

import posixpath
import re
import sys
from pathlib import Path

SOURCE, PAGE, OUTPUT, *INSTALLED = sys.argv[1:]


def is_installed(place):
    return any(place == name or place.startswith(f"{name}/") for name in INSTALLED)


def installed_link(found):
    text, target = found.groups()
    place = posixpath.normpath(posixpath.join(posixpath.dirname(PAGE), target.partition("#")[0]))
    if is_installed(place):
        return found[0]
    return f"{text} in the sources" if text.strip("`") in place else f"{text} (`{place}` in the sources)"


# A target with a colon is an address; one with a number sign at its start is a place in the page itself.
page = re.sub(r"\[([^][]+)\]\(([^)#:\s][^):\s]*)\)", installed_link, Path(SOURCE, PAGE).read_text(encoding="utf-8"))
Path(OUTPUT).parent.mkdir(parents=True, exist_ok=True)
Path(OUTPUT).write_text(page, encoding="utf-8")
