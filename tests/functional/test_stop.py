"""A node is stopped at any moment under load, by a signal to any thread, while peers, clients or the disk hang: it
leaves within ten seconds, and the next start finds nothing to mend. NORVEL_STOP_CYCLES: stops under load."""

import contextlib
import ctypes
import os
import random
import shutil
import signal
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from typing import Callable, ContextManager, Iterator

import pytest

import raw_http
import raw_peer as p
import screen
from child_process import SLOW, Child, wait_until
from miner_process import Miner
from node_process import Node
from node_scenes import Stage
from stored_chain import chain
from wallet import MAIN

CYCLES = int(os.environ.get("NORVEL_STOP_CYCLES", "20"))
FAULT_LAYER = os.environ.get("NORVEL_FAULT_LAYER", "")
HEIGHT = 1000
STOP_S = 10
SIGNALS = [signal.SIGINT, signal.SIGTERM]
SYS_TGKILL = 234


def leaves(node: Node) -> None:
    """After a signal; one that came before anything was done has its default action."""
    status = node.running.end(STOP_S)
    assert status == 0 or (-status in SIGNALS and node.running.out() == ""), (status, node.running.err()[-2000:])
    assert not [name for name in os.listdir(node.directory) if name.endswith((".damaged", ".cut", "-needed"))]
    assert not any(word in node.running.err() for word in ("ERROR", "Rebuilding", " lost "))


@contextlib.contextmanager
def load(node: Node) -> Iterator[None]:
    """Calls and a peer's requests without a pause, whether the node is there or not."""
    ending = threading.Event()
    wanted = p.inventory(p.INV_BLOCK, [block.hash() for block in chain()[1:500]])

    def repeat() -> None:
        while not ending.wait(0.005):
            with contextlib.suppress(OSError, ValueError, AssertionError), p.RawPeer(node) as peer:
                peer.handshake().send(p.GETDATA, wanted)
                for method in ("getblocktemplate", "getutxos"):
                    node.rpc(method, {"address": MAIN.address})

    with ThreadPoolExecutor(3) as pool:
        for _ in range(3):
            pool.submit(repeat)
        try:
            yield
        finally:
            ending.set()


def test_any_moment_under_load(stage: Stage) -> None:
    source = stage.node(2, HEIGHT)
    node = stage.node(1, 0, "--connect", source.endpoint, starts=False)
    known, slowest_s = 0, 0.0
    with load(node):
        for cycle in range(CYCLES):
            os.makedirs(node.directory, exist_ok=True)  # a stop may come before the node makes it
            node.launch()
            time.sleep(random.random() * 0.5 * SLOW)
            if cycle % 2:
                wait_until(lambda: "Ready: height " in node.running.out(), "start", 20)
                assert node.height() >= known, "a stop lost blocks"
                known = node.height()
            start = time.monotonic()
            for _ in range(1 + cycle % 3):
                node.running.send(random.choice(SIGNALS))
                time.sleep(random.random() * 0.02)
            leaves(node)
            slowest_s = max(slowest_s, time.monotonic() - start)
            if known == HEIGHT:
                shutil.rmtree(node.directory)
                known = 0
    print(f"slowest of {CYCLES} stops: {slowest_s:.1f} s")


def signal_thread(child: Child, which: int, number: int) -> None:
    """`which` is an index, the main thread first."""
    process = child.process.pid
    threads = sorted(map(int, os.listdir(f"/proc/{process}/task")))
    assert ctypes.CDLL(None).syscall(SYS_TGKILL, process, threads[which], number) == 0


@pytest.mark.parametrize("which", [0, 1, -1])
def test_signals_to_one_thread(stage: Stage, which: int) -> None:
    with stage.node(1, 5) as node:
        for number in (signal.SIGHUP, signal.SIGPIPE, signal.SIGWINCH):
            signal_thread(node.running, which, number)
        with Miner("--address", MAIN.address, "--rpcport", node.rpc_port, "--threads", 2) as miner:
            wait_until(lambda: node.height() >= 7, "blocks", 30)
            signal_thread(miner, which, signal.SIGTERM)
            assert miner.end(STOP_S) == 0 and screen.CLOSING.search(miner.out())
        signal_thread(node.running, which, signal.SIGTERM)
        leaves(node)


@contextlib.contextmanager
def hanging_disk(node: Node) -> Iterator[None]:
    with open(node.environment["NORVEL_FAULT_MARK"], "wb") as mark, pytest.raises(OSError):
        node.rpc("submitblock", {"data": chain()[6].encode().hex()}, limit_s=0.5)  # waits for its sync
    yield
    os.remove(mark.name)


@contextlib.contextmanager
def hanging_peers(node: Node) -> Iterator[None]:
    """Who asks for much and reads nothing, and who never finishes a request."""
    with p.RawPeer(node) as peer, raw_http.open_stream(node.rpc_port) as client:
        with pytest.raises(OSError):
            peer.handshake().send_raw(p.frame(p.PING, bytes(p.PAYLOAD_MAX)) * 8, 1)
        client.sendall(b"POST / HTTP/1.1\r\nContent-Length: 9\r\n\r\n")
        yield


@pytest.mark.skipif(not FAULT_LAYER, reason="a sanitizer's runtime wants to be loaded first")
@pytest.mark.parametrize("hang", [hanging_disk, hanging_peers])
def test_while_something_hangs(stage: Stage, hang: Callable[[Node], ContextManager[None]]) -> None:
    node = stage.node(1, 5, starts=False)
    node.environment = {"LD_PRELOAD": FAULT_LAYER, "NORVEL_FAULT_KIND": "hang",
                        "NORVEL_FAULT_DIRECTORY": node.directory, "NORVEL_FAULT_MARK": node.directory + ".hang"}
    node.start()
    with hang(node):
        node.running.send(signal.SIGTERM)
        leaves(node)
    node.start()
    assert node.height() >= 5
    node.running.send(signal.SIGTERM)
    leaves(node)
