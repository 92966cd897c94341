"""norvel-cli and norveld over TLS, both set up by the one norvel.conf of the data directory."""

import json
import os
import tempfile
from typing import Iterator, Tuple

import pytest

from cli_process import run_cli
from header_solver import HeaderSolver
from node_process import scratch_root
from node_scenes import block_of
from rpc_scenes import GuardedNode, make_certificate, tls_client, write_password
from stored_chain import Key

USER, PASSWORD = "operator", "correct: horse"
PAYEE = Key(b"", bytes(range(20)))


class Scene:
    """A node behind TLS and credentials, and files of a client that knows too little."""

    def __init__(self, node: GuardedNode, scratch: str) -> None:
        self.node = node
        self.scratch = scratch  # holds no norvel.conf
        self.ca_file = os.path.join(node.directory, "node.crt")
        self.other_ca_file = make_certificate(scratch, "other")[0]
        self.credentials = ("--rpc-user", USER, "--rpc-password-file", os.path.join(node.directory, "password"))

    def ask(self, *args: object) -> Tuple[int, str, str]:
        """As the operator on the node's machine."""
        return run_cli("--datadir", self.node.directory, "--rpcport", self.node.rpc_port, *args)

    def ask_from_elsewhere(self, *args: object) -> Tuple[int, str, str]:
        return run_cli("--datadir", self.scratch, "--rpcport", self.node.rpc_port, *args)


@pytest.fixture(scope="module", name="scene")
def fixture_scene() -> Iterator[Scene]:
    with tempfile.TemporaryDirectory(prefix="norvel-", dir=scratch_root()) as scratch:
        node = GuardedNode("--rpc-bind", "0.0.0.0", credentials=(USER, PASSWORD))
        os.mkdir(node.directory, 0o700)
        certificate, _ = make_certificate(node.directory, "node")
        write_password(node.directory, PASSWORD)
        with open(os.path.join(node.directory, "norvel.conf"), "w", encoding="ascii") as conf:
            conf.write("# paths are those of this directory, wherever the programs are started\n"
                       f"rpc-user = {USER}\nrpc-password-file = password\n"
                       "rpc-tls-cert = node.crt\nrpc-tls-key = node.key\n")
        node.tls = tls_client(certificate)
        with node:
            yield Scene(node, scratch)
            node.stop()


def test_one_configuration_serves_both_programs(scene: Scene) -> None:
    assert scene.ask("getblockcount") == (0, "0\n", "")
    status, out, err = scene.ask("getinfo")
    assert (status, err) == (0, "") and out.startswith("Height:       0\n")
    status, out, err = scene.ask("health")
    assert (status, out) == (1, "") and err, "the genesis block is old"
    template = json.loads(scene.ask("getblocktemplate", PAYEE.address)[1])
    with HeaderSolver() as solver:
        block = solver.solve(block_of(template, PAYEE))
    assert scene.ask("submitblock", json.dumps({"data": block.encode().hex()}))[0] == 0
    assert scene.ask("health") == (0, "The node is well\n", "")


def test_client_elsewhere_gives_authority_and_credentials_itself(scene: Scene) -> None:
    for host in ("127.0.0.1", "localhost"):
        known = ("--rpchost", host, "--rpc-ca", scene.ca_file)
        assert scene.ask_from_elsewhere(*known, *scene.credentials, "getblockhash", 0)[0] == 0, host
        assert scene.ask_from_elsewhere(*known, "getblockcount") == (1, "", "Unauthorized\n"), host


@pytest.mark.parametrize("label, host, ca_file", [
    ("another authority", "127.0.0.1", "other_ca_file"),
    ("another authority than the file's", None, "other_ca_file"),
    ("an address that the certificate does not name", "127.0.0.2", "ca_file"),
    ("an authority that the system does not know", "127.0.0.1", None),
])
def test_node_that_proves_nothing_is_refused(scene: Scene, label: str, host: str, ca_file: str) -> None:
    options = [*(("--rpchost", host) if host else ()),
               *(("--rpc-ca", getattr(scene, ca_file)) if ca_file else ("--rpc-tls",))]
    status, out, err = scene.ask(*options, *scene.credentials, "getblockcount")
    assert (status, out) == (3, "") and "No TLS connection to" in err, (label, err)


def test_client_without_tls_is_told_so(scene: Scene) -> None:
    status, out, err = scene.ask_from_elsewhere(*scene.credentials, "getblockcount")
    assert (status, out) == (3, "") and "does the node want TLS?" in err, err
