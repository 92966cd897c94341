"""JSON-RPC over plain sockets and TLS: whole calls, and exchanges of raw bytes. Every wait is bounded."""

import base64
import json
import socket
import ssl
import time
from typing import Any, Optional, Tuple

from child_process import SLOW

HOST = "127.0.0.1"


class RpcError(Exception):
    """An error reply."""

    def __init__(self, code: int, message: str) -> None:
        super().__init__(f"{message} ({code})")
        self.code = code
        self.message = message


def open_stream(port: int, source: str = HOST, tls: Optional[ssl.SSLContext] = None,
                limit_s: float = 30) -> socket.socket:
    sock = socket.create_connection((HOST, port), limit_s * SLOW, (source, 0))
    sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return tls.wrap_socket(sock, server_hostname=HOST) if tls else sock


def read_to_end(sock: socket.socket, limit_s: float = 30) -> bytes:
    """All bytes until the peer closes; raises socket.timeout when it does not."""
    until = time.monotonic() + limit_s * SLOW
    data = b""
    while True:
        sock.settimeout(max(until - time.monotonic(), 0.001))
        try:
            chunk = sock.recv(1 << 20)
        except ConnectionResetError:
            return data
        if not chunk:
            return data
        data += chunk


def ask(port: int, *pieces: bytes, pause_s: float = 0, source: str = HOST, tls: Optional[ssl.SSLContext] = None,
        limit_s: float = 30) -> bytes:
    """The whole reply to a request that is sent in pieces."""
    with open_stream(port, source, tls, limit_s) as sock:
        for piece in pieces:
            sock.sendall(piece)
            time.sleep(pause_s)
        return read_to_end(sock, limit_s)


def request(body: bytes, *headers: str, length: Optional[object] = None) -> bytes:
    """A request; `length` is what it declares instead of the body's length."""
    declared = f"Content-Length: {len(body) if length is None else length}"
    return "\r\n".join(("POST / HTTP/1.1", *headers, declared, "", "")).encode() + body


def call_body(method: str, params: Any = None, identity: Any = 1) -> bytes:
    return json.dumps({"jsonrpc": "2.0", "method": method, "params": params, "id": identity}).encode()


def authorization(user: str, password: str) -> str:
    return "Authorization: Basic " + base64.b64encode(f"{user}:{password}".encode()).decode()


def reply_of(raw: bytes) -> Any:
    """The JSON of a reply; raises OSError or ValueError where it is not a whole one with the right header block."""
    if not raw:
        raise ConnectionError("no reply")
    head, _, body = raw.partition(b"\r\n\r\n")
    if head.decode() != ("HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n"
                         f"Content-Length: {len(body)}\r\nConnection: close"):
        raise ValueError(raw[:300])
    return json.loads(body)


def result_of(raw: bytes) -> Any:
    """Raises RpcError for an error reply."""
    reply = reply_of(raw)
    if "error" in reply:
        raise RpcError(reply["error"]["code"], reply["error"]["message"])
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
    except BlockingIOError:
        return True
    except OSError:
        return False
