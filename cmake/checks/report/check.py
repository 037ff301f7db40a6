"""Looks at pages of "tesk-bam report" in a browser, and counts for itself.

Started by scripts/check report. Makes files of several kinds, has the tool write a page
about each, and compares every number, bar and outline of it with counts that are made
here, from the SAM text. Looks for what sticks out, meets, cannot be read or is empty, at
several widths, in light, dark and print. Then damages a page in many ways, each of
which must be found.
"""

import argparse
import os
import random
import re
import subprocess
import sys
import tempfile

from browser import Browser
from page_numbers import Comparison
from sam_counts import SamCounts

WIDTHS = (360, 412, 600, 768, 900, 1024, 1280, 1600)
LIGHT = 0.8  # luminance that a light page's ground has at least,
DARK = 0.05  # and a dark one's at most


# --- Files --------------------------------------------------------------------------

def record(name="r", flag=0, reference="*", pos=0, mapq=60, cigar="*", bases="*", scores="*",
           fields=()):
    return "\t".join([name, str(flag), reference, str(pos), str(mapq), cigar, "*", "0", "0", bases,
                      scores, *fields])


def hundred_reads():
    """Something of everything."""
    rng = random.Random(5)
    awkward = "</td>&\"'<script>" + "W" * 60
    references = {"chr1": 1_000_000, awkward: 300_000, "tiny": 12, "empty": 5000, "last": 40_000}
    lines = [f"@SQ\tSN:{name}\tLN:{length}" for name, length in references.items()]
    for i in range(100):
        operations = [f"{rng.randint(20, 300)}{rng.choice('M=XM')}"]
        for _ in range(rng.randint(0, 6)):
            operations.append(f"{rng.randint(1, 40)}{rng.choice('IDNP')}")
            operations.append(f"{rng.randint(20, 400)}{rng.choice('M=X')}")
        if rng.random() < 0.3:
            operations.insert(0, f"{rng.randint(1, 50)}S")
        if rng.random() < 0.2:
            operations.append(f"{rng.randint(1, 50)}H")
        cigar = "".join(operations)
        length = sum(int(op[:-1]) for op in operations if op[-1] in "MIS=X")
        reference = rng.choice([*references][:2] + ["last"])
        flag = rng.choice([0, 16, 0, 16, 99, 147, 256, 2048, 1024, 512, 4])
        if i % 25 == 7:
            reference, cigar, length = "tiny", "20M", 20  # beyond its end
        bases = "".join(rng.choice("ACGT") for _ in range(length))
        scores = "".join(chr(33 + min(93, max(0, int(rng.gauss(20, 8))))) for _ in bases)
        fields = []
        if i % 3 == 0:
            n_there = (bases if flag & 16 == 0 else bases.translate(
                str.maketrans("ACGT", "TGCA"))).count("C")
            n_calls = min(n_there, 5) + (i % 30 == 0) * n_there  # some name too many
            fields = ["Mm:Z:C+mh?" + ",0" * n_calls + ";N+76792;",
                      "Ml:B:C" + "".join(f",{rng.randint(0, 255)}" for _ in range(2 * n_calls))]
        if flag & 4:
            lines.append(record(f"r{i}", flag, reference, 100, 0, "*", bases, scores, fields))
            continue
        mapq = rng.choice([0, 3, 60, 60, 255, 17])
        pos = rng.randint(1, max(references[reference] - 5000, 1))
        lines.append(record(f"r{i}", flag, reference, pos, mapq, cigar, bases,
                            "*" if i % 10 == 3 else scores, fields))
    return lines


def a_million():
    rng = random.Random(6)
    bases = ["".join(rng.choice("ACGT") for _ in range(30)) for _ in range(50)]
    scores = ["".join(chr(33 + rng.choice([2, 11, 25, 37, 37, 37])) for _ in range(30))
              for _ in range(200)]
    yield "@SQ\tSN:chr1\tLN:200000000"
    yield "@SQ\tSN:chrM\tLN:16569"
    for _ in range(1_000_000):
        is_short = rng.random() < 0.2  # trimmed
        n = rng.randint(18, 29) if is_short else 30
        reference, length = ("chr1", 200_000_000) if rng.random() < 0.9 else ("chrM", 16_569)
        yield record("r", rng.choice([0, 16, 1024]), reference, rng.randint(1, length - 30),
                     rng.choice([60, 60, 60, 20, 0]), f"{n}M", rng.choice(bases)[:n],
                     rng.choice(scores)[:n])


