"""Measures the library beside its floors; prints tables.

Started by scripts/bench, which builds the programs. Times are user CPU seconds, each
the median of pairs that are run in turn: an operation and its floor. The column "with
system" is the ratio of user and system time together, of the quickest run of each: a
busy machine disturbs it least, and the check of every change goes by it. Memory is
what is in use on the heap.
"""

import argparse
import dataclasses
import json
import os
import re
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile

MB = 1_000_000
MIB = 1 << 20

# Kinds of data, and the programs that measure on each.
PROGRAMS = {
    "short": ["library"],
    "short-unsorted": ["library"],
    "aligned-long": ["library"],
    "long": ["library", "annotations"],
    "references": ["references"],
}
KINDS = list(PROGRAMS)

# What an operation may take at most, in terms of its floor.
RATIO_TARGETS = {
    "read_from_sam_file": 1.5,
    "add_alignment_sam": 1.4,
    "write_to_bam_file": 1.06,
    "write_to_bam_file_with_index": 1.02,
    "read_from_bam_file": 1.4,
    "read_from_bam_file_full_blocks": 1.4,
    "write_to_sam_file": 1.2,
    "sort_shuffled": 1.3,
    "sort_nearly_sorted": 1.3,
    "generate_move_table_string": 1.5,
    "generate_modbase_string_by_threshold": 1.5,
    "generate_modbase_string_by_motif": 1.5,
    "make_unmapped_sam_line": 1.2,
    "read_sam_header": 1.15,
}
# And what it may take an item, in microseconds.
MICROSECOND_TARGETS = {"look_up_reference": 1.0}

# How much more time a byte or a record may take at other sizes of the data.
SCALING_LIMIT = 1.15
SCALES = {0.1: "1/10", 1: "1", 4: "4"}

# A ratio that is worse than the kept one by more than a third fails.
WORST_CHANGE = 4 / 3


@dataclasses.dataclass(frozen=True)
class Effort:
    """How much is measured."""

    size: float  # MB of SAM text of each kind
    pairs: int  # that medians are taken of
    min_sample: float  # seconds that each side of a pair takes at least; see pairs.h
    n_lines: int  # that are looked up
    warm: bool = False  # whether the heap keeps its memory; see pairs.h

    def options(self):
        options = [f"--pairs={self.pairs}", f"--min-sample={self.min_sample}"]
        return [*options, "--warm"] if self.warm else options

    def with_pairs(self, pairs):
        return dataclasses.replace(self, pairs=pairs)

    def scaled(self, scale):
        pairs = min(self.pairs, 3) if scale > 1 else self.pairs
        return dataclasses.replace(self, size=self.size * scale, pairs=pairs)


FULL = Effort(size=105, pairs=9, min_sample=0.25, n_lines=1_000_000)
# Little enough for a processor's own caches: how much of those that processors share
# is there for us depends on what else runs.
QUICK = Effort(size=2, pairs=3, min_sample=0.1, n_lines=100_000, warm=True)
QUICK_MEMORY_SIZE = 5  # MB that memory is measured on
KEPT_PAIRS = [5, 5, 5]  # of runs, whose medians are kept
RETRY_PAIRS = [7, 15]  # of rows that look worse than the kept ones


class Time:
    """What an operation took, and its floor: a row of one of the programs."""

    def __init__(self, row):
        self.operation, self.data = row["name"].split("/")[:2]
        self.key = f"{self.operation}/{self.data}"
        self.user = row["user"]
        self.system = row["system"]
        self.faults = row["faults"]
        self.floor = row["floor_user"]
        self.ratio = row["ratio"]
        self.quickest_ratio = row["quickest_ratio"]  # of user and system time together
        self.bytes = row["bytes"]
        self.items = row["items"]

    def figures(self):
        """Time and floor as they are printed."""
        if self.operation in MICROSECOND_TARGETS:
            per_item = 1e6 / self.items
            return [f"{s * per_item:.2f} us/record" for s in (self.user, self.floor)]
        return [in_seconds(s) for s in (self.user, self.floor)]

    def target(self):
        if self.operation in MICROSECOND_TARGETS:
            return f"{MICROSECOND_TARGETS[self.operation]:g} us/record"
        return f"{RATIO_TARGETS[self.operation]:g}"

    def is_good(self):
        if self.operation in MICROSECOND_TARGETS:
            return self.user / self.items * 1e6 <= MICROSECOND_TARGETS[self.operation]
        return self.ratio <= RATIO_TARGETS[self.operation]

    def rates(self):
        """Time and floor over what they grow with: records that are sorted, else bytes."""
        size = self.items if self.operation.startswith("sort") else self.bytes
        return self.user / size, self.floor / size


