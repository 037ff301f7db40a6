"""Mutation testing: makes small faults in the library's source, and tells which of them
the tests of the library notice.

Started by scripts/mutate, which builds the tests against the library as a shared one.
A mutant is the source with one fault. It is compiled alone and takes the library's
place; then the test programs run until one of them fails. Which mutants are tried
depends on the source and the seed alone.

Mutants that no test can tell from the source are listed in equivalent.txt, see there.
"""

import argparse
import collections
import concurrent.futures
import dataclasses
import itertools
import json
import os
import random
import re
import resource
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

FOLDER = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(FOLDER))
SOURCE = "util/bam/bam_file.cpp"

COMPARISON = "comparison"  # flipped, or with equality the other way
CONSTANT = "constant"  # an integer or a character, one up or down
LOGICAL = "logical"  # && for ||, or without !
ARITHMETIC = "arithmetic"  # + for -, * for /
BITS = "bits"  # << for >>, & for |
STATEMENT = "statement"  # left out
MESSAGE = "message"  # one character of a text changed
BOOLEAN = "boolean"  # true for false
KINDS = [COMPARISON, CONSTANT, LOGICAL, ARITHMETIC, BITS, STATEMENT, MESSAGE, BOOLEAN]

# Ways to compile the source; each has lines that the others leave out.
VARIANTS = {"vectors": [], "portable": ["-DTESK_BAM_PORTABLE"]}

# What a mutant may take: so many times what the source takes, and some seconds.
TIME_FACTOR = 5
SPARE_SECONDS = 3
SLEEP_FACTOR = 10  # of seconds on the wall over those of the processor
MAX_MEMORY = 4 << 30  # bytes of address space
MAX_FILE = 5 << 30  # bytes of one file; tests make files of 4 GiB, nearly all holes

LEAST_CAUGHT = 0.95
DEFAULT_COUNT = 300
DEFAULT_SEED = 1

# --- Mutants --------------------------------------------------------------


@dataclasses.dataclass(frozen=True)
class Mutant:
    """The source with one text in the place of another."""

    source: str
    kind: str
    offset: int
    old: str
    new: str

    def text(self):
        end = self.offset + len(self.old)
        return self.source[: self.offset] + self.new + self.source[end:]

    def line(self):
        return self.source.count("\n", 0, self.offset) + 1

    def lines(self):
        """The changed lines, before and after, without space around them."""
        begin = self.source.rfind("\n", 0, self.offset) + 1
        end = self.source.find("\n", self.offset + len(self.old))
        before = self.source[begin:end]
        place = self.offset - begin
        after = before[:place] + self.new + before[place + len(self.old) :]
        return tuple(tuple(line.strip() for line in text.split("\n")) for text in (before, after))

    def diff(self):
        before, after = self.lines()
        lines = [*("- " + line for line in before), *("+ " + line for line in after)]
        return "\n".join([f"{SOURCE}:{self.line()}: {self.kind}", *lines])


TOKEN = re.compile(
    r"""
      (?P<space>\s+)
    | (?P<comment>//[^\n]*|/\*.*?\*/)
    | (?P<directive>(?<![^\n])\#(?:\\\n|[^\n])*)
    | (?P<string>R"(?P<mark>[^(\s]*)\(.*?\)(?P=mark)"|"(?:\\.|[^"\\\n])*")
    | (?P<char>'(?:\\[^']+|\\'|[^'\\\n])')
    | (?P<number>\d(?:'?[\w.])*)
    | (?P<word>[A-Za-z_]\w*)
    | (?P<sign><<=|>>=|->|\+\+|--|&&|\|\||[-+*/%&|^!=<>]=|<<|>>|::|\.\.\.|.)
    """,
    re.VERBOSE | re.DOTALL,
)


@dataclasses.dataclass(frozen=True)
class Token:
    kind: str
    text: str
    begin: int
    end: int


def tokens_of(source):
    """What the compiler sees of a source, but for its directives."""
    tokens = [Token(m.lastgroup if m.lastgroup != "mark" else "string", m[0], *m.span())
              for m in TOKEN.finditer(source)]
    return [t for t in tokens if t.kind not in ("space", "comment", "directive")]


