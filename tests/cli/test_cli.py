"""norvel-cli as a program, against a stand-in node: exit statuses, what it sends, TLS, keys and payments."""

import json
import os
import pty
import ssl
import subprocess
import sys
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from typing import Any, Dict, Iterator, List, Optional, Tuple

import pytest

HERE = Path(__file__).parent
sys.path.insert(0, str(HERE.parent / "functional"))
from norvel_formats import Tx, TxIn, TxOut, address_of, hash160, hash_text, p2pkh, sha256d  # noqa: E402

CERTIFICATES = HERE / "certificates"
PROGRAM = os.environ["NORVEL_CLI"]
RECIPIENT = address_of(bytes(range(20)))
COIN = 100_000_000


class StandIn(ThreadingHTTPServer):
    """Answers from `results` by method, what is callable there given the parameters; an Exception becomes an error
    reply, bytes go out as they are."""

    def __init__(self, tls: Optional[str] = None) -> None:
        super().__init__(("127.0.0.1", 0), Handler)
        self.results: Dict[str, Any] = {}
        self.calls: List[Tuple[str, Any]] = []
        if tls:
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            context.load_cert_chain(CERTIFICATES / f"{tls}.pem", CERTIFICATES / f"{tls}.key.pem")
            self.socket = context.wrap_socket(self.socket, server_side=True, do_handshake_on_connect=False)
        self.port: int = self.server_address[1]
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def answer(self, method: str, params: Any) -> bytes:
        self.calls.append((method, params))
        result = self.results.get(method)
        if callable(result):
            result = result(*params)
        if isinstance(result, bytes):
            return result
        reply: Dict[str, Any] = {"id": "0", "jsonrpc": "2.0", "result": result}
        if isinstance(result, Exception):
            reply = {"id": "0", "jsonrpc": "2.0", "error": {"code": -1, "message": str(result)}}
        body = json.dumps(reply).encode()
        return b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n%s" % (len(body), body)

    def handle_error(self, *_: object) -> None:
        """A client that hung up."""


class Handler(BaseHTTPRequestHandler):
    server: StandIn

    def do_POST(self) -> None:  # pylint: disable=invalid-name
        call = json.loads(self.rfile.read(int(self.headers["Content-Length"])))
        self.wfile.write(self.server.answer(call["method"], call["params"]))

    def log_message(self, *_: object) -> None:  # pylint: disable=arguments-differ
        """Nothing."""


@pytest.fixture
def node() -> Iterator[StandIn]:
    with StandIn() as server:
        yield server
        server.shutdown()


def cli(directory: Path, *args: object) -> Tuple[int, str, str]:
    done = subprocess.run([PROGRAM, "--datadir", directory, *map(str, args)], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=60, env={"HOME": "/nonexistent"})
    return done.returncode, done.stdout, done.stderr


def test_any_method(node: StandIn, tmp_path: Path) -> None:
    at = ("--rpcport", node.port)
    node.results = {"getblockcount": 7, "getmempoolinfo": {"fee": 2.4e-05}, "getpeerinfo": [{"addr": "a\x1b"}],
                    "getblock": RuntimeError("Block\x07 not found")}
    assert cli(tmp_path, *at, "getblockcount") == (0, "7\n", "")
    assert cli(tmp_path, *at, "getmempoolinfo") == (0, '{\n  "fee": 0.000024\n}\n', "")
    assert cli(tmp_path, *at, "getpeerinfo") == (0, '[\n  {\n    "addr": "au001b"\n  }\n]\n', "")
    assert cli(tmp_path, *at, "getblock", "1" * 64, "2", "[true]") == (1, "", "Blocku0007 not found\n")
    assert cli(tmp_path, *at, "getbalance", '{"address":"1A"}')[0] == 0
    assert node.calls[3:] == [("getblock", ["1" * 64, 2, [True]]), ("getbalance", {"address": "1A"})]


def test_results_go_out_whole_or_not_at_all(node: StandIn, tmp_path: Path) -> None:
    node.results = {"getrawmempool": ["ab" * 32] * 5_000}
    command = [PROGRAM, "--datadir", tmp_path, "--rpcport", str(node.port), "getrawmempool"]
    with subprocess.Popen(command, stdout=subprocess.PIPE) as slow:
        time.sleep(2)  # more than a node waits for its reader
        assert slow.stdout and len(json.loads(slow.stdout.read())) == 5_000
    assert slow.returncode == 0
    with open("/dev/full", "wb") as full:
        done = subprocess.run(command, stdout=full, stderr=subprocess.PIPE, timeout=60)
    assert (done.returncode, done.stderr) == (1, b"Standard output: No space left on device\n")