class Memory:
    """What an operation took of the heap, in bytes: a row of bench_memory."""

    def __init__(self, row):
        self.operation, self.data = row["name"].split("/")
        self.key = row["name"]
        self.items = row["items"]
        self.payload = row["payload"]  # of the BAM file, inflated
        self.start = row["start"]  # in use before
        self.held = row["held"]  # more is in use afterwards
        self.peak = row["peak"]  # more was in use at the most
        self.model = row.get("model")  # what is read, in containers of just its size

    def checks(self):
        """What is looked at, its bytes, and how many there may be, or None."""
        if self.operation == "read_from_sam_file":
            return [("held", self.held, 1.10 * self.model), ("peak", self.peak, None)]
        if self.operation.startswith("read_from_bam_file"):
            return [
                ("held", self.held, 1.10 * self.model),
                ("peak", self.peak, self.payload + 1.15 * self.model),
            ]
        if self.operation == "write_to_bam_file":
            return [("peak", self.peak, MIB)]
        if self.operation == "sort_shuffled":
            return [("peak", self.peak, 24 * self.items)]
        if self.model is not None:
            return [("held", self.held, None), ("peak", self.peak, None)]
        return [("peak", self.peak, None)]


class Bench:
    """Runs the programs."""

    def __init__(self, options, folder):
        self.options = options
        self.folder = folder

    def run_program(self, name, *arguments, output=None):
        command = [os.path.join(self.options.programs, "bench_" + name), *map(str, arguments)]
        done = subprocess.run(
            command,
            stdin=subprocess.DEVNULL,
            stdout=output or subprocess.PIPE,
            stderr=subprocess.PIPE,
            check=False,
        )
        if done.returncode != 0:
            sys.stderr.write(done.stderr.decode(errors="replace"))
            sys.exit(f"failed with status {done.returncode}: {' '.join(command)}")
        return done.stdout

    def data(self, kind, size):
        """A SAM file of a kind of some MB; one that is there is taken."""
        size_bytes = int(size * MB)
        path = os.path.join(self.options.data or self.folder, f"{kind}-{size_bytes}.sam")
        if not os.path.exists(path):
            with open(path + ".part", "wb") as part:
                self.run_program("make_data", kind, size_bytes, output=part)
            os.rename(path + ".part", path)
        return path

    def is_wanted(self, key):
        return re.search(self.options.operations, key) is not None

    def times_of(self, program, kind, effort, operations):
        """Rows of a program; the operations are a regular expression."""
        arguments = {
            "library": lambda: [kind, self.data(kind, effort.size), self.folder],
            "annotations": lambda: [],
            "references": lambda: [self.folder, effort.n_lines],
        }[program]()
        arguments += [*effort.options(), "--benchmark_format=json"]
        output = self.run_program(program, *arguments, f"--benchmark_filter={operations}")
        rows = json.loads(output)["benchmarks"] if output else []  # no row matches
        return [Time(row) for row in rows]

    def times(self, kinds, effort, operations=None, programs=None):
        times = []
        for kind in kinds:
            for program in programs or PROGRAMS[kind]:
                rows = self.times_of(program, kind, effort, operations or self.options.operations)
                for time in rows:
                    ratios = f"{time.ratio:.2f}, of the quickest runs {time.quickest_ratio:.2f}"
                    print(f"    {time.key}: {ratios}", file=sys.stderr, flush=True)
                times += rows
        return times

    def memories(self, kinds, size):
        memories = []
        for kind in kinds:
            if "library" in PROGRAMS[kind]:
                rows = self.run_program("memory", kind, self.data(kind, size), self.folder)
                memories += [Memory(row) for row in json.loads(rows)["benchmarks"]]
        return [memory for memory in memories if self.is_wanted(memory.key)]


# --- Tables ---------------------------------------------------------------


def in_seconds(seconds):
    if seconds >= 1:
        return f"{seconds:.2f} s"
    return f"{seconds * 1e3:.1f} ms" if seconds >= 1e-3 else f"{seconds * 1e6:.1f} us"


def in_mb(size_bytes):
    return f"{size_bytes / MB:.2f} MB"


def verdict(is_good):
    return "ok" if is_good else "MISSED"


def print_table(title, columns, rows):
    """Rows begin with operation and data; those of an operation are put together."""
    order = {}
    for row in rows:
        order.setdefault(row[0], len(order))
    print(f"\n{title}\n")
    for row in [columns, ["---"] * len(columns), *sorted(rows, key=lambda row: order[row[0]])]:
        print("| " + " | ".join(row) + " |")
    sys.stdout.flush()


