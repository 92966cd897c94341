"""Chains of empty blocks, mined once: of each block only the nonce is stored, the rest follows from its height.

Blocks stand ten seconds apart, the first ten seconds after genesis, all with the easiest allowed target; so a node
takes them when its retarget interval is longer than the chain. `mine_stored_chains.py` makes the files.
"""

import os
from dataclasses import dataclass
from functools import lru_cache
from typing import Callable, List, Optional, Sequence, Tuple

from norvel_formats import NULL_HASH, TX_COINBASE, Block, Tx, TxIn, TxOut, address_of, le, merkle_root, p2pkh, sha256d

DIRECTORY = os.path.join(os.path.dirname(os.path.abspath(__file__)), "chains")
GENESIS_TIME = 1_704_067_200
SPACING_S = 10
EASIEST_BITS = 0x1E0FFFFF
SUBSIDY = 800_000_000


@dataclass(frozen=True)
class Key:
    private: bytes
    key_hash: bytes

    @property
    def address(self) -> str:
        return address_of(self.key_hash)


@dataclass(frozen=True)
class Branch:
    """`count` blocks paid to `payee` on top of height `fork` of the main chain."""

    payee: Key
    fork: int
    count: int


def _key(seed: int, key_hash: str) -> Key:
    return Key(bytes([seed]) * 32, bytes.fromhex(key_hash))


BRANCHES = {
    "main": Branch(_key(1, "79b000887626b294a914501a4cd226b58b235983"), 0, 2000),
    "left": Branch(_key(2, "ebc0ee0b2ab9e8277a600c251475e22a3241a1c1"), 600, 510),
    "right": Branch(_key(3, "417d4be90d35363267b8f2afafc9531111c41ae4"), 600, 520),
    "low": Branch(_key(4, "888dbbd7998f9f80d4f82b4f9ce6d5882f310aec"), 5, 520),
}


def coinbase(height: int, key_hash: bytes, timestamp: int, message: bytes = b"") -> bytes:
    source = TxIn(signature=le(height, 4) + message)
    return Tx([source], [TxOut(SUBSIDY, p2pkh(key_hash))], TX_COINBASE, timestamp=timestamp).encode()


def genesis() -> Block:
    payee = bytes.fromhex("62e907b15cbf27d5425399ebf6f0fb50ebb88f18")
    tx = coinbase(0, payee, GENESIS_TIME, b"Norvel: half of every fee belongs to those who keep the chain")
    return Block(1, NULL_HASH, sha256d(tx), GENESIS_TIME, 0x207FFFFF, 2, 0, [tx])


def child(parent: Block, key_hash: bytes, nonce: int = 0, txs: Sequence[bytes] = ()) -> Block:
    """A block on `parent` as the stored chains have it; the fees of `txs` must be below what the treasury shares."""
    height = parent.height + 1
    time = GENESIS_TIME + SPACING_S * height
    body = [coinbase(height, key_hash, time), *txs]
    root = merkle_root([sha256d(tx) for tx in body])
    return Block(1, parent.hash(), root, time, EASIEST_BITS, nonce, height, body)


def path_of(name: str) -> str:
    return os.path.join(DIRECTORY, name + ".nonces")


def read_nonces(name: str) -> List[int]:
    with open(path_of(name), encoding="ascii") as file:
        return [int(line, 16) for line in file]


@lru_cache(None)
def chain(name: str = "main") -> Tuple[Block, ...]:
    """Blocks by height, genesis first, up to the end of the branch."""
    branch = BRANCHES[name]
    blocks = [genesis()] if branch.fork == 0 else list(chain()[: branch.fork + 1])
    for nonce in read_nonces(name):
        blocks.append(child(blocks[-1], branch.payee.key_hash, nonce))
    return tuple(blocks)
