"""Transactions and notes through wallet_tool, and the keys that the stored chains pay."""

import hashlib
import os
import subprocess
from typing import List, Sequence

from node_process import Node
from norvel_formats import hash160, sha256d
from stored_chain import BRANCHES, Key

MAIN, LEFT, RIGHT, LOW = (BRANCHES[name].payee for name in ("main", "left", "right", "low"))
FEE = 10_000  # below what the treasury has a share of


def tool(*args: object) -> str:
    command = [os.environ["NORVEL_WALLET_TOOL"], *map(str, args)]
    done = subprocess.run(command, capture_output=True, timeout=60, check=False)
    assert done.returncode == 0, (args[0], done.stderr)
    return done.stdout.decode().rstrip("\n")


def outputs_of(node: Node, key: Key) -> List[str]:
    """What the key may spend by the node's account, largest value first, in the tool's form."""
    rows = sorted(node.rpc("getutxos", {"address": key.address}), key=lambda row: -row["value"])
    return [f'{row["txid"]}:{row["vout"]}:{int(row["value"])}' for row in rows]


def pay(key: Key, address: str, amount: int, outputs: Sequence[str], fee: int = FEE) -> bytes:
    return bytes.fromhex(tool("pay", key.private.hex(), address, amount, fee, *outputs))


def lock(key: Key, recipient: Key, amount: int, preimage: bytes, lock_time: int, outputs: Sequence[str]) -> bytes:
    """Funds a contract as output 0."""
    payment_hash = hashlib.sha256(preimage).hexdigest()
    return bytes.fromhex(tool("lock", key.private.hex(), recipient.address, amount, FEE, payment_hash, lock_time,
                              *outputs))


def claim(key: Key, preimage: bytes, funding: bytes) -> bytes:
    return bytes.fromhex(tool("claim", key.private.hex(), preimage.hex(), funding.hex()))


def refund(key: Key, lock_time: int, funding: bytes) -> bytes:
    return bytes.fromhex(tool("refund", key.private.hex(), lock_time, funding.hex()))


def notes(key: Key, tx: bytes) -> List[str]:
    return tool("notes", key.private.hex(), tx.hex()).split("\n")


def read_key_file(path: str) -> Key:
    """The key of a file that norvel-cli made."""
    with open(path, encoding="ascii") as file:
        fields = dict(line.strip().split(" = ") for line in file if " = " in line and not line.startswith("#"))
    key = Key(bytes.fromhex(fields["secret"]), hash160(bytes.fromhex(fields["public"])))
    assert (fields["public"], fields["address"]) == (tool("pubkey", fields["secret"]), key.address)
    return key


def txid(tx: bytes) -> str:
    return sha256d(tx)[::-1].hex()
