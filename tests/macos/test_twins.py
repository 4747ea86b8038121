"""Compares the library's results for the same inputs in its builds for macOS and for this host.

Each area has its inputs made from a number, by the program that is built for both (tests/macos/twins).  Blocks
of them are compared by digest; of the first block that differs the first difference is shown.  How many inputs
an area gets is PELAGO_TWINS, and the number to start from PELAGO_TWINS_SEED.
"""

import os
import subprocess
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
HERE = [os.environ["PELAGO_TWINS_HERE"]]
THERE = [os.environ["PELAGO_RUNNER"], os.environ["PELAGO_TWINS_THERE"]]
INPUTS = int(os.environ["PELAGO_TWINS"])
SEED = os.environ.get("PELAGO_TWINS_SEED", "1")
BLOCK = 1000


def started(program, *arguments):
    return subprocess.Popen([*program, *map(str, arguments)], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                            text=True, env=os.environ | {"LC_ALL": "C"})


def lines(program, *arguments):
    return ended(started(program, *arguments))


def ended(process):
    out, errors = process.communicate()
    if process.returncode != 0 or errors:
        raise AssertionError(f"{process.args} ended with {process.returncode}: {errors}{out[-200:]}")
    return out.splitlines()


def first_difference(area, block):
    for here, there in zip(lines(HERE, area, SEED, block, BLOCK, "show"),
                           lines(THERE, area, SEED, block, BLOCK, "show"), strict=True):
        if here != there:
            return f"\nhere:  {here}\nmacOS: {there}"
    raise AssertionError(f"{area}: block {block} differs, and no input of it")


# The rows of docs/porting.md that show in the library's results, by their beginnings: on Linux, and on macOS.
DIFFERENCES = {
    "`PATH_MAX`": ("4096", "1024"),
    "Numbers in messages": ("11", "35"),
    "Texts of errors": ("Success", "Undefined error: 0"),
    "`wcrtomb`": ("fails", "1 byte"),
    "`getgrouplist`": ("1", "0"),
    "`putenv`": ("0", "-1"),
    "`RLIMIT_AS`": ("address space", "resident set"),
}


class Twins(unittest.TestCase):
    maxDiff = None

    def test_both_have_the_same_areas(self):
        self.assertEqual(lines(HERE, "areas"), lines(THERE, "areas"))
        self.assertGreater(len(lines(HERE, "areas")), 15)

    def test_both_builds_have_the_same_results(self):
        blocks = max(1, INPUTS // BLOCK)
        for area in lines(HERE, "areas"):
            with self.subTest(area=area):
                both = [started(program, area, SEED, blocks, BLOCK) for program in (HERE, THERE)]
                here, there = map(ended, both)
                self.assertEqual(len(here), blocks)
                for block, digests in enumerate(zip(here, there, strict=True)):
                    if digests[0] != digests[1]:
                        self.fail(f"{area}, block {block}: {first_difference(area, block)}")

    def test_each_documented_difference_shows(self):
        porting = (ROOT / "docs/porting.md").read_text()
        here, there = (dict(line.split(": ", 1) for line in lines(program, "differences")) for program in (HERE, THERE))
        self.assertEqual({name: (here[name], there.get(name)) for name in here}, DIFFERENCES)
        for name, both in DIFFERENCES.items():
            self.assertIn(f"\n| {name}", porting)
            self.assertNotEqual(*both, name)

    def test_a_different_input_changes_the_digest(self):
        for area in lines(HERE, "areas"):
            first, second = lines(HERE, area, SEED, 2, 50)
            self.assertNotEqual(first, second, area)


if __name__ == "__main__":
    unittest.main()
