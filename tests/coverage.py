"""Line and branch coverage of the two libraries: runs every test program, prints tables.

Started by scripts/coverage, which builds the programs: once as they are, once without
vectors. A line or branch counts as covered where one of the builds runs it. Processes
that the tests start count, too, but for those that end by a signal.
"""

import argparse
import json
import os
import re
import shutil
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# What is looked at, and what is reported together.
GROUPS = {
    "util/bam": ["util/bam", "data_wrappers"],
    "interop": ["interop"],
}

LEAST_COVERED = 98.0  # per cent of the lines

# Tests of a tool that may write no large file, so not what it counted either; it would
# add a message on that to its own.
LEFT_OUT = [
    "Exact.Convert_FileGrowsTooLarge_IsErrorAndOldFilesStay",
    "Import.BothCommands_OutputAtFault_IsErrorAndOldFileStays",
    "Report.OutputAtFault_IsErrorAndOldPageStays",
    "ToolFaults.*",
    "Tool.Convert_FileGrowsTooLarge_IsErrorAndOldFilesStay",
    "Tool.Convert_TemporaryFolderAtFault_IsErrorAndOldFileStays",
]


class Coverage:
    """Counts of a source file, by place; those of several builds are added."""

    def __init__(self):
        self.lines = {}  # by number
        self.branches = {}  # by line, column and whether the condition is true

    def add_line(self, line, count):
        self.lines[line] = self.lines.get(line, 0) + count

    def add_branch(self, line, column, is_true, count):
        place = (line, column, is_true)
        self.branches[place] = self.branches.get(place, 0) + count


class Build:
    """A build folder of one of the presets."""

    def __init__(self, folder):
        self.folder = os.path.abspath(folder)
        tests = os.path.join(self.folder, "tests")
        self.tests = [os.path.join(tests, name) for name in sorted(os.listdir(tests))
                      if name.endswith("_test")]
        tool = os.path.join(self.folder, "tools", "tesk-bam")
        self.programs = self.tests + ([tool] if os.path.exists(tool) else [])
        self.profiles = os.path.join(self.folder, "profiles")
        self.profile = os.path.join(self.folder, "tests.profdata")

    def run_tests(self):
        """Runs all tests; what each program counts is gathered in a file of its own."""
        shutil.rmtree(self.profiles, ignore_errors=True)
        environment = {**os.environ, "LLVM_PROFILE_FILE": os.path.join(self.profiles, "%m.profraw")}
        for program in self.tests:
            print(f"    {os.path.relpath(program, ROOT)}", file=sys.stderr, flush=True)
            options = ["--gtest_brief=1", "--gtest_filter=-" + ":".join(LEFT_OUT)]
            done = subprocess.run([program, *options], cwd=self.folder, env=environment,
                                  stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT, check=False)
            if done.returncode != 0:
                sys.stderr.write(done.stdout.decode(errors="replace"))
                sys.exit(f"{program} failed with status {done.returncode}")
        profiles = [os.path.join(self.profiles, name) for name in os.listdir(self.profiles)]
        run_llvm("profdata", "merge", "-sparse", "-o", self.profile, *profiles)

    def export(self, output_format, *options):
        objects = [word for program in self.programs[1:] for word in ("-object", program)]
        return run_llvm("cov", "export", f"-format={output_format}", *options,
                        "-instr-profile", self.profile, self.programs[0], *objects)

    def add_to(self, coverage_by_file):
        """Adds the counts of lines and branches to those of other builds."""
        coverage = None
        for row in self.export("lcov").splitlines():
            what, _, values = row.partition(":")
            if what == "SF":
                path = os.path.relpath(values, ROOT)
                coverage = coverage_by_file.setdefault(path, Coverage()) if group_of(path) else None
            elif what == "DA" and coverage is not None:
                coverage.add_line(*map(int, values.split(",")[:2]))
        (data,) = json.loads(self.export("text", "-skip-functions"))["data"]
        for file in data["files"]:
            coverage = coverage_by_file.get(os.path.relpath(file["filename"], ROOT))
            if coverage is not None:
                for line, column, _, _, n_true, n_false, *_ in file["branches"]:
                    coverage.add_branch(line, column, True, n_true)
                    coverage.add_branch(line, column, False, n_false)


