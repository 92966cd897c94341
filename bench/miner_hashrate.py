"""Hash rate of the whole norvel-miner against the stand-in node, with 1 and 2 threads.

Usage: /usr/bin/python3 bench/miner_hashrate.py [PROGRAM [SECONDS]]
Prints total hashes over the time that the process mined, medians of three runs.
"""

import re
import signal
import statistics
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.dont_write_bytecode = True
sys.path.insert(0, str(ROOT / "tests" / "functional"))
from stand_in_node import MINER_ADDRESS, NEVER, StandInNode  # noqa: E402


def hashes_per_second(program: str, threads: int, seconds: float) -> float:
    """One run: from the line that says mining started to Ctrl+C."""
    with StandInNode(bits=NEVER) as node:
        arguments = [program, "--address", MINER_ADDRESS, "--rpcport", str(node.port), "--threads", str(threads)]
        miner = subprocess.Popen(arguments, stdout=subprocess.PIPE, text=True, encoding="utf-8")
        assert miner.stdout is not None
        for line in miner.stdout:
            if line.startswith("[Miner] Mining started"):
                break
        start = time.monotonic()
        time.sleep(seconds)
        miner.send_signal(signal.SIGINT)
        mined_for = time.monotonic() - start
        output = miner.stdout.read()
        miner.wait(timeout=10)
    found = re.search(r"Total Hashes:    (\d+)", output)
    assert found is not None, output
    return int(found.group(1)) / mined_for


def main() -> None:
    program = sys.argv[1] if len(sys.argv) > 1 else str(ROOT / "build" / "release" / "bin" / "norvel-miner")
    seconds = float(sys.argv[2]) if len(sys.argv) > 2 else 5.0
    for threads in (1, 2):
        rate = statistics.median(hashes_per_second(program, threads, seconds) for _ in range(3))
        print(f"{threads} thread(s): {rate / 1e6:.3f} MH/s")


if __name__ == "__main__":
    main()