# What is no code that runs, with the brackets behind it.
NO_CODE = {"static_assert": "()", "__attribute__": "()", "template": "<>"}


def without_declarations(tokens):
    """Tokens without assertions on types, attributes and the heads of templates."""
    kept = []
    i = 0
    while i < len(tokens):
        brackets = NO_CODE.get(tokens[i].text)
        if brackets is None or tokens[i + 1].text != brackets[0]:
            kept.append(tokens[i])
            i += 1
            continue
        depth = 0
        while True:
            i += 1
            depth += {brackets[0]: 1, brackets[1]: -1, 2 * brackets[1]: -2}.get(tokens[i].text, 0)
            if depth == 0:
                break
        i += 1
    return kept


SWAPS = {
    "<": (COMPARISON, ["<=", ">="]),
    "<=": (COMPARISON, ["<", ">"]),
    ">": (COMPARISON, [">=", "<="]),
    ">=": (COMPARISON, [">", "<"]),
    "==": (COMPARISON, ["!="]),
    "!=": (COMPARISON, ["=="]),
    "&&": (LOGICAL, ["||"]),
    "||": (LOGICAL, ["&&"]),
    "+": (ARITHMETIC, ["-"]),
    "-": (ARITHMETIC, ["+"]),
    "*": (ARITHMETIC, ["/"]),
    "/": (ARITHMETIC, ["*"]),
    "%": (ARITHMETIC, ["/"]),
    "+=": (ARITHMETIC, ["-="]),
    "-=": (ARITHMETIC, ["+="]),
    "*=": (ARITHMETIC, ["/="]),
    "/=": (ARITHMETIC, ["*="]),
    "++": (ARITHMETIC, ["--"]),
    "--": (ARITHMETIC, ["++"]),
    "<<": (BITS, [">>"]),
    ">>": (BITS, ["<<"]),
    "&": (BITS, ["|"]),
    "|": (BITS, ["&"]),
    "^": (BITS, ["|"]),
    "&=": (BITS, ["|="]),
    "|=": (BITS, ["&="]),
    "true": (BOOLEAN, ["false"]),
    "false": (BOOLEAN, ["true"]),
}
# Signs that mean what they stand for here only between spaces: else they are brackets of
# templates, references, pointers or lone signs.
BETWEEN_SPACES = ["<", ">", "&&", "+", "-", "*", "/", "%", "<<", ">>", "&", "|", "^"]


def swaps(source, tokens):
    for i, token in enumerate(tokens):
        if token.kind not in ("sign", "word") or token.text not in SWAPS:
            continue
        around = source[token.begin - 1] + source[token.end]
        if token.text in BETWEEN_SPACES and not around.isspace():
            continue
        # Texts are put together with +, which has no opposite.
        if token.text == "+" and "string" in (tokens[i - 1].kind, tokens[i + 1].kind):
            continue
        kind, news = SWAPS[token.text]
        for new in news:
            yield kind, token, new


def constants(tokens):
    for token in tokens:
        if token.kind == "number":
            number = re.fullmatch(r"(0[xX][0-9a-fA-F]+|\d+)([uUlL]*)", token.text)
            if number is None:
                continue
            value = int(number[1], 0)
            as_text = hex if number[1][:2] in ("0x", "0X") else str
            for new in (value + 1, value - 1):
                if new >= 0:
                    yield CONSTANT, token, as_text(new) + number[2]
        if token.kind == "char" and len(token.text) == 3:
            for new in (ord(token.text[1]) + 1, ord(token.text[1]) - 1):
                if chr(new) not in "'\\":
                    yield CONSTANT, token, f"'{chr(new)}'"
        if token.text == r"'\0'":
            yield CONSTANT, token, r"'\1'"


def without_not(tokens):
    for token in tokens:
        if token.text == "!":
            yield LOGICAL, token, ""


