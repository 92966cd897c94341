"""Full check of a submitted block against the template that it was made from."""

import time
from dataclasses import dataclass
from typing import Any, Dict, List

from norvel_formats import (TREASURY_HASH, TX_COINBASE, Block, Tx, TxIn, TxOut, hash_text, le, merkle_root, p2pkh,
                            sha256d)

COINBASE_TEXT = b"Norvel Miner v10.1.0"


@dataclass
class Served:
    """A template as it left the node; `fields` is the JSON result, `txs` the bytes behind its "tx_data"."""

    fields: Dict[str, Any]
    txs: List[bytes]
    served_at: float


def as_u32(number: float) -> int:
    return min(max(int(number), 0), 2**32 - 1)


def as_i64(number: float) -> int:
    return min(max(int(number), -(2**63)), 2**63 - 1)


def template_time(fields: Dict[str, Any]) -> int:
    """Header time that a template asks for, in seconds."""
    after_parent = min(as_i64(fields["prevblocktime"]) + 1, 2**63 - 1)
    return max(after_parent, as_i64(fields["curtime"]), 0)


def check_block(data: bytes, served: Served, key_hash: bytes) -> List[str]:
    """Everything wrong with the block's bytes; an empty list when it is exactly as it should be."""
    try:
        block = Block.decode(data)
        coinbase_time = int.from_bytes(block.txs[0][5:13], "little")
    except (ValueError, IndexError) as error:
        return [f"unreadable block: {error}"]
    want = {
        "re-encoded bytes": (block.encode(), data),
        "height": (block.height, as_u32(served.fields["height"])),
        "version": (block.version, as_u32(served.fields["version"])),
        "previous hash": (hash_text(block.prev_hash), served.fields["previousblockhash"]),
        "bits": (block.bits, as_u32(served.fields["bits"])),
        "proof of work": (block.meets_target(), True),
        "merkle root": (block.merkle_root, merkle_root([sha256d(tx) for tx in block.txs])),
        "other transactions": (block.txs[1:], served.txs),
        "coinbase": (block.txs[0], wanted_coinbase(served, key_hash, coinbase_time)),
    }
    problems = [f"{what}: {got!r:.200} != {wanted!r:.200}" for what, (got, wanted) in want.items() if got != wanted]
    now = time.time()
    if block.timestamp != template_time(served.fields) and not served.served_at - 1 <= block.timestamp <= now + 1:
        problems.append(f"header time {block.timestamp}")
    if not served.served_at - 2 <= coinbase_time <= now + 1:
        problems.append(f"coinbase time {coinbase_time}")
    return problems


def wanted_coinbase(served: Served, key_hash: bytes, timestamp: int) -> bytes:
    """The only right coinbase bytes, but for the creation time."""
    fees = as_i64(served.fields["total_fees"])
    outputs = [TxOut(as_i64(served.fields["miner_reward"]), p2pkh(key_hash))]
    if fees >= 20_000:
        outputs.append(TxOut(fees // 2, p2pkh(TREASURY_HASH)))
    source = TxIn(signature=le(as_u32(served.fields["height"]), 4) + COINBASE_TEXT)
    return Tx([source], outputs, TX_COINBASE, timestamp=timestamp).encode()
