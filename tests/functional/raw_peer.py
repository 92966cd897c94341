"""A peer of our own making: frames and payloads by hand, so that it can also send what no node would."""

import os
import select
import socket
import threading
import time
from typing import Callable, Dict, Iterable, List, Optional, Sequence, Tuple

from child_process import SLOW
from node_process import Node
from norvel_formats import NULL_HASH, Block, le

VERSION, VERACK, PING, PONG, GETBLOCKS, BLOCKS, GETDATA, BLOCK, TX, MEMPOOL, GETADDR, ADDR, REJECT, INV = range(1, 15)
INV_TX, INV_BLOCK = 1, 2
MAGIC = b"NRVL"
PAYLOAD_MAX = 4_194_304

Message = Tuple[int, bytes]


def frame(kind: int, payload: bytes = b"") -> bytes:
    return MAGIC + bytes([kind]) + le(len(payload), 4) + payload


def version_payload(height: int = 0, port: int = 0, nonce: Optional[bytes] = None, agent: bytes = b"raw") -> bytes:
    head = le(70015, 4) + le(1, 8) + le(int(time.time()), 8) + le(height, 4) + le(port, 2)
    return head + bytes([len(agent)]) + agent + (nonce or os.urandom(8))


def inventory(kind: int, hashes: Iterable[bytes]) -> bytes:
    return b"".join(bytes([kind]) + item for item in hashes)


def addresses(entries: Sequence[Tuple[str, int]]) -> bytes:
    now = le(int(time.time()), 8)
    return le(len(entries), 4) + b"".join(
        socket.inet_aton(host) + le(port, 2) + now + le(1, 4) for host, port in entries)


class RawPeer:
    """A connection to a node. Receiving methods return None when the node closed it, and raise at their limit."""

    def __init__(self, node: Node, source: str = "127.0.0.1") -> None:
        self.sock = socket.create_connection((node.address, node.port), 10 * SLOW, (source, 0))
        self.port: int = self.sock.getsockname()[1]
        self._buffer = bytearray()  # whose front is cheap to remove

    def __enter__(self) -> "RawPeer":
        return self

    def __exit__(self, *_: object) -> None:
        self.sock.close()

    def send_raw(self, data: bytes, limit_s: float = 30) -> None:
        self.sock.settimeout(limit_s * SLOW)
        self.sock.sendall(data)

    def send(self, kind: int, payload: bytes = b"") -> None:
        self.send_raw(frame(kind, payload))

    def receive(self, limit_s: float = 10) -> Optional[Message]:
        until = time.monotonic() + limit_s * SLOW
        while True:
            message = self._take_frame()
            if message:
                return message
            self.sock.settimeout(max(until - time.monotonic(), 0.001))
            try:
                chunk = self.sock.recv(1 << 20)
            except (ConnectionResetError, BrokenPipeError):
                return None
            if not chunk:
                return None
            self._buffer += chunk

    def _take_frame(self) -> Optional[Message]:
        if len(self._buffer) < 9:
            return None
        assert self._buffer[:4] == MAGIC, self._buffer[:9]
        size = 9 + int.from_bytes(self._buffer[5:9], "little")
        if len(self._buffer) < size:
            return None
        kind, payload = self._buffer[4], bytes(self._buffer[9:size])
        del self._buffer[:size]
        return kind, payload

    def expect(self, kind: int, fits: Callable[[bytes], bool] = lambda _: True, limit_s: float = 10) -> bytes:
        """The payload of the next message of this kind that fits; others are dropped, PINGs answered."""
        until = time.monotonic() + limit_s * SLOW
        while True:
            message = self.receive(max(until - time.monotonic(), 0.001) / SLOW)
            assert message is not None, f"closed while waiting for {kind}"
            if message[0] == PING:
                self.send(PONG, message[1])
            if message[0] == kind and fits(message[1]):
                return message[1]

    def handshake(self, height: int = 0, port: Optional[int] = None, nonce: Optional[bytes] = None) -> "RawPeer":
        """Ends when the node has taken our VERACK. By default the port is our own, which keeps the peer's key."""
        self.send(VERSION, version_payload(height, self.port if port is None else port, nonce))
        self.expect(VERSION)
        self.send(VERACK)
        self.expect(GETADDR)
        return self

    def ping_s(self, limit_s: float = 10) -> float:
        """Seconds until the PONG."""
        start, nonce = time.monotonic(), os.urandom(8)
        self.send(PING, nonce)
        self.expect(PONG, lambda payload: payload == nonce, limit_s)
        return time.monotonic() - start

    def drain(self, seconds: float) -> List[Message]:
        """What arrives within the time; the list is shorter when the node closes."""
        until, messages = time.monotonic() + seconds, []
        while time.monotonic() < until:
            try:
                message = self.receive(max(until - time.monotonic(), 0.001) / SLOW)
            except socket.timeout:
                break
            if message is None:
                break
            messages.append(message)
        return messages

    def wait_closed(self, limit_s: float = 10) -> None:
        """Reads on until the node closes."""
        until = time.monotonic() + limit_s * SLOW
        while self.receive(max(until - time.monotonic(), 0.001) / SLOW) is not None:
            pass


class ServingPeer(RawPeer):
    """Serves a chain from a thread as an honest node does, until closed or told to stop."""

    def __init__(self, node: Node, blocks: Sequence[Block]) -> None:
        super().__init__(node)
        self._blocks = blocks
        self._height_of: Dict[bytes, int] = {block.hash(): block.height for block in blocks}
        self._stopping = False
        self.handshake(blocks[-1].height)
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def __exit__(self, *_: object) -> None:
        self._stopping = True
        self._thread.join(10 * SLOW)
        super().__exit__()

    def _serve(self) -> None:
        while not self._stopping:
            if len(self._buffer) < 9 and not select.select([self.sock], [], [], 0.05)[0]:
                continue
            try:
                message = self.receive(10)
                if message is None:
                    return
                self._answer(*message)
            except (OSError, AssertionError):
                return

    def _answer(self, kind: int, payload: bytes) -> None:
        if kind == PING:
            self.send(PONG, payload)
        elif kind == GETBLOCKS:
            first = self._height_of.get(payload[:32], 0) + 1
            hashes = [block.hash() for block in self._blocks[first : first + 500]]
            if hashes:
                self.send(INV, inventory(INV_BLOCK, hashes))
        elif kind == GETDATA:
            for at in range(0, len(payload) - 32, 33):
                height = self._height_of.get(payload[at + 1 : at + 33])
                if payload[at] == INV_BLOCK and height is not None:
                    self.send(BLOCK, self._blocks[height].encode())


GETBLOCKS_FROM_GENESIS = NULL_HASH + NULL_HASH  # an unknown start: answered from height 1