def test_usage_and_no_connection(node: StandIn, tmp_path: Path) -> None:
    port = node.port
    for args in (["--rpcport", "x", "getinfo"], ["newkey"], ["send", "k", RECIPIENT, "1e3"], ["getinfo", "--x"],
                 ["--rpc-password-file", "/nonexistent", "getblockcount"]):
        status, out, err = cli(tmp_path, *args)
        assert (status, out) == (2, "") and err, args
    assert cli(tmp_path, "--help")[0] == 0
    unreadable = [b"", b"HTTP/1.1 200 OK\r\n\r\n", b'HTTP/1.1 200 OK\r\nContent-Length: 99\r\n\r\n{"result":[1',
                  b"HTTP/1.1 200 OK\r\nContent-Length: x\r\n\r\n{}", b"\r\n\r\n<html>", b'\r\n\r\n{"id":"0"}']
    for reply in unreadable:
        node.results = {"getblockcount": reply}
        status, out, err = cli(tmp_path, "--rpcport", port, "getblockcount")
        assert (status, out) == (3, "") and err, reply
    node.shutdown()
    node.server_close()
    assert cli(tmp_path, "--rpcport", port, "getblockcount")[0] == 3
    assert cli(tmp_path, "--rpcport", port, "health")[0] == 1


def test_tls_proves_who_answers(tmp_path: Path) -> None:
    with StandIn("own") as own, StandIn("other") as other:
        own.results = other.results = {"getblockcount": 7}
        trusted = ("--rpc-ca", CERTIFICATES / "own.pem", "--rpcport", own.port)
        assert cli(tmp_path, *trusted, "getblockcount") == (0, "7\n", "")
        refused = [("a certificate nobody vouches for", "--rpc-tls", "--rpcport", own.port),
                   ("another certificate", "--rpc-ca", CERTIFICATES / "other.pem", "--rpcport", own.port),
                   ("another host", "--rpc-ca", CERTIFICATES / "other.pem", "--rpcport", other.port),
                   ("another name of the host", *trusted, "--rpchost", "localhost"),
                   ("no TLS from us", "--rpcport", own.port)]
        for label, *options in refused:
            status, out, err = cli(tmp_path, *options, "getblockcount")
            assert (status, out) == (3, "") and err, label
        assert cli(tmp_path, "--rpc-ca", "/nonexistent", "--rpcport", own.port, "getblockcount")[0] == 2
        (tmp_path / "norvel.conf").write_text(f"rpc-port = {own.port}\nrpc-tls-cert = {CERTIFICATES}/own.pem\n")
        assert cli(tmp_path, "getblockcount") == (0, "7\n", "")
        assert other.calls == [] and len(own.calls) == 2
    with StandIn() as plain:
        assert cli(tmp_path, "--rpc-tls", "--rpcport", plain.port, "getblockcount")[0] == 3


def new_key(directory: Path) -> Tuple[Path, str]:
    path = directory / "key"
    status, address, err = cli(directory, "newkey", path)
    assert (status, err) == (0, "")
    return path, address.strip()


def test_keys_and_addresses_need_no_node(tmp_path: Path) -> None:
    path, address = new_key(tmp_path)
    assert cli(tmp_path, "newkey", path)[0] == 1
    path.write_text(path.read_text().splitlines()[2] + "\n")
    assert cli(tmp_path, "keyaddress", path) == (0, address + "\n", "")
    assert cli(tmp_path, "validateaddress", address) == (0, "valid\n", "")
    for spoilt in (address[:-1] + "0", address + "1", "", "1" * 65):
        assert cli(tmp_path, "validateaddress", spoilt)[0] == 1


def paying(key_file: Path, coins: int) -> Tx:
    """A transaction whose output 1 pays the key."""
    public = next(line.split()[-1] for line in key_file.read_text().splitlines() if line.startswith("public"))
    return Tx([TxIn(bytes(32), coins)], [TxOut(1, b"\x51"), TxOut(coins * COIN, p2pkh(hash160(bytes.fromhex(public))))])


