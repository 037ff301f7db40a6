"""Tests of mutate.py: its mutants, its verdicts, and that it can fail."""

import contextlib
import io
import json
import os
import subprocess
import tempfile
import unittest

import mutate

# Each way to change a source, and what changes nothing that runs.
SOURCE = """\
#include <limits>
#define LIMIT 7
static_assert(sizeof(int) == 4, "as here");  // 1 + 1 == 2
template <typename T = int, int N = 3>
bool is_small(T a, bool&& b) {
    if (a < 10 && !b) return true;
    return a == 'x';
}
void step(int& n, Text& text) {
    n = n + 2;
    int const bits = n << 1;
    text = "s" + name(n);
    for (int i = 0; i != n; ++i) text.add("\\t");
}
"""
CHANGES = {
    (6, "comparison"): ["if (a <= 10 && !b) return true;", "if (a >= 10 && !b) return true;"],
    (6, "constant"): ["if (a < 11 && !b) return true;", "if (a < 9 && !b) return true;"],
    (6, "logical"): ["if (a < 10 || !b) return true;", "if (a < 10 && b) return true;"],
    (6, "statement"): ["if (a < 10 && !b) ;"],
    (6, "boolean"): ["if (a < 10 && !b) return false;"],
    (7, "comparison"): ["return a != 'x';"],
    (7, "constant"): ["return a == 'y';", "return a == 'w';"],
    (10, "constant"): ["n = n + 3;", "n = n + 1;"],
    (10, "arithmetic"): ["n = n - 2;"],
    (10, "statement"): [";"],
    (11, "constant"): ["int const bits = n << 2;", "int const bits = n << 0;"],
    (11, "bits"): ["int const bits = n >> 1;"],
    (12, "statement"): [";"],
    (12, "message"): ['text = "t" + name(n);'],
    (13, "comparison"): ['for (int i = 0; i == n; ++i) text.add("\\t");'],
    (13, "constant"): ['for (int i = 1; i != n; ++i) text.add("\\t");'],
    (13, "arithmetic"): ['for (int i = 0; i != n; --i) text.add("\\t");'],
    (13, "statement"): ["for (int i = 0; i != n; ++i) ;"],
    (13, "message"): ['for (int i = 0; i != n; ++i) text.add("z");'],
}


class Mutants(unittest.TestCase):
    def test_source_with_all_kinds_gives_these_and_no_others(self):
        changes = {}
        for mutant in mutate.mutants_of(SOURCE, seed=1):
            (before,), (after,) = mutant.lines()
            self.assertEqual(before, SOURCE.splitlines()[mutant.line() - 1].strip())
            changes.setdefault((mutant.line(), mutant.kind), []).append(after)
        self.assertEqual(changes, CHANGES)

    def test_statement_of_two_lines_leaves_both(self):
        mutant = next(m for m in mutate.mutants_of("{\n    f(a,\n      b);\n}\n", seed=1)
                      if m.kind == mutate.STATEMENT)
        self.assertEqual(mutant.lines(), (("f(a,", "b);"), (";",)))

    def test_message_differs_in_one_character(self):
        text = "Cannot open file"
        changed = set()
        for seed in range(100):
            (mutant,) = mutate.mutants_of(f'f("{text}");', seed)[1:]
            differs = [i for i in range(len(text)) if mutant.new[i + 1] != text[i]]
            self.assertEqual((len(differs), len(mutant.new)), (1, len(text) + 2))
            changed.update(differs)
        self.assertGreater(len(changed), len(text) / 2)

    def test_sample_begins_with_all_kinds_and_is_the_same_again(self):
        mutants = mutate.mutants_of(SOURCE, seed=1)
        order = mutate.spread(mutants, seed=1)
        self.assertCountEqual(order, mutants)
        self.assertEqual({m.kind for m in order[: len(mutate.KINDS)]}, set(mutate.KINDS))
        self.assertEqual(mutate.spread(mutants, seed=1), order)
        self.assertNotEqual(mutate.spread(mutants, seed=2), order)

    def test_only_takes_lines_or_a_match(self):
        mutants = mutate.mutants_of(SOURCE, seed=1)
        for only, lines in [("10", {10}), ("7-10", {7, 10}), ("name|'x'", {7, 12})]:
            with self.subTest(only):
                self.assertEqual({m.line() for m in mutants if mutate.is_wanted(m, only)}, lines)


def equivalents_of(text):
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "equivalent.txt")
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        return mutate.Equivalents.read(path)


LISTED = """\
# Comment.

It is a matter of speed.
- n = n + 2;
+ n = n + 3;
- f(a,
- b);
+ ;
"""


def results_of(verdicts):
    mutants = mutate.mutants_of(SOURCE, seed=1)
    return [mutate.Result(m, verdict, "some_test") for m, verdict in zip(mutants, verdicts)]


def report_of(results, equivalents=""):
    """Exit status and last line."""
    with contextlib.redirect_stdout(io.StringIO()) as output:
        status = mutate.report(results, equivalents_of(equivalents))
    return status, output.getvalue().splitlines()[-1], output.getvalue()


