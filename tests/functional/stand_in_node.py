"""Stand-in node: JSON-RPC over real sockets on 127.0.0.1, with behaviours that a test sets per method.

Answers getblockcount, getblocktemplate and submitblock. It keeps a chain tip that advances with each accepted
block, checks every submitted block in full and keeps every request byte for byte.

Threads: one accepts, one serves each connection; `_lock` guards the chain. The records only grow, by single list
operations, so that a test may read them at any time. All threads are daemons.
"""

import json
import re
import socket
import threading
import time
from collections import defaultdict
from typing import Any, Callable, DefaultDict, Dict, List, Optional

from block_check import Served, as_u32, check_block
from norvel_formats import Block, address_of, hash_text, sha256d
from sample_transactions import KEY_A, transactions_at

# Compact bits outside the range that a real chain allows, so that blocks come quickly.
EASY = 0x2000FFFF  # a block every 256 hashes
MEDIUM = 0x1E7FFFFF  # a block every 131,072 hashes
NEVER = 0x1B00FFFF  # a block every 2^48 hashes

MINER_KEY = KEY_A
MINER_ADDRESS = address_of(MINER_KEY)
START_HEIGHT = 0x01020302
FEES = (0, 19_999, 20_000, 20_001, 123_456_789)

Behaviour = Callable[["Exchange"], None]


class Exchange:
    def __init__(self, node: "StandInNode", sock: socket.socket, raw: bytes) -> None:
        self.node = node
        self.sock = sock
        self.body: Dict[str, Any] = json.loads(raw.partition(b"\r\n\r\n")[2], strict=False)

    def answer(self) -> bytes:
        """The right reply; takes effect on the chain when called."""
        return http(json.dumps(self.node.answer(self.body["method"], self.body["params"])))

    def closed_by_peer(self, timeout_s: float) -> None:
        self.sock.settimeout(timeout_s)
        while self.sock.recv(4096):
            pass


def http(body: "str | bytes", status: str = "200 OK") -> bytes:
    data = body.encode() if isinstance(body, str) else body
    return f"HTTP/1.1 {status}\r\nContent-Length: {len(data)}\r\n\r\n".encode() + data


def answer_well(exchange: Exchange) -> None:
    exchange.sock.sendall(exchange.answer())


