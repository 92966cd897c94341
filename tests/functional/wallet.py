"""Payments by norvel-cli, and the keys that the stored chains pay."""

import tempfile

from cli_process import cli
from node_process import Node
from stored_chain import BRANCHES, Key

MAIN, LEFT, RIGHT, LOW = (BRANCHES[name].payee for name in ("main", "left", "right", "low"))


def pay(node: Node, key: Key, address: str, coins: str, *options: object) -> str:
    """Sends what the key's outputs hold by the node's account; the transaction's id."""
    with tempfile.NamedTemporaryFile("w") as file:
        file.write(f"secret = {key.private.hex()}\n")
        file.flush()
        return cli(node, "send", file.name, address, coins, *options)
