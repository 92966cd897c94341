"""A node that dies or whose disk fails at the N-th call that changes or opens a file comes back by itself, with every
block that it had accepted, for every N.

NORVEL_CRASH_STRIDE takes every so manieth N only, from an offset that is printed; 1 takes them all.
"""

import os
import random
import re
import shutil
import signal
import subprocess
import tempfile
from pathlib import Path
from typing import Dict, Iterator, List, Optional

import pytest

CHILD = os.environ["NORVEL_CRASH_CHILD"]
LAYER = os.environ["NORVEL_FAULT_LAYER"]
STRIDE = int(os.environ.get("NORVEL_CRASH_STRIDE", "17"))
CALLS_MAX = 20_000  # far more than the script makes
KILLING = ("kill", "powercut")
REFUSING = ("enospc", "emfile", "emfiles")


def run(mode: str, directory: Path, environment: Dict[str, str], *hashes: str) -> "subprocess.CompletedProcess[str]":
    return subprocess.run([CHILD, mode, str(directory), *hashes], env={**os.environ, **environment}, text=True,
                          capture_output=True, timeout=300, check=False)


def provoke(kind: str, number: int, directory: Path, mark: Path) -> Optional[List[str]]:
    """Runs the script with the fault; the blocks that were accepted, nothing if it did not fire."""
    result = run("add", directory, {
        "LD_PRELOAD": LAYER, "NORVEL_FAULT_KIND": kind, "NORVEL_FAULT_AT": str(number),
        "NORVEL_FAULT_DIRECTORY": str(directory), "NORVEL_FAULT_MARK": str(mark),
    })
    assert result.returncode in (0, -signal.SIGKILL if kind in KILLING else 1), result.stderr
    fired = result.returncode != 0 if kind in KILLING else mark.exists()
    return re.findall("^[0-9a-f]{64}$", result.stdout, re.MULTILINE) if fired else None


@pytest.fixture(scope="module", name="beginnings")
def fixture_beginnings() -> Iterator[Dict[str, Path]]:
    """Directories that a run finds: nothing, what a whole run left, that with damage in every file that is kept."""
    with tempfile.TemporaryDirectory() as scratch:
        found = {name: Path(scratch) / name for name in ("empty", "whole", "damaged")}
        found["empty"].mkdir()
        found["whole"].mkdir()
        assert run("add", found["whole"], {}).returncode == 0
        shutil.copytree(found["whole"], found["damaged"])
        blocks = found["damaged"] / "blk00000.dat"
        os.truncate(blocks, blocks.stat().st_size - 5)
        for name in ("chainstate/CURRENT", "undo.dat", "snapshot.dat"):
            (found["damaged"] / name).write_bytes(b"x")
        yield found


@pytest.mark.parametrize("beginning", ["empty", "whole", "damaged"])
@pytest.mark.parametrize("kind", [*KILLING, "eio", *REFUSING])
def test_comes_back_after_a_fault_at_any_call(kind: str, beginning: str, beginnings: Dict[str, Path]) -> None:
    first = random.randint(1, STRIDE)
    fired = 0
    for number in range(first, CALLS_MAX, STRIDE):
        with tempfile.TemporaryDirectory() as scratch:
            directory = Path(scratch) / "data"
            shutil.copytree(beginnings[beginning], directory)
            accepted = provoke(kind, number, directory, Path(scratch) / "mark")
            if accepted is None:
                break
            fired += 1
            where = f"{kind} at call {number}"
            if kind in REFUSING and beginning == "whole":
                assert not list(directory.glob("*.damaged")), f"{where}: a refusal by the system is no damage"
            result = run("check", directory, {}, *accepted)
            assert result.returncode == 0, f"{where}:\n{result.stderr}\n{result.stdout}"
    else:
        pytest.fail("the faults never ended")
    print(f"{kind}, {beginning}: {fired} faults, every {STRIDE} from {first}")
    assert fired >= (100 if beginning == "empty" else 20) // STRIDE
