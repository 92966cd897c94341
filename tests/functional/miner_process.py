"""Runs norvel-miner as a child process with bounded waits."""

import os
import resource
import signal
import subprocess
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor
from typing import IO, Callable, Iterable, List, Optional, Tuple

import screen
from stand_in_node import MINER_ADDRESS, START_HEIGHT

resource.setrlimit(resource.RLIMIT_CORE, (0, 0))  # the child processes inherit it

# Sanitized builds are slower by this factor; time limits stretch with it.
SLOW = float(os.environ.get("NORVEL_SLOW", "1"))


def program() -> str:
    path = os.environ.get("NORVEL_MINER", "")
    assert os.access(path, os.X_OK), f"NORVEL_MINER does not name the program: {path!r}"
    return path


def wait_until(condition: Callable[[], object], what: str, limit_s: float = 10) -> None:
    until = time.monotonic() + limit_s * SLOW
    while not condition():
        assert time.monotonic() < until, f"no {what} within {limit_s * SLOW:.0f} s"
        time.sleep(0.01)


class Miner:
    """One run of the program; leaving the context kills what is still running."""

    def __init__(self, *args: object, stdout: Optional[IO[bytes]] = None) -> None:
        self._out = stdout or tempfile.TemporaryFile()
        self._err = tempfile.TemporaryFile()
        self.process = subprocess.Popen([program(), *map(str, args)], stdin=subprocess.DEVNULL, stdout=self._out,
                                        stderr=self._err)

    def __enter__(self) -> "Miner":
        return self

    def __exit__(self, *_: object) -> None:
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self._out.close()
        self._err.close()

    def out(self) -> str:
        return _content(self._out)

    def err(self) -> str:
        return _content(self._err)

    def wait_for(self, text: str, limit_s: float = 10) -> None:
        wait_until(lambda: text in self.out(), repr(text), limit_s)

    def wait_for_dashboard(self, fits: Callable[[screen.Dashboard], bool], limit_s: float = 10) -> screen.Dashboard:
        """Waits for a dashboard drawn from now on that fits."""
        drawn = len(screen.dashboards(self.out()))
        wait_until(lambda: any(map(fits, screen.dashboards(self.out())[drawn:])), "fitting dashboard", limit_s)
        return next(filter(fits, screen.dashboards(self.out())[drawn:]))

    def send(self, number: int) -> None:
        self.process.send_signal(number)

    def end(self, limit_s: float = 10) -> int:
        """Waits for the end; the exit status, negative for a signal."""
        try:
            return self.process.wait(limit_s * SLOW)
        except subprocess.TimeoutExpired:
            raise AssertionError(f"still running after {limit_s * SLOW:.0f} s; stderr: {self.err()[-500:]}") from None

    def stop(self, number: int = signal.SIGINT, limit_s: float = 4) -> str:
        """Stops a mining program, checks its end and returns all that it printed."""
        self.send(number)
        status = self.end(limit_s)
        assert status == 0, (status, self.err()[-2000:])
        assert screen.CLOSING.search(self.out()), self.out()[-500:]
        return self.out()


def mine(port: int, threads: int = 1, stdout: Optional[IO[bytes]] = None) -> Miner:
    return Miner("--address", MINER_ADDRESS, "--rpcport", port, "--threads", threads, stdout=stdout)


def pieces_of(out: str, port: int, threads: int = 1) -> List[Tuple[str, str]]:
    """Checks the start-up output of `mine()` and cuts the rest into pieces."""
    start = screen.until_connecting(MINER_ADDRESS, port, str(threads)) + screen.connected(START_HEIGHT, threads)
    return list(screen.pieces(out, start))


def side_by_side(scene: Callable[..., None], rows: Iterable[Tuple[object, ...]]) -> None:
    """Plays the scene for all rows at once; raises the first failure."""
    with ThreadPoolExecutor(32) as pool:
        for outcome in [pool.submit(scene, *row) for row in rows]:
            outcome.result()


def run(*args: object, limit_s: float = 10) -> "tuple[int, str, str]":
    """Runs to the end: exit status, standard output, standard error."""
    with Miner(*args) as miner:
        return miner.end(limit_s), miner.out(), miner.err()


def _content(file: IO[bytes]) -> str:
    size = os.fstat(file.fileno()).st_size
    return os.pread(file.fileno(), size, 0).decode("utf-8", "replace")