def print_times(title, times, peaks):
    rows = []
    for time in times:
        peak = peaks.get(time.key)
        row = [time.operation, time.data, *time.figures(), f"{time.ratio:.3f}", time.target()]
        row += [f"{time.quickest_ratio:.3f}", f"{time.bytes / MB / time.user:.0f}"]
        row += [f"{time.system:.3f}", f"{time.faults:.0f}"]
        rows.append([*row, "" if peak is None else in_mb(peak), verdict(time.is_good())])
    columns = ["operation", "data", "time", "floor", "ratio", "target", "with system", "MB/s"]
    print_table(title, [*columns, "system s", "faults", "peak memory", "verdict"], rows)


def print_memories(memories):
    rows = []
    for memory in memories:
        model = "" if memory.model is None else in_mb(memory.model)
        for what, value, limit in memory.checks():
            row = [memory.operation, memory.data, what, in_mb(value), model]
            row += ["", ""] if limit is None else [in_mb(limit), verdict(value <= limit)]
            rows.append(row)
    print_table("Memory above what was in use before",
                ["operation", "data", "what", "memory", "model", "limit", "verdict"], rows)


def print_summary(runs):
    """Worst ratios of runs, each a list of the same rows."""
    rows = []
    for times in zip(*runs):
        worst = max(times, key=lambda time: time.ratio)
        good = all(time.is_good() for time in times)
        ratios = ", ".join(f"{time.ratio:.3f}" for time in times)
        row = [worst.operation, worst.data, ratios, f"{worst.ratio:.3f}", worst.target()]
        rows.append([*row, verdict(good)])
    print_table(f"Worst of {len(runs)} runs",
                ["operation", "data", "ratios", "worst", "target", "verdict"], rows)


def print_scaling(times_by_scale):
    """Time of a byte or record at each size over that of the size itself."""
    by_key = {scale: {t.key: t for t in times} for scale, times in times_by_scale.items()}
    rows = []
    for time in times_by_scale[1]:
        row = [time.operation, time.data]
        worst = 0.0
        for scale in SCALES:
            if scale != 1:
                pairs = zip(by_key[scale][time.key].rates(), time.rates())
                growth, floor_growth = (other / own for other, own in pairs)
                worst = max(worst, growth)
                row += [f"{growth:.2f}", f"{floor_growth:.2f}"]
        rows.append([*row, f"{SCALING_LIMIT:g}", verdict(worst <= SCALING_LIMIT)])
    columns = [f"{name} {SCALES[s]}" for s in SCALES if s != 1 for name in ("at", "floor at")]
    title = "Time of a byte of SAM text (of a record, where it is sorted), relative to size 1"
    print_table(title, ["operation", "data", *columns, "limit", "verdict"], rows)


# --- The whole measurement ------------------------------------------------


def measure(bench):
    options = bench.options
    effort = dataclasses.replace(FULL, size=options.size, pairs=options.pairs)
    memories = bench.memories(options.kinds, effort.size)
    peaks = {memory.key: memory.start + memory.peak for memory in memories}
    runs = []
    for i in range(options.runs):
        run = f", run {i + 1}" if options.runs > 1 else ""
        print(f"== {effort.size:g} MB{run}", file=sys.stderr, flush=True)
        runs.append(bench.times(options.kinds, effort))
        print_times(f"{effort.size:g} MB of each kind{run}", runs[-1], peaks)
    if options.runs > 1:
        print_summary(runs)
    if memories:
        print_memories(memories)
    if options.scaling:
        measure_scaling(bench, effort, runs[0])


def measure_scaling(bench, effort, times):
    kinds = [kind for kind in bench.options.kinds if "library" in PROGRAMS[kind]]
    times_by_scale = {}
    for scale, name in SCALES.items():
        if scale != 1:
            scaled = effort.scaled(scale)
            print(f"== {scaled.size:g} MB", file=sys.stderr, flush=True)
            times_by_scale[scale] = bench.times(kinds, scaled, programs=["library"])
            print_times(f"{scaled.size:g} MB of each kind ({name})", times_by_scale[scale], {})
    keys = {time.key for scaled in times_by_scale.values() for time in scaled}
    times_by_scale[1] = [time for time in times if time.key in keys]
    print_scaling(times_by_scale)


# --- The check of every change --------------------------------------------


def is_worse(ratio, kept):
    return ratio > kept * WORST_CHANGE