class StandInNode:
    """Context manager; listens from construction on."""

    def __init__(self, bits: int = NEVER, blocks_wanted: Optional[int] = None) -> None:
        """Serves `bits` until `blocks_wanted` blocks were accepted, then bits that never yield one."""
        self.bits = bits
        self.blocks_wanted = blocks_wanted
        self.overrides: Dict[str, Any] = {}  # template fields to put in place of the usual ones
        self.problems: List[str] = []  # all that was wrong with requests and blocks
        self.requests: List[bytes] = []  # raw, in order of arrival
        self.submitted: List[Block] = []
        self.accepted: List[Block] = []
        self.served_of: Dict[str, Served] = {}  # by previous block hash
        self.standard: DefaultDict[str, Behaviour] = defaultdict(lambda: answer_well)  # by method
        self._plans: DefaultDict[str, List[Behaviour]] = defaultdict(list)
        self._tip = (sha256d(b"stand-in tip"), START_HEIGHT, int(time.time()) - 10)  # hash, height, time
        self._lock = threading.RLock()
        self._listener = self._listen(0)
        self.port: int = self._listener.getsockname()[1]

    def __enter__(self) -> "StandInNode":
        return self

    def __exit__(self, *_: object) -> None:
        self.close_door()

    def plan(self, method: str, *behaviours: Behaviour) -> None:
        """Queues behaviours for the next requests of `method`; `standard` holds for those after."""
        with self._lock:
            self._plans[method] += behaviours

    def methods(self) -> List[str]:
        with self._lock:
            return [re.search(rb'"method":"(\w+)"', raw)[1].decode() for raw in self.requests]  # type: ignore[index]

    def count(self, method: str) -> int:
        return self.methods().count(method)

    def close_door(self) -> None:
        """From here on connections are refused."""
        try:
            self._listener.shutdown(socket.SHUT_RDWR)  # wakes accept()
        except OSError:
            pass
        self._listener.close()
        self._placeholder = self._bind(self.port)  # so that nobody else gets the port

    def open_door(self) -> None:
        self._listener = self._listen(self.port)
        self._placeholder.close()

    def answer(self, method: str, params: Any) -> Dict[str, Any]:
        """The JSON-RPC reply of a node in good order."""
        with self._lock:
            if method == "getblockcount":
                return {"result": self._tip[1], "error": None}
            if method == "getblocktemplate":
                return {"result": self._template(), "error": None}
            reason = self._submit(bytes.fromhex(params["data"]))
            if reason:
                return {"result": None, "error": {"code": -1, "message": "Error: Block rejected: " + reason}}
            return {"result": {"accepted": True, "hash": hash_text(self._tip[0]), "height": self._tip[1]}}

    def _template(self) -> Dict[str, Any]:
        tip_hash, tip_height, tip_time = self._tip
        height = tip_height + 1
        done = self.blocks_wanted is not None and len(self.accepted) >= self.blocks_wanted
        txs = transactions_at(height)
        fields: Dict[str, Any] = {
            "version": 0x20000000 + height % 3,
            "previousblockhash": hash_text(tip_hash),
            "height": height,
            "bits": NEVER if done else self.bits,
            "curtime": int(time.time()),
            "prevblocktime": tip_time + (500 if height % 4 == 0 else 0),  # a parent ahead of the clock
            "miner_reward": 800_000_000 + height % 1000,
            "total_fees": FEES[height % len(FEES)],
            # The rest is not for the miner's coinbase: wrong values show whether they were used.
            "coinbasevalue": 1, "treasury_value": 2, "treasury_address": "1", "miningaddress": "1",
            "transactions": [{"txid": "00", "data": "00"}],
        }
        fields.update(self.overrides)
        self.served_of.setdefault(fields["previousblockhash"], Served(fields, txs, time.time()))
        upper = "0X" if height % 2 else ""  # a prefix and capitals are hexadecimal too
        return {"tx_data": [upper + (tx.hex().upper() if upper else tx.hex()) for tx in txs], **fields}

    def _submit(self, data: bytes) -> str:
        """Takes a block; the reason of its refusal, or an empty text."""
        block = Block.decode(data)
        self.submitted.append(block)
        served = self.served_of.get(hash_text(block.prev_hash))
        if served is None:
            self.problems.append("block on an unknown parent")
            return "unknown parent"
        problems = check_block(data, served, MINER_KEY)
        self.problems += problems
        if problems:
            return problems[0]
        if block.prev_hash != self._tip[0]:
            return "stale"
        self.accepted.append(block)
        self._tip = (block.hash(), as_u32(block.height), min(block.timestamp, 2**40))
        return ""

    @staticmethod
    def _bind(port: int) -> socket.socket:
        bound = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        bound.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        bound.bind(("127.0.0.1", port))
        return bound

    def _listen(self, port: int) -> socket.socket:
        listener = self._bind(port)
        listener.listen(64)
        threading.Thread(target=self._accept, args=(listener,), daemon=True).start()
        return listener

    def _accept(self, listener: socket.socket) -> None:
        while True:
            try:
                sock, _ = listener.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(sock,), daemon=True).start()

    def _serve(self, sock: socket.socket) -> None:
        with sock:
            try:
                raw = read_request(sock)
                if not raw:
                    return
                with self._lock:
                    self.requests.append(raw)
                    exchange = Exchange(self, sock, raw)
                    queue = self._plans[exchange.body["method"]]
                    behaviour = queue.pop(0) if queue else self.standard[exchange.body["method"]]
                behaviour(exchange)
            except OSError:
                pass  # the peer went away
            except (ValueError, LookupError) as error:
                self.problems.append(f"bad request: {error!r}")


def read_request(sock: socket.socket) -> bytes:
    """All that the peer sent: the head, the declared body, and anything after it that is already there."""
    sock.settimeout(60)
    raw = b""
    while True:
        head, blank, body = raw.partition(b"\r\n\r\n")
        length = re.search(rb"Content-Length: (\d+)", head)
        if blank and length and len(body) >= int(length[1]):
            return raw
        chunk = sock.recv(1 << 20)
        if not chunk:
            return raw
        raw += chunk


def request_bytes(port: int, number: int, method: str, params: str, host: str = "127.0.0.1") -> bytes:
    """The only right bytes of a client's request `number`, counted from 0."""
    body = f'{{"id":"{number}","jsonrpc":"2.0","method":"{method}","params":{params}}}'.encode()
    lines = ["POST / HTTP/1.1", f"Host: {host}:{port}", "Content-Type: application/json",
             f"Content-Length: {len(body)}", "Connection: close", "", ""]
    return "\r\n".join(lines).encode() + body
