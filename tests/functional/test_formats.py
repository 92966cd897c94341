"""The Python side checks itself: published vectors, encode/decode, and a block checker that notices each fault."""

import copy
import time
from typing import Any, Callable, Dict, List

import pytest

from block_check import Served, check_block, wanted_coinbase
from norvel_formats import (Block, Tx, base58, compact_size, hash160, hash_text, htlc, merkle_root, sha256d,
                            target_of)
from sample_transactions import KEY_A, KEY_B, sample_transactions


def test_hashes_match_published_vectors() -> None:
    # RIPEMD-160(SHA-256) is that of the generator of secp256k1 (SEC 2) in compressed form; the Base58 texts are the
    # test vectors of the Internet draft draft-msporny-base58-03.
    generator = "0279be667ef9dcbbac55a06295ce870b07029bfcdb2dce28d959f2815b16f81798"
    assert sha256d(b"hello").hex() == "9595c9df90075148eb06860365df33584b75bff782a510c6cd4883a419833d50"
    assert sha256d(b"").hex() == "5df6e0e2761359d30a8275058e299fcc0381534545f55cf43e41983f5d4c9456"
    assert hash160(bytes.fromhex(generator)).hex() == "751e76e8199196d454941c45d1b3a323f1433bd6"
    assert base58(b"Hello World!") == "2NEpo7TZRRrLZSi2U"
    assert base58(bytes.fromhex("0000287fb4cd")) == "11233QC4"


def test_compact_forms_at_their_edges() -> None:
    assert [target_of(bits) for bits in (0x1D00FFFF, 0x03123456, 0x02123456, 0x00123456)] == [
        0xFFFF << 208, 0x123456, 0x1234, 0]
    assert [compact_size(n).hex() for n in (252, 253, 65535, 65536)] == ["fc", "fdfd00", "fdffff", "fe00000100"]
    a, b, c = sha256d(b"a"), sha256d(b"b"), sha256d(b"c")
    assert merkle_root([a]) == a
    assert merkle_root([a, b, c]) == sha256d(sha256d(a + b) + sha256d(c + c))


def test_every_transaction_form_survives_decoding_and_none_may_be_cut() -> None:
    for tx in sample_transactions():
        data = tx.encode()
        assert Tx.decode(data) == tx
        for bad in (data[:-1], data + b"\0", b""):
            with pytest.raises(ValueError):
                Tx.decode(bad)
    assert len(Tx().encode()) == 21
    assert len(htlc(KEY_A, KEY_B, bytes(32), 1)) == 95


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


def with_coinbase(change: Callable[[Tx], None]) -> Callable[[Block], None]:
    def apply(block: Block) -> None:
        coinbase = Tx.decode(block.txs[0])
        change(coinbase)
        block.txs[0] = coinbase.encode()
    return apply


SPOILERS = {
    "version": lambda b: setattr(b, "version", 4),
    "previous hash": lambda b: setattr(b, "prev_hash", sha256d(b"other")),
    "bits": lambda b: setattr(b, "bits", 0x207FFFFE),
    "height": lambda b: setattr(b, "height", 5),
    "header time": lambda b: setattr(b, "timestamp", b.timestamp - 60),
    "other transactions": lambda b: b.txs.append(b.txs.pop(1)),
    "coinbase time": with_coinbase(lambda tx: setattr(tx, "timestamp", tx.timestamp - 60)),
    "coinbase": with_coinbase(lambda tx: setattr(tx.outputs[1], "value", tx.outputs[1].value - 1)),
}


def test_the_block_check_accepts_the_exact_block_and_names_each_fault() -> None:
    good, served = good_block()
    assert check_block(good.encode(), served, KEY_A) == []
    assert [p.split(":")[0] for p in check_block(good.encode(), served, KEY_B)] == ["coinbase"]
    assert check_block(good.encode() + b"\0", served, KEY_A)[0].startswith("unreadable block")
    for what, spoil in SPOILERS.items():
        block = copy.deepcopy(good)
        spoil(block)
        problems = check_block(solved(block).encode(), served, KEY_A)
        assert len(problems) == 1 and problems[0].startswith(what), (what, problems)


def test_the_block_check_notices_missing_work_and_a_wrong_root() -> None:
    good, served = good_block()
    good.merkle_root = sha256d(b"not the root")
    names: List[str] = [p.split(":")[0] for p in check_block(good.encode(), served, KEY_A)]
    assert "merkle root" in names
    good, served = good_block()
    while good.meets_target():
        good.nonce += 1
    assert [p.split(":")[0] for p in check_block(good.encode(), served, KEY_A)] == ["proof of work"]