class Equivalents(unittest.TestCase):
    def test_listed_change_is_found_wherever_its_line_is(self):
        equivalents = equivalents_of(LISTED)
        moved = mutate.mutants_of("\n\n" + SOURCE, seed=1)
        found = [m.lines()[1] for m in moved if equivalents.contain(m)]
        self.assertEqual(found, [("n = n + 3;",)])
        self.assertEqual(list(equivalents.entries), [
            (("n = n + 2;",), ("n = n + 3;",)), (("f(a,", "b);"), (";",)),
        ])

    def test_listed_change_of_a_line_that_is_gone_is_told(self):
        changed = mutate.mutants_of(SOURCE.replace("n + 2", "n + 4"), seed=1)
        first, second = equivalents_of(LISTED).stale(changed)
        self.assertRegex(first, r"equivalent\.txt:4: matches nothing in .* any more$")
        self.assertRegex(second, r"equivalent\.txt:6: ")
        self.assertEqual(len(equivalents_of(LISTED).stale(mutate.mutants_of(SOURCE, seed=1))), 1)

    def test_change_without_reason_is_refused(self):
        with self.assertRaisesRegex(SystemExit, "equivalent.txt:5: no reason"):
            equivalents_of("A reason.\n- a\n+ b\n\n- c\n+ d\n")


class Report(unittest.TestCase):
    def test_19_of_20_caught_passes(self):
        results = results_of(["test"] * 17 + ["crash", "time-out", "survived", "not compiled"])
        self.assertEqual(report_of(results)[:2],
                         (0, "caught: 19 of 20 (95.0%), and 0 are equivalent: ok"))

    def test_18_of_19_caught_fails_and_shows_the_survivor(self):
        results = results_of(["test"] * 18 + ["survived"])
        status, last, text = report_of(results)
        self.assertEqual((status, last), (1, "caught: 18 of 19 (94.7%), and 0 are equivalent: "
                                             "FAILED, 95% are wanted"))
        self.assertIn("survived: " + results[-1].mutant.diff(), text)

    def test_listed_survivor_does_not_count(self):
        results = [r for r in results_of(["survived"] * 40) if r.mutant.new == "3"]
        self.assertEqual(report_of(results)[0], 1)
        self.assertEqual(report_of(results, LISTED)[:2],
                         (0, "caught: 0 of 0 (100.0%), and 1 are equivalent: ok"))

    def test_listed_mutant_that_is_caught_is_told(self):
        results = [r for r in results_of(["test"] * 40) if r.mutant.new == "3"]
        self.assertIn("listed as equivalent, but caught by some_test", report_of(results, LISTED)[2])


LIBRARY = """\
#ifdef TESK_BAM_PORTABLE
int start() { return 0; }
#else
int start() { return 0 + 0; }
#endif
int count(int n) {
    int i = start();
    while (i != n) ++i;
    int unused = 0;
    unused = 5;
    if (i != n) __builtin_trap();
    return i;
}
"""
TEST = "int count(int); int main() { return count(3) == 3 ? 0 : 1; }"
NINJA = """\
rule cc
  command = c++ -fPIC -o $out -c $in
rule so
  command = c++ -shared -o $out $in
rule program
  command = c++ -o $out $in
build CMakeFiles/tesk_bam.dir/lib.cpp.o: cc ROOT/lib.cpp
build test.o: cc ROOT/test.cpp
build libtesk_bam.so.1: so CMakeFiles/tesk_bam.dir/lib.cpp.o
build tests/shared_test: program test.o libtesk_bam.so.1
build tests/whole_test: program test.o CMakeFiles/tesk_bam.dir/lib.cpp.o
"""


class WholeRun(unittest.TestCase):
    """A library of its own, whose programs do not know the options of other tests."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = folder.name
        for name, text in [("lib.cpp", LIBRARY), ("test.cpp", TEST),
                           ("build.ninja", NINJA.replace("ROOT", self.root))]:
            with open(os.path.join(self.root, name), "w", encoding="ascii") as file:
                file.write(text)
        source = os.path.join(self.root, "lib.cpp")
        command = f"c++ -fPIC -o CMakeFiles/tesk_bam.dir/lib.cpp.o -c {source}"
        with open(os.path.join(self.root, "compile_commands.json"), "w", encoding="ascii") as file:
            json.dump([{"file": source, "command": command}], file)
        subprocess.run(["ninja", "-C", self.root], stdout=subprocess.DEVNULL, check=True)
        os.symlink("libtesk_bam.so.1", os.path.join(self.root, "libtesk_bam.so"))
        for name, value in [("ROOT", self.root), ("SOURCE", "lib.cpp"), ("SPARE_SECONDS", 1)]:
            self.addCleanup(setattr, mutate, name, getattr(mutate, name))
            setattr(mutate, name, value)
        self.addCleanup(setattr, mutate.Build, "OBJECT", mutate.Build.OBJECT)
        mutate.Build.OBJECT = "CMakeFiles/tesk_bam.dir/lib.cpp.o"

    def verdicts(self, n_workers):
        run = mutate.Run(mutate.Build(self.root), n_workers)
        try:
            mutants = [m for m in mutate.mutants_of(LIBRARY, seed=1) if run.variant_of(m)]
            with contextlib.redirect_stdout(io.StringIO()):
                run.try_source(LIBRARY, mutate.VARIANTS)
            return [(r.mutant.line(), r.mutant.lines()[1][0], r.verdict)
                    for r in run.results(mutants, 100)]
        finally:
            run.close()

    def test_mutants_of_a_library_have_these_verdicts(self):
        verdicts = self.verdicts(n_workers=2)
        self.assertLessEqual({
            (2, "int start() { return 1; }", "survived"),
            (4, "int start() { return 0 - 0; }", "survived"),
            (8, "while (i != n) ;", "time-out"),
            (8, "while (i == n) ++i;", "crash"),
            (10, ";", "survived"),
            (11, "if (i == n) __builtin_trap();", "crash"),
        }, set(verdicts))
        self.assertFalse([name for name in os.listdir(self.root) if name.startswith("workers")])


if __name__ == "__main__":
    unittest.main()
