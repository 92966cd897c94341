"""The RPC server of a node against clients that do what no client should: raw bytes, floods, strangers, TLS.

The edges of each bound, the bounds of time and those that need many complete requests at once stand in the tests of
the library.
"""

import itertools
import os
import random
import socket
import ssl
import struct
import tempfile
import time
import warnings
from concurrent.futures import ThreadPoolExecutor
from contextlib import ExitStack, suppress
from typing import Any, Iterator, List, Tuple

import pytest

from child_process import SLOW, Child, program
from node_process import Node, free_port, scratch_root
from node_scenes import Stage
from node_watch import MIB, beside_clients
from raw_http import (HOST, RpcError, ask, authorization, call_body, error_of, is_open, open_stream, read_to_end,
                      reply_of, request, result_of)
from rpc_scenes import NOT_FOUND, NOT_PERMITTED, TOO_LARGE, make_certificate, tls_client, write_password
from stored_chain import BRANCHES

HEADER_BYTES, BODY_BYTES, VALUES = 64 << 10, 4 << 20, 200_000
BODIES_MIB = 64
PACE_S = 0.001  # between connections: the listener's queue is ten long
USER, PASSWORD = "operator", "correct: horse"
STRANGER, TRUSTED = "127.0.0.3", "127.0.0.5"
COUNT = call_body("getblockcount")
SHORT = request(b'{"method":"getblockcount"}')
UNAUTHORIZED = (b'HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm="norvel"\r\n'
                b"Content-Type: application/json\r\nContent-Length: 76\r\nConnection: close\r\n\r\n"
                b'{"jsonrpc":"2.0","error":{"code":-32600,"message":"Unauthorized"},"id":null}')


@pytest.fixture(scope="module", name="scratch")
def fixture_scratch() -> Iterator[str]:
    with tempfile.TemporaryDirectory(prefix="norvel-", dir=scratch_root()) as directory:
        yield directory


@pytest.fixture(scope="module", name="plain")
def fixture_plain() -> Iterator[Node]:
    """Like the other nodes here it must come through all tests and then still stop in good order."""
    with Node("--no-listen", "--rpc-trust", TRUSTED) as node:
        yield node
        node.stop()


@pytest.fixture(scope="module", name="mining_port")
def fixture_mining_port() -> int:
    return free_port()


@pytest.fixture(scope="module", name="guarded")
def fixture_guarded(scratch: str, mining_port: int) -> Iterator[Node]:
    password = write_password(scratch, PASSWORD)
    node = Node("--no-listen", "--rpc-user", USER, "--rpc-password-file", password, "--rpc-trust", TRUSTED,
                "--mining-port", mining_port)
    node.credentials = (USER, PASSWORD)
    with node:
        yield node
        node.stop()


@pytest.fixture(scope="module", name="certificate")
def fixture_certificate(scratch: str) -> Tuple[str, str]:
    return make_certificate(scratch, "node")


@pytest.fixture(scope="module", name="over_tls")
def fixture_over_tls(certificate: Tuple[str, str]) -> Iterator[Node]:
    node = Node("--no-listen", "--rpc-tls-cert", certificate[0], "--rpc-tls-key", certificate[1])
    node.tls = tls_client(certificate[0])
    with node:
        yield node
        node.stop()


def outcome_of(raw: bytes) -> Any:
    """The result, or code and text of the error, or nothing at all."""
    try:
        return result_of(raw)
    except RpcError as error:
        return error.code, error.message
    except ConnectionError:
        return None


