"""What tests of the RPC server need beside raw_http: guarded nodes, raw connections, a normal client beside them."""

import json
import os
import socket
import ssl
import subprocess
import sys
import threading
import time
from typing import Any, List, Optional, Tuple

import raw_http
from child_process import SLOW
from node_process import Node

MIB = 1 << 20
ANSWER_MAX_S = 2
TOO_LARGE = (-32700, "Request too large")
PARSE_ERROR = (-32700, "Parse error")
NOT_FOUND = -32601
NOT_PERMITTED = -32003


def write_password(directory: str, password: str) -> str:
    path = os.path.join(directory, "password")
    with open(os.open(path, os.O_WRONLY | os.O_CREAT, 0o600), "w", encoding="utf-8") as file:
        file.write(password + "\n")
    return path


def make_certificate(directory: str, name: str) -> Tuple[str, str]:
    """Files of a certificate for 127.0.0.1 and localhost that signs itself, and of its key."""
    certificate, key = (os.path.join(directory, f"{name}.{kind}") for kind in ("crt", "key"))
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                    "-subj", "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1,DNS:localhost", "-days", "2",
                    "-keyout", key, "-out", certificate], check=True, capture_output=True, timeout=30)
    return certificate, key


def tls_client(certificate: str) -> ssl.SSLContext:
    return ssl.create_default_context(cafile=certificate)


class GuardedNode(Node):
    """A node whose own calls give credentials and go over TLS."""

    def __init__(self, *options: object, credentials: Optional[Tuple[str, str]] = None,
                 tls: Optional[ssl.SSLContext] = None) -> None:
        super().__init__("--no-listen", *options)
        self.credentials = credentials
        self.tls = tls

    def rpc(self, method: str, *params: Any, limit_s: float = 30) -> Any:
        request = raw_http.request_of(method, list(params), self.credentials)
        return result_of(ask(self.rpc_port, request, tls=self.tls, limit_s=limit_s))


def open_stream(port: int, source: str = raw_http.HOST, tls: Optional[ssl.SSLContext] = None) -> socket.socket:
    sock = raw_http.connect(port, source=source)
    sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return tls.wrap_socket(sock, server_hostname=raw_http.HOST) if tls else sock


def ask(port: int, *pieces: bytes, pause_s: float = 0, source: str = raw_http.HOST,
        tls: Optional[ssl.SSLContext] = None, limit_s: float = 30) -> bytes:
    """The whole reply to a request that is sent in pieces."""
    with open_stream(port, source, tls) as sock:
        for piece in pieces:
            sock.sendall(piece)
            time.sleep(pause_s)
        return raw_http.read_to_end(sock, limit_s)


def request(body: bytes, *headers: str, length: Optional[object] = None) -> bytes:
    """A request; `length` is what it declares instead of the body's length."""
    declared = f"Content-Length: {len(body) if length is None else length}"
    return "\r\n".join(("POST / HTTP/1.1", *headers, declared, "", "")).encode() + body


def call_body(method: str, params: Any = None, identity: Any = 1) -> bytes:
    return json.dumps({"jsonrpc": "2.0", "method": method, "params": params, "id": identity}).encode()


def reply_of(raw: bytes) -> Any:
    """The JSON of a reply, after a look at the header block around it."""
    head, _, body = raw.partition(b"\r\n\r\n")
    wanted = ("HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n"
              f"Content-Length: {len(body)}\r\nConnection: close")
    assert head.decode() == wanted, raw[:300]
    return json.loads(body)


def result_of(raw: bytes) -> Any:
    if not raw:
        raise ConnectionError("no reply")
    reply = reply_of(raw)
    if "error" in reply:
        raise raw_http.RpcError(reply["error"]["code"], reply["error"]["message"])
    assert set(reply) == {"id", "jsonrpc", "result"} and reply["jsonrpc"] == "2.0", reply
    return reply["result"]


def error_of(raw: bytes, identity: Any = 1) -> Tuple[int, str]:
    """Code and message of an error reply with that id."""
    reply = reply_of(raw)
    assert set(reply) == {"error", "id", "jsonrpc"} and set(reply["error"]) == {"code", "message"}, reply
    assert (reply["jsonrpc"], reply["id"]) == ("2.0", identity), reply
    return reply["error"]["code"], reply["error"]["message"]


def is_open(sock: socket.socket) -> bool:
    """Whether the peer has neither closed nor sent."""
    sock.setblocking(False)
    try:
        sock.recv(1)
        return False
    except (BlockingIOError, ssl.SSLWantReadError):
        return True
    except OSError:
        return False


class NormalClient:
    """Inside the context a local getblockcount is answered within two seconds, again and again, while memory, threads
    and descriptors grow by no more than what is given.

    Threads: its own one calls; the context's end joins it and raises what it saw.
    """

    def __init__(self, node: Node, memory_mib: int, connections: int = 256) -> None:
        """`memory_mib`: growth allowed; a sanitizer's own is not bounded. `connections`: of the attack; as many again
        may have given way and be about to end."""
        self._node = node
        self._most = {"bytes": node.memory_bytes() + memory_mib * MIB if SLOW == 1 else sys.maxsize,
                      "threads": node.thread_count() + 2 * connections + 16,
                      "descriptors": node.descriptor_count() + 2 * connections + 16}
        self._faults: List[str] = []
        self._stopping = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)

    def __enter__(self) -> "NormalClient":
        self._thread.start()
        return self

    def __exit__(self, kind: object, *_: object) -> None:
        self._stopping.set()
        self._thread.join(60 * SLOW)
        if kind is None:
            self._sample()
            assert not self._faults, self._faults

    def _run(self) -> None:
        try:
            while not self._stopping.wait(0.02):
                self._sample()
        except Exception as error:  # pylint: disable=broad-except
            self._faults.append(repr(error))

    def _sample(self) -> None:
        start = time.monotonic()
        self._node.rpc("getblockcount")
        took = time.monotonic() - start
        if took > ANSWER_MAX_S * SLOW:
            self._faults.append(f"getblockcount took {took:.1f} s")
        now = {"bytes": self._node.memory_bytes(), "threads": self._node.thread_count(),
               "descriptors": self._node.descriptor_count()}
        self._faults += [f"{now[what]} {what}, {most} allowed" for what, most in self._most.items() if now[what] > most]
