"""What several tests use."""

import subprocess
import sys
import textwrap

import pytest

import tesk_bam

HEADER = "@HD\tVN:1.6\tSO:unsorted\n@SQ\tSN:chr1\tLN:1000\n@SQ\tSN:chr2\tLN:2000\n"
LINES = [
    "r1\t99\tchr2\t101\t60\t3M1I2M\t=\t301\t206\tACGTAC\tIIII#!\tNM:i:1\tRG:Z:a\tXF:f:0.5",
    "r2\t16\tchr1\t11\t7\t4M\t*\t0\t0\tGGCC\t*",
    "r3\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*\tXB:B:s,-1,2",
]


@pytest.fixture
def handler():
    """Two references and three records, not in order."""
    made = tesk_bam.BAMFileHandler()
    made.add_header_lines(HEADER)
    for line in LINES:
        made.add_alignment_sam(line)
    return made


@pytest.fixture
def sam_file(tmp_path):
    path = tmp_path / "reads.sam"
    path.write_text(HEADER + "".join(line + "\n" for line in LINES))
    return path


PEAK_MB = """
def peak_mb():
    with open("/proc/self/status") as status:
        for line in status:
            if line.startswith("VmHWM"):
                return int(line.split()[1]) / 1024
"""


def run_measured(program, *arguments):
    """Runs a Python program, which may call peak_mb(), by itself; returns the words it prints."""
    command = [sys.executable, "-c", PEAK_MB + textwrap.dedent(program), *arguments]
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.split()
