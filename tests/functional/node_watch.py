"""Watches a node while it is attacked: does it go on answering others, and stay within its bounds?"""

import threading
import time
from typing import List

import raw_http
from child_process import SLOW
from node_process import Node
from raw_peer import RawPeer

ANSWER_MAX_S = 2
MIB = 1 << 20
OBSERVER = "127.0.1.1"
SANITIZERS_MIB = 768 if SLOW > 1 else 0  # what was freed is kept back, and every byte has shadows


class NodeWatch:
    """Inside the context a second peer's PING and a local getblockcount are answered in time, again and again, and
    memory, threads and descriptors grow by no more than a stated number.

    Threads: its own samples; the context's end joins it and raises what it saw.
    """

    def __init__(self, node: Node, attackers: int = 1) -> None:
        """`attackers`: connections that the attack opens; each may cost 32 MiB beside a 10 MiB receive buffer."""
        self.observer = RawPeer(node, OBSERVER).handshake()
        self._node = node
        self._memory_max = node.memory_bytes() + (42 * attackers + 48 + SANITIZERS_MIB) * MIB
        self._threads_max = node.thread_count() + 24  # dials, calls of this watch
        self._descriptors_max = node.descriptor_count() + attackers + 24
        self._faults: List[str] = []
        self._stopping = False
        self._thread = threading.Thread(target=self._run, daemon=True)

    def __enter__(self) -> "NodeWatch":
        self._thread.start()
        return self

    def __exit__(self, kind: object, *_: object) -> None:
        self._stopping = True
        self._thread.join(60 * SLOW)
        if kind is None:
            assert not self._faults, self._faults

    def _run(self) -> None:
        try:
            while True:
                stopping = self._stopping
                self._sample()
                if stopping:  # so the last sample is one of after the attack
                    return
                time.sleep(0.05)
        except Exception as error:  # pylint: disable=broad-except
            self._faults.append(repr(error))

    def _sample(self) -> None:
        start = time.monotonic()
        raw_http.call(self._node.rpc_port, "getblockcount", [])
        seconds = {"getblockcount": time.monotonic() - start, "PING": self.observer.ping_s(30)}
        self._faults += [f"{what} took {took:.1f} s" for what, took in seconds.items() if took > ANSWER_MAX_S * SLOW]
        limits = [("bytes", self._node.memory_bytes(), self._memory_max),
                  ("threads", self._node.thread_count(), self._threads_max),
                  ("descriptors", self._node.descriptor_count(), self._descriptors_max)]
        self._faults += [f"{value} {what}, {most} allowed" for what, value, most in limits if value > most]
