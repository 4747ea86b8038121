"""dataPackage.py OUT [IN PATTERN...] -- writes a data package of ICU's: the items of the package IN whose names
match one of the patterns or, without IN, an empty package.

A package consists of a header, the count of its items, a table, the items' names, and their data.  The table has a
row for each item, sorted by name: the offsets of its name and of its data, both counted from the count.  Data begins
at multiples of 16.  ICU's own icupkg can do the same, but not every machine that builds this project has it.
"""

import fnmatch
import struct
import sys
from pathlib import Path

ALIGNMENT = 16
PADDING = b"\xaa"
# Little-endian, ASCII, UTF-16 units of two bytes; format "CmnD" 1.0, data version 3.
HEADER = struct.pack("<HBB HHBBBB 4s4s4s", 32, 0xDA, 0x27, 20, 0, 0, 0, 2, 0, b"CmnD", b"\1\0\0\0", b"\3\0\0\0") + bytes(8)


def fail(reason):
    sys.exit(f"dataPackage.py: {reason}")


def padded(data):
    return data + PADDING * (-len(data) % ALIGNMENT)


def read_items(package):
    """Returns the items of a package as {name: data}; a name begins with the package's, as in icudt72l/x.cnv."""
    if package[2:16] != HEADER[2:16]:
        raise ValueError("its header is another one")
    contents = package[struct.unpack_from("<H", package)[0]:]
    count, = struct.unpack_from("<I", contents)
    offsets = [struct.unpack_from("<II", contents, 4 + 8 * row) for row in range(count)]
    ends = [start for _, start in offsets[1:]] + [len(contents)]
    return {contents[name:contents.index(b"\0", name)]: contents[start:end]
            for (name, start), end in zip(offsets, ends)}


def package_of(items):
    if not items:
        return padded(HEADER + struct.pack("<I", 0))
    names = sorted(items)
    name_at = 4 + 8 * len(names)
    data_at = len(padded(bytes(name_at) + b"".join(name + b"\0" for name in names)))
    offsets, text, data = b"", b"", b""
    for name in names:
        offsets += struct.pack("<II", name_at + len(text), data_at + len(data))
        text += name + b"\0"
        data += padded(items[name])
    return padded(HEADER + struct.pack("<I", len(names)) + offsets + text) + data


def chosen(path, patterns):
    try:
        items = read_items(Path(path).read_bytes())
    except (ValueError, struct.error) as error:
        fail(f"{path} is no data package of ICU's that can be used here: {error}")
    found = {}
    for pattern in patterns:
        matching = {name: data for name, data in items.items()
                    if fnmatch.fnmatchcase(name.decode().partition("/")[2], pattern)}
        if not matching:
            fail(f"{path} has no item {pattern}")
        found |= matching
    return found


def main(out, *source):
    Path(out).write_bytes(package_of(chosen(source[0], source[1:]) if source else {}))


if __name__ == "__main__":
    main(*sys.argv[1:])
