#!/usr/bin/env python3
"""linkWrapped.py LINKER [ARGUMENT...] -- gives a linker for macOS the option -Wl,--wrap=CALL.

The option means what it means to the linkers that know it: a CALL that an object leaves undefined becomes
__wrap_CALL, and __real_CALL becomes the call itself.  The objects and archives on the command line are linked
as copies in which these names are changed; the code is the same.  The compiler's own libraries stay as they are.
"""

import re
import struct
import subprocess
import sys
import tempfile
from pathlib import Path

AR = "llvm-ar-14"
WRAP = "-Wl,--wrap="
# A C function's symbol is "_" and its name; on macOS some symbols also have an ending.
ENDINGS = r"(?:\$(?:INODE64|DARWIN_EXTSN|NOCANCEL|UNIX2003|1050))*"
# Calls that have another name on macOS.
NAMES = {"__xpg_strerror_r": "strerror_r", "tolower": "__tolower"}
# The stand-ins of a program that a test loads have a prefix of ours.
STAND_IN = "___standIn_"

LC_SYMTAB = 2
HEADER = struct.Struct("<8I")  # the fifth word is the number of load commands
SYMTAB = struct.Struct("<6I")  # command, its size, symbols' place and number, strings' place and size
SYMBOL = struct.Struct("<IBBHQ")  # name's place, type, section, description, value
WHERE, UNDEFINED = 0xEE, 0  # the bits of the type that say where a symbol is defined


class Names:
    """Maps symbols to their new names."""

    def __init__(self, calls):
        darwin = {NAMES.get(call, call): call for call in calls}
        self.pattern = re.compile(rf"_({'|'.join(map(re.escape, darwin))}){ENDINGS}")
        self.calls = darwin
        self.bare = {call: f"_{NAMES.get(call, call)}" for call in calls}  # with its ending in this program

    def learn(self, name):
        """Finds a wrapped call's ending from the first object that leaves the call undefined."""
        if found := self.pattern.fullmatch(name):
            self.bare[self.calls[found[1]]] = name

    def changed(self, name, is_undefined):
        if name.startswith("___wrap_"):
            return STAND_IN + name[len("___wrap_"):]
        if not is_undefined:
            return name
        if name.startswith("___real_"):
            return self.bare.get(name[len("___real_"):], name)
        found = self.pattern.fullmatch(name)
        return STAND_IN + self.calls[found[1]] if found else name


class Object:
    """An object file's symbols."""

    def __init__(self, data):
        self.data = bytearray(data)
        self.count = 0  # an object without symbols
        at = HEADER.size
        for _ in range(HEADER.unpack_from(data)[4]):
            command, size = struct.unpack_from("<2I", data, at)
            if command == LC_SYMTAB:
                self.command = at
                _, _, self.symbols, self.count, self.strings, self.size = SYMTAB.unpack_from(data, at)
                return
            at += size

    def names(self):
        """Yields (place of the symbol, its name, whether it is undefined)."""
        for i in range(self.count):
            at = self.symbols + i * SYMBOL.size
            name, kind, _, _, value = SYMBOL.unpack_from(self.data, at)
            begin = self.strings + name
            text = self.data[begin:self.data.index(0, begin)].decode()
            yield at, text, kind & WHERE == UNDEFINED and value == 0

    def rename(self, names):
        added = bytearray()
        for at, name, is_undefined in list(self.names()):
            changed = names.changed(name, is_undefined)
            if changed != name:
                struct.pack_into("<I", self.data, at, self.size + len(added))
                added += changed.encode() + b"\0"
        if added:
            self.append_strings(added)

    def append_strings(self, added):
        """Moves the strings to the end of the file, where there is room for longer ones."""
        strings = self.data[self.strings:self.strings + self.size] + added
        struct.pack_into("<2I", self.data, self.command + 16, len(self.data), len(strings))
        self.data += strings


def objects_of(path, folder):
    """Returns the objects of a file, as {file: Object}; an archive's are extracted to the folder."""
    if path.suffix == ".o":
        return {folder / path.name: Object(path.read_bytes())}
    subprocess.run([AR, "x", path.resolve()], cwd=folder, check=True)
    return {member: Object(member.read_bytes()) for member in sorted(folder.iterdir())}


def renamed(paths, names, folder):
    """Returns the arguments with which to link instead of these files."""
    inputs = {}
    for number, path in enumerate(paths):
        place = folder / str(number)
        place.mkdir()
        inputs[path] = objects_of(Path(path), place)
    for objects in inputs.values():
        for item in objects.values():
            for _, name, is_undefined in item.names():
                if is_undefined:
                    names.learn(name)
    return {path: write(path, objects, names) for path, objects in inputs.items()}


def write(path, objects, names):
    for file, item in objects.items():
        item.rename(names)
        file.write_bytes(item.data)
    if not path.endswith(".a"):
        return str(next(iter(objects)))
    archive = next(iter(objects)).parent / "copy.a"
    subprocess.run([AR, "rcs", archive, *objects], check=True)
    return str(archive)


def main(arguments):
    calls = [argument[len(WRAP):] for argument in arguments if argument.startswith(WRAP)]
    rest = [argument for argument in arguments if not argument.startswith(WRAP)]
    output = rest.index("-o") + 1
    paths = {argument for i, argument in enumerate(rest) if i != output and argument.endswith((".o", ".a"))}
    with tempfile.TemporaryDirectory() as folder:
        copies = renamed(sorted(paths), Names(calls), Path(folder))
        return subprocess.run([copies.get(argument, argument) for argument in rest], check=False).returncode


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