def run_llvm(tool, *arguments):
    done = subprocess.run([f"llvm-{tool}", *arguments], capture_output=True, text=True, check=False)
    if done.returncode != 0:
        sys.exit(done.stderr)
    return done.stdout


def group_of(path):
    for group, folders in GROUPS.items():
        if any(path.startswith(folder + "/") for folder in folders):
            return group
    return None


def leave_out_what_compilers_run(path, coverage):
    """Forgets functions that make constants, and never run but when they are compiled."""
    with open(os.path.join(ROOT, path), encoding="utf-8") as file:
        source = file.read()
    for function in re.finditer(r"^constexpr .*\) \{\n(.*\n)*?\}$", source, re.MULTILINE):
        begin = source.count("\n", 0, function.start()) + 1
        lines = range(begin, begin + function[0].count("\n") + 1)
        if any(coverage.lines.get(line) for line in lines):
            continue
        for line in lines:
            coverage.lines.pop(line, None)
        for place in [place for place in coverage.branches if place[0] in lines]:
            del coverage.branches[place]


# --- Tables ---------------------------------------------------------------


def totals(coverages, which):
    """How many lines or branches are covered, and how many there are."""
    counts = [count for c in coverages for count in getattr(c, which).values()]
    return sum(count != 0 for count in counts), len(counts)


def percent(covered, n):
    return 100.0 * covered / n if n else 100.0


def row_of(name, coverages):
    row = [name]
    for which in ("lines", "branches"):
        covered, n = totals(coverages, which)
        row += [f"{covered} of {n}", f"{percent(covered, n):.2f}%"]
    return row


def files_of(group, coverage_by_file):
    return {path: coverage for path, coverage in sorted(coverage_by_file.items())
            if group_of(path) == group}


def print_tables(coverage_by_file):
    rows = []
    for group in GROUPS:
        files = files_of(group, coverage_by_file)
        rows += [row_of(path, [coverage]) for path, coverage in files.items()]
    for group in GROUPS:
        rows.append(row_of(f"all of {group}", files_of(group, coverage_by_file).values()))
    rows.append(row_of("all", coverage_by_file.values()))
    for row in [["file", "lines", "", "branches", ""], ["---"] * 5, *rows]:
        print("| " + " | ".join(row) + " |")


def print_uncovered(coverage_by_file):
    for path, coverage in sorted(coverage_by_file.items()):
        with open(os.path.join(ROOT, path), encoding="utf-8") as file:
            texts = file.read().splitlines()
        places = [(line, 0, "never run") for line, count in coverage.lines.items() if count == 0]
        for (line, column, is_true), count in coverage.branches.items():
            if count == 0 and coverage.lines.get(line) != 0:
                places.append((line, column, f"never {str(is_true).lower()}"))
        for line, column, what in sorted(places):
            place = f"{path}:{line}" + (f":{column}" if column else "")
            print(f"{place}: {what}: {texts[line - 1][max(column - 1, 0):].strip()}")


def main():
    parser = argparse.ArgumentParser(prog="scripts/coverage",
                                     description=__doc__.splitlines()[0])
    parser.add_argument("builds", nargs="+", help=argparse.SUPPRESS)
    parser.add_argument("--uncovered", action="store_true",
                        help="also print the lines and branches that no test reaches")
    parser.add_argument("--no-run", dest="run", action="store_false",
                        help="print what the last run counted")
    options = parser.parse_args()

    coverage_by_file = {}
    for build in map(Build, options.builds):
        if options.run:
            build.run_tests()
        build.add_to(coverage_by_file)
    for path, coverage in coverage_by_file.items():
        leave_out_what_compilers_run(path, coverage)
    print_tables(coverage_by_file)
    if options.uncovered:
        print()
        print_uncovered(coverage_by_file)
    rate = percent(*totals(coverage_by_file.values(), "lines"))
    is_good = rate >= LEAST_COVERED
    print(f"\nlines: {rate:.2f}%: " + ("ok" if is_good else f"FAILED, {LEAST_COVERED:g}% are wanted"))
    return 0 if is_good else 1


if __name__ == "__main__":
    sys.exit(main())
