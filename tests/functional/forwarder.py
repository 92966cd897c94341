"""A TCP forwarder on loopback that can be cut: what two nodes see when the line between them breaks."""

import socket
import threading
from typing import List, Tuple

from node_process import free_port


class Forwarder:
    """Passes connections on to `target` while it is whole.

    Threads: one accepts, two a connection copy; all are daemons that end with their sockets.
    """

    def __init__(self, target: Tuple[str, int]) -> None:
        self._target = target
        self._listener = socket.create_server(("127.0.0.1", free_port()), backlog=16)
        self._lock = threading.Lock()
        self._open: List[socket.socket] = []
        self._is_whole = True
        threading.Thread(target=self._accept, daemon=True).start()

    @property
    def endpoint(self) -> str:
        return "%s:%d" % self._listener.getsockname()

    def cut(self) -> None:
        with self._lock:
            self._is_whole = False
            for sock in self._open:
                _shut(sock)
            self._open.clear()

    def mend(self) -> None:
        with self._lock:
            self._is_whole = True

    def close(self) -> None:
        self.cut()
        _shut(self._listener)
        self._listener.close()

    def _accept(self) -> None:
        while True:
            try:
                near, _ = self._listener.accept()
            except OSError:
                return
            try:
                far = socket.create_connection(self._target, 5)
            except OSError:
                near.close()
                continue
            far.settimeout(None)
            with self._lock:
                if not self._is_whole:
                    near.close()
                    far.close()
                    continue
                self._open = [sock for sock in self._open if sock.fileno() >= 0] + [near, far]
            for source, sink in ((near, far), (far, near)):
                threading.Thread(target=_copy, args=(source, sink), daemon=True).start()


def _copy(source: socket.socket, sink: socket.socket) -> None:
    try:
        while data := source.recv(65_536):
            sink.sendall(data)
    except OSError:
        pass
    _shut(sink)
    source.close()


def _shut(sock: socket.socket) -> None:
    try:
        sock.shutdown(socket.SHUT_RDWR)
    except OSError:
        pass
