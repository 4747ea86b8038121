#!/usr/bin/env python3
"""coverage_report.py COVERAGE.json UNCOVERED.md -- the table of coverage, and what lacks a reason.

A reason is a row of a table in UNCOVERED.md: | file | `the line, or a piece of it` | the reason |.
Exit status 1 when lib or apps miss their goals, a line lacks a reason, or a reason is not needed.
"""

import json
import re
import sys
from collections import defaultdict
from pathlib import Path

LINES, BRANCHES = 99.0, 95.0  # percent, of lib and of apps
GOAL_FOLDERS = ("apps", "lib")


def folder(path):
    parts = path.split("/")
    return "/".join(parts[:2]) if parts[0] in ("lib", "platform") else parts[0]


def percent(covered, total):
    return 100.0 * covered / total if total else 100.0


def reasons(page):
    rows = re.findall(r"^\| `?([\w./]+)`? \| `` ?(.+?) ?`` \| (.+) \|$", page.read_text(), re.M)
    return {(path, fragment): reason for path, fragment, reason in rows}


def main(coverage, page):
    known, used, missing = reasons(page), set(), []
    sums = defaultdict(lambda: [0, 0, 0, 0])
    for file in json.loads(Path(coverage).read_text())["files"]:
        source = Path(file["file"]).read_text().splitlines()
        for line in file["lines"]:
            if line.get("gcovr/noncode"):
                continue
            branches = line["branches"]
            taken = sum(branch["count"] > 0 for branch in branches)
            for name in {folder(file["file"]), file["file"].split("/")[0]}:
                for i, amount in enumerate((line["count"] > 0, 1, taken, len(branches))):
                    sums[name][i] += amount
            if line["count"] > 0 and taken == len(branches):
                continue
            text = source[line["line_number"] - 1]
            fragment = next((key for key in known if key[0] == file["file"] and key[1] in text), None)
            if fragment:
                used.add(fragment)
            elif file["file"].startswith(GOAL_FOLDERS):
                missing.append(f"{file['file']}:{line['line_number']}: {text.strip()}")
    print("| folder | lines | | branches | |\n|---|---:|---:|---:|---:|")
    for name, (line, lines, branch, branches) in sorted(sums.items()):
        print(f"| {name} | {line} of {lines} | {percent(line, lines):.1f} % "
              f"| {branch} of {branches} | {percent(branch, branches):.1f} % |")
    missed = [name for name in GOAL_FOLDERS
              if percent(*sums[name][:2]) < LINES or percent(*sums[name][2:]) < BRANCHES]
    unused = sorted(set(known) - used)
    for title, rows in (("below the goal", missed), ("without a reason", missing), ("reasons not needed", unused)):
        if rows:
            print(f"\n{len(rows)} {title}:", *rows, sep="\n  ")
    return 1 if missed or missing or unused else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], Path(sys.argv[2])))
