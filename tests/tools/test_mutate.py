"""The mutations on small sources, and how tools/mutate.py draws them and continues an interrupted run."""

import os
import sys
import tempfile
import threading
import unittest
import unittest.mock
from pathlib import Path

TOOLS = Path(__file__).resolve().parents[2] / "tools"
sys.path.insert(0, str(TOOLS))
import mutate  # noqa: E402
from mutations import CPP, SHELL, Mutation, mutations  # noqa: E402


def mutants(name, text, kind):
    """Returns the texts that the changes of a kind make of the text."""
    return [text[:made.start] + made.replacement + text[made.end:] for made in mutations(name, text) if made.kind == kind]


def in_function(*lines):
    return "void F()\n{\n" + "".join(f"    {line}\n" for line in lines) + "}\n"


class Cpp(unittest.TestCase):
    maxDiff = None

    def assertMutants(self, kind, line, *expected):
        """Checks the changed lines of a function that has only that line."""
        self.assertEqual(sorted(mutants("x.cpp", in_function(line), kind)), sorted(map(in_function, expected)))

    def test_operators(self):
        self.assertMutants("comparison", "if (a < b) { c(); }", "if (a <= b) { c(); }", "if (a >= b) { c(); }")
        self.assertMutants("comparison", "x = a == b;", "x = a != b;")
        self.assertMutants("condition", "x = a && b;", "x = a || b;")
        self.assertMutants("condition", "if (!a) { b(); }", "if (a) { b(); }")
        self.assertMutants("condition", "x = true;", "x = false;")
        self.assertMutants("arithmetic", "x = a + b;", "x = a - b;")
        self.assertMutants("number", "x = 41;", "x = 42;")
        self.assertMutants("jump", "while (a) { break; }", "while (a) { continue; }")

    def test_nothing_in_comments_literals_and_directives(self):
        for line in ("// a < b && c", 'const char *x = "a < 1 || b";', "/* a == b */", "#if A == 1", "const char x = '1';"):
            self.assertEqual([made for made in mutations("x.cpp", line + "\n") if made.kind != "guard removed"], [], line)

    def test_a_statement_left_out(self):
        kind = "statement left out"
        self.assertMutants(kind, "close(fd);", ";")
        self.assertMutants(kind, "mState = 3;", ";")
        self.assertMutants(kind, "if (a) { free(b); }", "if (a) { ; }")
        self.assertMutants(kind, "*out = f(a,\n          g(b));", ";")
        self.assertMutants(kind, "count++;", ";")
        self.assertMutants(kind, "return f(x);")
        self.assertMutants(kind, "const int x = f();")
        self.assertMutants(kind, 'Warning("%s: a; b\\n", c);', ";")

    def test_an_early_return_left_out(self):
        kind = "early return left out"
        self.assertMutants(kind, "if (a) { return false; }", "if (a) { ; }")
        self.assertMutants(kind, "if (a) {\n        b();\n        return false;\n    }", "if (a) {\n        b();\n        ;\n    }")
        self.assertMutants(kind, "return a;")

    def test_statements_exchanged(self):
        text = in_function("write(a);", "flush(b);", "return c;")
        self.assertEqual(mutants("x.cpp", text, "statements exchanged"), [in_function("flush(b);", "write(a);", "return c;")])

    def test_no_statements_whose_order_cannot_matter(self):
        kind = "statements exchanged"
        self.assertEqual(mutants("x.cpp", in_function("*array = nullptr;", "mSize = count;"), kind), [])
        self.assertEqual(mutants("x.cpp", in_function("mSize = count;", "mLeft = mSize;"), kind),
                         [in_function("mLeft = mSize;", "mSize = count;")])

    def test_arguments(self):
        self.assertMutants("argument dropped", "f(a, g->b);", "f({}, g->b);", "f(a, {});")
        self.assertMutants("argument dropped", "f(nullptr, 0);")
        self.assertMutants("arguments exchanged", "f(a, b.c, d());", "f(b.c, a, d());")
        self.assertEqual(mutants("x.cpp", "int F(const char *a, int b);\n", "arguments exchanged"), [])
        self.assertMutants("arguments exchanged", 'f("a", b);')

    def test_a_similar_name(self):
        kind = "similar name"
        self.assertMutants(kind, 'Warning("a");', 'Log("a");')
        self.assertMutants(kind, "lstat(path, &there);", "stat(path, &there);")
        self.assertMutants(kind, "PosixCall(stat, path);", "PosixCall(lstat, path);")
        self.assertMutants(kind, "struct stat there;")
        self.assertMutants(kind, "x = geteuid();", "x = getuid();")
        self.assertMutants(kind, "x = user->pw_uid;", "x = user->pw_gid;")
        self.assertMutants(kind, "MyWarning(a);")

    def test_a_flag_taken_out(self):
        self.assertMutants("flag taken out", "open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);",
                           "open(path, O_CLOEXEC | O_NOFOLLOW);", "open(path, O_RDONLY | O_CLOEXEC);",
                           "open(path, O_RDONLY | O_NOFOLLOW);", "open(path, O_RDONLY | O_NOFOLLOW);")
        self.assertMutants("flag taken out", "x = a | b;")

    def test_narrowed(self):
        self.assertMutants("narrowed", "x = static_cast<uint64_t>(y);", "x = static_cast<uint32_t>(y);")
        self.assertMutants("narrowed", "const size_t size = f();", "const uint32_t size = f();")
        self.assertMutants("narrowed", "x = static_cast<char *>(y);")

    def test_a_guard(self):
        for guard in ("const std::lock_guard<std::mutex> lock(sMutex);", "ErrnoSaver errnoSaver;", "Inside inside{a};"):
            self.assertMutants("guard removed", guard, ";")
            self.assertMutants("guard ended at once", guard, f"{{ {guard} }}")
        used = in_function("std::lock_guard<std::mutex> lock(sMutex);", "lock.unlock();")
        self.assertEqual(mutants("x.cpp", used, "guard removed"), [])
        self.assertEqual(mutants("x.h", "class C {\n    bool Next(int a);\n};\n", "guard removed"), [])
        self.assertMutants("guard removed", "return nullptr;")

    def test_atomics(self):
        self.assertMutants("memory order weakened", "x.load(std::memory_order_acquire);", "x.load(std::memory_order_relaxed);")
        self.assertMutants("memory order weakened", "x.load(std::memory_order_relaxed);")
        kind = "atomic operation weakened"
        self.assertMutants(kind, "done = link->compare_exchange_strong(old, fresh, std::memory_order_release);",
                           "done = (link->store(fresh), true);")
        self.assertMutants(kind, "sReaders.fetch_add(1);", "sReaders.store(sReaders.load() + 1);")

    def test_every_kind_is_here(self):
        text = Path(__file__).read_text()
        for kind in {row[0] for row in CPP + SHELL}:
            self.assertIn(f'"{kind}"', text)