NO_METHOD = (NOT_FOUND, "Method not found: ")
NO_ORIGIN = (NOT_PERMITTED, "not permitted")
REQUESTS: List[Tuple[str, bytes, Any]] = [
    ("as it should be", request(COUNT), 0),
    ("no request line", request(COUNT).partition(b"\r\n")[2], 0),
    ("no method of HTTP", b"\0\xff /\r\n" + request(COUNT), 0),
    ("a blank line alone", b"\r\n\r\n", NO_METHOD),
    ("zero bytes in a header", request(COUNT, "X: \0\0"), 0),
    ("length twice, the second longer", request(COUNT, f"Content-Length: {len(COUNT)}", length=10**6), 0),
    ("length beyond 64 bits", request(COUNT, length=2**63), None),
    ("something behind the body", request(COUNT) + b"}{" * 1000, 0),
    ("an array", request(b"[" + COUNT + b"]"), NO_METHOD),
    ("method is no text", request(b'{"method":["getblockcount"]}'), NO_METHOD),
    ("arrays without end", request(b'{"method":"getblockcount","params":' + b"[" * 1_000_000), 0),
    ("objects without end", request(b'{"params":' * 100_000), NO_METHOD),
    ("from a web page", request(COUNT, "Origin: http://127.0.0.1"), NO_ORIGIN),
    ("a header without end", b"a" * (HEADER_BYTES + 8), TOO_LARGE),
    ("longest body", request(COUNT.ljust(BODY_BYTES)), 0),
    ("far too long a body, only announced", request(b"", length=2**63 - 1), TOO_LARGE),
]


def test_each_request_has_one_answer(plain: Node, over_tls: Node) -> None:
    for node, tls in ((plain, None), (over_tls, over_tls.tls)):
        for label, raw, wanted in REQUESTS:
            got = outcome_of(ask(node.rpc_port, raw, tls=tls))
            assert got == wanted, (label, got)


def test_requests_split_at_every_byte(plain: Node, over_tls: Node) -> None:
    for node, tls in ((plain, None), (over_tls, over_tls.tls)):
        whole = ask(node.rpc_port, SHORT, tls=tls)
        assert reply_of(whole) == {"id": None, "jsonrpc": "2.0", "result": 0}
        for at in range(1, len(SHORT)):
            assert ask(node.rpc_port, SHORT[:at], SHORT[at:], pause_s=0.001, tls=tls) == whole, at
        every_byte = [SHORT[at : at + 1] for at in range(len(SHORT))]
        assert ask(node.rpc_port, *every_byte, pause_s=0.0005, tls=tls) == whole


def test_clients_that_leave(plain: Node) -> None:
    """In the middle of a request, with a reset, or with a large answer on its way."""
    large = request(call_body("x" * 3_000_000))
    with beside_clients(plain, 96):
        for piece in [SHORT[:at] for at in range(0, len(SHORT), 8)] + [SHORT, large[:1_000_000], large]:
            for _ in range(5):
                with open_stream(plain.rpc_port) as sock:
                    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                    sock.sendall(piece)
                time.sleep(PACE_S)


def test_two_thousand_half_open_connections(plain: Node, over_tls: Node) -> None:
    for node, count in ((plain, 2000), (over_tls, 300)):
        with ExitStack() as stack, beside_clients(node, 96):
            for number in range(count):
                sock = stack.enter_context(open_stream(node.rpc_port))
                sock.sendall((b"", SHORT[:20], SHORT[:-1], b"\x16\x03\x01\x02\x00\x01")[number % 4])
                time.sleep(PACE_S)


