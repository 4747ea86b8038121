"""Tests with lists of every kind.  Python's plistlib makes a list, the platform layer reads and
writes it, and plistlib reads it again: each type, value and order must be the same.

PLIST_COPY is the helper program that copies.
"""

import datetime
import math
import os
import plistlib
import random
import struct
import subprocess
import tempfile
import unittest
from pathlib import Path

COPY = os.environ["PLIST_COPY"]
FORMATS = ("xml", "binary")
LISTS = 400  # of each format

INTEGERS = [0, 1, -1, 9, 10, 127, 128, 255, 256, -128, -129, 2**15, 2**16, 2**31 - 1, 2**31, 2**32,
            -(2**31), 2**53 + 1, 2**63 - 1, 2**63, 2**64 - 1, -(2**63)]
REALS = [0.0, -0.0, 0.1, 0.1 + 0.2, 1 / 3, math.pi, 1e300, -1e-300, 5e-324, 2.0**53, 1.5e308,
         math.inf, -math.inf, math.nan, 123456789.123456789]
TEXTS = ["", " ", "disk", "\r", "a\rb\r\nc\n", "\t x \n", "<&>\"'", "]]>", "<!-- -->", "&amp;",
         "\u00e4\u20ac\U0001f600", "a\u0308", "\ufffd", "x" * 300, "\U0010ffff", "\x7f", "%s%n"]
DATES = [datetime.datetime(*d) for d in (
    (1, 1, 1), (1, 1, 1, 0, 0, 1), (4, 2, 29), (99, 12, 31), (500, 1, 2, 3, 4, 5), (999, 12, 31, 23, 59, 59),
    (1000, 1, 1), (1582, 10, 10), (1900, 2, 28), (1900, 3, 1), (1904, 1, 1), (1932, 12, 31), (1969, 12, 31, 23, 59, 59), (2000, 2, 29),
    (2000, 12, 31, 23, 59, 59), (2001, 1, 1), (2038, 1, 20), (2069, 1, 20), (2100, 2, 28), (9999, 12, 31, 23, 59, 59))]


def typed(value):
    """Returns the value with its types and its order, so that == compares them: 1, 1.0 and True differ."""
    if isinstance(value, dict):
        return ("dict", [(key, typed(item)) for key, item in value.items()])
    if isinstance(value, list):
        return ("array", [typed(item) for item in value])
    if isinstance(value, float):
        return ("real", "nan" if math.isnan(value) else struct.pack(">d", value))
    return (type(value).__name__, value)


class Maker:
    def __init__(self, seed, is_binary):
        self.random = random.Random(seed)
        self.is_binary = is_binary

    def text(self):
        if self.random.random() < 0.6:
            return self.random.choice(TEXTS)
        return "".join(chr(self.random.choice((self.random.randrange(0x20, 0x7f), self.random.randrange(0xa0, 0xd800),
                                               self.random.randrange(0x10000, 0x110000))))
                       for _ in range(self.random.randrange(12)))

    def date(self):
        if self.random.random() < 0.5:
            return self.random.choice(DATES)
        return datetime.datetime(1, 1, 1) + datetime.timedelta(seconds=self.random.randrange(9998 * 365 * 86400))

    def integer(self):
        return self.random.choice(INTEGERS) if self.random.random() < 0.6 else self.random.randrange(-(2**63), 2**64)

    def real(self):
        if self.random.random() < 0.5:
            return self.random.choice(REALS)
        return struct.unpack(">d", self.random.randbytes(8))[0]

    def value(self, depth):
        kinds = [self.text, self.date, self.integer, self.real,
                 lambda: self.random.choice((True, False)),
                 lambda: self.random.randbytes(self.random.randrange(130))]
        if self.is_binary:
            kinds.append(lambda: plistlib.UID(self.random.randrange(2**32)))
        if depth > 0:
            kinds += 2 * [lambda: self.dictionary(depth - 1)]
            kinds += 2 * [lambda: [self.value(depth - 1) for _ in range(self.random.randrange(5))]]
        return self.random.choice(kinds)()

    def dictionary(self, depth):
        return {self.text(): self.value(depth) for _ in range(self.random.randrange(6))}


STAND_IN = "\ue00d"  # for a carriage return, which plistlib's XML writer makes a newline


def replaced(value):
    if isinstance(value, dict):
        return {replaced(key): replaced(item) for key, item in value.items()}
    if isinstance(value, list):
        return [replaced(item) for item in value]
    return value.replace("\r", STAND_IN) if isinstance(value, str) else value


