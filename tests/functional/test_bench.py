"""norvel-bench: its options, and one brief measurement in both forms."""

import json
import os
import re
import subprocess

import pytest

from child_process import Child, program


def run_bench(*args: object) -> "tuple[int, str, str]":
    with Child(program("NORVEL_BENCH"), *args) as child:
        return child.end(60), child.out(), child.err()


def test_wrong_options_are_refused() -> None:
    for args in ["--jsn"], ["stray"], ["--seconds"], ["--seconds", "0"], ["--seconds", "61"], ["--seconds", "nan"]:
        status, out, err = run_bench(*args)
        assert (status, out) == (1, "") and re.fullmatch(r"Error: [^\n]+\n", err), args


def test_a_lost_result_is_an_error() -> None:
    with open("/dev/full", "w", encoding="utf-8") as full:
        ended = subprocess.run([program("NORVEL_BENCH"), "--help"], stdout=full, stderr=subprocess.PIPE, check=False)
    assert ended.returncode == 1
    assert re.fullmatch(rb"Error: standard output: [^\n]+\n", ended.stderr)


def test_help_and_version() -> None:
    assert re.fullmatch(r"norvel-bench \d+\.\d+\.\d+\n", run_bench("--version")[1])
    status, out, err = run_bench("--help")
    assert (status, err) == (0, "") and "--json" in out and "--seconds" in out


def test_rows_of_the_object() -> None:
    status, out, err = run_bench("--json", "--seconds", 0.01)
    assert (status, err) == (0, "")
    measured = json.loads(out)
    assert measured.keys() == {"core_ghz", "rows"}
    assert 0.2 < measured["core_ghz"] < 10
    rows = measured["rows"]
    counts = {row["threads"] for row in rows}
    assert {1, os.cpu_count()} <= counts
    names = list(dict.fromkeys(row["what"] for row in rows))
    assert "kernel portable" in names[:-1]
    assert names[-1].replace("miner", "kernel") in names[:-1]
    assert [(row["what"], row["threads"]) for row in rows] == [(name, n) for name in names for n in sorted(counts)]
    assert len({row["checksum"] for row in rows}) == 1
    for row in rows:
        cycles = measured["core_ghz"] * 1e9 * row["threads"] / row["hashes_per_second"]
        assert row["cycles_per_hash"] == pytest.approx(cycles, rel=1e-3)


def test_the_table_names_every_kernel() -> None:
    status, out, err = run_bench("--seconds", 0.005)
    assert (status, err) == (0, "")
    assert re.match(r"Core clock: \d+\.\d{3} GHz\n\nwhat +threads +hashes/s +cycles/hash  checksum\n", out)
    for line in out.splitlines()[3:]:
        assert re.fullmatch(r"(kernel|miner) [\w-]+ +\d+ +\d+ +\d+\.\d  [0-9a-f]{16}|"
                            r"kernel [\w-]+ +skipped: this machine lacks it", line), line