# A statement that calls, assigns or steps, and no declaration.
ACTION = re.compile(r"[*(]*(\+\+|--|[A-Za-z_][\w:]*(<[^;]*?>)?\s*"
                    r"(\.|->|\[|\(|\+\+|--|[-+*/%&|^]?=(?!=)|<<=|>>=))")
NO_ACTION = ["if", "for", "while", "switch", "using", "case", "else", "do", "explicit", "operator"]
JUMP = re.compile(r"(break|continue|return);|throw\b")


def statements(source, tokens):
    begin = 0
    depth = 0  # of round brackets
    for i, token in enumerate(tokens):
        if begin is None:
            begin = i
        depth += {"(": 1, ")": -1}.get(token.text, 0)
        # The head of an if or loop, or a label, ends before the statement.
        if depth == 0 and token.text == ")" and tokens[begin].text in ("if", "for", "while"):
            begin = None
        elif depth == 0 and token.text == ":" and tokens[begin].text in ("case", "default"):
            begin = None
        elif token.text in ("{", "}") or token.text == "else":
            begin = None
        elif token.text == ";" and depth == 0:
            first = tokens[begin]
            text = source[first.begin : token.end]
            is_guarded = tokens[begin - 1].text in (")", "else")
            is_action = ACTION.match(text) and first.text not in NO_ACTION
            is_jump = JUMP.match(text) or (is_guarded and first.text == "return")
            if (is_action or is_jump) and not re.search(r"= (default|delete);$", text):
                yield STATEMENT, Token("", text, first.begin, token.end), ";"
            begin = None


# One character of a text, which an escape sequence may stand for.
UNIT = re.compile(r"\\(?:x[0-9a-fA-F]+|[0-7]{1,3}|.)|.")


def messages(tokens, seed):
    for token in tokens:
        if token.kind != "string" or token.text[0] == "R":
            continue
        units = UNIT.findall(token.text[1:-1])
        if not units:
            continue
        # Its place is drawn for each text alone, so that others do not matter.
        place = random.Random(f"{seed}/{token.text}").randrange(len(units))
        unit = units[place]
        units[place] = chr(ord(unit) + 1) if re.fullmatch("[a-yA-Y0-8]", unit) else "z"
        yield MESSAGE, token, '"' + "".join(units) + '"'


def mutants_of(source, seed):
    """All mutants, in the order of the source."""
    tokens = without_declarations(tokens_of(source))
    found = [*swaps(source, tokens), *constants(tokens), *without_not(tokens),
             *statements(source, tokens), *messages(tokens, seed)]
    mutants = [Mutant(source, kind, t.begin, t.text, new) for kind, t, new in found]
    return sorted(mutants, key=lambda m: (m.offset, KINDS.index(m.kind)))


def spread(mutants, seed):
    """The same mutants, in an order whose every beginning is spread over source and kinds."""
    GOLDEN = 0.6180339887498949  # steps of this part of a line hit all of it evenly
    orders = []
    for kind in KINDS:
        left = [m for m in mutants if m.kind == kind]
        place = random.Random(f"{seed}/{kind}").random()
        order = []
        while left:
            order.append(left.pop(int(place * len(left))))
            place = (place + GOLDEN) % 1
        orders.append(order)
    return [order[i] for i in range(len(mutants)) for order in orders if i < len(order)]


# --- Equivalent mutants ---------------------------------------------------


@dataclasses.dataclass
class Equivalents:
    """What equivalent.txt lists: changed lines, before and after, with reasons."""

    path: str
    entries: dict  # of the lines to the number of the line in the file

    @classmethod
    def read(cls, path):
        with open(path, encoding="utf-8") as file:
            text = file.read()
        entries = {}
        has_reason = False
        # Lines before and lines after the change, or one other line.
        for part in re.finditer(r"((?:^- .*\n)+)((?:^\+ .*\n)+)|^.*\n", text, re.MULTILINE):
            line = text.count("\n", 0, part.start()) + 1
            if part[1] is None:
                is_text = not part[0].startswith("#") and not part[0].isspace()
                has_reason = is_text or (has_reason and not part[0].isspace())
                continue
            if not has_reason:
                sys.exit(f"{path}:{line}: no reason")
            before, after = (tuple(row[2:].strip() for row in lines.splitlines())
                             for lines in part.groups())
            entries[(before, after)] = line
        return cls(path, entries)

    def contain(self, mutant):
        return mutant.lines() in self.entries

    def stale(self, mutants):
        """Messages on entries for lines that have no mutants."""
        known = {mutant.lines()[0] for mutant in mutants}
        name = os.path.relpath(self.path, ROOT)
        return [f"{name}:{line}: matches nothing in {SOURCE} any more"
                for (before, _), line in self.entries.items() if before not in known]


