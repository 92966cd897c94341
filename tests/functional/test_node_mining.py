"""Miner, node and CLI together: blocks of real difficulty, payments of every form in them, a node that is killed."""

import json
import os
import time
from typing import Any, Dict, Tuple

import pytest

import wallet
from chain_reader import next_bits, read_chain
from child_process import wait_until
from cli_process import cli, run_cli
from miner_process import Miner
from node_process import FIXED_DIFFICULTY, Node
from norvel_formats import TX_HTLC, Tx, hash_text, sha256d
from raw_http import RpcError
from stored_chain import Key
from wallet import MAIN

INTERVAL, SPACING_S = 10, 10
BLOCKS = 60
COIN = 100_000_000
NOTE = "Grüße an Bob \u2713"
PREIMAGE = b"a secret of 32 bytes or any other"


def miner_for(node: Node, key: Key) -> Miner:
    return Miner("--address", key.address, "--rpcport", node.rpc_port, "--threads", 2)


def new_key(node: Node, name: str) -> Tuple[str, Key]:
    """A key file made by the CLI, and what it holds."""
    path = os.path.join(node.directory, name)
    address = cli(node, "newkey", path)
    assert os.stat(path).st_mode & 0o777 == 0o600
    key = wallet.read_key_file(path)
    assert address.split()[-1] == key.address and run_cli("validateaddress", key.address)[0] == 0
    return path, key


def wait_mined(node: Node, txid: str) -> Dict[str, object]:
    def is_mined() -> bool:
        try:
            return bool(node.rpc("gettransaction", txid)["confirmations"] >= 1)
        except RpcError:
            return False

    wait_until(is_mined, f"confirmation of {txid[:16]}", 60)
    return dict(node.rpc("gettransaction", txid))


def send(node: Node, tx: bytes) -> Dict[str, object]:
    """Sends, waits in the pool or block, and returns what the node tells of the mined transaction."""
    assert node.rpc("sendrawtransaction", {"hex": tx.hex()}) == {"accepted": True, "txid": wallet.txid(tx)}
    return wait_mined(node, wallet.txid(tx))


def at_one_height(node: Node, first: str, second: str, params: object) -> "tuple[Any, Any]":
    """The answers of two methods between which no block came."""
    for _ in range(20):
        height = node.height()
        answers = node.rpc(first, params), node.rpc(second, params)
        if node.height() == height:
            return answers
    raise AssertionError("blocks come without a pause")


def check_visible(node: Node, txid: str, *keys: Key) -> None:
    """A mined transaction, as every method shows it that can."""
    shown = node.rpc("gettransaction", txid)
    raw = bytes.fromhex(shown["hex"])
    assert wallet.txid(raw) == txid == shown["txid"]
    assert node.rpc("getblockhash", shown["blockheight"]) == shown["blockhash"]
    block = node.rpc("getblock", shown["blockhash"])
    assert txid in block["tx"] and block["height"] == shown["blockheight"]
    assert txid not in node.rpc("getrawmempool")
    answer = node.rpc("getrawtransaction", txid)
    assert raw.hex() == (answer if isinstance(answer, str) else answer["hex"])
    for key in keys:
        listed = {row["txid"]: row for row in node.rpc("listtransactions", key.address, 1000)}
        assert listed[txid]["blockhash"] == shown["blockhash"] and listed[txid]["hex"] == raw.hex()
        unspent, info = at_one_height(node, "getutxos", "getaddressinfo", {"address": key.address})
        assert info["utxo_count"] == len(unspent)


def check_payments(node: Node, alice_file: str, alice: Key, bob_file: str, bob: Key) -> None:
    first = cli(node, "send", alice_file, bob.address, "2.5").split()[-1]
    wait_mined(node, first)
    check_visible(node, first, alice, bob)
    status, _, err = run_cli("--rpcport", node.rpc_port, "--datadir", node.directory, "send", alice_file, bob.address,
                             "0.1", "--message", NOTE)
    assert status == 1 and "public key" in err.lower(), err  # he has not yet shown his key
    back = cli(node, "send", bob_file, alice.address, "1").split()[-1]
    wait_mined(node, back)
    check_visible(node, back, alice, bob)
    noted = cli(node, "send", alice_file, bob.address, "0.25", "--fee", "0.01", "--message", NOTE).split()[-1]
    shown = wait_mined(node, noted)
    check_visible(node, noted, alice, bob)
    raw = bytes.fromhex(str(shown["hex"]))
    assert shown["fee_satoshis"] == COIN // 100
    assert NOTE in wallet.notes(bob, raw) and NOTE not in wallet.notes(alice, raw)
    assert NOTE.encode() not in raw


def check_contracts(node: Node, alice: Key, bob: Key) -> None:
    lock_time = node.height() + 12
    claimed = wallet.lock(alice, bob, 3 * COIN, PREIMAGE, lock_time, wallet.outputs_of(node, alice)[:4])
    send(node, claimed)
    refunded = wallet.lock(alice, bob, 2 * COIN, PREIMAGE, lock_time, wallet.outputs_of(node, alice)[:4])
    send(node, refunded)
    for tx in (claimed, refunded):
        assert Tx.decode(tx).type == TX_HTLC
        check_visible(node, wallet.txid(tx), alice)
    early = wallet.refund(alice, lock_time, refunded)
    with pytest.raises(RpcError):
        node.rpc("sendrawtransaction", {"hex": early.hex()})
    claim = wallet.claim(bob, PREIMAGE, claimed)
    send(node, claim)
    check_visible(node, wallet.txid(claim), bob)
    wait_until(lambda: node.height() > lock_time, "lock time", 60)
    refund = wallet.refund(alice, lock_time, refunded)
    assert int(str(send(node, refund)["blockheight"])) > lock_time
    check_visible(node, wallet.txid(refund), alice)
    with pytest.raises(RpcError):
        node.rpc("sendrawtransaction", {"hex": wallet.claim(bob, PREIMAGE, refunded).hex()})


def check_chain(node: Node, miner_key: Key) -> None:
    """Every block carries the right bits, adjusted at each interval, and pays the miner."""
    blocks = read_chain(node)
    for block in blocks[1:]:
        assert block.bits == next_bits(blocks[: block.height], INTERVAL, SPACING_S), block.height
        assert Tx.decode(block.txs[0]).outputs[0].script[3:23] == miner_key.key_hash
        shown = node.rpc("getblock", hash_text(block.hash()))
        assert shown["tx"] == [hash_text(sha256d(tx)) for tx in block.txs]
    assert len({block.bits for block in blocks}) > BLOCKS // INTERVAL - 2
    assert json.loads(cli(node, "getblockcount")) == blocks[-1].height


def test_sixty_blocks_with_payments_notes_and_contracts() -> None:
    with Node("--retarget-interval", INTERVAL, "--target-spacing", SPACING_S) as node:
        (alice_file, alice), (bob_file, bob) = new_key(node, "alice.key"), new_key(node, "bob.key")
        with miner_for(node, alice) as miner:
            wait_until(lambda: node.height() >= 3, "height 3", 30)
            check_payments(node, alice_file, alice, bob_file, bob)
            check_contracts(node, alice, bob)
            wait_until(lambda: node.height() >= BLOCKS, f"height {BLOCKS}", 120)
            miner.stop()
            assert miner.err() == ""
        check_chain(node, alice)
        node.stop()


def test_the_miner_outlives_its_node() -> None:
    with Node(*FIXED_DIFFICULTY, "--no-listen") as node, miner_for(node, MAIN) as miner:
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
