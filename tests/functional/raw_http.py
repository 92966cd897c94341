"""JSON-RPC over plain sockets: whole calls, and exchanges of raw bytes. Every wait is bounded."""

import base64
import json
import socket
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


def connect(port: int, limit_s: float = 30, source: str = HOST) -> socket.socket:
    return socket.create_connection((HOST, port), limit_s * SLOW, (source, 0))


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


def exchange(port: int, request: bytes, limit_s: float = 30) -> bytes:
    """The reply to raw bytes, to its end."""
    with connect(port, limit_s) as sock:
        sock.sendall(request)
        return read_to_end(sock, limit_s)


def request_of(method: str, params: Any, credentials: Optional[Tuple[str, str]] = None) -> bytes:
    body = json.dumps({"id": 1, "jsonrpc": "2.0", "method": method, "params": params}).encode()
    head = f"POST / HTTP/1.1\r\nHost: {HOST}\r\nContent-Type: application/json\r\nContent-Length: {len(body)}\r\n"
    if credentials:
        head += f"Authorization: Basic {base64.b64encode(':'.join(credentials).encode()).decode()}\r\n"
    return head.encode() + b"Connection: close\r\n\r\n" + body


def call(port: int, method: str, params: Any = None, limit_s: float = 30) -> Any:
    """The result of a method; raises RpcError for an error reply, OSError or ValueError without a whole reply."""
    raw = exchange(port, request_of(method, {} if params is None else params), limit_s)
    reply = json.loads(raw.partition(b"\r\n\r\n")[2])
    if reply.get("error"):
        raise RpcError(reply["error"]["code"], reply["error"]["message"])
    return reply["result"]