# --- Compiling and running ------------------------------------------------


class NotCompiled(Exception):
    """The compiler or the linker refused a mutant."""


class Build:
    """The build folder: how the library is compiled, and what tests it."""

    OBJECT = f"CMakeFiles/tesk_bam.dir/{SOURCE}.o"

    def __init__(self, folder):
        self.folder = os.path.abspath(folder)
        with open(self.path("compile_commands.json"), encoding="utf-8") as file:
            entries = json.load(file)
        source = os.path.join(ROOT, SOURCE)
        command = next(e["command"] for e in entries if e["file"] == source)
        words = shlex.split(command)
        output = words.index("-o")
        # Faults matter here, and no warnings.
        self.compiler = [w for w in words[:output] if w != "-Werror"] + ["-O0", "-w"]
        self.headers = {}  # precompiled, by variant
        self.library = os.readlink(self.path("libtesk_bam.so"))
        names = sorted(os.listdir(self.path("tests")))
        self.programs = [name for name in names if name.endswith("_test")]
        self.link_commands = {target: self.link_command(target) for target in
                              [self.library, *(os.path.join("tests", p) for p in self.programs)]}

    def path(self, *names):
        return os.path.join(self.folder, *names)

    def link_command(self, target):
        """What links a target that holds the library's object, else None."""
        commands = subprocess.run(["ninja", "-C", self.folder, "-t", "commands", target],
                                  capture_output=True, text=True, check=True).stdout
        words = shlex.split(commands.splitlines()[-1])
        words = [w for w in words if w not in (":", "&&")]
        return words if self.OBJECT in words else None

    def precompile(self, source, variant, folder):
        """Compiles what the source includes, since each mutant includes the same."""
        head = re.match(r"(.*\n)?#include[^\n]*\n", source, re.DOTALL)
        if head is None:
            return
        path = os.path.join(folder, f"{variant}.h")
        with open(path, "w", encoding="utf-8") as file:
            file.write(head[0])
        self.headers[variant] = path + ".pch"
        subprocess.run([*self.compiler, *VARIANTS[variant], "-o", self.headers[variant],
                        "-x", "c++-header", path], cwd=self.folder, check=True)

    def own_lines(self, flags):
        """Numbers of the lines of the source that are compiled."""
        source = os.path.join(ROOT, SOURCE)
        text = subprocess.run([*self.compiler, *flags, "-E", source],
                              capture_output=True, text=True, check=True).stdout
        own = set()
        line = None
        for row in text.splitlines():
            marker = re.match(r'# (\d+) "(.*?)"', row)
            if marker:
                line = int(marker[1]) if marker[2] == source else None
            elif line is not None:
                if row.strip():
                    own.add(line)
                line += 1
        return own

    def variants_by_line(self):
        """By line of the source, a way to compile it that does not leave it out."""
        variants = {}
        for variant, flags in VARIANTS.items():
            for line in self.own_lines(flags):
                variants.setdefault(line, variant)
        return variants


@dataclasses.dataclass(frozen=True)
class Outcome:
    """How a program ended."""

    verdict: str  # "" passed
    test: str = ""  # that failed, where it is known


PASSED, FAILED, CRASHED, TIMED_OUT = "", "test", "crash", "time-out"


