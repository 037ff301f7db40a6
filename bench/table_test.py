"""Tests that the check of every change can fail, on programs that print made-up rows."""

import json
import os
import subprocess
import sys
import tempfile
import unittest

TABLE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "table.py")
KEPT = {"read_from_sam_file/short": 1.5, "sort_shuffled/short": 1.0}


def time_row(key, ratio):
    counters = {"user": 1, "system": 0, "faults": 0, "floor_user": 1, "bytes": 1, "items": 1}
    ratios = {"ratio": 1, "quickest_ratio": ratio}
    return {"name": f"{key}/iterations:3/manual_time", **counters, **ratios}


def memory_row(held):
    sizes = {"bytes": 1, "items": 1, "payload": 0, "start": 0, "peak": held, "model": 1000}
    return {"name": "read_from_sam_file/short", "held": held, **sizes}


class QuickCheck(unittest.TestCase):
    def check(self, ratios, kept=None, held=1000):
        """Exit status and messages of a check."""
        with tempfile.TemporaryDirectory() as folder:
            rows = [time_row(key, ratio) for key, ratio in ratios.items()]
            self.make_program(folder, "library", rows)
            self.make_program(folder, "memory", [memory_row(held)])
            self.make_program(folder, "make_data", [])
            baseline = os.path.join(folder, "baseline.json")
            with open(baseline, "w", encoding="ascii") as file:
                json.dump(kept or KEPT, file)
            command = [sys.executable, TABLE, "--quick", "--kinds", "short"]
            command += ["--programs", folder, "--baseline", baseline, "--tmp", folder]
            done = subprocess.run(command, capture_output=True, text=True, check=False)
            return done.returncode, done.stdout.replace(baseline, "FILE").splitlines()

    def make_program(self, folder, name, rows):
        path = os.path.join(folder, "bench_" + name)
        with open(path, "w", encoding="ascii") as file:
            file.write(f"#!/bin/sh\ncat <<END\n{json.dumps({'benchmarks': rows})}\nEND\n")
        os.chmod(path, 0o755)

    def test_ratio_worse_by_less_than_a_third_passes(self):
        worse = {**KEPT, "read_from_sam_file/short": 1.5 * 1.30}
        self.assertEqual(self.check(worse), (0, ["speed and memory: ok"]))

    def test_ratio_worse_by_more_than_a_third_fails(self):
        worse = {**KEPT, "read_from_sam_file/short": 1.5 * 1.40}
        self.assertEqual(self.check(worse), (1, [
            "read_from_sam_file/short: ratio 2.10, kept is 1.50: worse by more than a third",
            "speed and memory: 1 check FAILED",
        ]))

    def test_row_without_kept_value_fails(self):
        self.assertEqual(self.check({**KEPT, "new/short": 1.0}), (1, [
            "new/short: has no kept value in FILE",
            "speed and memory: 1 check FAILED",
        ]))

    def test_kept_value_without_row_fails(self):
        self.assertEqual(self.check(KEPT, {**KEPT, "old/short": 1.0}), (1, [
            "old/short: kept in FILE, but there is no such row",
            "speed and memory: 1 check FAILED",
        ]))

    def test_memory_at_its_limit_passes(self):
        self.assertEqual(self.check(KEPT, held=1100), (0, ["speed and memory: ok"]))

    def test_memory_above_its_limit_fails(self):
        self.assertEqual(self.check(KEPT, held=1101), (1, [
            "read_from_sam_file/short: memory held 1101 bytes, limit is 1100",
            "speed and memory: 1 check FAILED",
        ]))


if __name__ == "__main__":
    unittest.main()
