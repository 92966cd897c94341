"""Chains of empty blocks, mined once: of each block only the nonce is stored, the rest follows from its height.

Blocks stand ten seconds apart, the first ten seconds after genesis, all with the easiest allowed target; so a node
takes them when its retarget interval is longer than the chain. `mine_stored_chains.py` makes the files.
"""

import os
from dataclasses import dataclass
from functools import lru_cache
from typing import Tuple

from norvel_formats import NULL_HASH, TX_COINBASE, Block, Tx, TxIn, TxOut, address_of, le, p2pkh, sha256d

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


def child(parent: Block, key_hash: bytes, nonce: int = 0) -> Block:
    """A block on `parent` as the stored chains have it."""
    height = parent.height + 1
    time = GENESIS_TIME + SPACING_S * height
    tx = coinbase(height, key_hash, time)
    return Block(1, parent.hash(), sha256d(tx), time, EASIEST_BITS, nonce, height, [tx])


def path_of(name: str) -> str:
    return os.path.join(DIRECTORY, name + ".nonces")


@lru_cache(None)
def chain(name: str = "main") -> Tuple[Block, ...]:
    """Blocks by height, genesis first, up to the end of the branch."""
    branch = BRANCHES[name]
    blocks = [genesis()] if branch.fork == 0 else list(chain()[: branch.fork + 1])
    with open(path_of(name), encoding="ascii") as file:
        for nonce in file:
            blocks.append(child(blocks[-1], branch.payee.key_hash, int(nonce, 16)))
    return tuple(blocks)