class Worker:
    """A folder with a library of its own, and with all that its tests leave behind."""

    def __init__(self, build, folder):
        self.build = build
        self.folder = folder
        self.scratch = os.path.join(self.folder, "scratch")
        os.makedirs(os.path.join(self.folder, "tests"))
        self.process = None

    def path(self, *names):
        return os.path.join(self.folder, *names)

    def compile(self, text, variant):
        """Makes the library from a text; programs that hold it themselves are linked later."""
        with open(self.path("bam_file.cpp"), "w", encoding="utf-8") as file:
            file.write(text)
        for name in os.listdir(self.path("tests")):
            os.remove(self.path("tests", name))
        command = [*self.build.compiler, *VARIANTS[variant]]
        if variant in self.build.headers:
            command += ["-include-pch", self.build.headers[variant]]
        self.run_compiler([*command, "-o", self.path("bam_file.o"), "-c",
                           self.path("bam_file.cpp")])
        self.link(self.build.library)

    def link(self, target):
        words = list(self.build.link_commands[target])
        words[words.index(self.build.OBJECT)] = self.path("bam_file.o")
        words[words.index("-o") + 1] = self.path(target)
        self.run_compiler(words)

    def run_compiler(self, words):
        done = subprocess.run(words, cwd=self.build.folder, stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, check=False)
        if done.returncode != 0:
            raise NotCompiled(done.stderr.decode(errors="replace"))

    def program(self, name):
        """Path of a test program; linked, where it holds the library itself."""
        target = os.path.join("tests", name)
        if self.build.link_commands[target] is None:
            return self.build.path(target)
        if not os.path.exists(self.path(target)):
            self.link(target)
        return self.path(target)

    def run(self, name, seconds=None):
        """Runs a test program; seconds of processor time that it may take, None for any."""
        shutil.rmtree(self.scratch, ignore_errors=True)
        os.makedirs(self.scratch)
        limits = f"ulimit -v {MAX_MEMORY // 1024} -f {MAX_FILE // 1024} -c 0"
        if seconds is not None:
            limits += f" -t {seconds}"
        environment = {**os.environ, "LD_LIBRARY_PATH": self.folder, "TMPDIR": self.scratch}
        environment.pop("TESK_BAM_REAL_DATA", None)
        command = ["bash", "-c", limits + ' && exec "$0" "$@"', self.program(name)]
        command += ["--gtest_fail_fast", "--gtest_brief=1"]
        with open(self.path("output"), "wb") as output:
            self.process = subprocess.Popen(
                command, cwd=self.scratch, env=environment, stdin=subprocess.DEVNULL,
                stdout=output, stderr=subprocess.DEVNULL, start_new_session=True)
            try:
                code = self.process.wait(None if seconds is None else seconds * SLEEP_FACTOR)
            except subprocess.TimeoutExpired:
                self.kill()
                code = self.process.wait()
        if code == 0:
            return Outcome(PASSED)
        if code in (-signal.SIGKILL, -signal.SIGXCPU):
            return Outcome(TIMED_OUT)
        return Outcome(FAILED if code > 0 else CRASHED, self.last_test())

    def kill(self):
        """Ends the program that runs, if any, and all that it started."""
        if self.process is not None and self.process.poll() is None:
            os.killpg(self.process.pid, signal.SIGKILL)

    def last_test(self):
        with open(self.path("output"), encoding="utf-8", errors="replace") as file:
            names = re.findall(r"^\[  FAILED  \] ([\w./]+)", file.read(), re.MULTILINE)
        return names[0] if names else ""


# --- The whole run --------------------------------------------------------


@dataclasses.dataclass(frozen=True)
class Result:
    mutant: Mutant
    verdict: str
    by: str = ""  # program, and test where it is known

    def was_compiled(self):
        return self.verdict != NOT_COMPILED


SURVIVED, NOT_COMPILED = "survived", "not compiled"


class Order:
    """Which program to run first: one that caught mutants near by, and that is quick."""

    NEAR = 60  # lines

    def __init__(self, seconds):
        self.seconds = seconds  # by program
        self.catches = []
        self.lock = threading.Lock()

    def caught(self, line, program):
        with self.lock:
            self.catches.append((line, program))

    def for_line(self, line):
        with self.lock:
            catches = list(self.catches)
        all_by = collections.Counter(program for _, program in catches)
        near_by = collections.Counter(p for at, p in catches if abs(at - line) <= self.NEAR)
        n = max(len(catches), 1)

        def hope(program):
            expected = near_by[program] + all_by[program] / n + 0.1
            return expected / (0.1 + self.seconds[program])

        return sorted(self.seconds, key=hope, reverse=True)


