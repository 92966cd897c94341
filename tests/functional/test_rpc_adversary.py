"""The RPC server against clients that do what no client should: each bound, raw bytes, strangers, TLS.

The bounds of time and those that need many complete requests at once stand in the tests of the library, with shorter
limits.
"""

import base64
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

import raw_http
from child_process import SLOW, Child, program, wait_until
from node_process import Node, free_port, scratch_root
from node_scenes import Stage
from rpc_scenes import (MIB, NOT_FOUND, NOT_PERMITTED, PARSE_ERROR, TOO_LARGE, GuardedNode, NormalClient, ask,
                        call_body, error_of, is_open, make_certificate, open_stream, reply_of, request, result_of,
                        tls_client, write_password)
from stored_chain import BRANCHES

HEADER_BYTES, BODY_BYTES, VALUES, CONNECTIONS = 64 << 10, 4 << 20, 200_000, 256
BODIES_MIB = 64
PACE_S = 0.001  # between connections: the listener's queue is ten long
USER, PASSWORD = "operator", "correct: horse"
STRANGER, TRUSTED = "127.0.0.3", "127.0.0.5"
COUNT = call_body("getblockcount")
SHORT = request(b'{"method":"getblockcount"}')
UNAUTHORIZED = (b'HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm="norvel"\r\n'
                b"Content-Type: application/json\r\nContent-Length: 76\r\nConnection: close\r\n\r\n"
                b'{"jsonrpc":"2.0","error":{"code":-32600,"message":"Unauthorized"},"id":null}')
METHODS = ("getblocktemplate submitblock getbalance sendrawtransaction getblockcount getbestblockhash getblock "
           "getblockheader gettransaction getpeerinfo getnetworkinfo getmininginfo getmempoolinfo getutxos "
           "getpubkeyforaddress listtransactions getaddressinfo getblockhash getrawmempool getrawtransaction "
           "getnodestatus").split()
MINING_METHODS = {"getblocktemplate", "submitblock", "getblockcount"}


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
def fixture_guarded(scratch: str, mining_port: int) -> Iterator[GuardedNode]:
    password = write_password(scratch, PASSWORD)
    with GuardedNode("--rpc-user", USER, "--rpc-password-file", password, "--rpc-trust", TRUSTED, "--mining-port",
                     mining_port, credentials=(USER, PASSWORD)) as node:
        yield node
        node.stop()


@pytest.fixture(scope="module", name="certificate")
def fixture_certificate(scratch: str) -> Tuple[str, str]:
    return make_certificate(scratch, "node")


@pytest.fixture(scope="module", name="over_tls")
def fixture_over_tls(certificate: Tuple[str, str]) -> Iterator[GuardedNode]:
    files = ("--rpc-tls-cert", certificate[0], "--rpc-tls-key", certificate[1])
    with GuardedNode(*files, tls=tls_client(certificate[0])) as node:
        yield node
        node.stop()


def outcome_of(raw: bytes) -> Any:
    """The result, or code and text of the error, or nothing at all."""
    try:
        return result_of(raw)
    except raw_http.RpcError as error:
        return error.code, error.message
    except ConnectionError:
        return None


def with_header_block(size: int) -> bytes:
    return request(COUNT, "X: " + "a" * (size - len(request(COUNT, "X: ")) + len(COUNT)))