def genome():
    """Long reads of a bacterium, with modified bases: the picture in the README."""
    rng = random.Random(8)
    references = {"chromosome": 4_641_652, "plasmid_1": 95_300, "plasmid_2": 8_210}
    yield "@HD\tVN:1.6\tSO:unsorted"
    for name, length in references.items():
        yield f"@SQ\tSN:{name}\tLN:{length}"
    text = "".join(rng.choices("ACGT", k=200_000))
    # Qualities of a good instrument, by how well a read went.
    scores = ["".join(chr(33 + min(50, max(2, int(rng.gauss(mean, 7)))))
                      for _ in range(30_000)) for mean in range(14, 34)]
    for i in range(2500):
        length = 200 + int(rng.gammavariate(1.6, 3200))
        name = rng.choices([*references], [88, 9, 3])[0]
        length = min(length, references[name] - 100, 29_000)
        begin = rng.randrange(len(text) - length)
        bases = text[begin:begin + length]
        quality = scores[min(19, max(0, int(rng.gauss(11, 3))))][:length]
        calls, values, n_skipped = "", [], 0
        for at, base in enumerate(bases):
            if base == "C" and bases[at + 1:at + 2] == "G":
                is_modified = rng.random() < 0.35
                values += [int(255 * rng.betavariate(6, 0.6)) if is_modified
                           else int(255 * rng.betavariate(0.5, 8)),
                           int(255 * rng.betavariate(0.4, 14))]
                calls += f",{n_skipped}"
                n_skipped = 0
            elif base == "C":
                n_skipped += 1
        fields = [f"MM:Z:C+mh?{calls};", "ML:B:C" + "".join(f",{value}" for value in values)]
        if i % 25 == 0:
            yield record(f"read{i}", 4, mapq=0, bases=bases, scores=quality, fields=fields)
            continue
        # Most reads lie near the origin of replication, none in a deleted stretch.
        room = references[name] - length - 50
        pos = 1 + int(room * (rng.random() if rng.random() < 0.7 else rng.triangular(0, 1, 0.3)))
        if name == "chromosome" and 2_900_000 - length < pos < 3_050_000:
            pos = rng.randrange(1, 2_000_000)
        clip, inserted = rng.randint(5, 60), rng.randint(1, 9)
        first = (length - clip - inserted) // 2
        rest = length - clip - inserted - first
        cigar = f"{clip}S{first}M{rng.randint(1, 20)}D{rest}M{inserted}I"
        mapq = 60 if rng.random() < 0.93 else rng.randint(0, 59)
        flag = rng.choice([0, 16]) | (2048 if rng.random() < 0.03 else 0)
        if flag & 16:  # the same bases on the other strand would have other calls
            fields = []
        yield record(f"read{i}", flag, name, pos, mapq, cigar, bases, quality, fields)


def many_references():
    lines = [f"@SQ\tSN:{'contig-' * 30}{i}\tLN:{1000 + 7 * i}" for i in range(400)]
    for i in range(400):
        for k in range(1 + i % 37):
            lines.append(record("r", 0, f"{'contig-' * 30}{i}", 1 + 20 * k, 60, "50M"))
    return lines


def one_read():
    return [record("r", 4, mapq=0, bases="ACGT", scores="IIII")]


def wide_lengths():
    """Lengths from 1 to a million, of which the reads have no qualities."""
    lines = []
    for exponent in range(0, 61):
        n = round(10 ** (exponent / 10))
        lines.append(record("r", 4, mapq=0, bases="A" * n))
    return lines


def large_reads():
    """Numbers of many digits."""
    for i in range(8):
        yield record(f"r{i}", 4, mapq=0, bases="ACGT" * (5_000_000 + 308_641 * i))


def many_modifications():
    """More kinds than are drawn, with numbers as codes, unlikely ones and some without."""
    rng = random.Random(7)
    lines = []
    for i in range(300):
        groups, values = "", []
        for code in range(20):
            n = rng.randint(0, 3) if code else 0
            groups += f"A+{10 ** code}{'?.'[code % 2]}" + ",0" * n + ";"
            values += [min(255, int(rng.expovariate(0.02))) for _ in range(n)]
        lines.append(record(f"r{i}", 4, mapq=0, bases="A" * 40, scores="5" * 40,
                            fields=["MM:Z:" + groups, "ML:B:C" + "".join(f",{v}" for v in values)]))
    return lines


