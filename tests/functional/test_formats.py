"""The Python side checks itself: the block checker notices each fault."""

import copy
import time
from typing import Any, Dict, List

from block_check import Served, check_block, wanted_coinbase
from norvel_formats import Block, Tx, hash_text, merkle_root, sha256d
from sample_transactions import KEY_A, KEY_B, sample_transactions
from stored_chain import BRANCHES, chain


def solved(block: Block) -> Block:
    block.merkle_root = merkle_root([sha256d(tx) for tx in block.txs])
    while not block.meets_target():
        block.nonce += 1
    return block


def good_block() -> "tuple[Block, Served]":
    fields: Dict[str, Any] = {"version": 3, "previousblockhash": hash_text(sha256d(b"tip")), "height": 0x01020304,
                              "bits": 0x207FFFFF, "curtime": int(time.time()), "prevblocktime": 5,
                              "miner_reward": 800_000_001, "total_fees": 20_001}
    served = Served(fields, [tx.encode() for tx in sample_transactions()[:4]], time.time())
    coinbase = wanted_coinbase(served, KEY_A, int(time.time()))
    block = Block(3, sha256d(b"tip"), b"", fields["curtime"], fields["bits"], 0, fields["height"],
                  [coinbase] + served.txs)
    return solved(block), served


SPOILERS = {
    "version": lambda b: setattr(b, "version", 4),
    "previous hash": lambda b: setattr(b, "prev_hash", sha256d(b"other")),
    "bits": lambda b: setattr(b, "bits", 0x207FFFFE),
    "height": lambda b: setattr(b, "height", 5),
    "header time": lambda b: setattr(b, "timestamp", b.timestamp - 60),
    "other transactions": lambda b: b.txs.append(b.txs.pop(1)),
    "coinbase time": lambda b: b.txs.__setitem__(0, b.txs[0][:5] + bytes(8) + b.txs[0][13:]),
    "coinbase": lambda b: b.txs.__setitem__(0, b.txs[0][:-1] + b"\1"),
}


def faults(block: Block, served: Served, key_hash: bytes = KEY_A) -> List[str]:
    return [problem.split(":")[0] for problem in check_block(block.encode(), served, key_hash)]


def test_the_block_check_accepts_the_exact_block_and_names_each_fault() -> None:
    good, served = good_block()
    assert faults(good, served) == []
    assert faults(good, served, KEY_B) == ["coinbase"]
    assert check_block(good.encode() + b"\0", served, KEY_A)[0].startswith("unreadable block")
    for what, spoil in SPOILERS.items():
        block = copy.deepcopy(good)
        spoil(block)
        assert [fault[:len(what)] for fault in faults(solved(block), served)] == [what]
    while good.meets_target():
        good.nonce += 1
    assert faults(good, served) == ["proof of work"]
    good.merkle_root = sha256d(b"not the root")
    assert "merkle root" in faults(good, served)


def test_transactions_read_back_as_they_were_written() -> None:
    for tx in sample_transactions():
        assert Tx.decode(tx.encode()) == tx


def test_the_stored_chains_are_whole() -> None:
    for name, branch in BRANCHES.items():
        blocks = chain(name)
        assert len(blocks) == branch.fork + branch.count + 1
        assert all(block.meets_target() for block in blocks)
