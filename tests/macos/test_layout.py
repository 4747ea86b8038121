"""Checks the rules of a Mac's dyld and kernel for a program's file that the runner does not check.

The rules are checked on the tool and on the whole library, and each on a copy that breaks it.
"""

import json
import os
import struct
import unittest
from pathlib import Path
from types import SimpleNamespace

PROGRAMS = [Path(os.environ["PELAGO_BUNDLE"]) / "Contents/Library/shares/pelagoShareTool",
            Path(os.environ["PELAGO_WHOLE_LIBRARY"])]
PAGE = 0x1000
DARWIN = json.loads(Path(os.environ["PELAGO_DARWIN_NUMBERS"]).read_text())
SEGMENT, SYMBOLS, DYNAMIC_SYMBOLS, DYLIB, DYLINKER, DYLD_INFO, FUNCTION_STARTS, DATA_IN_CODE = (
    DARWIN[f"LC_{name}"] for name in ("SEGMENT_64", "SYMTAB", "DYSYMTAB", "LOAD_DYLIB", "LOAD_DYLINKER", "DYLD_INFO_ONLY",
                                      "FUNCTION_STARTS", "DATA_IN_CODE"))
ZEROFILL = DARWIN["S_ZEROFILL"], DARWIN["S_THREAD_LOCAL_ZEROFILL"]  # sections without bytes in the file


def fields(content, offset, layout, names):
    return SimpleNamespace(**dict(zip(names.split(), struct.unpack_from("<" + layout, content, offset))), at=offset)


class File:
    """The load commands of a Mach-O file."""

    def __init__(self, content):
        self.content, self.commands, self.segments = content, [], []
        count, offset = struct.unpack_from("<I", content, 16)[0], 32
        for _ in range(count):
            command = fields(content, offset, "2I", "kind size")
            self.commands.append(command)
            if command.kind == SEGMENT:
                self.segments.append(self.segment(offset))
            offset += command.size

    def segment(self, at):
        one = fields(self.content, at + 8, "16s4Q2i2I", "name address size offset bytes most first count flags")
        one.name = one.name.rstrip(b"\0").decode()
        one.sections = [fields(self.content, at + 72 + 80 * i, "16s16s2Q8I",
                               "name segment address size offset align r n flags first step last")
                        for i in range(one.count)]
        return one

    def only(self, kind, layout, names):
        found, = (command for command in self.commands if command.kind == kind)
        return fields(self.content, found.at + 8, layout, names)

    def section(self, name):
        found, = (section for segment in self.segments for section in segment.sections
                  if section.name.rstrip(b"\0") == name)
        return found

    def text(self, offset):
        return self.content[offset:self.content.index(b"\0", offset)].decode()


def segments_follow_each_other(file):
    address = offset = 0
    for one in file.segments:
        assert one.address == address and one.size % PAGE == 0, one.name
        assert one.offset == offset and one.bytes <= one.size, one.name
        assert one.first & ~one.most == 0, one.name
        address += one.size
        offset += one.bytes
    names = [one.name for one in file.segments]
    assert names[:2] == ["__PAGEZERO", "__TEXT"] and names[-1] == "__LINKEDIT", names
    assert offset == len(file.content)
    assert all(one.bytes % PAGE == 0 for one in file.segments[:-1])


def sections_lie_in_their_segments(file):
    for segment in file.segments:
        end = segment.address
        for section in segment.sections:
            name = section.name.rstrip(b"\0")
            assert section.segment.rstrip(b"\0").decode() == segment.name, name
            assert section.address >= end and section.address % (1 << section.align) == 0, name
            end = section.address + section.size
            assert end <= segment.address + segment.size, name
            if section.flags & 0xFF not in ZEROFILL:
                assert section.offset - segment.offset == section.address - segment.address, name


def tables_lie_in_linkedit(file):
    info = file.only(DYLD_INFO, "10I", "rebase rn bind bn weak wn lazy ln export en")
    symbols = file.only(SYMBOLS, "4I", "symbols count strings bytes")
    dynamic = file.only(DYNAMIC_SYMBOLS, "18I", "l ln e en u un t tn m mn r rn indirect count x xn y yn")
    tables = [(info.rebase, info.rn, 8), (info.bind, info.bn, 8), (info.weak, info.wn, 8), (info.lazy, info.ln, 8),
              (info.export, info.en, 8), (symbols.symbols, symbols.count * 16, 8),
              (dynamic.indirect, dynamic.count * 4, 4), (symbols.strings, symbols.bytes, 1)]
    tables += [(one.offset, one.size, 8) for one in (file.only(kind, "2I", "offset size")
                                                     for kind in (FUNCTION_STARTS, DATA_IN_CODE))]
    end = file.segments[-1].offset
    for offset, size, align in sorted(table for table in tables if table[1]):
        assert offset >= end and offset % align == 0, hex(offset)
        end = offset + size
    assert end <= len(file.content)


