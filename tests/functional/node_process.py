"""Runs norveld as a child process: on loopback addresses, free ports and a data directory of its own."""

import os
import random
import shutil
import signal
import socket
import ssl
import tempfile
from typing import Any, Dict, Iterable, List, Optional, Tuple

import raw_http
from child_process import Child, program, wait_until
from norvel_formats import Block, hash_text

# Difficulty stays the easiest, as the stored chains need it.
FIXED_DIFFICULTY = ("--retarget-interval", 1_000_000)


def free_port(address: str = "127.0.0.1") -> int:
    """A port that nobody listens on now, outside the range that the system gives to outgoing connections."""
    while True:
        port = random.randrange(20_001, 32_000)
        with socket.socket() as probe:
            try:
                probe.bind((address, port))
                return port
            except OSError:
                continue


def scratch_root() -> Optional[str]:
    """Memory where there is room, since nodes sync all the time."""
    memory = "/dev/shm"
    return memory if os.path.isdir(memory) and shutil.disk_usage(memory).free > 2 << 30 else None


class Node:
    """A node that can be started again on the same directory and ports; leaving the context kills it."""

    def __init__(self, *options: object, address: str = "127.0.0.1", copy_of: Optional[str] = None) -> None:
        """`options` go to every start. `copy_of` is a data directory to begin with."""
        self.address = address
        self.port = free_port(address)
        self.rpc_port = free_port()
        self._scratch = tempfile.TemporaryDirectory(prefix="norvel-", dir=scratch_root())
        self.directory = os.path.join(self._scratch.name, "node")
        if copy_of:
            shutil.copytree(copy_of, self.directory)
        self._options = ("--datadir", self.directory, "--bind", address, "--port", self.port, "--rpc-port",
                         self.rpc_port, *options)
        self.environment: Dict[str, str] = {}  # of the next start
        self.credentials: Optional[Tuple[str, str]] = None  # of calls, which go over TLS where this is set
        self.tls: Optional[ssl.SSLContext] = None
        self.child: Optional[Child] = None

    def __enter__(self) -> "Node":
        if self.child is None:
            self.start()
        return self

    def __exit__(self, *_: object) -> None:
        self.discard()
        self._scratch.cleanup()

    @property
    def endpoint(self) -> str:
        return f"{self.address}:{self.port}"

    @property
    def running(self) -> Child:
        assert self.child is not None, "the node was not started"
        return self.child

    def start(self, *options: object, limit_s: float = 20) -> "Node":
        """Starts it, with further options this once, and waits until it is ready for peers and for calls."""
        self.launch(*options)
        wait_until(self._answers, "answer of the node", limit_s)
        return self

    def launch(self, *options: object) -> Child:
        """Starts it and waits for nothing."""
        self.discard()
        self.child = Child(program("NORVEL_NODE"), *self._options, *options, environment=self.environment)
        return self.child

    def _answers(self) -> bool:
        assert self.running.process.poll() is None, (self.running.process.returncode, self.running.err()[-2000:])
        try:
            self.rpc("getblockcount")
            return "Ready: height " in self.running.out()
        except (OSError, ValueError):
            return False

    def stop(self, number: int = signal.SIGTERM) -> str:
        """Stops it in good order and returns what it printed."""
        self.running.send(number)
        status = self.running.end(10)
        assert status == 0, (status, self.running.err()[-2000:])
        return self.running.out()

    def kill(self) -> None:
        self.running.process.kill()
        self.running.process.wait()

    def discard(self) -> None:
        if self.child is not None:
            self.child.__exit__()
            self.child = None

    def rpc(self, method: str, *params: Any, limit_s: float = 30) -> Any:
        """A call with positional parameters, or with one object."""
        single = len(params) == 1 and isinstance(params[0], dict)
        body = raw_http.call_body(method, params[0] if single else list(params))
        headers = [raw_http.authorization(*self.credentials)] if self.credentials else []
        request = raw_http.request(body, *headers)
        return raw_http.result_of(raw_http.ask(self.rpc_port, request, tls=self.tls, limit_s=limit_s))

    def height(self) -> int:
        return int(self.rpc("getblockcount"))

    def tip(self) -> str:
        return str(self.rpc("getbestblockhash"))

    def wait_for_tip(self, block: Block, limit_s: float = 30) -> None:
        wanted = hash_text(block.hash())
        wait_until(lambda: self.tip() == wanted, f"tip {wanted[:16]} at {self.endpoint}", limit_s)

    def peers(self) -> List[Any]:
        return list(self.rpc("getpeerinfo"))

    def wait_for_peers(self, count: int, limit_s: float = 20) -> None:
        wait_until(lambda: len(self.peers()) >= count, f"{count} peers at {self.endpoint}", limit_s)

    def submit(self, block: Block) -> None:
        reply = self.rpc("submitblock", {"data": block.encode().hex()})
        assert reply["accepted"] is True, reply

    def feed(self, blocks: Iterable[Block]) -> None:
        for block in blocks:
            self.submit(block)

    def memory_bytes(self) -> int:
        return int(self._status("VmRSS").split()[0]) * 1024

    def thread_count(self) -> int:
        return int(self._status("Threads"))

    def descriptor_count(self) -> int:
        return len(os.listdir(f"/proc/{self.running.process.pid}/fd"))

    def _status(self, field: str) -> str:
        with open(f"/proc/{self.running.process.pid}/status", encoding="ascii") as file:
            return next(line.split(":")[1].strip() for line in file if line.startswith(field + ":"))


