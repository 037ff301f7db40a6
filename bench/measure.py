"""Measures whole processes of the tool beside their floors; prints a table.

Started by scripts/bench-tool, which builds the programs. Each figure is the median
of pairs that are run in turn: the tool and what it is held against. Times are user
CPU seconds unless the table says otherwise.
"""

import argparse
import os
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile

MB = 1 << 20
KINDS = ["short", "short-unsorted", "aligned-long", "long"]
SORTED_KINDS = ["short", "short-unsorted", "aligned-long"]
LEVEL = "6"
JOBS = ["sam-to-bam", "bam-to-sam", "sort", "threads", "view", "memory"]

# How bench_make_data lays out short reads, for a region that has some.
N_REFERENCES = 25
COVERED_BEGIN = 10_000_000
SHORT_SAM_BYTES_PER_BASE = 82


class Usage:
    """What a process took."""

    def __init__(self, line):
        wall, user, memory, bytes_read, disk_bytes = line.split()
        self.wall = float(wall)
        self.user = float(user)
        self.memory = int(memory)
        self.bytes_read = int(bytes_read)  # by calls, whether from memory or disk
        self.disk_bytes = int(disk_bytes)


class Bench:
    def __init__(self, options, folder):
        self.options = options
        self.folder = folder
        self.rows = []

    def path(self, name):
        return os.path.join(self.folder, name)

    def row(self, job, data, *figures):
        self.rows.append([job, data, *figures])
        print("   ", " | ".join(self.rows[-1]), file=sys.stderr, flush=True)

    # --- Programs ---------------------------------------------------------

    def run_program(self, command, output=os.devnull):
        usage = self.path("usage")
        command = [str(word) for word in [self.program("run"), usage, *command]]
        with open(output, "wb") as out:
            done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=out, check=False)
        if done.returncode != 0:
            sys.exit(f"failed with status {done.returncode}: {' '.join(command)}")
        with open(usage, encoding="ascii") as line:
            return Usage(line.read())

    def program(self, name):
        return os.path.join(self.options.programs, "bench_" + name)

    def convert(self, source, target, *more):
        command = [self.options.tool, "convert", self.path(source), self.path(target), "--quiet"]
        return self.run_program([*command, "--tmp", self.folder, *more])

    def floor(self, job, files, *more):
        output = self.path("seconds")
        paths = [self.path(name) for name in files]
        self.run_program([self.program("floor"), job, *paths, *more], output)
        with open(output, encoding="ascii") as seconds:
            return float(seconds.read())

    def make_data(self, kind, size_bytes, target):
        self.run_program([self.program("make_data"), kind, int(size_bytes)], self.path(target))

    def pairs(self, first, second):
        """Medians of both and of their ratio, of as many pairs as wanted."""
        values = [(first(), second()) for _ in range(self.options.pairs)]
        return (
            statistics.median(a for a, _ in values),
            statistics.median(b for _, b in values),
            statistics.median(a / b for a, b in values),
        )

    # --- Jobs -------------------------------------------------------------

    def prepare(self, kind):
        """KIND.sam, KIND.bam of the tool, KIND.payload, and KIND.again.sam, which KIND.bam gives."""
        self.make_data(kind, self.options.size * MB, f"{kind}.sam")
        self.convert(f"{kind}.sam", f"{kind}.bam", "--level", LEVEL)
        with open(self.path(f"{kind}.payload"), "wb") as payload:
            subprocess.run(["gzip", "-dc", self.path(f"{kind}.bam")], stdout=payload, check=True)
        self.convert(f"{kind}.bam", f"{kind}.again.sam")

    def sam_to_bam(self, kind):
        tool, floor, ratio = self.pairs(
            lambda: self.convert(f"{kind}.sam", "out.bam", "--level", LEVEL).user,
            lambda: self.floor(
                "sam-to-bam", [f"{kind}.sam", f"{kind}.payload", "floor.out"], LEVEL
            ),
        )
        job = "SAM -> BAM, streaming"
        self.row(job, kind, f"{tool:.2f} s", f"floor {floor:.2f} s", f"{ratio:.2f}", "1.25")

    def bam_to_sam(self, kind):
        tool, floor, ratio = self.pairs(
            lambda: self.convert(f"{kind}.bam", "out.sam").user,
            lambda: self.floor("bam-to-sam", [f"{kind}.bam", f"{kind}.again.sam", "floor.out"]),
        )
        job = "BAM -> SAM, streaming"
        self.row(job, kind, f"{tool:.2f} s", f"floor {floor:.2f} s", f"{ratio:.2f}", "2")

    def sort(self, kind):
        sort, stream, ratio = self.pairs(
            lambda: self.convert(
                f"{kind}.sam", "out.bam", "--level", LEVEL, "--sort", "--index"
            ).user,
            lambda: self.convert(f"{kind}.sam", "out.bam", "--level", LEVEL).user,
        )
        job = "SAM -> sorted BAM + BAI"
        self.row(job, kind, f"{sort:.2f} s", f"streaming {stream:.2f} s", f"{ratio:.2f}", "1.15")

    def threads(self, kind):
        def wall(threads):
            return self.convert(
                f"{kind}.sam", "out.bam", "--level", LEVEL, "--threads", threads
            ).wall

        one, two, ratio = self.pairs(lambda: wall("1"), lambda: wall("2"))
        job = "SAM -> BAM, two threads (wall)"
        self.row(job, kind, f"{two:.2f} s", f"one {one:.2f} s", f"{ratio:.2f}", "at least 1.7")

    def view(self):
        """A region of a large file, which is in memory, and which is not."""
        sam_bytes = self.make_view_file()
        bam = self.path("view.bam")
        size_bytes = os.path.getsize(bam)
        covered = sam_bytes / N_REFERENCES / SHORT_SAM_BYTES_PER_BASE
        begin = COVERED_BEGIN + int(covered / 2)
        region = f"chr13:{begin}-{begin + 9999}"
        command = [self.options.tool, "view", bam, region]
        self.run_program([*command, "--count"], self.path("count"))
        with open(self.path("count"), encoding="ascii") as count:
            n_records = int(count.read())
        if n_records == 0:
            sys.exit(f"no records in {region} of {bam}")
        for state in ["in memory", "on disk"]:
            runs = []
            for _ in range(self.options.pairs):
                if state == "on disk":
                    forget(bam)
                    forget(bam + ".bai")
                runs.append(self.run_program(command, self.path("region.sam")))
            self.row(
                f"view of 10 kb, file {state} (wall)",
                f"{size_bytes / MB:.0f} MB, {n_records} records",
                f"{statistics.median(r.wall for r in runs) * 1000:.1f} ms",
                f"read {statistics.median(r.bytes_read for r in runs) / 1024:.0f} KiB "
                f"(index {os.path.getsize(bam + '.bai') / 1024:.0f} KiB), "
                f"from disk {statistics.median(r.disk_bytes for r in runs) / 1024:.0f} KiB",
                "",
                "50 ms",
            )

    def make_view_file(self):
        """view.bam of the wanted size with its index; returns the size of the text."""
        self.make_data("short", 16 * MB, "small.sam")
        self.convert("small.sam", "small.bam", "--level", LEVEL)
        rate = os.path.getsize(self.path("small.sam")) / os.path.getsize(self.path("small.bam"))
        sam_bytes = int(self.options.view_size * MB * rate)
        make = [self.program("make_data"), "short", str(sam_bytes)]
        convert = [self.options.tool, "convert", "-", self.path("view.bam"), "--quiet"]
        convert += ["--level", LEVEL, "--index", "--memory", "2G", "--tmp", self.folder]
        with subprocess.Popen(make, stdout=subprocess.PIPE) as maker:
            subprocess.run(convert, stdin=maker.stdout, check=True)
        if maker.returncode != 0:
            sys.exit("bench_make_data failed")
        return sam_bytes

    def memory(self, kind):
        """Peak memory of streaming, at two sizes."""
        sizes = [self.options.size / 4, self.options.size]
        peaks = {"SAM -> BAM": [], "BAM -> SAM": []}
        for size in sizes:
            self.make_data(kind, size * MB, "part.sam")
            to_bam = self.convert("part.sam", "part.bam", "--level", LEVEL)
            to_sam = self.convert("part.bam", "part.again.sam")
            peaks["SAM -> BAM"].append(to_bam.memory)
            peaks["BAM -> SAM"].append(to_sam.memory)
        for job, (small, large) in peaks.items():
            self.row(
                f"{job}, peak memory",
                f"{kind}, {sizes[1]:.0f} MB",
                f"{large / MB:.1f} MB",
                f"with {sizes[0]:.0f} MB: {small / MB:.1f} MB",
                "",
                "100 MB",
            )

    def run(self):
        load = os.getloadavg()[0]
        if load > 0.5:
            print(f"note: the machine is busy (load {load:.1f}); wall times will tell less",
                  file=sys.stderr)
        wanted = self.options.jobs
        kinds = self.options.kinds if set(wanted) != {"view"} else []
        for kind in kinds:
            print(f"== {kind}", file=sys.stderr, flush=True)
            self.prepare(kind)
            if "sam-to-bam" in wanted:
                self.sam_to_bam(kind)
            if "bam-to-sam" in wanted:
                self.bam_to_sam(kind)
            if "sort" in wanted and kind in SORTED_KINDS:
                self.sort(kind)
            if "threads" in wanted:
                self.threads(kind)
            if "memory" in wanted:
                self.memory(kind)
            for name in os.listdir(self.folder):
                os.remove(self.path(name))
        if "view" in wanted:
            print("== view", file=sys.stderr, flush=True)
            self.view()

    def print_table(self):
        order = {}  # of jobs, as they were met first
        for row in self.rows:
            order.setdefault(row[0], len(order))
        self.rows.sort(key=lambda row: order[row[0]])
        print("| job | data | tool | beside it | ratio | at most |")
        print("|---|---|---|---|---|---|")
        for row in self.rows:
            print("| " + " | ".join(row) + " |")


