"""The Python side checks itself: the block checker notices each fault."""

import copy
import time
from typing import Any, Callable, Dict, List

from block_check import Served, check_block, wanted_coinbase
from norvel_formats import Block, hash_text, merkle_root, sha256d
from sample_transactions import KEY_A, KEY_B, sample_transactions


def solved(block: Block) -> Block:
    block.merkle_root = merkle_root([sha256d(tx) for tx in block.txs])
    while not block.meets_target():
        block.nonce += 1
    return block


def test_the_block_check_accepts_the_exact_block_and_names_each_fault() -> None:
    fields: Dict[str, Any] = {"version": 3, "previousblockhash": hash_text(sha256d(b"tip")), "height": 0x01020304,
                              "bits": 0x207FFFFF, "curtime": int(time.time()), "prevblocktime": 5,
                              "miner_reward": 800_000_001, "total_fees": 20_001}
    served = Served(fields, [tx.encode() for tx in sample_transactions()[:4]], time.time())
    good = solved(Block(3, sha256d(b"tip"), b"", fields["curtime"], fields["bits"], 0, fields["height"],
                        [wanted_coinbase(served, KEY_A, int(time.time())), *served.txs]))

    def faults(block: Block, key_hash: bytes = KEY_A) -> List[str]:
        return [problem.split(":")[0] for problem in check_block(block.encode(), served, key_hash)]

    assert faults(good) == []
    assert faults(good, KEY_B) == ["coinbase"]
    assert check_block(good.encode() + b"\0", served, KEY_A)[0].startswith("unreadable block")
    spoilers: Dict[str, Callable[[Block], object]] = {
        "version": lambda b: setattr(b, "version", 4),
        "previous hash": lambda b: setattr(b, "prev_hash", sha256d(b"other")),
        "bits": lambda b: setattr(b, "bits", 0x207FFFFE),
        "height": lambda b: setattr(b, "height", 5),
        "header time": lambda b: setattr(b, "timestamp", b.timestamp - 60),
        "other transactions": lambda b: b.txs.append(b.txs.pop(1)),
        "coinbase time": lambda b: b.txs.__setitem__(0, b.txs[0][:5] + bytes(8) + b.txs[0][13:]),
        "coinbase": lambda b: b.txs.__setitem__(0, b.txs[0][:-1] + b"\1"),
    }
    for what, spoil in spoilers.items():
        block = copy.deepcopy(good)
        spoil(block)
        assert [fault[:len(what)] for fault in faults(solved(block))] == [what]
    while good.meets_target():
        good.nonce += 1
    assert faults(good) == ["proof of work"]
    good.merkle_root = sha256d(b"not the root")
    assert "merkle root" in faults(good)