def symbols_are_in_their_ranges(file):
    table = file.only(SYMBOLS, "4I", "symbols count strings bytes")
    ranges = file.only(DYNAMIC_SYMBOLS, "6I", "locals ln defined dn undefined un")
    assert (ranges.locals, ranges.defined, ranges.undefined, table.count) == (
        0, ranges.ln, ranges.ln + ranges.dn, ranges.ln + ranges.dn + ranges.un)
    for number in range(table.count):
        one = fields(file.content, table.symbols + 16 * number, "I2BHQ", "name type section about value")
        assert one.name < table.bytes, number
        is_external, is_undefined = one.type & DARWIN["N_EXT"] != 0, one.type & DARWIN["N_TYPE"] == DARWIN["N_UNDF"]
        if number >= ranges.defined:
            assert is_external and is_undefined == (number >= ranges.undefined), file.text(table.strings + one.name)


def stubs_have_symbols(file):
    dynamic = file.only(DYNAMIC_SYMBOLS, "18I", "l ln e en u un t tn m mn r rn indirect count x xn y yn")
    stubs = file.section(b"__stubs")
    assert stubs.size % stubs.step == 0 and stubs.first + stubs.size // stubs.step <= dynamic.count


def unwinding_is_sorted(file):
    section, text = file.section(b"__unwind_info"), file.section(b"__text")
    header = fields(file.content, section.offset, "7I", "version c cn p pn index count")
    assert header.version == 1
    rows = [fields(file.content, section.offset + header.index + 12 * i, "3I", "function page handlers")
            for i in range(header.count)]
    starts = [row.function for row in rows]
    base = file.segments[1].address
    assert starts == sorted(starts) and base + starts[0] >= text.address and rows[-1].page == 0
    assert all(row.page < section.size and row.handlers <= section.size for row in rows)
    handlers = [fields(file.content, section.offset + at, "2I", "function table")
                for at in range(rows[0].handlers, rows[-1].handlers, 8)]
    except_tables = file.section(b"__gcc_except_tab")
    assert [one.function for one in handlers] == sorted(one.function for one in handlers)
    assert all(0 <= base + one.table - except_tables.address < except_tables.size for one in handlers)


def names_of_libraries_are_whole(file):
    for command in file.commands:
        if command.kind in (DYLIB, DYLINKER):
            start = command.at + struct.unpack_from("<I", file.content, command.at + 8)[0]
            name = file.text(start)
            assert start + len(name) < command.at + command.size, name
            assert name == "/usr/lib/dyld" if command.kind == DYLINKER else name.startswith(("/", "@executable_path/"))


def add(offset, number, layout="<I"):
    """Returns a copy of the file with one number changed."""
    def change(content):
        struct.pack_into(layout, content, offset, struct.unpack_from(layout, content, offset)[0] + number)
    return change


class Layout(unittest.TestCase):
    def assert_rule(self, rule, *breaks):
        """Asserts that the rule holds for each program, and fails when one of the numbers is changed."""
        for path in PROGRAMS:
            content = path.read_bytes()
            with self.subTest(path.name):
                rule(File(content))
            for number, where in enumerate(breaks):
                with self.subTest(path.name, broken=number):
                    copy = bytearray(content)
                    where(File(content))(copy)
                    with self.assertRaises(AssertionError):
                        rule(File(bytes(copy)))

    def test_segments(self):
        self.assert_rule(segments_follow_each_other, lambda f: add(f.segments[2].at + 16, PAGE, "<Q"),
                         lambda f: add(f.segments[-1].at + 40, -1, "<Q"), lambda f: add(f.segments[1].at + 32, 8, "<Q"))

    def test_sections(self):
        self.assert_rule(sections_lie_in_their_segments, lambda f: add(f.section(b"__cstring").at + 48, 4),
                         lambda f: add(f.section(b"__text").at + 40, 0x10000000, "<Q"))

    def test_tables(self):
        self.assert_rule(tables_lie_in_linkedit,
                         lambda f: add(f.only(SYMBOLS, "I", "offset").at, 4),
                         lambda f: add(f.only(DYLD_INFO, "I", "offset").at + 12, 1 << 20))

    def test_symbols(self):
        self.assert_rule(symbols_are_in_their_ranges,
                         lambda f: add(f.only(DYNAMIC_SYMBOLS, "I", "first").at + 4, 1),
                         lambda f: add(f.only(SYMBOLS, "4I", "symbols count strings bytes").symbols, 1 << 28))

    def test_stubs(self):
        self.assert_rule(stubs_have_symbols, lambda f: add(f.section(b"__stubs").at + 68, 1 << 20))

    def test_unwinding(self):
        self.assert_rule(unwinding_is_sorted, lambda f: add(f.section(b"__unwind_info").offset, 1),
                         lambda f: add(f.section(b"__unwind_info").offset + fields(
                             f.content, f.section(b"__unwind_info").offset, "7I", "v c cn p pn index n").index, 1 << 28))

    def test_libraries(self):
        self.assert_rule(names_of_libraries_are_whole,
                         lambda f: add(next(c.at for c in f.commands if c.kind == DYLINKER) + 13, 1, "<B"))


if __name__ == "__main__":
    unittest.main()
