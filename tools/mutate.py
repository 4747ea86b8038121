#!/usr/bin/env python3
"""mutate.py [--count N] [--seed S] [--jobs J] [FILE...] -- do the tests notice when the code is wrong?

Changes one operator, constant or condition at a time in the library and the tool (or in the files
given), builds what tests that file, and runs it.  Places are drawn at random, the same ones for the
same seed.  Works on copies of the tree in build/mutants; needs root, for tests on throw-away machines.
What does not compile is drawn anew.  Prints every mutant, and those that survived once more at the end,
but for the ones that docs/survivors.md knows to be none of the tests' business.
Exit status: 0 when at least 90 % of all were noticed.
"""

import argparse
import os
import queue
import random
import re
import resource
import shutil
import subprocess
import sys
import threading
from pathlib import Path

import reasons

ROOT = Path(__file__).resolve().parents[1]
GOAL = 0.9
SECONDS = 100  # a test that takes longer has noticed
MEMORY = 12 << 30  # bytes that a process may have: a mutant may not know when to stop
FILE = 1 << 30  # bytes that a file may have
# The programs that test a file, by what its path begins with; the longest entry counts.
TESTS = {
    "apps/pelagoShareTool/diagnostics": "diagnostics tool.session tool.caller",
    "apps/pelagoShareTool/pelagoShareTool": "tool.session tool.sdkFailures tool.caller tool.preferences",
    "apps/pelagoShareTool/runScript": "runScript tool.session tool.faults",
    "lib/misc/codeset": "codeset codesetAlone codesetConversions codesetUtf encodings noMemory",
    "lib/misc/codesetUtf": "codesetUtf",
    "lib/misc/err": "err",
    "lib/misc/escape": "escape fuzz.escape",
    "lib/misc/hashTable": "hashTable hashTableThreads singleStep fuzz.hashTable",
    "lib/misc/hostinfoClock": "hostinfoClock hostinfo",
    "lib/misc/hostinfoCpu": "hostinfoCpu hostinfo",
    "lib/misc/hostinfoDaemonize": "daemonize daemonizeFaults execute processState",
    "lib/misc/hostinfoLoad": "hostinfoLoad hostinfo",
    "lib/misc/hostinfoOs": "hostinfoOs hostinfo",
    "lib/misc/hostinfoPosix": "hostinfoCpu hostinfo",
    "lib/misc/hostinfoProcess": "hostinfoProcess hostinfo",
    "lib/misc/location": "location",
    "lib/misc/posix": "posix posixAscii posixErrno",
    "lib/misc/posixEnv": "posixEnv posixEnvSteps posixAscii posixErrno",
    "lib/misc/posixExec": "posixExec posixAscii",
    "lib/misc/posixInt": "posix posixAscii posixErrno posixExec",
    "lib/misc/posixUsers": "posixUsers posixUsersLatin1",
    "lib/misc/util": "util constantTime singleStep",
    "lib/misc/utilExpand": "utilExpand",
    "lib/misc/utilPath": "utilPath",
    "lib/misc/utilPlist": "utilPlist",
    "lib/public/dynbuf": "dynbuf",
    "lib/string/bsd_vsnprintf": "bsd_vsnprintf str fuzz.format",
    "lib/string/format": "bsd_vsnprintf str fuzz.format",
    "lib/string/str": "str",
    "lib/string/utf": "utf codesetConversions fuzz.utf",
    "lib/unicode/": "encodingNames unicodeStrings unicodeInit fuzz.encodingNames",
}
# Programs whose name is not the test's with _test behind it.
TARGETS = {
    "encodings": ["convertAll"], "location": ["location_test"],
    "tool.session": ["pelago_bundle"], "tool.sdkFailures": ["pelagoShareToolScripted"],
    "tool.caller": ["pelago_bundle", "shareWhile"], "tool.preferences": ["pelago_bundle"],
}

TABLES = ("encodingRows.h",)

# What is changed into what.  Blanks around an operator tell it from a template's bracket.
CHANGES = [
    (r" == ", [" != "]), (r" != ", [" == "]), (r" < ", [" <= ", " >= "]), (r" > ", [" >= ", " <= "]),
    (r" <= ", [" < ", " > "]), (r" >= ", [" > ", " < "]), (r" && ", [" || "]), (r" \|\| ", [" && "]),
    (r" \+ ", [" - "]), (r" - ", [" + "]), (r" \* (?=\w)", [" + "]), (r" % ", [" / "]), (r" / ", [" * "]),
    (r" & ", [" | "]), (r" \| ", [" & "]), (r" << ", [" >> "]), (r" >> ", [" << "]),
    (r" \+= ", [" -= "]), (r" -= ", [" += "]), (r"\+\+", ["--"]), (r"(?<!-)--(?!-)", ["++"]),
    (r"\btrue\b", ["false"]), (r"\bfalse\b", ["true"]), (r"\(!(?=\w)", ["("]),
    (r"(?<![\w.\"'])\d+(?![\w.\"'])", None),  # a number: one more
    (r"\bcontinue;", ["break;"]), (r"\bbreak;", ["continue;"]),
]


def sources(given):
    for path in given or sorted([*ROOT.glob("apps/*/*.cpp"), *ROOT.glob("lib/**/*.cpp"), *ROOT.glob("lib/**/*.h")]):
        path = Path(path).resolve().relative_to(ROOT)
        if path.name in TABLES or path.parent.name == "public" and path.name != "dynbuf.h":
            continue  # numbers and declarations, which a test would only repeat
        if tests(path):
            yield path
        elif any(places(path)):
            sys.exit(f"mutate.py: TESTS does not say what tests {path}")


