"""Watches a node while it is attacked: does it go on answering others, and stay within its bounds?"""

import threading
import time
from typing import Callable, Dict, List, Optional

from child_process import SLOW
from node_process import Node
from raw_peer import RawPeer

ANSWER_MAX_S = 2
MIB = 1 << 20
OBSERVER = "127.0.1.1"


class NodeWatch:
    """Inside the context a local getblockcount, and the observer's PING where there is one, are answered in time, again
    and again, and memory, threads and descriptors grow by no more than what is given.

    Threads: its own samples; the context's end joins it and raises what it saw.
    """

    def __init__(self, node: Node, memory_mib: float, threads: int, descriptors: int,
                 observer: Optional[RawPeer] = None) -> None:
        self._node = node
        self._most = {"bytes": node.memory_bytes() + memory_mib * MIB, "threads": node.thread_count() + threads,
                      "descriptors": node.descriptor_count() + descriptors}
        self._calls: Dict[str, Callable[[], object]] = {"getblockcount": node.height}
        if observer:
            self._calls["PING"] = lambda: observer.ping_s(30)
        self._faults: List[str] = []
        self._stopping = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)

    def __enter__(self) -> "NodeWatch":
        self._thread.start()
        return self

    def __exit__(self, kind: object, *_: object) -> None:
        self._stopping.set()
        self._thread.join(60 * SLOW)
        if kind is None:
            self._sample()  # as it is after the attack
            assert not self._faults, self._faults

    def _run(self) -> None:
        try:
            while not self._stopping.wait(0.02):
                self._sample()
        except Exception as error:  # pylint: disable=broad-except
            self._faults.append(repr(error))

    def _sample(self) -> None:
        for what, call in self._calls.items():
            start = time.monotonic()
            call()
            took = time.monotonic() - start
            if took > ANSWER_MAX_S * SLOW:
                self._faults.append(f"{what} took {took:.1f} s")
        now = {"bytes": self._node.memory_bytes(), "threads": self._node.thread_count(),
               "descriptors": self._node.descriptor_count()}
        self._faults += [f"{now[what]} {what}, {most} allowed" for what, most in self._most.items() if now[what] > most]


def beside_peers(node: Node, observer: RawPeer, attackers: int = 1) -> NodeWatch:
    """`attackers`: connections that the attack opens; each may cost 32 MiB beside a 10 MiB receive buffer."""
    sanitizers_mib = 768 if SLOW > 1 else 0  # what was freed is kept back, and every byte has shadows
    return NodeWatch(node, 42 * attackers + 48 + sanitizers_mib, 24, attackers + 24, observer)


def beside_clients(node: Node, memory_mib: int, connections: int = 256) -> NodeWatch:
    """`memory_mib`: growth allowed; a sanitizer's own is not bounded. `connections`: of the attack; as many again may
    have given way and be about to end."""
    return NodeWatch(node, memory_mib if SLOW == 1 else float("inf"), 2 * connections + 16, 2 * connections + 16)
