#!/usr/bin/env python3
"""mutate.py [--count N] [--seed S] [--jobs J] [--again] [PATH...] -- measures whether the tests notice wrong code.

Makes one change at a time in the product's sources and scripts, or only in the files and folders given, and builds and
runs the tests that judge the changed file.  tools/mutations.py defines the kinds of changes; pelago_judges(), where a
test is declared, names the files that it judges.  Kinds take turns, and the places of each kind are drawn at random;
the same seed draws the same ones.  A change that does not compile, or compiles to the same code, is not counted, and
another one is drawn.

It works on copies of the tree in build/mutants, and records each outcome in journal.jsonl there.  When it is run again
it continues after the last outcome; the outcomes of a file count for as long as the file is not changed.  --again
repeats the changes that survived.  It needs root, for tests on throw-away machines.

Prints every mutant, then the survivors without those for which tools/survivors.md gives a reason, and then the share
that was noticed in each part of the product.
Exit status: 0 when each part reaches its goal (GOALS); 1 otherwise, or when a test fails on the unchanged tree.
"""

import argparse
import hashlib
import itertools
import json
import os
import random
import re
import resource
import shutil
import subprocess
import sys
import threading
import time
from collections import Counter, namedtuple
from pathlib import Path

import reasons
from mutations import mutations

ROOT = Path(__file__).resolve().parents[1]
MUTANTS = ROOT / "build/mutants"
GOALS = {"apps": 0.95, "lib": 0.95, "platform": 0.9, "product": 0.9}  # of all mutants in that part
SECONDS = 100  # a test that takes longer has noticed the change; tests of scripts get three times as long
MEMORY = 12 << 30  # the most bytes for a process: a mutant may allocate without end
FILE = 1 << 30  # the most bytes for a file
SOURCES = ("apps/**/*.cpp", "lib/**/*.cpp", "lib/**/*.h", "platform/linux/*.cpp", "platform/linux/*.h",
           "product/**/*.cpp", "product/**/*.h", "product/**/*.sh")
DECLARATIONS = re.compile(r"lib/public/(?!dynbuf\.h)|.*/encodingRows\.h$")  # declarations and tables of numbers, which a test could only repeat
TRIED = ("noticed", "survived", "answered")

Judge = namedtuple("Judge", "test targets files")


class Place(namedtuple("Place", "path text mutation")):
    """One change of one file; text is the unchanged file's."""

    def changed(self):
        return self.text[:self.mutation.start] + self.mutation.replacement + self.text[self.mutation.end:]

    def key(self):
        """Returns the change's key in the journal, which another text of the file makes invalid."""
        content = hashlib.sha256(self.text.encode()).hexdigest()[:16]
        return f"{self.path} {content} {self.mutation.start} {self.mutation.end} {self.mutation.replacement}"

    def line_and_change(self):
        line = self.text[:self.mutation.start].count("\n") + 1
        before = " ".join(self.text[self.mutation.start:self.mutation.end].split())
        return line, self.text.splitlines()[line - 1].strip(), f"{before} -> {' '.join(self.mutation.replacement.split())}"

    def __str__(self):
        line, text, change = self.line_and_change()
        return f"{self.path}:{line}: {text}   [{self.mutation.kind}: {change}]"


def places_in(path):
    text = (ROOT / path).read_text()
    return [Place(path, text, mutation) for mutation in mutations(path, text)]


def sources(given):
    """Returns the paths of the product's sources; where files or folders are given, only those that are in them."""
    paths = {path for glob in SOURCES for path in ROOT.glob(glob) if not DECLARATIONS.match(str(path.relative_to(ROOT)))}
    wanted = [Path(path).resolve() for path in given or [ROOT]]
    if missing := [str(path) for path in wanted if not any(source.is_relative_to(path) for source in paths)]:
        sys.exit(f"mutate.py: nothing of the product that could be changed is in {', '.join(missing)}")
    return sorted(str(path.relative_to(ROOT)) for path in paths if any(path.is_relative_to(place) for place in wanted))


