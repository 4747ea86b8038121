#!/usr/bin/env python3
"""coverage_report.py COVERAGE.json UNCOVERED.md -- prints a table of the coverage, and the gaps without a reason.

COVERAGE.json is the export of llvm-cov.  A branch has two sides; a side in a template or in an inline function counts
as reached when any of its instances reached it.  Functions that only the compiler calls, to make a table, are left
out.  A reason is a row of a table in UNCOVERED.md:
| file | `` the line with the gap, or a piece of it `` | reason |.
A gap is a branch of which one side was not reached, or a function that was not called.
Exit status 1 when lib or apps miss their goals, a gap there lacks a reason, or a reason is not needed.
"""

import json
import sys
from collections import defaultdict
from pathlib import Path

import reasons

ROOT = Path(__file__).resolve().parents[1]
LINES, BRANCHES = 99.0, 95.0  # percent, of lib and of apps
GOAL_FOLDERS = ("apps", "lib")
FOLDERS = (*GOAL_FOLDERS, "platform")


def folder(path):
    parts = path.split("/")
    return "/".join(parts[:2]) if parts[0] in ("lib", "platform") else parts[0]


def percent(covered, total):
    return 100.0 * covered / total if total else 100.0


def branches(file):
    """Returns {place: [whether it was ever true, whether it was ever false]}; a place begins with the line."""
    found = defaultdict(lambda: [False, False])
    for *place, was_true, was_false, _, _, _ in file["branches"]:
        sides = found[tuple(place)]
        sides[0] |= was_true > 0
        sides[1] |= was_false > 0
    return found


def uncalled(functions):
    """Returns the file, the first and the last line of each function of which no instance was called."""
    called = defaultdict(bool)
    for function in functions:
        first, _, last, *_ = function["regions"][0]
        called[function["filenames"][0], first, last] |= function["count"] > 0
    return [place for place, was in called.items() if not was]


def is_made_by_the_compiler(source, first):
    """Returns whether the uncalled function whose body begins in that line is one that the compiler evaluates."""
    head = first - 1
    while head > 0 and not source[head - 1].rstrip().endswith((";", "}", "{", ":")) and source[head - 1].strip():
        head -= 1
    return any(word in line for line in source[head:first] for word in ("constexpr", "consteval"))


def main(coverage, page):
    known, used, missing = {row[:2] for row in reasons.rows(page)}, set(), []
    sums = defaultdict(lambda: [0, 0, 0, 0])
    data = json.loads(Path(coverage).read_text())["data"][0]
    files = {file["filename"]: file for file in data["files"]
             if file["filename"].removeprefix(f"{ROOT}/").split("/")[0] in FOLDERS}
    sources = {name: Path(name).read_text().splitlines() for name in files}
    gaps, compiled = [], defaultdict(list)
    for name, first, last in uncalled(data["functions"]):
        if name in files and is_made_by_the_compiler(sources[name], first):
            compiled[name].append(range(first, last + 1))
        elif name in files:
            gaps.append((name, first))
    for name, file in files.items():
        lines = file["summary"]["lines"]
        only_compiled = set().union(*compiled[name])
        sides = {place: ways for place, ways in branches(file).items() if place[0] not in only_compiled}
        gaps = [gap for gap in gaps if gap[0] != name or gap[1] not in only_compiled]
        gaps += [(name, place[0]) for place, ways in sides.items() if not all(ways)]
        path = name.removeprefix(f"{ROOT}/")
        amounts = (lines["covered"], lines["count"] - len(only_compiled), sum(map(sum, sides.values())), 2 * len(sides))
        for group in {folder(path), path.split("/")[0]}:
            for i, amount in enumerate(amounts):
                sums[group][i] += amount
    for name, line in sorted(set(gaps)):
        path, text = name.removeprefix(f"{ROOT}/"), sources[name][line - 1]
        reason = next((key for key in known if key[0] == path and key[1] in text), None)
        if reason and sum(reason[1] in line for line in sources[name]) != 1:
            sys.exit(f"coverage_report.py: more than one line of {path} has {reason[1]}")
        if reason:
            used.add(reason)
        elif path.startswith(GOAL_FOLDERS):
            missing.append(f"{path}:{line}: {text.strip()}")
    print("| folder | lines | | branches | |\n|---|---:|---:|---:|---:|")
    for name, (line, all_lines, branch, all_branches) in sorted(sums.items()):
        print(f"| {name} | {line} of {all_lines} | {percent(line, all_lines):.1f} % "
              f"| {branch} of {all_branches} | {percent(branch, all_branches):.1f} % |")
    if not all(sums[name][0] for name in GOAL_FOLDERS):
        sys.exit("coverage_report.py: no line of lib, or none of apps, was counted")
    missed = [name for name in GOAL_FOLDERS
              if percent(*sums[name][:2]) < LINES or percent(*sums[name][2:]) < BRANCHES]
    unused = sorted(known - used)
    for title, rows in (("below the goal", missed), ("without a reason", missing), ("reasons not needed", unused)):
        if rows:
            print(f"\n{len(rows)} {title}:", *rows, sep="\n  ")
    return 1 if missed or missing or unused else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], Path(sys.argv[2])))
