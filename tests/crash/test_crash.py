"""A node that dies or whose disk fails at the N-th call that changes a file comes back by itself, for every N.

NORVEL_CRASH_STRIDE takes every so manieth N only, from an offset that is printed; 1 takes them all.
"""

import os
import random
import signal
import subprocess
import tempfile
from pathlib import Path
from typing import Dict

import pytest

CHILD = os.environ["NORVEL_CRASH_CHILD"]
LAYER = os.environ["NORVEL_FAULT_LAYER"]
STRIDE = int(os.environ.get("NORVEL_CRASH_STRIDE", "17"))
CALLS_MAX = 20_000  # far more than the script makes


def run(mode: str, directory: Path, environment: Dict[str, str]) -> "subprocess.CompletedProcess[str]":
    return subprocess.run([CHILD, mode, str(directory)], env={**os.environ, **environment}, text=True,
                          capture_output=True, timeout=300, check=False)


def provoke(kind: str, number: int, directory: Path, mark: Path) -> bool:
    """Runs the script with the fault; whether it fired."""
    result = run("add", directory, {
        "LD_PRELOAD": LAYER, "NORVEL_FAULT_KIND": kind, "NORVEL_FAULT_AT": str(number),
        "NORVEL_FAULT_DIRECTORY": str(directory), "NORVEL_FAULT_MARK": str(mark),
    })
    if kind in ("kill", "powercut"):
        assert result.returncode in (0, -signal.SIGKILL), result.stderr
        return result.returncode != 0
    assert result.returncode in (0, 1), result.stderr
    return mark.exists()


@pytest.mark.parametrize("kind", ["kill", "powercut", "eio", "enospc"])
def test_comes_back_after_a_fault_at_any_call(kind: str) -> None:
    first = random.randint(1, STRIDE)
    print(f"{kind}: every {STRIDE} from {first}")
    fired = 0
    for number in range(first, CALLS_MAX, STRIDE):
        with tempfile.TemporaryDirectory() as scratch:
            directory = Path(scratch) / "data"
            directory.mkdir()
            if not provoke(kind, number, directory, Path(scratch) / "mark"):
                break
            fired += 1
            result = run("check", directory, {})
            assert result.returncode == 0, f"{kind} at call {number}:\n{result.stderr}\n{result.stdout}"
    else:
        pytest.fail("the faults never ended")
    assert fired > 100 // STRIDE