def dumps(value, form):
    if form == "binary":
        return plistlib.dumps(value, fmt=plistlib.FMT_BINARY, sort_keys=False)
    return plistlib.dumps(replaced(value), sort_keys=False).replace(STAND_IN.encode(), b"&#13;")


class SurvivesWriting(unittest.TestCase):
    maxDiff = None

    def copies(self, sources):
        """Returns the copies of these files; in place of a refused file's copy, the reason."""
        with tempfile.TemporaryDirectory() as folder:
            paths = []
            for i, source in enumerate(sources):
                (Path(folder) / f"{i}.in").write_bytes(source)
                paths += [f"{folder}/{i}.in", f"{folder}/{i}.out"]
            lines = subprocess.run([COPY, *paths], check=True, capture_output=True, text=True, timeout=120).stdout.splitlines()
            self.assertEqual(len(lines), len(sources))
            return [Path(f"{folder}/{i}.out").read_bytes() if line == "ok" else line
                    for i, line in enumerate(lines)]

    def check(self, form, lists):
        sources = [dumps(value, form) for value in lists]
        for value, source, copy in zip(lists, sources, self.copies(sources)):
            self.assertIsInstance(copy, bytes, f"{copy}: {value!r}")
            self.assertEqual(copy.startswith(b"bplist00"), form == "binary")
            self.assertEqual(typed(plistlib.loads(source)), typed(value), "the test's own list")
            self.assertEqual(typed(plistlib.loads(copy)), typed(value))

    def test_every_value_in_both_formats(self):
        for form in FORMATS:
            with self.subTest(form):
                values = INTEGERS + REALS + TEXTS + DATES + [True, False, b"", b"\0\xff"]
                self.check(form, [{"k": value} for value in values] + [{text: 1} for text in TEXTS])

    def test_lists_made_at_random(self):
        for form in FORMATS:
            with self.subTest(form):
                self.check(form, [Maker(seed, form == "binary").dictionary(4) for seed in range(LISTS)])

    def test_second_xml_copy_is_identical_to_the_first(self):
        firsts = self.copies([dumps(Maker(seed, False).dictionary(4), "xml") for seed in range(50)])
        self.assertEqual(self.copies(firsts), firsts)

    def test_values_that_are_nearly_equal_stay_apart(self):
        """In a binary list equal values are stored once; these are not equal.  (plistlib itself takes -0.0 for 0.0.)"""
        alike = [-1, 2**64 - 1, 255, True, 1, 1.0, False, 0, 0.0, "1", b"1", "", b"", [], {}, [[]], [{}],
                 2**63, -(2**63), datetime.datetime(2001, 1, 1), datetime.datetime(2001, 1, 1, 0, 0, 1)]
        for form in FORMATS:
            more = [plistlib.UID(0), plistlib.UID(1), plistlib.UID(255)] if form == "binary" else []
            for values in (alike + more, (alike + more)[::-1]):
                self.check(form, [{"k": values}, {str(i): value for i, value in enumerate(values)}])

    def test_binary_copy_keeps_fractions_of_a_date(self):
        date = struct.pack(">d", 123456789.625)
        source = plistlib.dumps({"k": datetime.datetime(2001, 1, 1, 0, 0, 1)}, fmt=plistlib.FMT_BINARY)
        source = source.replace(struct.pack(">d", 1.0), date)
        self.assertIn(date, source)
        self.assertIn(date, self.copies([source])[0])

    def test_damaged_list_is_refused_or_read_like_plistlib(self):
        """Changes one byte anywhere.  The platform layer and plistlib must read the same when both accept the list."""
        counts = {"same": 0, "refused": 0, "ours alone": 0}
        for form in FORMATS:
            source = dumps({"wins server": ["a", "b&c"], "MaxClients": 100, "d": DATES[5], "r": -1.5e3, "b": b"abc",
                            "t": True, "n": -7}, form)
            randomly = random.Random(form)
            damaged = []
            for at in range(len(source)):
                for byte in randomly.sample(range(256), 4):
                    damaged.append(source[:at] + bytes([byte]) + source[at + 1:])
            for file, copy in zip(damaged, self.copies(damaged)):
                counts[self.judge(file, copy)] += 1
        self.assertGreater(counts["same"], 300)
        self.assertGreater(counts["refused"], 1000)

    def judge(self, file, copy):
        if isinstance(copy, str):
            return "refused"
        try:
            value = plistlib.loads(file)
        except Exception:  # plistlib raises whatever comes its way
            return "ours alone"
        self.assertEqual(typed(plistlib.loads(copy)), typed(value), file)
        return "same"


if __name__ == "__main__":
    unittest.main()