FILES = {
    "hundred": hundred_reads,
    "one": one_read,
    "header": lambda: ["@SQ\tSN:chr1\tLN:1000", "@SQ\tSN:chr2\tLN:5"],
    "nothing": list,
    "references": many_references,
    "wide": wide_lengths,
    "large": large_reads,
    "modifications": many_modifications,
    "genome": genome,
    "million": a_million,
}
GENERATED = {"short": "16000000", "aligned-long": "6000000", "long": "6000000"}


# --- Checks -------------------------------------------------------------------------

class Checker:
    def __init__(self, options, browser, folder):
        self.options = options
        self.browser = browser
        self.folder = folder
        with open(os.path.join(os.path.dirname(__file__), "page.js"), encoding="utf-8") as script:
            self.script = script.read()

    def path(self, name):
        return os.path.join(self.folder, name)

    def make(self, name):
        """Writes a SAM file and its page; returns their paths."""
        sam, page = self.path(name + ".sam"), self.path(name + ".html")
        if name in GENERATED:
            with open(sam, "wb") as out:
                subprocess.run([self.options.make_data, name, GENERATED[name]], stdout=out,
                               check=True)
        else:
            with open(sam, "w", encoding="utf-8") as out:
                out.writelines(line + "\n" for line in FILES[name]())
        subprocess.run([self.options.tool, "report", sam, page, "--quiet"], check=True)
        return sam, page

    def look(self, page, width, is_dark=False, medium="", is_open=False):
        """What the page shows; what is wrong with its looks is in `faults`."""
        self.browser.show(page, width, is_dark)
        if medium:
            self.browser.use_medium(medium, is_dark)
        if is_open:
            self.browser.evaluate("document.querySelectorAll('details')"
                                  ".forEach((details) => { details.open = true; })")
        shown = self.browser.evaluate(self.script)
        where = f"{medium or 'screen'} of {width}, {'dark' if is_dark else 'light'}: "
        faults = [where + fault for fault in shown["faults"]]
        faults += [where + "asks for " + url for url in self.browser.requests()[1:]]
        faults += [where + complaint for complaint in self.browser.complaints()]
        is_light = not is_dark or medium == "print"
        if (shown["ground"] >= LIGHT) != is_light or (shown["ground"] <= DARK) == is_light:
            faults.append(f"{where}the ground's luminance is {shown['ground']:.2f}")
        return shown, faults

    def check_page(self, page, counts, widths=WIDTHS):
        """All that is wrong with a page."""
        shown, faults = self.look(page, 1280)
        faults += Comparison(shown, counts).run()
        for width in widths:
            faults += self.look(page, width)[1]
            faults += self.look(page, width, is_open=True)[1]
        for width in (360, 1280):
            faults += self.look(page, width, is_dark=True)[1]
        faults += self.look(page, 700, is_dark=True, medium="print")[1]
        return faults

    def keep_pictures(self, name, page):
        if name == "genome" and self.options.picture:
            self.browser.show(page, 1200, False)
            end = self.browser.evaluate("document.querySelectorAll('h2')[2]"
                                        ".getBoundingClientRect().top")
            self.browser.screenshot(self.options.picture, height=end, scale=0.75)
        if not self.options.screenshots:
            return
        os.makedirs(self.options.screenshots, exist_ok=True)
        for width in (360, 1280):
            for is_dark in (False, True):
                self.browser.show(page, width, is_dark)
                look = "dark" if is_dark else "light"
                self.browser.screenshot(
                    os.path.join(self.options.screenshots, f"{name}-{width}-{look}.png"))