def drawn(places, seed):
    """Returns all places: their kinds take turns, and the order in each kind depends on the seed alone."""
    kinds = {}
    for place in places:
        kinds.setdefault(place.mutation.kind, []).append(place)
    for kind in sorted(kinds):
        random.Random(f"{seed} {kind}").shuffle(kinds[kind])
    rounds = itertools.zip_longest(*(kinds[kind] for kind in sorted(kinds)))
    return [place for turn in rounds for place in turn if place is not None]


def read_judges(page):
    """Returns the judges that the build declares (judges.txt)."""
    rows = [line.split("|") for line in page.read_text().splitlines()]
    return [Judge(test, targets.split(), files.split()) for test, targets, files in rows]


def judges_of(path, judges):
    return [judge for judge in judges if any(path.startswith(file) for file in judge.files)]


class Tree:
    """A copy of the project, in which one change is made at a time."""

    def __init__(self, number):
        self.folder = MUTANTS / str(number)
        self.build = self.folder / "build/dev"
        files = self.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"], cwd=ROOT).stdout
        self.copy({name for name in files.split("\0") if (ROOT / name).is_file()})
        done = self.run(["cmake", "--preset", "dev", "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O1 -w",
                         f"-DPELAGO_TEST_SECONDS={SECONDS}"])
        if done.returncode != 0:
            sys.exit(f"mutate.py: {done.stderr}")
        self.judges = read_judges(self.build / "judges.txt")

    def copy(self, names):
        """Makes the tree equal to the project.  Files that are equal already keep their times, so that they are not
        built again."""
        for path in self.folder.rglob("*"):
            name = path.relative_to(self.folder)
            if name.parts[0] != "build" and not path.is_dir() and str(name) not in names:
                path.unlink()
        for name in names:
            there = self.folder / name
            if not there.is_file() or there.read_bytes() != (ROOT / name).read_bytes():
                there.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy2(ROOT / name, there)
                os.utime(there)

    def run(self, command, **options):
        return subprocess.run(command, capture_output=True, text=True, check=False, **({"cwd": self.folder} | options))

    def objects(self, since=0.0):
        """Returns {path: digest} of the object files that were compiled since then."""
        return {path: hashlib.sha256(path.read_bytes()).digest() for path in self.build.rglob("*.o")
                if path.stat().st_mtime >= since}

    def compile(self, paths):
        """Builds the tests that judge these files, and what they need; returns whether that worked."""
        targets = {target for path in paths for judge in judges_of(path, self.judges) for target in judge.targets}
        return not targets or self.run(["cmake", "--build", self.build, "-j1", "--target", *sorted(targets)]).returncode == 0

    def judged(self, *paths):
        """Runs the tests that judge these files; returns (state, the test that noticed)."""
        names = "|".join(sorted({re.escape(judge.test) for path in paths for judge in judges_of(path, self.judges)}))
        done = self.run(["ctest", "--test-dir", self.build, "-R", f"^({names})$", "--stop-on-failure", "--no-tests=error"])
        failed = re.findall(r"\d+ - (\S+) \(", done.stdout)
        return ("survived", "") if done.returncode == 0 else ("noticed", failed[-1] if failed else done.stdout[-200:])

    def build_unchanged(self, paths):
        """Builds the unchanged tree, with whose objects those of a changed one are compared."""
        if not self.compile(paths):
            sys.exit("mutate.py: the unchanged tree does not build")
        self.unchanged = self.objects()

    def outcome(self, place):
        """Makes one change, builds and tests it, and undoes it; returns (state, the test that noticed)."""
        file = self.folder / place.path
        started = time.time()
        file.write_text(place.changed())
        try:
            if file.suffix == ".sh" and self.run(["sh", "-n", file]).returncode != 0:
                return "not built", ""
            if not self.compile([place.path]):
                return "not built", ""
            compiled = self.objects(since=started - 1)  # a file's time may be a moment early
            if compiled and all(self.unchanged.get(path) == digest for path, digest in compiled.items()):
                return "same code", ""
            return self.judged(place.path)
        finally:
            file.write_text(place.text)


