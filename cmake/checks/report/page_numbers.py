"""Compares what a page shows with what it should show."""

import math
import re

from sam_counts import DUPLICATE, QC_FAIL, SECONDARY, SUPPLEMENTARY, UNMAPPED

UNITS = {"": 1, "thousands": 1e3, "millions": 1e6, "billions": 1e9}
FLOOR, CEILING = 188, 44  # of the bars of a drawing
N_ROWS = 20  # of the table of references
N_STRIPS = 30
N_DRAWN = 12  # of the modifications


def grouped(number):
    return f"{number:,}"


def percent(part, whole):
    if whole == 0:
        return ""
    if part in (0, whole):
        return "100%" if part else "0%"
    share = 100 * part / whole
    return "<0.1%" if share < 0.1 else ">99.9%" if share > 99.9 else f"{share:.1f}%"


def number_in(text):
    return float(text.replace(",", ""))


class Comparison:
    """Gathers the differences between a page and the counts of its file."""

    def __init__(self, page, counts):
        self.page = page
        self.counts = counts
        self.cards = {card["title"]: card for card in page["cards"]}
        self.faults = []

    def expect(self, what, shown, expected):
        if shown != expected:
            self.faults.append(f"{what}: the page has {shown}, expected {expected}")

    def expect_near(self, what, shown, expected, tolerance):
        if not abs(shown - expected) <= tolerance:
            self.faults.append(f"{what}: the page has {shown}, expected {expected}")

    def table(self, title):
        return self.cards[title]["tables"][0]

    def run(self):
        self.check_summary()
        self.check_histograms()
        self.check_references()
        self.check_cigar()
        self.check_flags()
        self.check_coverage()
        self.check_modifications()
        return self.faults

    # --- Tables -----------------------------------------------------------------

    def check_summary(self):
        counts, n = self.counts, self.counts.n_records()
        primary = counts.n_records(lacking=SECONDARY | SUPPLEMENTARY)
        mapped = counts.n_records(lacking=UNMAPPED)
        expected = {
            "All": n, "Primary": primary, "Secondary": counts.n_records(SECONDARY),
            "Supplementary": counts.n_records(SUPPLEMENTARY, SECONDARY), "Mapped": mapped,
            "Unmapped": n - mapped, "Paired": counts.n_records(1),
            "Properly paired": counts.n_records(3), "Duplicates": counts.n_records(DUPLICATE),
            "Failed quality checks": counts.n_records(QC_FAIL),
        }
        self.expect("Records", [row["cells"] for row in self.table("Records")["rows"]],
                    [[name, grouped(k), percent(k, n)] for name, k in expected.items()])
        reads = counts.lengths.total()
        rows = [["Reads with bases", grouped(reads)],
                ["Reads without bases", grouped(primary - reads)],
                ["Bases", grouped(counts.n_bases())]]
        tiles = {"Records": grouped(n), "Mapped": percent(mapped, n) or "–",
                 "Bases": grouped(counts.n_bases()), "Median length": "–", "N50": "–",
                 "Mean quality": "–"}
        if reads:
            quality = f"Q{counts.mean_score():.1f}" if counts.scores else "–"
            median = counts.median(counts.lengths)
            median = grouped(int(median)) if median == int(median) else f"{median:,.1f}"
            rows += [["Shortest", grouped(min(counts.lengths))],
                     ["Longest", grouped(max(counts.lengths))],
                     ["Mean length", f"{counts.n_bases() / reads:,.1f}"],
                     ["Median length", median],
                     ["N50", grouped(counts.n50())],
                     ["Reads without qualities", grouped(counts.n_without_qualities)],
                     ["Mean quality of bases", quality],
                     ["Median quality of reads", "–"]]
            tiles.update({"Median length": median, "N50": grouped(counts.n50()),
                          "Mean quality": quality})
        shown = [row["cells"] for row in self.table("Reads")["rows"]]
        if counts.scores:  # half a tenth may be rounded to either side
            median = counts.median(counts.tenths) / 10
            self.expect_near("Median quality of reads", float(shown[-1][1][1:]), median, 0.0501)
            rows[-1][1] = shown[-1][1]
        self.expect("Reads", shown, rows)
        self.expect("tiles", self.page["tiles"], tiles)

    def check_bars_of_rows(self, title, numbers):
        """Bars of a table are as long as numbers say, the longest number's of 1."""
        for row, number in zip(self.table(title)["rows"], numbers):
            shown = float(row["bar"][:-1]) if row["bar"] else 0
            self.expect_near(f"{title}: bar of {row['cells'][0]}", shown, 100 * number, 0.02)

    def check_references(self):
        counts, n = self.counts, self.counts.n_records()
        title = "Records by reference"
        if n == 0:
            return self.expect(title, self.cards[title]["empty"], "The file has no records.")
        used = sorted((name for name in counts.references if counts.mapped_to[name]),
                      key=lambda name: -counts.mapped_to[name])
        expected = [(name, counts.mapped_to[name]) for name in used[:N_ROWS]]
        others = sum(counts.mapped_to[name] for name in used[N_ROWS:])
        plural = "" if len(used) == N_ROWS + 1 else "s"
        expected += [(f"{grouped(len(used) - N_ROWS)} other reference{plural}", others),
                     ("Mapped, without a reference", counts.mapped_to["*"]),
                     ("Unmapped", counts.n_records(UNMAPPED))]
        expected = [(name, k) for name, k in expected if k]
        self.expect(title, [row["cells"][:3] for row in self.table(title)["rows"]],
                    [[name, grouped(k), percent(k, n)] for name, k in expected])
        longest = max(k for _, k in expected)
        self.check_bars_of_rows(title, [k / longest for _, k in expected])

    def check_cigar(self):
        counts, title = self.counts, "CIGAR operations"
        if not counts.operations:
            return self.expect(title, self.cards[title]["empty"], "No mapped record has a CIGAR.")
        letters = [letter for letter in "MIDNSHP=X" if counts.operations[letter]]
        self.expect(title, [row["cells"][:1] + row["cells"][2:4]
                            for row in self.table(title)["rows"]],
                    [[letter, grouped(counts.operations[letter]),
                      grouped(counts.operation_bases[letter])] for letter in letters])
        most = max(counts.operation_bases.values())
        self.check_bars_of_rows(title, [counts.operation_bases[letter] / most
                                        for letter in letters])

    def check_flags(self):
        counts, n = self.counts, self.counts.n_records()
        if n == 0:
            return self.expect("Flags", self.cards["Flags"]["empty"], "The file has no records.")
        numbers = [counts.n_records(1 << bit) for bit in range(12)]
        self.expect("Flags", [row["cells"][:1] + row["cells"][2:4]
                              for row in self.table("Flags")["rows"]],
                    [[hex(1 << bit), grouped(k), percent(k, n)] for bit, k in enumerate(numbers)])
        self.check_bars_of_rows("Flags", [k / n for k in numbers])

    # --- Histograms -------------------------------------------------------------

    def check_histograms(self):
        counts = self.counts
        bases = {length: length * n for length, n in counts.lengths.items()}
        without_bases = "No primary record has bases."
        without_scores = "No primary record has qualities."
        self.check_histogram("Reads by length", counts.lengths, without_bases, is_length=True)
        self.check_histogram("Bases by read length", bases, without_bases, is_length=True)
        self.check_histogram("Quality of bases", counts.scores, without_scores)
        self.check_histogram("Quality of reads",
                             {tenth / 10: n for tenth, n in counts.tenths.items()},
                             without_scores, unit=0.1)
        self.check_histogram("Mapping quality", counts.mapping_qualities,
                             "No primary record is mapped.")

    def check_histogram(self, title, numbers, sentence, unit=1.0, is_length=False):
        """A histogram shows each of some numbers (count by value) in one of its bars."""
        card = self.cards[title]
        if not numbers:
            self.expect(title, card["plots"], [])
            return self.expect(title, card["empty"], sentence)
        plot, rows = card["plots"][0], self.table(title)["rows"]
        self.expect(f"{title}: rows and bars", len(rows), len(plot["bars"]))
        seen = 0
        is_logarithmic = "Logarithmic axis." in card["notes"][0]
        apart = 255 if title == "Mapping quality" else None
        scale = Scale(plot, is_logarithmic, apart)
        self.expect(f"{title}: ticks are even", scale.is_even, True)
        for row, bar in zip(rows, plot["bars"]):
            label, shown = row["cells"]
            first, _, last = label.partition(" to ")
            first, last = number_in(first), number_in(last or first)
            count = sum(n for value, n in numbers.items()
                        if first - unit / 4 < value < last + unit / 4)
            what = f"{title}: {label}"
            self.expect(what, shown, grouped(count))
            words = re.fullmatch(r"(.*): ([\d,]+) \w+", bar["label"])
            self.expect(what, words.groups(), (label, grouped(count)))
            height = max((FLOOR - CEILING) * count / scale.y_end, 1)
            self.expect_near(f"{what}: height", bar["height"], height, 0.011)
            self.expect_near(f"{what}: foot", bar["y"] + bar["height"], FLOOR, 0.011)
            seen += count
            if first == apart:
                continue
            begin, end = (first, last + 1) if is_logarithmic else (first - unit / 2,
                                                                   last + unit / 2)
            self.expect_near(f"{what}: left", bar["x"], scale.x_of(begin), 0.55)
            self.expect_near(f"{what}: right", bar["x"] + bar["width"], scale.x_of(end), 0.55)
        self.expect(f"{title}: all", seen, sum(numbers.values()))
        if is_length:
            n50 = self.counts.n50()
            marker = next(mark for mark in plot["marks"] if mark["kind"] == "marker")
            self.expect_near(f"{title}: N50", marker["places"][0], scale.x_of(n50), 0.1)
            label = next(text for text in plot["texts"] if text["kind"] == "marked")
            self.expect(f"{title}: N50", label["text"], "N50 " + grouped(n50))

    # --- Coverage ---------------------------------------------------------------

    def check_coverage(self):
        counts = self.counts
        used = [name for name in counts.references if counts.mapped_to[name]]
        used.sort(key=lambda name: -counts.mapped_to[name])
        drawn = [name for name in used if counts.intervals[name]][:N_STRIPS]
        rest = [name for name in used if name not in drawn]
        drawn = [name for name in counts.references if name in drawn]
        card = next(card for card in self.page["cards"] if card["title"].startswith("Depth"))
        self.expect("Coverage", [strip["name"] for strip in card["strips"]], drawn)
        if not drawn:
            self.expect("Coverage", card["empty"], "No bases are aligned to a reference.")
        longest = max((counts.references[name] for name in drawn), default=1)
        for strip in card["strips"]:
            self.check_strip(strip, longest)
        if rest:
            rows = [row["cells"] for row in self.table("Other references")["rows"]]
            self.expect("Other references", [row[:3] for row in rows],
                        [[name, grouped(counts.references[name]), grouped(counts.mapped_to[name])]
                         for name in rest[:200]])
            for row in rows:
                depth = counts.mean_depth(row[0])
                self.expect_near(f"depth of {row[0]}", number_in(row[3]), depth, depth / 150)

    def check_strip(self, strip, longest):
        name = strip["name"]
        length = self.counts.references[name]
        facts = re.fullmatch(r"([\d,]+) bases? · mean depth ([\d.,]+) · up to ([\d.,]+) in bins of "
                             r"([\d,]+) bases?", strip["facts"])
        shown_length, mean, highest, width = (number_in(part) for part in facts.groups())
        depths = self.counts.depths(name, int(width))
        what = f"coverage of {name}"
        self.expect(what, shown_length, length)
        self.expect_near(f"{what}: mean", mean, self.counts.mean_depth(name), mean / 150)
        self.expect_near(f"{what}: highest", highest, max(depths), highest / 150)
        self.expect_near(f"{what}: width", float(strip["width"][:-1]),
                         max(100 * length / longest, 10), 0.01)
        self.expect(f"{what}: bins", strip["viewBox"], f"0 0 {len(depths)} 1000")
        self.expect(f"{what}: outline", levels_of(strip["outline"], len(depths)) is not None, True)
        for i, level in enumerate(levels_of(strip["outline"], len(depths)) or []):
            self.expect_near(f"{what}: bin {i}", level, 1000 * depths[i] / max(depths), 0.06)

    # --- Modified bases ---------------------------------------------------------

    def check_modifications(self):
        counts = self.counts
        self.expect("Modified bases", "Modified bases" in self.page["sections"],
                    counts.n_modified_reads > 0)
        if counts.n_modified_reads == 0:
            return
        expected = []
        for sign in sorted(counts.modifications):
            modification = counts.modifications[sign]
            likely = sum(n for value, n in modification.values.items() if value >= 128)
            all_values = modification.values.total()
            expected.append([sign, grouped(modification.reads), grouped(modification.calls),
                             grouped(likely) if all_values else "–",
                             percent(likely, all_values) if all_values else "–"])
        self.expect("Calls", [row["cells"][:1] + row["cells"][2:]
                              for row in self.table("Calls")["rows"]], expected)
        malformed = sum(int(number_in(item.split()[0])) for item in self.cards["Calls"]["items"])
        self.expect("malformed fields", malformed, counts.n_malformed)
        self.check_drawn_modifications()

    def check_drawn_modifications(self):
        """Those with most probabilities have a drawing."""
        begin = "Probabilities of "
        drawn = [title[len(begin):].partition(",")[0] for title in self.cards
                 if title.startswith(begin)]
        numbers = {sign: modification.values.total()
                   for sign, modification in self.counts.modifications.items()}
        most = sorted((n for n in numbers.values() if n), reverse=True)[:N_DRAWN]
        self.expect("drawn modifications", sorted((numbers[sign] for sign in drawn), reverse=True),
                    most)
        for title in self.cards:
            if title.startswith(begin):
                sign = title[len(begin):].partition(",")[0]
                self.check_histogram(title, self.counts.modifications[sign].values, None)