def forget(path):
    """Makes the system drop its copy of a file."""
    fd = os.open(path, os.O_RDONLY)
    os.fsync(fd)  # what is not on the disk yet cannot be dropped
    os.posix_fadvise(fd, 0, 0, os.POSIX_FADV_DONTNEED)
    os.close(fd)


def parse_options():
    parser = argparse.ArgumentParser(prog="scripts/bench-tool", description=__doc__.splitlines()[0])
    parser.add_argument("--tool", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--programs", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--size", type=int, default=256, help="MB of SAM text of each kind")
    parser.add_argument("--view-size", type=int, default=1024, help="MB of BAM to view a region of")
    parser.add_argument("--pairs", type=int, default=9, help="runs that medians are taken of")
    parser.add_argument("--kinds", nargs="+", choices=KINDS, default=KINDS)
    parser.add_argument("--jobs", nargs="+", choices=JOBS, default=JOBS)
    parser.add_argument("--tmp", help="where a folder for the data is made, and removed again")
    options = parser.parse_args()
    if min(options.size, options.view_size, options.pairs) < 1:
        parser.error("sizes and numbers are at least 1")
    return options


def main():
    options = parse_options()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))  # through the finally below
    folder = tempfile.mkdtemp(prefix="tesk-bam-bench-", dir=options.tmp)
    try:
        bench = Bench(options, folder)
        bench.run()
        bench.print_table()
    finally:
        shutil.rmtree(folder)


if __name__ == "__main__":
    main()
