"""Each suite runs for macOS on this host, or notRun.txt has the reason why not."""

import os
import re
import unittest
from pathlib import Path

TESTS = Path(__file__).resolve().parents[1]
TABLE = TESTS / "macos/notRun.txt"
RUN = set(os.environ["PELAGO_SUITES"].split(","))
CASE = r"\b(?:TEST|TEST_F|TEST_P|TYPED_TEST)\((\w+),\s*(\w+)\)"


def sources():
    """Returns all suites, as {name: source}."""
    return {path.name.removesuffix("_test.cpp"): path for path in TESTS.glob("*/*_test.cpp")}


def rows():
    """Returns (suite or case, reason) of each row of the table."""
    lines = [line for line in TABLE.read_text().splitlines() if line and not line.startswith("#")]
    return [tuple((line.split(maxsplit=1) + [""])[:2]) for line in lines]


def suites_out():
    return [what for what, _ in rows() if ":" not in what]


def cases_out():
    return [what.split(":") for what, _ in rows() if ":" in what]


class Suites(unittest.TestCase):
    def test_each_is_run_or_in_the_table(self):
        self.assertEqual(sorted(set(sources()) - RUN - set(suites_out())), [])

    def test_none_is_run_and_in_the_table(self):
        self.assertEqual(sorted(RUN & set(suites_out())), [])

    def test_the_table_names_what_there_is_once(self):
        self.assertEqual(sorted(set(suites_out()) - set(sources())), [])
        names = [what for what, _ in rows()]
        self.assertEqual(sorted(names), sorted(set(names)))

    def test_every_row_has_its_reason(self):
        for what, why in rows():
            self.assertGreater(len(why.split()), 2, what)

    def test_each_excluded_case_exists_in_a_run_suite(self):
        for suite, case in cases_out():
            self.assertIn(suite, RUN, case)
            _, name = case.split(".")
            found = re.findall(CASE, sources()[suite].read_text())
            self.assertTrue(any(name.split("/")[0] == there for _, there in found), f"{suite}: {case} is not there")

    def test_most_are_run(self):
        self.assertGreaterEqual(len(RUN), 40)


if __name__ == "__main__":
    unittest.main()
