"""What several tests of nodes do: prepared data directories, and blocks made from a node's template."""

import os
import tempfile
import time
from contextlib import ExitStack
from typing import Any, Dict, List, Sequence

from block_check import Served, wanted_coinbase
from header_solver import HeaderSolver
from node_process import FIXED_DIFFICULTY, Node, scratch_root
from norvel_formats import Block, hash_text, merkle_root, sha256d
from raw_peer import ServingPeer
from stand_in_node import MINER_ADDRESS
from stored_chain import Key, chain


class Stage:
    """Nodes of the stored chain; leaving the context kills and removes them all."""

    def __init__(self) -> None:
        self._stack = ExitStack()
        self._prepared: Dict[int, str] = {}
        self.solver = self._stack.enter_context(HeaderSolver())

    def __enter__(self) -> "Stage":
        return self

    def __exit__(self, *_: object) -> None:
        self._stack.close()

    def directory_at(self, height: int) -> str:
        """A data directory whose tip is the main chain's block at `height`; to be copied."""
        if height not in self._prepared:
            root = self._stack.enter_context(tempfile.TemporaryDirectory(prefix="norvel-", dir=scratch_root()))
            with Node(*FIXED_DIFFICULTY) as node:
                serve(node, chain()[: height + 1])
                node.stop()
                os.remove(os.path.join(node.directory, "peers.dat"))
                self._prepared[height] = os.path.join(root, "node")
                os.rename(node.directory, self._prepared[height])
        return self._prepared[height]

    def node(self, last_octet: int, height: int, *options: object, starts: bool = True) -> Node:
        """A node on 127.0.0.`last_octet` with the main chain up to `height`."""
        copy_of = self.directory_at(height) if height > 0 else None
        node = Node(*FIXED_DIFFICULTY, *options, address=f"127.0.0.{last_octet}", copy_of=copy_of)
        self._stack.callback(node.__exit__)
        return node.start() if starts else node

    def mine_on(self, node: Node, payee: Key) -> Block:
        """Completes the node's template for `payee`, finds its nonce and submits it."""
        block = block_of(node.rpc("getblocktemplate", {"address": payee.address}), payee)
        node.submit(self.solver.solve(block))
        return block


def serve(node: Node, blocks: Sequence[Block]) -> None:
    """Brings the node to the last of `blocks`, genesis first, through a peer of ours."""
    with ServingPeer(node, blocks):
        node.wait_for_tip(blocks[-1], 60)


def block_of(template: Dict[str, Any], payee: Key) -> Block:
    """The unsolved block that a miner makes of a template."""
    txs = [bytes.fromhex(tx) for tx in template["tx_data"]]
    now = int(time.time())
    body = [wanted_coinbase(Served(template, txs, now), payee.key_hash, now), *txs]
    stamp = max(int(template["curtime"]), int(template["prevblocktime"]) + 1)
    parent = bytes.fromhex(template["previousblockhash"])[::-1]
    root = merkle_root([sha256d(tx) for tx in body])
    return Block(int(template["version"]), parent, root, stamp, int(template["bits"]), 0, int(template["height"]), body)


def txids_of(block: Block) -> List[str]:
    return [hash_text(sha256d(tx)) for tx in block.txs]


def has_in_template(node: Node, txid: str) -> bool:
    template = node.rpc("getblocktemplate", {"address": MINER_ADDRESS})
    return txid in [tx["txid"] for tx in template["transactions"]]
