"""Counts what a page about a file should show, from the file's SAM text alone."""

import collections
import math
import re

UNMAPPED, REVERSE, SECONDARY, QC_FAIL, DUPLICATE, SUPPLEMENTARY = 4, 16, 256, 512, 1024, 2048
OPERATION = re.compile(r"(\d+)([MIDNSHP=X])")
GROUP = re.compile(r"([ACGTUN])([+-])([A-Za-z]+|\d+)?([?.])?((?:,\d+)*);")
COMPLEMENT = str.maketrans("ACGT", "TGCA")


class Modification:
    def __init__(self):
        self.reads = 0
        self.calls = 0
        self.values = collections.Counter()


class SamCounts:
    def __init__(self, path):
        self.references = {}  # length by name, in order
        self.flags = collections.Counter()
        self.mapped_to = collections.Counter()
        self.lengths = collections.Counter()
        self.scores = collections.Counter()
        self.tenths = collections.Counter()
        self.n_without_qualities = 0
        self.mapping_qualities = collections.Counter()
        self.operations = collections.Counter()
        self.operation_bases = collections.Counter()
        self.intervals = collections.defaultdict(list)  # aligned, by reference
        self.modifications = collections.defaultdict(Modification)
        self.n_modified_reads = 0
        self.n_malformed = 0
        self.known_qualities = {}
        with open(path, encoding="utf-8") as lines:
            for line in lines:
                self.add_line(line.rstrip("\n").split("\t"))

    def add_line(self, fields):
        if fields[0] == "@SQ":
            self.references[fields[1][3:]] = int(fields[2][3:])
        if fields[0].startswith("@"):
            return
        flag, name, mapq = int(fields[1]), fields[2], int(fields[4])
        self.flags[flag] += 1
        is_primary = flag & (SECONDARY | SUPPLEMENTARY) == 0
        if flag & UNMAPPED == 0:
            self.mapped_to[name] += 1
            self.add_cigar(flag, name, int(fields[3]) - 1, fields[5])
            if is_primary:
                self.mapping_qualities[mapq] += 1
        if is_primary:
            self.add_read(fields[9], fields[10])
            self.add_modifications(flag, fields[9], fields[11:])

    def add_cigar(self, flag, name, pos, cigar):
        deep = flag & (SECONDARY | QC_FAIL | DUPLICATE) == 0
        for length, letter in OPERATION.findall(cigar):
            length = int(length)
            self.operations[letter] += 1
            self.operation_bases[letter] += length
            if letter in "M=X" and deep and pos >= 0 and name in self.references:
                end = min(pos + length, self.references[name])
                if pos < end:
                    self.intervals[name].append((pos, end))
            if letter in "MDN=X":
                pos += length

    def add_read(self, bases, qualities):
        if bases == "*":
            return
        self.lengths[len(bases)] += 1
        if qualities == "*":
            self.n_without_qualities += 1
            return
        if qualities not in self.known_qualities:
            counts = collections.Counter(ord(letter) - 33 for letter in qualities)
            error = math.fsum(n * 10 ** (-score / 10) for score, n in counts.items())
            tenth = math.floor(-100 * math.log10(error / len(qualities)) + 0.5)
            if len(self.known_qualities) > 1000:
                self.known_qualities.clear()
            self.known_qualities[qualities] = (counts, tenth)
        counts, tenth = self.known_qualities[qualities]
        for score, n in counts.items():
            self.scores[score] += n
        self.tenths[tenth] += 1

    def add_modifications(self, flag, bases, fields):
        calls = values = None
        for field in fields:
            if field[:5] in ("Mm:Z:", "MM:Z:"):
                calls = field[5:]
            elif field[:7] in ("Ml:B:C,", "ML:B:C,", "Ml:B:C", "ML:B:C"):
                values = [int(number) for number in field[7:].split(",") if number]
        if calls is None and values is None:
            return
        self.n_modified_reads += 1
        sequenced = bases.translate(COMPLEMENT) if flag & REVERSE else bases
        groups, used = [], 0
        good = calls is not None and GROUP.sub("", calls) == ""
        for base, strand, codes, _, skips in GROUP.findall(calls or ""):
            skips = [int(number) for number in skips[1:].split(",") if number]
            codes = [codes] if not codes or codes.isdigit() else list(codes)
            there = len(bases) if base == "N" else sequenced.count(base.replace("U", "T"))
            good = good and (bases == "*" or sum(skips) + len(skips) <= there)
            groups.append((base + strand, codes, len(skips), used))
            used += len(codes) * len(skips)
        if not good or (values is not None and len(values) != used):
            self.n_malformed += 1
            return
        for sign, codes, n_calls, begin in groups:
            for i, code in enumerate(codes):
                modification = self.modifications[sign + code]
                modification.reads += 1
                modification.calls += n_calls
                if values is not None:
                    end = begin + n_calls * len(codes)
                    modification.values.update(values[begin + i:end:len(codes)])

    # --- Figures of the whole file ------------------------------------------------

    def n_records(self, having=0, lacking=0):
        return sum(n for flag, n in self.flags.items()
                   if flag & having == having and flag & lacking == 0)

    def n_bases(self):
        return sum(length * n for length, n in self.lengths.items())

    def n50(self):
        covered, half = 0, self.n_bases() / 2
        for length in sorted(self.lengths, reverse=True):
            covered += length * self.lengths[length]
            if covered >= half:
                return length
        return None

    @staticmethod
    def median(counts):
        """Of a Counter."""
        middle = [(counts.total() - 1) // 2, counts.total() // 2]
        found, passed = [], 0
        for value in sorted(counts):
            passed += counts[value]
            while middle and middle[0] < passed:
                found.append(value)
                middle.pop(0)
        return sum(found) / 2

    def mean_score(self):
        error = math.fsum(n * 10 ** (-score / 10) for score, n in self.scores.items())
        return -10 * math.log10(error / self.scores.total())

    def depths(self, name, width):
        """Mean depth of each bin of a reference."""
        length = self.references[name]
        bases = [0] * math.ceil(length / width)
        for begin, end in self.intervals[name]:
            for i in range(begin // width, (end - 1) // width + 1):
                bases[i] += min(end, (i + 1) * width) - max(begin, i * width)
        return [n / (min((i + 1) * width, length) - i * width) for i, n in enumerate(bases)]

    def mean_depth(self, name):
        return sum(end - begin for begin, end in self.intervals[name]) / self.references[name]