class Run:
    """Tries mutants, several at a time."""

    def __init__(self, build, n_workers):
        self.build = build
        self.folder = tempfile.mkdtemp(prefix="workers-", dir=build.folder)
        self.workers = [Worker(build, os.path.join(self.folder, str(i))) for i in range(n_workers)]
        self.seconds = {}  # of processor time, by variant and program
        self.orders = {}  # by variant
        self.variants = build.variants_by_line()
        self.is_stopped = False

    def close(self):
        shutil.rmtree(self.folder, ignore_errors=True)

    def variant_of(self, mutant):
        """How to compile the source so that a mutant matters; None if it never does."""
        return self.variants.get(mutant.line())

    def try_source(self, text, variants):
        """Runs all tests with the source itself, and learns how long they take."""
        worker = self.workers[0]
        for variant in variants:
            self.build.precompile(text, variant, self.folder)
            worker.compile(text, variant)
            seconds = {}
            for name in self.build.programs:
                begin = resource.getrusage(resource.RUSAGE_CHILDREN)
                outcome = worker.run(name)
                end = resource.getrusage(resource.RUSAGE_CHILDREN)
                if outcome.verdict != PASSED:
                    sys.exit(f"{name} fails on the source itself ({variant}): {outcome.test}")
                seconds[name] = end.ru_utime + end.ru_stime - begin.ru_utime - begin.ru_stime
            self.seconds[variant] = seconds
            self.orders[variant] = Order(seconds)
            print(f"{len(seconds)} test programs pass on the source itself ({variant}): "
                  f"{sum(seconds.values()):.0f} s of processor time", flush=True)

    def try_mutant(self, worker, mutant):
        variant = self.variant_of(mutant)
        order = self.orders[variant]
        try:
            worker.compile(mutant.text(), variant)
            for name in order.for_line(mutant.line()):
                if self.is_stopped:
                    break
                limit = int(TIME_FACTOR * self.seconds[variant][name]) + SPARE_SECONDS
                outcome = worker.run(name, limit)
                if outcome.verdict != PASSED:
                    order.caught(mutant.line(), name)
                    return Result(mutant, outcome.verdict, f"{name} {outcome.test}".rstrip())
        except NotCompiled:
            return Result(mutant, NOT_COMPILED)
        return Result(mutant, SURVIVED)

    def results(self, mutants, count):
        """Results in the order of the mutants, until so many were compiled."""
        free = list(self.workers)
        lock = threading.Lock()

        def try_one(mutant):
            with lock:
                worker = free.pop()
            result = self.try_mutant(worker, mutant)
            with lock:
                free.append(worker)
            return result

        with concurrent.futures.ThreadPoolExecutor(len(self.workers)) as pool:
            try:
                ahead = collections.deque()
                rest = iter(mutants)
                while count > 0:
                    for mutant in itertools.islice(rest, len(self.workers) - len(ahead)):
                        ahead.append(pool.submit(try_one, mutant))
                    if not ahead:
                        break
                    result = ahead.popleft().result()
                    count -= result.was_compiled()
                    yield result
            finally:
                self.is_stopped = True
                for worker in self.workers:
                    worker.kill()


