"""Runs a program of this project as a child process with bounded waits."""

import os
import resource
import subprocess
import tempfile
import time
from typing import IO, Callable, Mapping, Optional, TypeVar

resource.setrlimit(resource.RLIMIT_CORE, (0, 0))  # the child processes inherit it

# Sanitized builds are slower by this factor; time limits stretch with it.
SLOW = float(os.environ.get("NORVEL_SLOW", "1"))

SelfType = TypeVar("SelfType", bound="Child")


def program(variable: str) -> str:
    """The path in an environment variable, which must name a program."""
    path = os.environ.get(variable, "")
    assert os.access(path, os.X_OK), f"{variable} does not name the program: {path!r}"
    return path


def wait_until(condition: Callable[[], object], what: str, limit_s: float = 10) -> None:
    until = time.monotonic() + limit_s * SLOW
    while not condition():
        assert time.monotonic() < until, f"no {what} within {limit_s * SLOW:.0f} s"
        time.sleep(0.01)


class Child:
    """One run of a program; leaving the context kills what is still running."""

    def __init__(self, path: str, *args: object, stdout: Optional[IO[bytes]] = None,
                 environment: Optional[Mapping[str, str]] = None) -> None:
        """`environment` is added to that of the test."""
        self._out = stdout or tempfile.TemporaryFile()
        self._err = tempfile.TemporaryFile()
        self.process = subprocess.Popen([path, *map(str, args)], stdin=subprocess.DEVNULL, stdout=self._out,
                                        stderr=self._err, env={**os.environ, **(environment or {})})

    def __enter__(self: SelfType) -> SelfType:
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

    def send(self, number: int) -> None:
        self.process.send_signal(number)

    def end(self, limit_s: float = 10) -> int:
        """Waits for the end; the exit status, negative for a signal."""
        try:
            return self.process.wait(limit_s * SLOW)
        except subprocess.TimeoutExpired:
            raise AssertionError(f"still running after {limit_s * SLOW:.0f} s; stderr: {self.err()[-500:]}") from None


def _content(file: IO[bytes]) -> str:
    size = os.fstat(file.fileno()).st_size
    return os.pread(file.fileno(), size, 0).decode("utf-8", "replace")