class Journal:
    """The outcome of each place that was tried, in a file that grows line by line."""

    def __init__(self, page, again):
        self.page = page
        self.known = {}
        for line in page.read_text().splitlines() if page.exists() else []:
            key, state, by = json.loads(line)
            if not (again and state == "survived"):
                self.known[key] = state, by

    def note(self, place, state, by):
        with self.page.open("a") as file:
            file.write(json.dumps([place.key(), state, by]) + "\n")


class Run:
    """Hands out the places in their order until enough of them were tried, and counts the outcomes."""

    def __init__(self, places, count, journal, answers):
        self.places = iter(places)
        self.count, self.journal, self.answers = count, journal, answers
        self.states, self.survivors, self.parts = Counter(), [], Counter()
        self.underway = 0
        self.changed = threading.Condition()

    def tried(self):
        return sum(self.states[state] for state in TRIED)

    def next(self):
        """Returns the next place, or None when enough were tried; waits while those in progress may be enough."""
        with self.changed:
            while self.underway and self.tried() + self.underway >= self.count:
                self.changed.wait()
            place = next(self.places, None) if self.tried() < self.count else None
            self.underway += place is not None
            return place

    def note(self, place, state, by):
        line, text, change = place.line_and_change()
        if state == "survived" and any((place.path, text, change) == answer[:3] for answer in self.answers):
            state = "answered"
        with self.changed:
            self.underway -= 1
            self.states[state] += 1
            self.parts[place.path.split("/")[0], state] += 1
            if state in TRIED:
                print(f"{self.tried():4} {state:9} {by:20} {place}", flush=True)
            if state == "survived":
                self.survivors.append(str(place))
            self.changed.notify_all()

    def work(self, tree):
        while (place := self.next()) is not None:
            known = self.journal.known.get(place.key())
            state, by = known or tree.outcome(place)
            if not known:
                with self.changed:
                    self.journal.note(place, state, by)
            self.note(place, state, by)

    def report(self):
        """Prints the survivors and the counts; returns whether every part reached its goal."""
        print("\nsurvivors:", *sorted(self.survivors), sep="\n  ")
        is_enough = self.tried() > 0
        for part, goal in GOALS.items():
            counts = [self.parts[part, state] for state in TRIED]
            if sum(counts):
                share = counts[0] / sum(counts)
                is_enough = is_enough and share >= goal
                print(f"{part:10} {sum(counts):4} mutants, {counts[0]} noticed, {counts[2]} answered: {100 * share:.1f} %")
        print(f"together   {self.tried():4} mutants; {self.states['not built']} more did not compile, "
              f"{self.states['same code']} made no difference to the code")
        return is_enough


def require_answers_fit(answers):
    """Ends the program unless each row of tools/survivors.md is about a change that can be made."""
    for path, line, change, _ in answers:
        if (line, change) not in {place.line_and_change()[1:] for place in places_in(path)}:
            sys.exit(f"mutate.py: tools/survivors.md has a change that {path} has no place for: {line} [{change}]")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--count", type=int, default=800)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--again", action="store_true")
    parser.add_argument("paths", nargs="*")
    options = parser.parse_args()
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY, resource.RLIM_INFINITY))
    resource.setrlimit(resource.RLIMIT_FSIZE, (FILE, resource.RLIM_INFINITY))
    answers = list(reasons.rows(ROOT / "tools/survivors.md"))
    require_answers_fit(answers)
    places = [place for path in sources(options.paths) for place in places_in(path)]
    paths = sorted({place.path for place in places})
    print(f"{len(places)} places in {len(paths)} files", flush=True)
    trees = [Tree(number) for number in range(options.jobs)]
    for path in paths:
        if not judges_of(path, trees[0].judges):
            sys.exit(f"mutate.py: no test judges {path}: pelago_judges() is where one would")
    for tree in trees:
        tree.build_unchanged(paths)
    state, by = trees[0].judged(*paths)
    if state != "survived":
        sys.exit(f"mutate.py: unchanged, the tree fails {by}")
    run = Run(drawn(places, options.seed), options.count, Journal(MUTANTS / "journal.jsonl", options.again), answers)
    threads = [threading.Thread(target=run.work, args=(tree,)) for tree in trees]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    return 0 if run.report() else 1


if __name__ == "__main__":
    sys.exit(main())
