"""Samples for the check of the workflow, and a look at what became of them.

    workflow_samples.py make       adds samples to samples/ and samples.tsv
    workflow_samples.py compare    holds results/ against them

Shares nothing with the project but the formats. Run in the workflow's folder.
"""

import csv
import gzip
import json
import random
import struct
import sys
import zlib

REFERENCES = [("chr1", 200000), ("chr2", 90000)]
HEADER = "@HD\tVN:1.6\tSO:unsorted\n" + "".join(
    f"@SQ\tSN:{name}\tLN:{length}\n" for name, length in REFERENCES)


def random_line(number, rng):
    name, length = rng.choice(REFERENCES)
    bases = "".join(rng.choice("ACGT") for _ in range(rng.randrange(20, 120)))
    position = rng.randrange(1, length - 200)
    if rng.random() < 0.1:
        return f"u{number}\t4\t*\t0\t0\t*\t*\t0\t0\t{bases}\t*\n"
    return (f"r{number}\t{rng.choice([0, 16])}\t{name}\t{position}\t60\t{len(bases)}M\t*\t0\t0\t"
            f"{bases}\t{'I' * len(bases)}\tNM:i:{rng.randrange(9)}\n")


def make():
    rng = random.Random(1)
    lines = [random_line(number, rng) for number in range(3000)]
    text = (HEADER + "".join(lines)).encode()
    with open("samples/random.sam", "wb") as sam:
        sam.write(text)
    with open("samples/packed.sam.gz", "wb") as packed:
        packed.write(gzip.compress(text))
    with open("samples.tsv", "a", encoding="ascii") as sheet:
        sheet.write("random\trandom.sam\npacked\tpacked.sam.gz\n")


def unpacked(path):
    """The data of a file in BGZF blocks; their checksums are held against them."""
    with open(path, "rb") as file:
        rest = file.read()
    data = b""
    while rest:
        size = struct.unpack_from("<H", rest, 16)[0] + 1
        piece = zlib.decompress(rest[18:size - 8], -15)
        crc, length = struct.unpack_from("<II", rest, size - 8)
        assert (zlib.crc32(piece), len(piece)) == (crc, length), path
        data += piece
        rest = rest[size:]
    assert piece == b"", f"{path}: no empty block at the end"
    return data


def bam_records(path):
    """Reference, position and name of each record."""
    data = unpacked(path)
    assert data[:4] == b"BAM\1", path
    at = 8 + struct.unpack_from("<i", data, 4)[0]
    (n_ref,) = struct.unpack_from("<i", data, at)
    at += 4
    for _ in range(n_ref):
        at += 8 + struct.unpack_from("<i", data, at)[0]
    records = []
    while at < len(data):
        size, ref, pos, name_size = struct.unpack_from("<iiiB", data, at)
        records.append((ref, pos, data[at + 36:at + 35 + name_size].decode()))
        at += 4 + size
    return records


def sam_records(path):
    with open(path, "rb") as file:
        text = file.read()
    if text[:2] == b"\x1f\x8b":
        text = gzip.decompress(text)
    lines = text.decode().splitlines()
    names = [line.split("\tSN:")[1].split("\t")[0] for line in lines if line.startswith("@SQ")]
    columns = [line.split("\t") for line in lines if not line.startswith("@")]
    return [(names.index(c[2]) if c[2] in names else -1, int(c[3]) - 1, c[0]) for c in columns]


def compare():
    with open("samples.tsv", newline="", encoding="ascii") as sheet:
        samples = list(csv.DictReader(sheet, delimiter="\t"))
    assert len(samples) == 5
    for sample in samples:
        name, path = sample["sample"], "samples/" + sample["file"]
        before = bam_records(path) if path.endswith(".bam") else sam_records(path)
        after = bam_records(f"results/{name}.bam")
        # In the order of coordinates, equal ones as they came; no reference is last.
        assert after == sorted(before, key=lambda r: (r[0] if r[0] >= 0 else 2**31, r[1])), name
        with open(f"results/{name}.bam.bai", "rb") as index:
            assert index.read(4) == b"BAI\1", name
        with open(f"results/{name}.valid.json", encoding="utf-8") as report:
            verdict = json.load(report)
        assert (verdict["records"], verdict["n_errors"]) == (len(before), 0), name
        print(f"{name}: {len(after)} records in order")


if __name__ == "__main__":
    {"make": make, "compare": compare}[sys.argv[1]]()