NO_METHOD = (NOT_FOUND, "Method not found: ")
NO_ORIGIN = (NOT_PERMITTED, "not permitted")
REQUESTS: List[Tuple[str, bytes, Any]] = [
    ("as it should be", request(COUNT), 0),
    ("no request line", request(COUNT).partition(b"\r\n")[2], 0),
    ("no method of HTTP", b"\0\xff /\r\n" + request(COUNT), 0),
    ("a blank line alone", b"\r\n\r\n", NO_METHOD),
    ("no length", b"POST / HTTP/1.1\r\nHost: x\r\n\r\n", NO_METHOD),
    ("headers twice", request(COUNT, "Host: a", "Host: b", "Host: a"), 0),
    ("zero bytes in a header", request(COUNT, "X: \0\0"), 0),
    ("length twice, the second longer", request(COUNT, f"Content-Length: {len(COUNT)}", length=10**6), 0),
    ("length twice, the second shorter", request(COUNT, f"Content-Length: {len(COUNT)}", length=3), 0),
    ("length in capitals", request(COUNT, f"CONTENT-LENGTH: \t {len(COUNT)}", length=10**6), 0),
    ("length of letters", request(COUNT, length="many"), None),
    ("no number as length", request(COUNT, length=""), None),
    ("negative length", request(COUNT, length=-1), 0),
    ("length beyond 64 bits", request(COUNT, length=2**63), None),
    ("length of 25 digits", request(COUNT, length=10**24), None),
    ("two requests", request(COUNT) + request(call_body("getbestblockhash")), 0),
    ("something behind the body", request(COUNT) + b"}{" * 1000, 0),
    ("not JSON", request(b"\xff\xfe\0 no"), NO_METHOD),
    ("an array", request(b"[" + COUNT + b"]"), NO_METHOD),
    ("method is no text", request(b'{"method":["getblockcount"]}'), NO_METHOD),
    ("unknown method", request(call_body("GetBlockCount")), (NOT_FOUND, "Method not found: GetBlockCount")),
    ("a number that is none", request(b'{"method":"getblockcount","id":-}'), PARSE_ERROR),
    ("a number beyond all", request(b'{"method":"getblockcount","id":' + b"9" * 400 + b"}"), PARSE_ERROR),
    ("arrays without end", request(b'{"method":"getblockcount","params":' + b"[" * 1_000_000), 0),
    ("objects without end", request(b'{"params":' * 100_000), NO_METHOD),
    ("from a web page", request(COUNT, "Origin: http://127.0.0.1"), NO_ORIGIN),
    ("from a web page, in capitals", request(COUNT, "ORIGIN:null"), NO_ORIGIN),
    ("a header that ends in origin", request(COUNT, "X-Origin: a"), 0),
    ("longest header block", with_header_block(HEADER_BYTES), 0),
    ("a header byte more", with_header_block(HEADER_BYTES + 1), TOO_LARGE),
    ("a header without end", b"a" * (HEADER_BYTES + 8), TOO_LARGE),
    ("longest body", request(COUNT.ljust(BODY_BYTES)), 0),
    ("a body byte more", request(COUNT.ljust(BODY_BYTES + 1)), TOO_LARGE),
    ("far too long a body, only announced", request(b"", length=2**63 - 1), TOO_LARGE),
    ("most values", request(call_body("getblockcount", [0] * (VALUES - 5))), 0),
    ("a value more", request(call_body("getblockcount", [0] * (VALUES - 4))), TOO_LARGE),
]


def test_each_request_has_one_answer(plain: Node) -> None:
    for label, raw, wanted in REQUESTS:
        got = outcome_of(ask(plain.rpc_port, raw))
        assert got == wanted, (label, got)


def test_errors_before_the_body_is_read_have_no_id(plain: Node) -> None:
    body = call_body("getblockcount", [0] * VALUES, 5)
    assert error_of(ask(plain.rpc_port, request(body)), None) == TOO_LARGE
    assert error_of(ask(plain.rpc_port, request(b'{"id":5,"params":-}')), None) == PARSE_ERROR
    for identity in (5, "a\"\n", [1, {"b": None}], None, True):
        assert error_of(ask(plain.rpc_port, request(call_body("x", None, identity))), identity)[0] == NOT_FOUND


def test_requests_split_at_every_byte(plain: Node, over_tls: GuardedNode) -> None:
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
    with NormalClient(plain, 96):
        for piece in [SHORT[:at] for at in range(0, len(SHORT), 8)] + [SHORT, large[:1_000_000], large]:
            for _ in range(5):
                with open_stream(plain.rpc_port) as sock:
                    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                    sock.sendall(piece)
                time.sleep(PACE_S)
        cut = [request(COUNT)[:-at] for at in (1, len(COUNT))]
        for piece in cut:
            with open_stream(plain.rpc_port) as sock:
                sock.sendall(piece)
                sock.shutdown(socket.SHUT_WR)  # what came is the request
                assert outcome_of(raw_http.read_to_end(sock)) == (0 if piece is cut[0] else NO_METHOD)


def test_two_thousand_half_open_connections(plain: Node, over_tls: GuardedNode) -> None:
    for node, count in ((plain, 2000), (over_tls, 300)):
        with ExitStack() as stack, NormalClient(node, 96):
            for number in range(count):
                sock = stack.enter_context(raw_http.connect(node.rpc_port))
                sock.sendall((b"", SHORT[:20], SHORT[:-1], b"\x16\x03\x01\x02\x00\x01")[number % 4])
                time.sleep(PACE_S)