class Shell(unittest.TestCase):
    def assertMutants(self, kind, text, *expected):
        self.assertEqual(sorted(mutants("x.sh", f"f() {{\n    {text}\n}}\n", kind)),
                         sorted(f"f() {{\n    {changed}\n}}\n" for changed in expected))

    def test_left_out(self):
        self.assertMutants("command left out", 'rm -f "$NOTE"', ":")
        self.assertMutants("command left out", 'if a; then rm -f "$NOTE"; else b; fi', "if a; then :; else b; fi",
                           'if a; then rm -f "$NOTE"; else :; fi')
        self.assertMutants("command left out", 'cd "${0%/*}/.." "$@"', ":")
        self.assertMutants("command left out", "return 0")
        self.assertMutants("assignment left out", "name=$1", ":")
        self.assertMutants("option left out", 'mkdir -p "$a"', 'mkdir "$a"')

    def test_no_part_of_a_longer_command(self):
        text = "f() {\n    printf '%s' \"$a\" |\n    grep b\n    make \\\n    all\n}\n"
        self.assertEqual(mutants("x.sh", text, "command left out"), [])

    def test_conditions(self):
        self.assertMutants("condition", "a && b || c", "a || b || c", "a && b && c")
        self.assertMutants("condition", "if a; then b; fi", "if ! a; then b; fi")
        self.assertMutants("condition", "x | ! a", "x | a")
        self.assertMutants("comparison", '[ "$a" -eq 1 ] || b', '[ "$a" -ne 1 ] || b')
        self.assertMutants("comparison", '[ -n "$a" ]', '[ -z "$a" ]')
        self.assertMutants("number", "exit 0", "exit 1")

    def test_redirections(self):
        self.assertMutants("redirection left out", 'a 2>/dev/null >"$b"', 'a >"$b"', "a 2>/dev/null")
        self.assertMutants("redirection", "say a >&2", "say a >&1")

    def test_nothing_in_comments_quotes_and_here_documents(self):
        text = "# a && b\nawk 'a && b'\ncat <<'END'\n    rm -f a && b\nEND\n"
        self.assertEqual(mutants("x.sh", text, "condition") + mutants("x.sh", text, "command left out"), [])
        self.assertEqual(mutants("x.sh", "echo \"it's\" && b # isn't\n", "condition"), ["echo \"it's\" || b # isn't\n"])


class FakeTree:
    """A run in which every third change does not compile, and every fifth survives."""

    def __init__(self):
        self.asked = []

    def outcome(self, place):
        number = place.mutation.start
        self.asked.append(number)
        return ("not built", "") if number % 3 == 0 else ("survived", "") if number % 5 == 0 else ("noticed", "it")