def tests(path):
    known = [key for key in TESTS if str(path).startswith(key)]
    return TESTS[max(known, key=len)].split() if known else []


def code_only(text):
    """The text with comments, literals and directives blanked, so that places in it are places in code."""
    blank = lambda match: re.sub(r"[^\n]", "\0", match[0])  # noqa: E731
    text = re.sub(r"//[^\n]*|/\*.*?\*/|\"(?:\\.|[^\"\\\n])*\"|'(?:\\.|[^'\\\n])+'", blank, text, flags=re.S)
    return re.sub(r"^[ \t]*#(?:[^\n]*\\\n)*[^\n]*|^.*static_assert.*$|^template.*$", blank, text, flags=re.M)


def places(path):
    text = code_only((ROOT / path).read_text())
    for pattern, replacements in CHANGES:
        for match in re.finditer(pattern, text):
            for replacement in replacements or [str(int(match[0]) + 1)]:
                yield path, match.start(), match.end(), replacement


class Tree:
    """A copy of the project in which one change is made at a time."""

    def __init__(self, number):
        self.folder = ROOT / f"build/mutants/{number}"
        self.build = self.folder / "build/dev"
        if self.folder.exists():
            shutil.rmtree(self.folder)
        self.folder.mkdir(parents=True)
        files = self.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"], cwd=ROOT).stdout
        for name in filter(None, files.split("\0")):
            if (ROOT / name).is_file():
                (self.folder / name).parent.mkdir(parents=True, exist_ok=True)
                shutil.copy2(ROOT / name, self.folder / name)
        self.run(["cmake", "--preset", "dev", "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O1",
                  f"-DPELAGO_TEST_SECONDS={SECONDS}"])

    def run(self, command, **options):
        return subprocess.run(command, capture_output=True, text=True, **({"cwd": self.folder} | options))

    def outcome(self, path):
        """What becomes of the tree as it is: not built, noticed (and by whom), or survived."""
        names = tests(path)
        targets = sorted({target for name in names for target in TARGETS.get(
            name, [f"{name.removeprefix('fuzz.')}_{'fuzz' if name.startswith('fuzz.') else 'test'}"])})
        if self.run(["cmake", "--build", self.build, "-j1", "--target", *targets]).returncode != 0:
            return "not built", ""
        expression = "^(" + "|".join(re.escape(name) for name in names) + ")$"
        done = self.run(["ctest", "--test-dir", self.build, "-R", expression, "--stop-on-failure",
                         "--no-tests=error"])
        failed = re.findall(r"\d+ - (\S+) \(", done.stdout)
        return ("survived", "") if done.returncode == 0 else ("noticed", failed[-1] if failed else done.stdout[-200:])


def line_and_change(place):
    path, start, end, replacement = place
    text = (ROOT / path).read_text()
    line = text[:start].count("\n") + 1
    return line, text.splitlines()[line - 1].strip(), f"{text[start:end].strip()} -> {replacement.strip()}"


def describe(place):
    line, text, change = line_and_change(place)
    return f"{place[0]}:{line}: {text}   [{change}]"


def is_answered(place, answers):
    """Whether docs/survivors.md says why no test can notice it."""
    _, text, change = line_and_change(place)
    return any((str(place[0]), text, change) == answer[:3] for answer in answers)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--count", type=int, default=300)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("files", nargs="*")
    options = parser.parse_args()
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY, resource.RLIM_INFINITY))
    resource.setrlimit(resource.RLIMIT_FSIZE, (FILE, resource.RLIM_INFINITY))
    drawn = [place for path in sources(options.files) for place in places(path)]
    random.Random(options.seed).shuffle(drawn)
    waiting = queue.Queue()
    for place in drawn:
        waiting.put(place)
    print(f"{len(drawn)} places", flush=True)
    trees = [Tree(number) for number in range(options.jobs)]
    for path in {tuple(tests(place[0])): place[0] for place in drawn}.values():
        state, by = trees[0].outcome(path)
        if state != "survived":
            sys.exit(f"mutate.py: unchanged, {path} fails its tests: {state} {by}")
    answers = list(reasons.rows(ROOT / "docs/survivors.md"))
    for path, line, change, _ in answers:
        if not any(line_and_change(place)[1:] == (line, change) for place in places(Path(path))):
            sys.exit(f"mutate.py: docs/survivors.md has a line that {path} has not: {line}")
    counts = {"noticed": 0, "survived": 0, "answered": 0, "not built": 0}
    survivors, lock = [], threading.Lock()

    def tried():
        return sum(counts.values()) - counts["not built"]

    def work(tree):
        while tried() < options.count:
            try:
                place = waiting.get_nowait()
            except queue.Empty:
                return
            path, start, end, replacement = place
            text = (ROOT / path).read_text()
            (tree.folder / path).write_text(text[:start] + replacement + text[end:])
            state, by = tree.outcome(path)
            (tree.folder / path).write_text(text)
            if state == "survived" and is_answered(place, answers):
                state = "answered"
            with lock:
                counts[state] += 1
                if state == "survived":
                    survivors.append(describe(place))
                if state != "not built":
                    print(f"{tried():4} {state:9} {by:20} {describe(place)}", flush=True)

    threads = [threading.Thread(target=work, args=(tree,)) for tree in trees]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    print(f"\n{tried()} mutants, {counts['noticed']} noticed ({100 * counts['noticed'] / max(tried(), 1):.1f} %), "
          f"{counts['answered']} that no test can notice, {counts['not built']} more did not compile; survivors:",
          *sorted(survivors), sep="\n  ")
    return 0 if tried() and counts["noticed"] >= GOAL * tried() else 1


if __name__ == "__main__":
    sys.exit(main())
