"""The wall clock of one machine jumps by a day, both ways, while its node, its miner and a peer elsewhere run."""

import os
import signal
import tempfile
import time
from typing import List

import pytest

from child_process import wait_until
from miner_process import Miner
from node_process import Node
from node_scenes import Stage
from node_watch import OBSERVER, beside_peers
from raw_peer import RawPeer
from wallet import LEFT, MAIN

LAYER = os.environ.get("NORVEL_CLOCK_LAYER", "")
DAY_S = 86_400
TIMEOUTS_S = 11  # a pass of the node's time-outs and somewhat more

pytestmark = pytest.mark.skipif(not LAYER, reason="a sanitizer's runtime wants to be loaded first")


def grows(node: Node) -> None:
    height = node.height() + 3
    wait_until(lambda: node.height() >= height, f"height {height} at {node.endpoint}", 60)


def test_a_day_both_ways() -> None:
    clock = tempfile.NamedTemporaryFile()
    shifted = {"LD_PRELOAD": LAYER, "NORVEL_CLOCK_FILE": clock.name}

    def jump(offset_s: int) -> None:
        os.pwrite(clock.fileno(), offset_s.to_bytes(8, "little", signed=True), 0)

    def one_tip() -> bool:
        return here.tip() == there.tip()

    def refuses_the_future(node: Node) -> bool:
        return "Block timestamp too far in the future" in node.running.err()

    def connections() -> List[str]:
        return sorted(peer["addr"] for node in (here, there) for peer in node.peers())

    jump(0)
    with Stage() as stage:
        here, there = stage.node(1, 5, starts=False), stage.node(2, 5)
        here.environment = shifted
        here.start("--connect", there.endpoint)
        here.wait_for_peers(1)
        miner = Miner("--address", MAIN.address, "--rpcport", here.rpc_port, "--threads", 1, environment=shifted)
        with miner, beside_peers(here, RawPeer(here, OBSERVER).handshake()):
            grows(there)
            before = connections()
            jump(-DAY_S)
            grows(there)  # no rule asks that a block be later than its parent
            miner.send(signal.SIGSTOP)
            wait_until(one_tip, "common tip")
            stage.mine_on(there, LEFT)  # a day ahead of the clock here
            wait_until(lambda: refuses_the_future(here), "refusal")
            time.sleep(TIMEOUTS_S)
            assert not one_tip()
            miner.send(signal.SIGCONT)
            grows(here)
            wait_until(one_tip, "common tip")  # the heavier branch

            jump(DAY_S)
            grows(here)
            miner.send(signal.SIGSTOP)
            wait_until(lambda: refuses_the_future(there), "refusal")
            time.sleep(TIMEOUTS_S)
            assert there.height() < here.height()

            jump(0)
            while there.height() <= here.height():
                stage.mine_on(there, LEFT)
            wait_until(one_tip, "heavier branch")
            miner.send(signal.SIGCONT)
            grows(there)
            assert connections() == before
            miner.stop()
            wait_until(one_tip, "common tip")
        for node in (here, there):
            node.stop()
