"""Runs norvel-miner as a child process with bounded waits."""

import signal
from concurrent.futures import ThreadPoolExecutor
from typing import IO, Callable, Iterable, List, Mapping, Optional, Tuple

import screen
from child_process import Child, program, wait_until
from stand_in_node import MINER_ADDRESS, START_HEIGHT


class Miner(Child):
    """One run of the program; leaving the context kills what is still running."""

    def __init__(self, *args: object, stdout: Optional[IO[bytes]] = None,
                 environment: Optional[Mapping[str, str]] = None) -> None:
        super().__init__(program("NORVEL_MINER"), *args, stdout=stdout, environment=environment)

    def wait_for_dashboard(self, fits: Callable[[screen.Dashboard], bool], limit_s: float = 10) -> screen.Dashboard:
        """Waits for a dashboard drawn from now on that fits."""
        drawn = len(screen.dashboards(self.out()))
        wait_until(lambda: any(map(fits, screen.dashboards(self.out())[drawn:])), "fitting dashboard", limit_s)
        return next(filter(fits, screen.dashboards(self.out())[drawn:]))

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