# Damages to the page about a hundred reads: what is replaced (a regular expression, its
# first match), and by what.
DAMAGES = {
    "a number of a table": (r'(<th scope="row">Mapped</th><td>)', r"\g<1>1"),
    "a tile": (r"(<dt>N50</dt><dd>)", r"\g<1>1"),
    "a row is missing": (r'<tr><th scope="row">0x40</th>.*\n', ""),
    "a bar's height": (r'(<rect class="bar"[^>]* height=")', r"\g<1>1"),
    "a bar's place": (r'(<rect class="bar" x=")(\d+)', r"\g<1>1\2"),
    "a bar's label": (r"<title>([\d,]+ to [\d,]+): ", r"<title>1 to 2: "),
    "a bar of a table": (r'(<span style="width:)\d', r"\g<1>0"),
    "a tick": (r'(<text class="tick" text-anchor="middle"[^>]*>)', r"\g<1>9"),
    "the marker": (r'(<path class="marker" d="M)\d', r"\g<1>9"),
    "the outline": (r'(d="M0 0H\d+V)\d', r"\g<1>9"),
    "a strip's width": (r'(class="strip" style="width:)\d+', r"\g<1>55"),
    "a name of a reference": (r"<b>chr1</b>", "<b>chr2</b>"),
    "calls": (r'(<th scope="row">C\+m</th><td class="words">5mC</td><td>\d+</td><td>)', r"\g<1>1"),
    "malformed fields": (r"<li>\d", "<li>9"),
    "an empty drawing": (r'<rect class="bar"', "<rect"),
    "a label outside": (r'(<text class="tick" text-anchor="end" x=")', r"\g<1>-"),
    "labels that meet": (r'(<text class="name" text-anchor="start" x="0.00" y=")13', r"\g<1>47"),
    "something wide": (r"<footer>", '<footer><p style="width:2000px">wide</p>'),
    "a card too wide": (r'<section class="card">', '<section class="card"><p '
                                                   'style="margin-right:-40px">wide</p>'),
    "small labels": (r"\.plot text \{ font-size: 11\.5px", ".plot text { font-size: 5px"),
    "faint text": (r"--quiet: #566169", "--quiet: #aaaaaa"),
    "faint text in the dark": (r"--quiet: #9fabb1", "--quiet: #555555"),
    "a faint bar": (r"--accent: #1c7186", "--accent: #ddeeee"),
    "no dark scheme": (r"@media \(prefers-color-scheme: dark\)", "@media (max-width: 1px)"),
    "dark print": (r"(@media print \{\n  :root \{\n.*\n    --page: #)ffffff", r"\g<1>000000"),
    "a title is missing": (r'<title id="lengths-title">.*?</title>', ""),
    "an id twice": (r"<footer>", '<footer id="lengths">'),
    "a picture of others": (r"<footer>", '<footer><img src="other.png" alt="">'),
    "a long value": (r"(<dt>N50</dt><dd)>", r'\g<1> style="font-size:40px">12345'),
    "a script": (r"<footer>", "<footer><script>1</script>"),
    "a card is empty": (r"<footer>", '<section class="card"><h3>x</h3></section><footer>'),
}


def check_damages(checker, page, counts):
    """The damages that are not found."""
    with open(page, encoding="utf-8") as text:
        whole = text.read()
    unseen = []
    damaged = checker.path("damaged.html")
    for name, (pattern, replacement) in DAMAGES.items():
        changed, n = re.subn(pattern, replacement, whole, count=0 if "drawing" in name else 1)
        if n == 0 or changed == whole:
            unseen.append(f"{name}: nothing to damage")
            continue
        with open(damaged, "w", encoding="utf-8") as out:
            out.write(changed)
        try:
            faults = checker.check_page(damaged, counts, widths=(360, 1280))
        except (AttributeError, KeyError, ValueError, IndexError, StopIteration) as fault:
            faults = [repr(fault)]  # so far from a page that it cannot be read
        if not faults:
            unseen.append(f"{name}: not found")
    return unseen


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--tool", required=True)
    parser.add_argument("--make-data", required=True)
    parser.add_argument("--screenshots", help="a folder for pictures of all pages")
    parser.add_argument("--picture", help="where the README's picture goes, made anew")
    parser.add_argument("--files", nargs="*", default=[*FILES, *GENERATED])
    options = parser.parse_args()
    n_faults = 0

    def tell(name, faults):
        nonlocal n_faults
        n_faults += len(faults)
        print(f"{name}: {'good' if not faults else f'{len(faults)} faults'}", flush=True)
        for fault in faults[:20]:
            print("    " + fault)

    with tempfile.TemporaryDirectory() as folder, Browser() as browser:
        checker = Checker(options, browser, folder)
        for name in options.files:
            sam, page = checker.make(name)
            counts = SamCounts(sam)
            tell(name, checker.check_page(page, counts))
            checker.keep_pictures(name, page)
            if name == "hundred":
                tell("damages", check_damages(checker, page, counts))
            os.remove(sam)
    sys.exit(1 if n_faults else 0)


main()
