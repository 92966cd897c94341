"""Runs norvel-miner as a child process with bounded waits."""

import os
import resource
import signal
import subprocess
import tempfile
import time
from typing import IO, Callable, List, Optional

import screen

# Sanitized builds are slower by this factor; time limits stretch with it.
SLOW = float(os.environ.get("NORVEL_SLOW", "1"))


def program() -> str:
    """Path of the program under test."""
    path = os.environ.get("NORVEL_MINER", "")
    assert os.access(path, os.X_OK), f"NORVEL_MINER does not name the program: {path!r}"
    return path


def wait_until(condition: Callable[[], object], what: str, limit_s: float = 10) -> None:
    """Polls until the condition holds."""
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
                                        stderr=self._err, preexec_fn=_no_core_file)

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
        """Waits until standard output holds the text."""
        wait_until(lambda: text in self.out(), repr(text), limit_s)

    def wait_for_dashboard(self, fits: Callable[[screen.Dashboard], bool], limit_s: float = 10) -> screen.Dashboard:
        """Waits for a dashboard drawn from now on that fits."""
        drawn = len(screen.dashboards(self.out()))
        found: List[screen.Dashboard] = []

        def look() -> bool:
            found[:] = [d for d in screen.dashboards(self.out())[drawn:] if fits(d)]
            return bool(found)
        wait_until(look, "fitting dashboard", limit_s)
        return found[0]

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

    def peak_memory_mb(self) -> float:
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as status:
            peak = next(line for line in status if line.startswith("VmHWM:"))
        return int(peak.split()[1]) / 1024


def run(*args: object, limit_s: float = 10) -> "tuple[int, str, str]":
    """Runs to the end: exit status, standard output, standard error."""
    with Miner(*args) as miner:
        return miner.end(limit_s), miner.out(), miner.err()


def _content(file: IO[bytes]) -> str:
    size = os.fstat(file.fileno()).st_size
    return os.pread(file.fileno(), size, 0).decode("utf-8", "replace")


def _no_core_file() -> None:
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
