"""The SAM lines of a file, read in batches."""

import gzip
import io
import os
import subprocess
import sys
from pathlib import Path

import pytest
from bam_reader import make_bam, make_record
from conftest import HEADER, LINES, run_measured

import tesk_bam
from tesk_bam import sam_lines


def test_lines_of_every_format(handler, sam_file, tmp_path):
    bam = tmp_path / "reads.bam"
    handler.write_to_bam_file(bam)
    packed = tmp_path / "reads.sam.gz"
    packed.write_bytes(gzip.compress(sam_file.read_bytes()))
    for path in (sam_file, str(bam), os.fsencode(packed)):
        lines = sam_lines(path)
        assert iter(lines) is lines
        assert list(lines) == LINES
        assert lines.references == [tesk_bam.RefSeq("chr1", 1000), tesk_bam.RefSeq("chr2", 2000)]
        assert (lines.report, lines.errors) == ([], [])
        assert next(lines, None) is None
    assert sam_lines(sam_file).header == HEADER


def test_text_that_is_no_utf8(tmp_path):
    path = tmp_path / "reads.sam"
    line = b"r\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*\tXZ:Z:caf\xe9"
    path.write_bytes(line + b"\n")
    assert next(sam_lines(path)) == line.decode(errors="surrogateescape")


def test_standard_input(sam_file):
    program = "import tesk_bam; print(*tesk_bam.sam_lines('-'), sep='\\n')"
    with open(sam_file) as file:
        result = subprocess.run(
            [sys.executable, "-c", program], stdin=file, capture_output=True, text=True, check=True
        )
    assert result.stdout == "".join(line + "\n" for line in LINES)


def test_array_of_floats_in_bam(tmp_path):
    path = tmp_path / "in.bam"
    path.write_bytes(make_bam("", [], make_record("r", b"XBBf\x01\0\0\0\0\0\0\x3f")))
    lines = sam_lines(path)
    assert list(lines) == ["r\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*\tXB:B:f,0.5"]
    assert len(lines.report) == 1


def test_repairs_are_reported(tmp_path):
    path = tmp_path / "reads.sam"
    path.write_text("a\t4\t*\t0\t0\t*\t*\t0\t0\tac\tII\n")
    lines = sam_lines(path)
    assert list(lines) == ["a\t4\t*\t0\t0\t*\t*\t0\t0\tAC\tII"]
    assert lines.report == [
        "repaired: SEQ has lower-case bases: changed to upper case (once, in line 1)"
    ]


BAD = "b\t4\t*\t0\t0\t*\t*\t0\t0\tACGT\tIII"
BAD_REASON = "line 5, column QUAL: 3 qualities for 4 bases"


@pytest.fixture
def bad_file(tmp_path):
    path = tmp_path / "bad.sam"
    path.write_text(HEADER + "\n".join([LINES[0], BAD, LINES[2]]) + "\n")
    return path


def test_lines_before_a_fault_come_first(bad_file):
    lines = sam_lines(bad_file)
    assert next(lines) == LINES[0]
    for _ in range(2):  # it does not end as if nothing had been
        with pytest.raises(tesk_bam.Error) as caught:
            next(lines)
        assert str(caught.value) == f"{bad_file}: {BAD_REASON}"
    assert lines.errors == [f"{bad_file}: {BAD_REASON}"]


def test_faults_can_be_left_out(bad_file):
    lines = sam_lines(bad_file, keep_going=True)
    assert list(lines) == [LINES[0], LINES[2]]
    assert lines.errors == [f"{bad_file}: {BAD_REASON}"]


def test_end_of_file_block(handler, tmp_path):
    path = tmp_path / "cut.bam"
    handler.write_to_bam_file(path)
    path.write_bytes(path.read_bytes()[:-28])
    message = (
        f"{path}: the block that marks the end of a BGZF file is missing: the file may have been "
        "cut short"
    )
    lines = sam_lines(path)
    with pytest.raises(tesk_bam.Error) as caught:
        list(lines)
    assert str(caught.value) == message
    lines = sam_lines(path, allow_missing_eof=True)
    assert list(lines) == LINES
    assert len(lines.report) == 1


def test_file_that_cannot_be_opened(tmp_path):
    path = tmp_path / "none.sam"
    with pytest.raises(tesk_bam.Error) as caught:
        sam_lines(path)
    assert str(caught.value) == f"cannot open {path}: No such file or directory"
    with pytest.raises(TypeError):
        sam_lines(path, True)


def test_closed_file(sam_file):
    with sam_lines(sam_file) as lines:
        assert next(lines) == LINES[0]
    lines.close()
    for use in (
        lambda: next(lines),
        lambda: lines.header,
        lambda: lines.references,
        lambda: lines.report,
        lambda: lines.errors,
    ):
        with pytest.raises(ValueError, match="^The file is closed$"):
            use()


# A file of some 200 MB, made and read in one process.
MEASURE = """
    import sys
    import tesk_bam

    before = peak_mb()
    n_lines = n_bytes = 0
    for line in tesk_bam.sam_lines(sys.argv[1]):
        n_lines += 1
        n_bytes += len(line) + 1
    print(n_lines, n_bytes, peak_mb() - before)
"""


def test_memory_does_not_grow_with_the_file(tmp_path):
    path = tmp_path / "large.sam"
    line = "r\t4\t*\t0\t0\t*\t*\t0\t0\t" + 4975 * "A" + "\t" + 4975 * "I" + "\n"
    with open(path, "w") as file:
        for _ in range(100):
            file.write(200 * line)
    printed = run_measured(MEASURE, path)
    path.unlink()
    assert [int(number) for number in printed[:2]] == [20_000, 20_000 * len(line)]
    assert float(printed[2]) < 20


def test_example_of_the_project_reads_the_same_both_ways(tmp_path):
    source = Path(__file__).parents[2] / "examples" / "quickstart.sam"
    expected = [line for line in io.open(source).read().split("\n") if line and line[0] != "@"]
    assert len(expected) == 16
    assert list(sam_lines(source)) == expected
    handler = tesk_bam.BAMFileHandler()
    handler.read_from_sam_file(source)
    handler.write_to_bam_file(tmp_path / "out.bam")
    assert list(sam_lines(tmp_path / "out.bam")) == expected