def levels_of(outline, n_bins):
    """Height of each bin of an outline; None where it is no such outline."""
    path = re.fullmatch(r"M0 0((?:H\d+V[\d.]+)*)H(\d+)V0Z", outline)
    if path is None or int(path[2]) != n_bins:
        return None
    steps = [(int(at), float(level)) for at, level in re.findall(r"H(\d+)V([\d.]+)", path[1])]
    steps.append((n_bins, 0.0))
    levels = [0.0] * steps[0][0]
    for (begin, level), (end, _) in zip(steps, steps[1:]):
        levels += [level] * (end - begin)
    return levels


class Scale:
    """The axes of a drawing, told by their labels alone."""

    def __init__(self, plot, is_logarithmic, left_out):
        ticks = [text for text in plot["texts"] if text["kind"] == "tick"]
        foot = max(text["y"] for text in ticks)
        marks = [mark["places"][0] for mark in plot["marks"]
                 if mark["kind"] == "axis" and mark["places"][0] == mark["places"][2]]
        name = next(text["text"] for text in plot["texts"] if text["kind"] == "name")
        unit = UNITS[name.partition(", ")[2]]
        self.y_end = unit * max(number_in(text["text"]) for text in ticks if text["y"] != foot)
        values = [number_in(text["text"]) for text in ticks if text["y"] == foot]
        self.is_logarithmic = is_logarithmic
        self.along = math.log10 if is_logarithmic else float
        points = [(value, x) for value, x in zip(values, marks, strict=True) if value != left_out]
        (self.v0, self.x0), (v1, x1) = points[0], points[-1]
        self.step = (x1 - self.x0) / (self.along(v1) - self.along(self.v0))
        self.is_even = all(abs(self.x_of(value) - x) < 0.1 for value, x in points)

    def x_of(self, value):
        return self.x0 + (self.along(value) - self.along(self.v0)) * self.step
