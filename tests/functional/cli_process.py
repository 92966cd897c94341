"""Runs norvel-cli to its end."""

from typing import Tuple

from child_process import Child, program
from node_process import Node


def run_cli(*args: object, limit_s: float = 20) -> Tuple[int, str, str]:
    """Exit status, standard output, standard error."""
    with Child(program("NORVEL_CLI"), *args) as child:
        return child.end(limit_s), child.out(), child.err()


def cli(node: Node, *args: object) -> str:
    """What a command prints that must succeed, without the last line's end."""
    status, out, err = run_cli("--rpcport", node.rpc_port, "--datadir", node.directory, *args)
    assert status == 0, (status, out, err)
    return out.rstrip("\n")