def check_quickly(bench):
    """Messages on what is worse than it was, or passes its limit."""
    kinds = bench.options.kinds
    with open(bench.options.baseline, encoding="ascii") as file:
        kept = {key: value for key, value in json.load(file).items()
                if bench.is_wanted(key) and key.split("/")[1] in kinds}
    ratios = {time.key: time.quickest_ratio for time in bench.times(kinds, QUICK)}
    for pairs in RETRY_PAIRS:
        for key in [key for key in ratios if key in kept and is_worse(ratios[key], kept[key])]:
            print(f"    again, with {pairs} pairs: {key}", file=sys.stderr, flush=True)
            kind = key.split("/")[1]
            again = bench.times([kind], QUICK.with_pairs(pairs), f"^{key}/")
            ratios.update({time.key: time.quickest_ratio for time in again})
    messages = [
        f"{key}: ratio {ratios[key]:.2f}, kept is {kept[key]:.2f}: worse by more than a third"
        for key in ratios
        if key in kept and is_worse(ratios[key], kept[key])
    ]
    messages += [f"{key}: has no kept value in {bench.options.baseline}"
                 for key in ratios if key not in kept]
    messages += [f"{key}: kept in {bench.options.baseline}, but there is no such row"
                 for key in kept if key not in ratios]
    for memory in bench.memories(kinds, QUICK_MEMORY_SIZE):
        messages += [f"{memory.key}: memory {what} {value} bytes, limit is {limit:.0f}"
                     for what, value, limit in memory.checks()
                     if limit is not None and value > limit]
    return messages


def update_baseline(bench):
    runs = [bench.times(KINDS, QUICK.with_pairs(pairs)) for pairs in KEPT_PAIRS]
    kept = {}
    for times in zip(*runs):
        ratio = statistics.median(time.quickest_ratio for time in times)
        kept[times[0].key] = round(ratio, 2)
    with open(bench.options.baseline, "w", encoding="ascii") as file:
        json.dump(kept, file, indent=2, sort_keys=True)
        file.write("\n")
    print(f"wrote {bench.options.baseline}")


def check(bench):
    messages = check_quickly(bench)
    for message in messages:
        print(message)
    n_failed = f"{len(messages)} check{'s' if len(messages) > 1 else ''} FAILED"
    print("speed and memory: " + (n_failed if messages else "ok"))
    return 1 if messages else 0


# --- Start ----------------------------------------------------------------


def parse_options():
    parser = argparse.ArgumentParser(prog="scripts/bench", description=__doc__.splitlines()[0])
    baseline = os.path.join(os.path.dirname(__file__), "baseline.json")
    parser.add_argument("--programs", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--baseline", default=baseline, help=argparse.SUPPRESS)
    parser.add_argument("--quick", action="store_true",
                        help="compare ratios of small data with the kept ones")
    parser.add_argument("--update-baseline", action="store_true",
                        help="with --quick: measure and keep them instead")
    parser.add_argument("--size", type=float, default=FULL.size,
                        help="MB of SAM text of each kind")
    parser.add_argument("--pairs", type=int, default=FULL.pairs,
                        help="pairs that medians are taken of")
    parser.add_argument("--runs", type=int, default=1, help="whole runs")
    parser.add_argument("--no-scaling", dest="scaling", action="store_false",
                        help="leave out 1/10 and 4 times the size")
    parser.add_argument("--kinds", nargs="+", choices=KINDS, default=KINDS)
    parser.add_argument("--operations", metavar="REGEX", default=".",
                        help="only rows whose 'operation/data' has a match")
    parser.add_argument("--tmp", help="where a folder is made, and removed again")
    parser.add_argument("--data", help="folder whose data is used, and completed, and kept")
    options = parser.parse_args()
    if min(options.size, options.pairs, options.runs) <= 0:
        parser.error("sizes and numbers are positive")
    if options.update_baseline and not options.quick:
        parser.error("--update-baseline goes with --quick")
    if options.update_baseline and (options.kinds != KINDS or options.operations != "."):
        parser.error("--update-baseline keeps all rows")
    if options.data:
        os.makedirs(options.data, exist_ok=True)
    return options


def main():
    options = parse_options()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))  # through the finally below
    load = os.getloadavg()[0]
    if load > 0.5:
        print(f"note: the machine is busy (load {load:.1f}); times will tell less",
              file=sys.stderr)
    folder = tempfile.mkdtemp(prefix="tesk-bam-bench-", dir=options.tmp)
    try:
        bench = Bench(options, folder)
        if options.update_baseline:
            update_baseline(bench)
        elif options.quick:
            return check(bench)
        else:
            measure(bench)
        return 0
    finally:
        shutil.rmtree(folder)


if __name__ == "__main__":
    sys.exit(main())
