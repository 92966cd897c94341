"""Miner, node and CLI together: blocks of real difficulty, payments and notes in them, a node that is killed."""

import json
import os
import time
from typing import Dict, Tuple

from child_process import wait_until
from cli_process import cli, run_cli
from miner_process import Miner
from node_process import FIXED_DIFFICULTY, Node
from norvel_formats import address_of, hash160
from raw_http import RpcError
from wallet import MAIN

INTERVAL, SPACING_S = 10, 10
BLOCKS = 60
COIN = 100_000_000
NOTE = "Grüße an Bob \u2713"


def miner_for(node: Node, address: str) -> Miner:
    return Miner("--address", address, "--rpcport", node.rpc_port, "--threads", 2)


def new_key(node: Node, name: str) -> Tuple[str, str]:
    """A key file made by the CLI, and its address."""
    path = os.path.join(node.directory, name)
    address = cli(node, "newkey", path)
    assert os.stat(path).st_mode & 0o777 == 0o600
    with open(path, encoding="ascii") as file:
        public = next(line.split()[-1] for line in file if line.startswith("public"))
    assert address.split()[-1] == address_of(hash160(bytes.fromhex(public)))
    return path, address.split()[-1]


def mined(node: Node, tx: str) -> Dict[str, object]:
    """What the node tells of a transaction once it is in a block."""
    def is_mined() -> bool:
        try:
            return bool(node.rpc("gettransaction", tx)["confirmations"] >= 1)
        except RpcError:
            return False

    wait_until(is_mined, f"confirmation of {tx[:16]}", 60)
    shown = dict(node.rpc("gettransaction", tx))
    assert tx in node.rpc("getblock", shown["blockhash"])["tx"] and tx not in node.rpc("getrawmempool")
    return shown


def check_payments(node: Node, alice_file: str, alice: str, bob_file: str, bob: str) -> None:
    mined(node, cli(node, "send", alice_file, bob, "2.5").split()[-1])
    status, _, err = run_cli("--rpcport", node.rpc_port, "--datadir", node.directory, "send", alice_file, bob,
                             "0.1", "--message", NOTE)
    assert status == 1 and "public key" in err.lower(), err  # he has not yet shown his key
    mined(node, cli(node, "send", bob_file, alice, "1").split()[-1])
    shown = mined(node, cli(node, "send", alice_file, bob, "0.25", "--fee", "0.01", "--message",
                            NOTE).split()[-1])
    raw = bytes.fromhex(str(shown["hex"]))
    assert shown["fee_satoshis"] == COIN // 100
    assert shown["message"] and NOTE.encode() not in raw


def check_chain(node: Node, payee: str) -> None:
    """Blocks carry other bits after each interval and only there, and all pay the miner."""
    height = node.height()
    blocks = [node.rpc("getblock", node.rpc("getblockhash", at)) for at in range(height + 1)]
    changes = [at for at in range(2, height + 1) if blocks[at]["bits"] != blocks[at - 1]["bits"]]
    assert len(changes) >= BLOCKS // INTERVAL - 3 and not any(at % INTERVAL for at in changes), changes
    assert {row["blockheight"] for row in node.rpc("listtransactions", payee, 1000)
            if row["type"] == "coinbase"} == set(range(1, height + 1))
    assert json.loads(cli(node, "getblockcount")) == height


def test_sixty_blocks_with_payments_and_notes() -> None:
    with Node("--retarget-interval", INTERVAL, "--target-spacing", SPACING_S) as node:
        (alice_file, alice), (bob_file, bob) = new_key(node, "alice.key"), new_key(node, "bob.key")
        with miner_for(node, alice) as miner:
            wait_until(lambda: node.height() >= 3, "height 3", 30)
            check_payments(node, alice_file, alice, bob_file, bob)
            wait_until(lambda: node.height() >= BLOCKS, f"height {BLOCKS}", 120)
            miner.stop()
            assert miner.err() == ""
        check_chain(node, alice)
        node.stop()


def test_the_miner_outlives_its_node() -> None:
    with Node(*FIXED_DIFFICULTY, "--no-listen") as node, miner_for(node, MAIN.address) as miner:
        for _ in range(3):
            height = node.height()
            wait_until(lambda height=height: node.height() >= height + 3, "blocks", 30)
            known = node.height()
            node.kill()
            time.sleep(1)
            node.start()
            assert node.height() >= known
        height = node.height()
        wait_until(lambda: node.height() >= height + 3, "blocks after the last start", 30)
        miner.stop()
        node.stop()