def test_bodies_of_all_clients_together(plain: Node) -> None:
    """More than may be held at once: the first ones give way to the others."""
    piece = COUNT.ljust(BODY_BYTES)[:-1]
    # A body's text has room for up to twice its length, and the allocator gives back late.
    with ExitStack() as stack, beside_clients(plain, 5 * BODIES_MIB):
        socks = []
        for _ in range(2 * BODIES_MIB * MIB // BODY_BYTES):
            socks.append(stack.enter_context(open_stream(plain.rpc_port)))
            socks[-1].sendall(request(piece, length=BODY_BYTES))
        assert outcome_of(ask(plain.rpc_port, request(COUNT.ljust(BODY_BYTES)))) == 0
        assert not is_open(socks[0])
        socks[-1].settimeout(10)
        socks[-1].sendall(b" ")
        assert outcome_of(read_to_end(socks[-1])) == 0


def test_bodies_full_of_values(plain: Node) -> None:
    """What takes long to read does not keep what takes no time waiting."""
    body = request(call_body("getblockcount", [0] * (VALUES - 5)))

    def attack() -> None:
        for _ in range(2):
            assert outcome_of(ask(plain.rpc_port, body)) == 0

    clients = 40 if SLOW == 1 else 8  # the server's 30 s stay what they are under a sanitizer
    # Of 2,000,000 values at once each takes some 200 bytes, and more while its array grows.
    with beside_clients(plain, 1200), ThreadPoolExecutor(clients) as pool:
        attacks = []
        for _ in range(clients):
            attacks.append(pool.submit(attack))
            time.sleep(5 * PACE_S)
        for done in attacks:
            done.result()


def test_readers_that_are_slow() -> None:
    """Large answers wait for their clients; each that reads on gets all of it."""
    raw = request(call_body("getutxos", [BRANCHES["main"].payee.address]))
    with Stage() as stage, stage.node(1, 2000) as node, ExitStack() as stack, beside_clients(node, 256):
        socks = []
        for _ in range(60):
            sock = stack.enter_context(socket.socket())
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            sock.connect((HOST, node.rpc_port))
            sock.sendall(raw)
            socks.append(sock)
        time.sleep(0.3)
        for sock in socks:
            answer = b""
            while chunk := sock.recv(10_000):
                answer += chunk
            assert len(result_of(answer)) == 2000


RIGHT = authorization(USER, PASSWORD)
STRANGERS: List[Tuple[str, List[str]]] = [
    ("no header", []), ("all in capitals", [RIGHT.replace("Authorization: Basic", "AUTHORIZATION: BASIC")]),
    ("not encoded", [f"Authorization: Basic {USER}:{PASSWORD}"]), ("no Base64", ["Authorization: Basic !!!!"]),
    ("another password", [authorization(USER, PASSWORD[:-1])]),
    ("a wrong one before the right one", ["Authorization: Basic eA==", RIGHT]),
]


def test_strangers_are_told_so_and_nothing_else(guarded: Node) -> None:
    for label, headers in STRANGERS:
        assert ask(guarded.rpc_port, request(COUNT, *headers)) == UNAUTHORIZED, label
    hidden = f"\r\n{RIGHT}\r\n\r\n".encode()
    for raw in (request(hidden + COUNT), request(b"", length=BODY_BYTES), request(b"", length=BODY_BYTES + 1),
                request(b"", length="many"), request(COUNT, "Origin: x"), request(COUNT.ljust(2 * HEADER_BYTES))):
        assert ask(guarded.rpc_port, raw) == UNAUTHORIZED, raw[:100]
    assert outcome_of(ask(guarded.rpc_port, request(COUNT, RIGHT.replace("Authorization: B", "authorization: b")))) == 0


def test_bodies_of_strangers_are_not_held(guarded: Node) -> None:
    with ExitStack() as stack, beside_clients(guarded, 32):
        for _ in range(24):
            sock = stack.enter_context(open_stream(guarded.rpc_port))
            sock.sendall(request(bytes(BODY_BYTES - 1), length=BODY_BYTES))
            assert read_to_end(sock) == UNAUTHORIZED


def test_wrong_logins_by_the_thousand(guarded: Node) -> None:
    """They cost the one with the right password no time, and the node neither memory nor log."""
    raw = request(COUNT, authorization(USER, "a" * 60))

    def guess() -> None:
        for _ in range(1000):
            assert ask(guarded.rpc_port, raw) == UNAUTHORIZED

    logged = len(guarded.running.out()) + len(guarded.running.err())
    with beside_clients(guarded, 32, 8), ThreadPoolExecutor(8) as pool:  # of the listener's queue of ten
        for done in [pool.submit(guess) for _ in range(8)]:
            done.result()
    assert len(guarded.running.out()) + len(guarded.running.err()) == logged


RESTRICTED = [("submitblock", "Block data required"), ("sendrawtransaction", "Transaction hex required")]


def test_restricted_methods_go_by_address(plain: Node, guarded: Node) -> None:
    nodes: List[Tuple[Node, List[str]]] = [(plain, []), (guarded, [RIGHT])]
    sources = (HOST, TRUSTED, STRANGER)
    for (method, dispatched), (node, headers), source in itertools.product(RESTRICTED, nodes, sources):
        wanted = (-1, "Error: " + dispatched)
        if source == STRANGER:
            wanted = (NOT_PERMITTED, f"Method '{method}' is not permitted from {STRANGER}")
        assert error_of(ask(node.rpc_port, request(call_body(method), *headers), source=source)) == wanted, source
        assert outcome_of(ask(node.rpc_port, request(COUNT, *headers), source=source)) == 0


def test_the_mining_port(guarded: Node, mining_port: int) -> None:
    """Without credentials, for all of loopback."""
    address = BRANCHES["main"].payee.address
    for source in (HOST, TRUSTED, STRANGER):
        template = result_of(ask(mining_port, request(call_body("getblocktemplate", [address])), source=source))
        assert (template["height"], template["miningaddress"]) == (1, address)
        assert error_of(ask(mining_port, request(call_body("submitblock")), source=source)) == (
            -1, "Error: Block data required")
        assert outcome_of(ask(mining_port, request(COUNT), source=source)) == 0
        assert outcome_of(ask(mining_port, request(COUNT, "Origin: x"), source=source)) == NO_ORIGIN
        assert error_of(ask(mining_port, request(call_body("getbestblockhash")), source=source))[0] == NOT_FOUND
    assert guarded.height() == 0


@pytest.mark.parametrize("version", [ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_1])
def test_old_versions_of_tls(over_tls: Node, certificate: Tuple[str, str], version: ssl.TLSVersion) -> None:
    old = tls_client(certificate[0])
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", DeprecationWarning)  # that is why it is asked for
        old.set_ciphers("ALL:@SECLEVEL=0")
        old.minimum_version = old.maximum_version = version
    with pytest.raises(ssl.SSLError) as refusal:
        ask(over_tls.rpc_port, SHORT, tls=old)
    assert refusal.value.reason == "TLSV1_ALERT_PROTOCOL_VERSION"  # said by the node, not by this side


def send_beneath(sock: socket.socket, data: bytes) -> None:
    """Past the TLS session; returns when the node has closed."""
    with socket.socket(fileno=os.dup(sock.fileno())) as below, suppress(ConnectionError):
        below.sendall(data)
        read_to_end(below)


def test_junk_on_the_tls_port(over_tls: Node) -> None:
    numbers = random.Random(7)
    hello = b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03"
    pieces = [SHORT, bytes(70_000), hello, hello + numbers.randbytes(600), b"\x16\x03\x03\xff\xff" + bytes(70_000),
              b"\x17\x03\x03\x00\x10" + bytes(16), b"\x15\x03\x03\x00\x02\x02\x28",
              *map(numbers.randbytes, range(1, 200, 9))]
    with beside_clients(over_tls, 96):
        for piece in pieces:
            with open_stream(over_tls.rpc_port) as sock:
                with suppress(OSError):  # closed while it was sent
                    sock.sendall(piece)
                    sock.shutdown(socket.SHUT_WR)
                assert b"HTTP" not in read_to_end(sock)
            with open_stream(over_tls.rpc_port, tls=over_tls.tls) as sock:
                sock.sendall(SHORT[:20])
                send_beneath(sock, b"\x17\x03\x03\x00\x10" + bytes(16) + piece)


def test_a_wrong_key_file_stops_the_start(scratch: str, certificate: Tuple[str, str]) -> None:
    with Child(program("NORVEL_NODE"), "--datadir", os.path.join(scratch, "node"), "--no-listen", "--rpc-port",
               free_port(), "--rpc-tls-cert", certificate[0], "--rpc-tls-key", certificate[0]) as child:
        assert child.end(20) == 1
        assert "[RPC] TLS: failed to load private key: " + certificate[0] in child.err().split("\n")
        assert "[RPC] Server started" not in child.out()
