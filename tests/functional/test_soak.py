"""Three nodes and two miners for NORVEL_SOAK_MINUTES (60), with random kills, broken lines and payments.

At the end there is one chain, each node's state is the one that its block files give, and memory is flat. The seed is
printed and may be set by NORVEL_SOAK_SEED; figures are printed, so run it with `ctest -L soak -V`.
"""

import os
import random
import signal
import time
from contextlib import ExitStack
from typing import Callable, Dict, List

from child_process import wait_until
from cli_process import cli, run_cli
from forwarder import Forwarder
from miner_process import Miner
from node_process import Node

MINUTES = float(os.environ.get("NORVEL_SOAK_MINUTES", "60"))
SEED = int(os.environ.get("NORVEL_SOAK_SEED", str(random.randrange(1 << 32))))
MIB = 1 << 20
GROWTH_MAX_MIB = 48  # of the node that is never stopped, from a sixth of the time on
COIN = 100_000_000


class Soak:
    """Nodes 0 and 1 are mined on and killed, node 2 lives through it all; every line can break."""

    def __init__(self, stack: ExitStack) -> None:
        self._random = random.Random(SEED)
        self.counts: Dict[str, int] = {}
        self.nodes: List[Node] = []
        self.lines: List[Forwarder] = []
        for number in range(3):
            options: List[object] = []
            for earlier in self.nodes:
                line = Forwarder((earlier.address, earlier.port))
                stack.callback(line.close)
                self.lines.append(line)
                options += ["--connect", line.endpoint]
            self.nodes.append(stack.enter_context(Node(*options, address=f"127.0.0.{number + 1}")))
        self.keys = [os.path.join(node.directory, "soak-key") for node in self.nodes]
        self.addresses = [cli(node, "newkey", key).split()[-1] for node, key in zip(self.nodes, self.keys)]
        self.miners = [stack.enter_context(self._miner(number)) for number in range(2)]
        for node, address in zip(self.nodes, self.addresses[:2]):
            wait_until(lambda n=node, a=address: n.rpc("getaddressinfo", {"address": a})["utxo_count"], "first coin", 120)

    def _miner(self, number: int) -> Miner:
        """Behind everything else, as nodes have to keep their times."""
        miner = Miner("--address", self.addresses[number], "--rpcport", self.nodes[number].rpc_port, "--threads", 1)
        os.setpriority(os.PRIO_PROCESS, miner.process.pid, 19)
        return miner

    def run_for(self, seconds: float, watch: Callable[[], None]) -> None:
        """One event after the other; `watch` is called between them."""
        events = [self._kill, self._restart, self._partition, self._pay, self._pay, self._pay]
        until = time.monotonic() + seconds
        while time.monotonic() < until:
            event = self._random.choice(events)
            event()
            self.counts[event.__name__] = self.counts.get(event.__name__, 0) + 1
            watch()
            time.sleep(self._random.uniform(1, 8))

    def _kill(self) -> None:
        node = self._random.choice(self.nodes[:2])
        node.kill()
        time.sleep(self._random.uniform(0, 2))
        node.start(limit_s=60)

    def _restart(self) -> None:
        node = self._random.choice(self.nodes[:2])
        node.stop(self._random.choice([signal.SIGINT, signal.SIGTERM]))
        node.start(limit_s=60)

    def _partition(self) -> None:
        lines = self._random.sample(self.lines, self._random.choice([1, 2, 3]))
        for line in lines:
            line.cut()
        time.sleep(self._random.uniform(1, 30))
        for line in lines:
            line.mend()

    def _pay(self) -> None:
        """May be refused: the chain under the payment may just have changed, or its coins be unripe."""
        source, target = self._random.sample(range(3), 2)
        node = self.nodes[source]
        status, out, err = run_cli("--rpcport", node.rpc_port, "--datadir", node.directory, "send", self.keys[source],
                                   self.addresses[target], f"{self._random.randrange(1, 4 * COIN) / COIN:.8f}")
        assert status in (0, 1), (status, out, err)
        self.counts["paid" if status == 0 else "refused"] = self.counts.get("paid" if status == 0 else "refused", 0) + 1


def check_replay(node: Node, addresses: List[str]) -> None:
    """The stopped node's files are sound, and from its block files alone comes the state that it had."""
    assert node.launch("--check").end(300) == 0, node.running.out()
    stored = state_of(node.start(limit_s=120), addresses)
    node.stop()
    assert state_of(node.start("--rebuild", limit_s=300), addresses) == stored
    node.stop()


def state_of(node: Node, addresses: List[str]) -> List[object]:
    return [node.tip(), node.rpc("getnodestatus")["treasury_balance"], *(node.rpc("getaddressinfo", {"address": one}) for one in addresses),
            *(node.rpc("getutxos", {"address": one}) for one in addresses)]


def test_one_chain_and_flat_memory_after_all() -> None:
    print(f"\nsoak: {MINUTES:g} minutes, seed {SEED}")
    with ExitStack() as stack:
        soak = Soak(stack)
        survivor = soak.nodes[2]
        samples: List[float] = []
        soak.run_for(MINUTES * 60, lambda: samples.append(survivor.memory_bytes() / MIB))
        for miner in soak.miners:
            miner.stop(limit_s=8)
            assert miner.err().count("\n") < 20_000
        assert survivor.running.process.poll() is None
        tips = {node.tip() for node in soak.nodes}
        wait_until(lambda: len({node.tip() for node in soak.nodes}) == 1, "one chain", 300)
        height = survivor.height()
        early, late = max(samples[: len(samples) // 6 + 1]), max(samples)
        print(f"soak: events {soak.counts}, {len(tips)} tips at the end became one at height {height}; memory of the "
              f"node that ran through: {early:.0f} MiB at most in the first sixth, {late:.0f} MiB in all; threads "
              f"{survivor.thread_count()}, descriptors {survivor.descriptor_count()}")
        assert height > MINUTES and late - early < GROWTH_MAX_MIB
        for node in soak.nodes:
            node.stop()
        for node in soak.nodes:
            check_replay(node, soak.addresses)