def payment_node(node: StandIn, key_file: Path) -> List[str]:
    """The key has 9 coins that the pool spends already and 8 that it does not; their transactions' ids."""
    made = [paying(key_file, coins) for coins in (9, 8)]
    txids = [hash_text(sha256d(tx.encode())) for tx in made]
    pool = [Tx([TxIn(sha256d(made[0].encode()), 1)], [TxOut(0, b"\x51")]), Tx([TxIn()], [TxOut(0, b"\x51")])]
    known = dict(zip(["aa" * 32, "bb" * 32] + txids, pool + made))
    node.results = {"getmempoolinfo": {"size": 2}, "getrawmempool": ["aa" * 32, "bb" * 32],
                    "getrawtransaction": lambda txid: known[txid].encode().hex(),
                    "getutxos": [{"txid": txid, "vout": 1, "value": coins * COIN, "value_nvl": 1}
                                 for txid, coins in zip(txids, (9, 8))],
                    "sendrawtransaction": {"accepted": True, "txid": "not ours"}}
    return txids


def test_send(node: StandIn, tmp_path: Path) -> None:
    path, address = new_key(tmp_path)
    txids = payment_node(node, path)
    status, out, err = cli(tmp_path, "--rpcport", node.port, "send", path, RECIPIENT, "1.00000001", "--fee", "0.5")
    assert (status, err) == (0, "")
    tx = bytes.fromhex(dict(node.calls)["sendrawtransaction"][0])
    assert out == hash_text(sha256d(tx)) + "\n"
    sent = Tx.decode(tx)
    assert (sent.type, sent.version) == (1, 1) and abs(sent.timestamp - time.time()) < 60
    # What the pool spends already is left alone.
    assert [(hash_text(source.txid), source.index) for source in sent.inputs] == [(txids[1], 1)]
    assert [output.value for output in sent.outputs] == [100_000_001, 8 * COIN - 150_000_001]
    assert sent.outputs[0].script == p2pkh(bytes(range(20)))
    assert ("getutxos", [address]) in node.calls

    node.results["sendrawtransaction"] = RuntimeError("Mempool rejected: Mempool full")
    assert cli(tmp_path, "--rpcport", node.port, "send", path, RECIPIENT, "1") == (
        1, "", "Mempool rejected: Mempool full\n")
    assert cli(tmp_path, "--rpcport", node.port, "send", path, RECIPIENT, "9") == (1, "", "Insufficient funds\n")
    node.results["getutxos"][1]["value"] = 2**53
    assert cli(tmp_path, "--rpcport", node.port, "send", path, RECIPIENT, "1")[0] == 1


def test_send_does_not_take_the_node_s_word(node: StandIn, tmp_path: Path) -> None:
    """A smaller value than the output has would become the fee."""
    path, _ = new_key(tmp_path)
    (tmp_path / "elsewhere").mkdir()
    other, _ = new_key(tmp_path / "elsewhere")
    txids = payment_node(node, path)
    told = node.results["getutxos"][1]
    honest, transactions = dict(told), node.results["getrawtransaction"]
    for label, lie in (("smaller", {"value": 2 * COIN}), ("another output", {"vout": 0, "value": 1}),
                       ("no such output", {"vout": 2})):
        told.update(lie)
        status, out, err = cli(tmp_path, "--rpcport", node.port, "send", path, RECIPIENT, "0.00000001", "--fee", "0")
        assert (status, out) == (1, "") and "not as it says" in err, (label, err)
        told.update(honest)
    for label, given in (("another transaction", paying(path, 7)), ("one to somebody else", paying(other, 8))):
        node.results["getrawtransaction"] = lambda txid: (given.encode().hex() if txid == txids[1]  # noqa: B023
                                                          else transactions(txid))
        status, out, err = cli(tmp_path, "--rpcport", node.port, "send", path, RECIPIENT, "1")
        assert (status, out) == (1, "") and "not as it says" in err, (label, err)
    assert "sendrawtransaction" not in dict(node.calls)


@pytest.mark.parametrize("answer, status", [(b"y\n", 0), (b"n\n", 1), (b"\n", 1), (b"\x04", 1)])
def test_send_asks_at_a_terminal(node: StandIn, tmp_path: Path, answer: bytes, status: int) -> None:
    path, _ = new_key(tmp_path)
    payment_node(node, path)
    ours, theirs = pty.openpty()
    os.write(ours, answer)
    done = subprocess.run([PROGRAM, "--datadir", tmp_path, "--rpcport", str(node.port), "send", path, RECIPIENT, "1"],
                          stdin=theirs, capture_output=True, text=True, timeout=60)
    os.close(ours)
    os.close(theirs)
    assert done.returncode == status
    assert done.stderr.startswith(f"Pay 1.00000000 NVL to {RECIPIENT}, fee 0.0000")
    assert "Pay" not in done.stdout
    assert ("sendrawtransaction" in dict(node.calls)) == (status == 0)
