"""norvel-cli and norveld over TLS, both set up by the one norvel.conf of the data directory."""

import json
import os
import tempfile
from typing import Iterator, Tuple

import pytest

from cli_process import run_cli
from header_solver import HeaderSolver
from node_process import Node, scratch_root
from node_scenes import block_of
from rpc_scenes import make_certificate, tls_client, write_password
from stored_chain import Key

USER, PASSWORD = "operator", "correct: horse"
PAYEE = Key(b"", bytes(range(20)))


@pytest.fixture(scope="module", name="node")
def fixture_node() -> Iterator[Node]:
    node = Node("--no-listen", "--rpc-bind", "0.0.0.0")
    node.credentials = (USER, PASSWORD)
    os.mkdir(node.directory, 0o700)
    certificate, _ = make_certificate(node.directory, "node")
    write_password(node.directory, PASSWORD)
    with open(os.path.join(node.directory, "norvel.conf"), "w", encoding="ascii") as conf:
        conf.write("# paths are those of this directory, wherever the programs are started\n"
                   f"rpc-user = {USER}\nrpc-password-file = password\n"
                   "rpc-tls-cert = node.crt\nrpc-tls-key = node.key\n")
    node.tls = tls_client(certificate)
    with node:
        yield node
        node.stop()


def test_one_configuration_serves_both_programs(node: Node) -> None:
    def ask(*args: object) -> Tuple[int, str, str]:
        return run_cli("--datadir", node.directory, "--rpcport", node.rpc_port, *args)

    assert ask("getblockcount") == (0, "0\n", "")
    status, out, err = ask("getinfo")
    assert (status, err) == (0, "") and out.startswith("Height:       0\n")
    status, out, err = ask("health")
    assert (status, out) == (1, "") and err, "the genesis block is old"
    template = json.loads(ask("getblocktemplate", PAYEE.address)[1])
    with HeaderSolver() as solver:
        block = solver.solve(block_of(template, PAYEE))
    assert ask("submitblock", json.dumps({"data": block.encode().hex()}))[0] == 0
    assert ask("health") == (0, "The node is well\n", "")


def test_client_elsewhere_gives_authority_and_credentials_itself(node: Node) -> None:
    credentials = ("--rpc-user", USER, "--rpc-password-file", os.path.join(node.directory, "password"))
    authority = ("--rpc-ca", os.path.join(node.directory, "node.crt"))
    with tempfile.TemporaryDirectory(prefix="norvel-", dir=scratch_root()) as elsewhere:
        def ask(*args: object) -> Tuple[int, str, str]:
            return run_cli("--datadir", elsewhere, "--rpcport", node.rpc_port, *args, "getblockhash", 0)

        for host in ("127.0.0.1", "localhost"):
            assert ask("--rpchost", host, *authority, *credentials)[0] == 0, host
            assert ask("--rpchost", host, *authority) == (1, "", "Unauthorized\n"), host
        for options, text in (("--rpchost", "127.0.0.2", *authority), "No TLS connection to"), ((), "want TLS?"):
            status, out, err = ask(*options, *credentials)
            assert (status, out) == (3, "") and text in err, err