def report(results, equivalents, least=LEAST_CAUGHT):
    """Prints a table and the survivors; returns the exit status."""
    survivors = [r for r in results if r.verdict == SURVIVED]
    explained = [r for r in survivors if equivalents.contain(r.mutant)]
    unexplained = [r for r in survivors if not equivalents.contain(r.mutant)]
    columns = ["kind", "compiled", FAILED, CRASHED, TIMED_OUT, "equivalent", SURVIVED,
               NOT_COMPILED]
    rows = []
    for kind in [*KINDS, "all"]:
        of_kind = [r for r in results if kind in (r.mutant.kind, "all")]
        n_by = collections.Counter(r.verdict for r in of_kind)
        n_explained = sum(r in explained for r in of_kind)
        rows.append([kind, len(of_kind) - n_by[NOT_COMPILED], n_by[FAILED], n_by[CRASHED],
                     n_by[TIMED_OUT], n_explained, n_by[SURVIVED] - n_explained,
                     n_by[NOT_COMPILED]])
    print()
    for row in [columns, ["---"] * len(columns), *rows]:
        print("| " + " | ".join(map(str, row)) + " |")
    for result in unexplained:
        print(f"\nsurvived: {result.mutant.diff()}")
    for result in results:
        if result.was_compiled() and result.verdict != SURVIVED:
            if equivalents.contain(result.mutant):
                print(f"\nlisted as equivalent, but caught by {result.by}: {result.mutant.diff()}")
    n = sum(r.was_compiled() for r in results) - len(explained)
    n_caught = n - len(unexplained)
    rate = n_caught / n if n else 1.0
    is_good = rate >= least
    print(f"\ncaught: {n_caught} of {n} ({100 * rate:.1f}%), and {len(explained)} are equivalent: "
          + ("ok" if is_good else f"FAILED, {100 * least:g}% are wanted"))
    return 0 if is_good else 1


def is_wanted(mutant, only):
    lines = re.fullmatch(r"(\d+)(?:-(\d+))?", only)
    if lines:
        return int(lines[1]) <= mutant.line() <= int(lines[2] or lines[1])
    return any(re.search(only, line) for line in mutant.lines()[0])


def parse_options():
    parser = argparse.ArgumentParser(prog="scripts/mutate", description=__doc__.splitlines()[0])
    parser.add_argument("--build", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--count", type=int, default=DEFAULT_COUNT,
                        help="mutants that compile (default: %(default)s)")
    parser.add_argument("--seed", type=int, default=DEFAULT_SEED,
                        help="another seed takes other mutants (default: %(default)s)")
    parser.add_argument("--jobs", type=int, default=len(os.sched_getaffinity(0)),
                        help="mutants at a time (default: the number of processors)")
    parser.add_argument("--only", metavar="LINES|REGEX", default="",
                        help="only mutants of these lines (700-820), or of lines with a match")
    parser.add_argument("--kinds", nargs="+", choices=KINDS, default=KINDS)
    parser.add_argument("--list", action="store_true", help="print the mutants, and try none")
    options = parser.parse_args()
    if options.count <= 0 or options.jobs <= 0:
        parser.error("numbers are positive")
    return options


def main():
    options = parse_options()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))  # through the finally below
    with open(os.path.join(ROOT, SOURCE), encoding="utf-8") as file:
        source = file.read()
    run = Run(Build(options.build), options.jobs)
    try:
        everything = [m for m in mutants_of(source, options.seed) if run.variant_of(m)]
        equivalents = Equivalents.read(os.path.join(FOLDER, "equivalent.txt"))
        for message in equivalents.stale(everything):
            print(message)
        wanted = [m for m in everything
                  if m.kind in options.kinds and is_wanted(m, options.only)]
        mutants = spread(wanted, options.seed)
        print(f"{len(mutants)} mutants, {options.count} of which to try, seed {options.seed}",
              flush=True)
        if options.list:
            for mutant in mutants[: options.count]:
                print(mutant.diff() + "\n")
            return 0
        # The sample may reach beyond `count`, for what does not compile.
        run.try_source(source, sorted({run.variant_of(m) for m in mutants}, reverse=True))
        results = []
        begin = time.monotonic()
        for result in run.results(mutants, options.count):
            results.append(result)
            print(f"{len(results):4} {time.monotonic() - begin:6.0f} s  line {result.mutant.line()}"
                  f" {result.mutant.kind}: {result.verdict} {result.by}".rstrip(), flush=True)
        return report(results, equivalents)
    finally:
        run.close()


if __name__ == "__main__":
    sys.exit(main())