class Driver(unittest.TestCase):
    PATH, TEXT = "lib/x.cpp", "a line\n" * 20

    def setUp(self):
        self.page = Path(self.enterContext(tempfile.TemporaryDirectory())) / "journal.jsonl"
        self.said = self.enterContext(unittest.mock.patch("builtins.print"))

    def places(self, count):
        return [mutate.Place(self.PATH, self.TEXT, Mutation("kind", number, number + 1, "")) for number in range(count)]

    def run_with(self, count, trees=1, again=False):
        tree = FakeTree()
        run = mutate.Run(self.places(100), count, mutate.Journal(self.page, again), [])
        threads = [threading.Thread(target=run.work, args=(tree,)) for _ in range(trees)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        return run, sorted(tree.asked)

    def test_the_seed_alone_decides_the_order(self):
        places = [mutate.Place(self.PATH, self.TEXT, Mutation(kind, number, number + 1, "")) for kind in "ab" for number in range(30)]
        first = mutate.drawn(places, 7)
        self.assertEqual(first, mutate.drawn(places, 7))
        self.assertNotEqual(first, mutate.drawn(places, 8))
        self.assertEqual(sorted(first), sorted(places))
        self.assertEqual([place.mutation.kind for place in first], ["a", "b"] * 30, "the kinds take turns")

    def test_tries_the_wanted_number_with_any_tree_count(self):
        for trees in (1, 2, 7):
            self.page.unlink(missing_ok=True)
            run, asked = self.run_with(20, trees)
            self.assertEqual((run.tried(), asked), (20, list(range(30))))
            self.assertEqual(dict(run.states), {"not built": 10, "survived": 4, "noticed": 16})

    def test_continues_an_interrupted_run(self):
        self.run_with(10)
        run, asked = self.run_with(20)
        self.assertEqual((run.tried(), asked), (20, list(range(15, 30))))
        self.assertEqual(self.run_with(20)[1], [])

    def test_tries_survivors_again_when_asked(self):
        self.run_with(20)
        self.assertEqual(self.run_with(20, again=True)[1], [5, 10, 20, 25])

    def test_omits_survivors_that_have_a_reason(self):
        place = self.places(6)[5]
        _, text, change = place.line_and_change()
        run = mutate.Run([place], 1, mutate.Journal(self.page, False), [(self.PATH, text, change, "why")])
        run.work(FakeTree())
        self.assertEqual((dict(run.states), run.survivors), ({"answered": 1}, []))

    def test_finds_the_tests_that_judge_a_file(self):
        self.page.write_text("util|util_test|lib/misc/util lib/public/util\nsession|tool bundle|apps/\nall||lib/\n")
        judges = mutate.read_judges(self.page)
        self.assertEqual([judge.test for judge in mutate.judges_of("lib/misc/utilPath.cpp", judges)], ["util", "all"])
        self.assertEqual(mutate.judges_of("apps/x.cpp", judges)[0].targets, ["tool", "bundle"])
        self.assertEqual(mutate.judges_of("product/x.cpp", judges), [])

    def test_each_file_has_a_judge_and_vice_versa(self):
        judges = mutate.read_judges(Path(os.environ["PELAGO_JUDGES"]))
        paths = [path for path in mutate.sources([]) if any(mutations(path, (mutate.ROOT / path).read_text()))]
        for path in paths:
            names = {judge.test for judge in mutate.judges_of(path, judges)}
            self.assertTrue(names - {"noMemory"}, f"no test judges {path}")  # noMemory only tries the code without memory
        for judge in judges:
            for file in judge.files:
                self.assertTrue(any(path.startswith(file) for path in paths), f"{judge.test} judges {file}, which is not there")

    def test_changes_the_product_only(self):
        paths = mutate.sources([])
        for path in ("apps/pelagoShareTool/runScript.cpp", "lib/misc/posixInt.h", "platform/linux/dyld.cpp",
                     "product/macos/shares/common.sh", "product/linux/host/main.cpp", "lib/public/dynbuf.h"):
            self.assertIn(path, paths)
        self.assertNotIn("lib/public/posix.h", paths)
        self.assertEqual({path.partition("/")[0] for path in paths}, {"apps", "lib", "platform", "product"})

    def test_changes_chosen_files_only(self):
        chosen = mutate.sources([mutate.ROOT / "apps", mutate.ROOT / "lib/misc/err.cpp"])
        self.assertIn("apps/pelagoShareTool/runScript.cpp", chosen)
        self.assertEqual([path for path in chosen if not path.startswith("apps/")], ["lib/misc/err.cpp"])
        with self.assertRaisesRegex(SystemExit, "nothing of the product .* is in .*/docs"):
            mutate.sources([mutate.ROOT / "docs"])


if __name__ == "__main__":
    unittest.main()