def test_the_oldest_half_open_connection_gives_way(plain: Node) -> None:
    with ExitStack() as stack:
        socks = []
        for _ in range(CONNECTIONS):
            socks.append(stack.enter_context(open_stream(plain.rpc_port)))
            socks[-1].sendall(SHORT[:-1])
            time.sleep(PACE_S)
        assert all(map(is_open, socks))
        assert [plain.height() for _ in range(3)] == [0, 0, 0]
        wait_until(lambda: not is_open(socks[0]), "end of the oldest connection")
        assert all(map(is_open, socks[1:]))
        socks[1].settimeout(10)
        socks[1].sendall(SHORT[-1:])
        assert outcome_of(raw_http.read_to_end(socks[1])) == 0


def test_bodies_of_all_clients_together(plain: Node) -> None:
    """More than may be held at once: the first ones give way to the others."""
    piece = COUNT.ljust(BODY_BYTES)[:-1]
    # A body's text has room for up to twice its length, and the allocator gives back late.
    with ExitStack() as stack, NormalClient(plain, 5 * BODIES_MIB):
        socks = []
        for _ in range(2 * BODIES_MIB * MIB // BODY_BYTES):
            socks.append(stack.enter_context(open_stream(plain.rpc_port)))
            socks[-1].sendall(request(piece, length=BODY_BYTES))
        assert outcome_of(ask(plain.rpc_port, request(COUNT.ljust(BODY_BYTES)))) == 0
        assert not is_open(socks[0])
        socks[-1].settimeout(10)
        socks[-1].sendall(b" ")
        assert outcome_of(raw_http.read_to_end(socks[-1])) == 0


def test_bodies_full_of_values(plain: Node) -> None:
    """What takes long to read does not keep what takes no time waiting."""
    body = request(call_body("getblockcount", [0] * (VALUES - 5)))

    def attack() -> None:
        for _ in range(2):
            assert outcome_of(ask(plain.rpc_port, body)) == 0

    clients = 40 if SLOW == 1 else 8  # the server's 30 s stay what they are under a sanitizer
    # Of 2,000,000 values at once each takes some 200 bytes, and more while its array grows.
    with NormalClient(plain, 1200), ThreadPoolExecutor(clients) as pool:
        attacks = []
        for _ in range(clients):
            attacks.append(pool.submit(attack))
            time.sleep(5 * PACE_S)
        for done in attacks:
            done.result()


def test_readers_that_are_slow() -> None:
    """Large answers wait for their clients; each that reads on gets all of it."""
    raw = request(call_body("getutxos", [BRANCHES["main"].payee.address]))
    with Stage() as stage, stage.node(1, 2000) as node, ExitStack() as stack, NormalClient(node, 256):
        socks = []
        for _ in range(60):
            sock = stack.enter_context(socket.socket())
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            sock.connect((raw_http.HOST, node.rpc_port))
            sock.sendall(raw)
            socks.append(sock)
        time.sleep(0.3)
        for sock in socks:
            answer = b""
            while chunk := sock.recv(10_000):
                answer += chunk
            assert len(result_of(answer)) == 2000


def basic(text: str) -> str:
    return base64.b64encode(text.encode()).decode()


RIGHT = basic(f"{USER}:{PASSWORD}")
STRANGERS: List[Tuple[str, List[str]]] = [
    ("no header", []), ("all in capitals", [f"AUTHORIZATION: BASIC {RIGHT}"]),
    ("capital name, small scheme", [f"Authorization: basic {RIGHT}"]),
    ("small name, capital scheme", [f"authorization: Basic {RIGHT}"]),
    ("another scheme", [f"Authorization: Bearer {RIGHT}"]),
    ("two blanks", [f"Authorization:  Basic {RIGHT}"]), ("no text", ["Authorization: Basic "]),
    ("not encoded", [f"Authorization: Basic {USER}:{PASSWORD}"]), ("no Base64", ["Authorization: Basic !!!!"]),
    ("another password", [f"Authorization: Basic {basic(USER + ':' + PASSWORD[:-1])}"]),
    ("more behind the password", [f"Authorization: Basic {basic(USER + ':' + PASSWORD + ' ')}"]),
    ("a zero byte behind the password", [f"Authorization: Basic {basic(USER + ':' + PASSWORD + chr(0))}"]),
    ("another user", [f"Authorization: Basic {basic('Operator:' + PASSWORD)}"]),
    ("no user", [f"Authorization: Basic {basic(':' + PASSWORD)}"]),
    ("user alone", [f"Authorization: Basic {basic(USER)}"]),
    ("a wrong one before the right one", ["Authorization: Basic eA==", f"Authorization: Basic {RIGHT}"]),
]


def test_strangers_are_told_so_and_nothing_else(guarded: GuardedNode) -> None:
    for label, headers in STRANGERS:
        assert ask(guarded.rpc_port, request(COUNT, *headers)) == UNAUTHORIZED, label
    hidden = f"\r\nAuthorization: Basic {RIGHT}\r\n\r\n".encode()
    for raw in (request(hidden + COUNT), request(b"", length=BODY_BYTES), request(b"", length=BODY_BYTES + 1),
                request(b"", length="many"), request(COUNT, "Origin: x"), request(COUNT.ljust(2 * HEADER_BYTES))):
        assert ask(guarded.rpc_port, raw) == UNAUTHORIZED, raw[:100]
    for header in ("Authorization: Basic ", "authorization: basic "):
        for blanks in ("", " \t "):
            assert outcome_of(ask(guarded.rpc_port, request(COUNT, header + RIGHT + blanks))) == 0, header


def test_bodies_of_strangers_are_not_held(guarded: GuardedNode) -> None:
    with ExitStack() as stack, NormalClient(guarded, 32):
        for _ in range(24):
            sock = stack.enter_context(open_stream(guarded.rpc_port))
            sock.sendall(request(bytes(BODY_BYTES - 1), length=BODY_BYTES))
            assert raw_http.read_to_end(sock) == UNAUTHORIZED


def test_wrong_logins_by_the_thousand(guarded: GuardedNode) -> None:
    """They cost the one with the right password no time, and the node neither memory nor log."""
    raw = request(COUNT, f"Authorization: Basic {basic(USER + ':' + 'a' * 60)}")

    def guess() -> None:
        for _ in range(1000):
            assert ask(guarded.rpc_port, raw) == UNAUTHORIZED

    logged = len(guarded.running.out()) + len(guarded.running.err())
    with NormalClient(guarded, 32, 8), ThreadPoolExecutor(8) as pool:  # of the listener's queue of ten
        for done in [pool.submit(guess) for _ in range(8)]:
            done.result()
    assert len(guarded.running.out()) + len(guarded.running.err()) == logged


RESTRICTED = [("submitblock", "Block data required"), ("sendrawtransaction", "Transaction hex required")]


@pytest.mark.parametrize("method,dispatched", RESTRICTED)
def test_restricted_methods_go_by_address(plain: Node, guarded: GuardedNode, method: str, dispatched: str) -> None:
    for node, headers in ((plain, []), (guarded, [f"Authorization: Basic {RIGHT}"])):
        for source in (raw_http.HOST, TRUSTED, STRANGER):
            wanted = (-1, "Error: " + dispatched)
            if source == STRANGER:
                wanted = (NOT_PERMITTED, f"Method '{method}' is not permitted from {STRANGER}")
            raw = ask(node.rpc_port, request(call_body(method), *headers), source=source)
            assert error_of(raw) == wanted, source
            assert outcome_of(ask(node.rpc_port, request(COUNT, *headers), source=source)) == 0


def test_the_mining_port(guarded: GuardedNode, mining_port: int) -> None:
    """Three methods, without credentials, for all of loopback."""
    address = BRANCHES["main"].payee.address
    for source in (raw_http.HOST, TRUSTED, STRANGER):
        for method in METHODS:
            outcome = outcome_of(ask(mining_port, request(call_body(method, [address])), source=source))
            if method in MINING_METHODS:
                assert outcome is not None and outcome != (NOT_FOUND, "Method not found: " + method), method
            else:
                assert outcome == (NOT_FOUND, "Method not found: " + method)
        template = result_of(ask(mining_port, request(call_body("getblocktemplate", [address])), source=source))
        assert (template["height"], template["miningaddress"]) == (1, address)
        assert error_of(ask(mining_port, request(call_body("submitblock")), source=source)) == (
            -1, "Error: Block data required")
        assert outcome_of(ask(mining_port, request(COUNT, "Origin: x"), source=source)) == NO_ORIGIN
    assert guarded.height() == 0


def test_all_methods_are_there_and_no_other(plain: Node) -> None:
    for method in METHODS:
        assert outcome_of(ask(plain.rpc_port, request(call_body(method)))) != (NOT_FOUND, "Method not found: " + method)
    for method in ("help", "stop", "", "getblockcount ", "getinfo", "getBlockCount"):
        assert outcome_of(ask(plain.rpc_port, request(call_body(method)))) == (NOT_FOUND, "Method not found: " + method)


def client_of_version(certificate: str, version: ssl.TLSVersion) -> ssl.SSLContext:
    context = tls_client(certificate)
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", DeprecationWarning)  # that is why it is asked for
        context.set_ciphers("ALL:@SECLEVEL=0")
        context.minimum_version = context.maximum_version = version
    return context


def test_versions_of_tls(over_tls: GuardedNode, certificate: Tuple[str, str]) -> None:
    for version in (ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3):
        tls = client_of_version(certificate[0], version)
        with open_stream(over_tls.rpc_port, tls=tls) as sock:
            assert isinstance(sock, ssl.SSLSocket) and sock.version() == version.name.replace("_", ".")
            sock.sendall(SHORT)
            assert outcome_of(raw_http.read_to_end(sock)) == 0
    for version in (ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_1):
        tls = client_of_version(certificate[0], version)
        with pytest.raises(ssl.SSLError) as refusal:
            ask(over_tls.rpc_port, SHORT, tls=tls)
        assert refusal.value.reason == "TLSV1_ALERT_PROTOCOL_VERSION"  # said by the node, not by this side


def test_bounds_hold_over_tls(over_tls: GuardedNode) -> None:
    for label, raw, wanted in REQUESTS:
        got = outcome_of(ask(over_tls.rpc_port, raw, tls=over_tls.tls))
        assert got == wanted, (label, got)


def send_beneath(sock: socket.socket, data: bytes) -> None:
    """Past the TLS session; returns when the node has closed."""
    with socket.socket(fileno=os.dup(sock.fileno())) as below, suppress(ConnectionError):
        below.sendall(data)
        raw_http.read_to_end(below)


def test_junk_on_the_tls_port(over_tls: GuardedNode) -> None:
    numbers = random.Random(7)
    hello = b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03"
    pieces = [SHORT, bytes(70_000), hello, hello + numbers.randbytes(600), b"\x16\x03\x03\xff\xff" + bytes(70_000),
              b"\x17\x03\x03\x00\x10" + bytes(16), b"\x15\x03\x03\x00\x02\x02\x28",
              *map(numbers.randbytes, range(1, 200, 9))]
    with NormalClient(over_tls, 96):
        for piece in pieces:
            with open_stream(over_tls.rpc_port) as sock:
                with suppress(OSError):  # closed while it was sent
                    sock.sendall(piece)
                    sock.shutdown(socket.SHUT_WR)
                assert b"HTTP" not in raw_http.read_to_end(sock)
            with open_stream(over_tls.rpc_port, tls=over_tls.tls) as sock:
                sock.sendall(SHORT[:20])
                send_beneath(sock, b"\x17\x03\x03\x00\x10" + bytes(16) + piece)


def test_wrong_certificate_files_stop_the_start(scratch: str, certificate: Tuple[str, str]) -> None:
    _, other_key = make_certificate(scratch, "other")
    good, key = certificate
    empty, missing = os.path.join(scratch, "empty"), os.path.join(scratch, "missing")
    with open(empty, "wb"):
        pass
    no_certificate, no_key = "[RPC] TLS: failed to load certificate: ", "[RPC] TLS: failed to load private key: "
    rows = [(missing, key, no_certificate + missing), (empty, key, no_certificate + empty),
            (key, key, no_certificate + key), (good, missing, no_key + missing), (good, empty, no_key + empty),
            (good, good, no_key + good), (good, other_key, "[RPC] TLS: certificate/key mismatch")]
    for number, (certificate_file, key_file, text) in enumerate(rows):
        directory = os.path.join(scratch, f"node{number}")
        with Child(program("NORVEL_NODE"), "--datadir", directory, "--no-listen", "--rpc-port", free_port(),
                   "--rpc-tls-cert", certificate_file, "--rpc-tls-key", key_file) as child:
            assert child.end(20) == 1 and text in child.err().split("\n"), (text, child.err())
            assert "[RPC] Server started" not in child.out()
