"""Ways in which a node misbehaves, for StandInNode.plan() and StandInNode.standard."""

import time

from stand_in_node import Behaviour, Exchange, http

HANG_S = 300  # longer than any test


def raw(reply: bytes) -> Behaviour:
    return lambda exchange: exchange.sock.sendall(reply)


def body(text: "str | bytes", status: str = "200 OK") -> Behaviour:
    return raw(http(text, status))


def rpc_error(message: str) -> Behaviour:
    """An error reply; the message stands in it as given, control characters included."""
    return body(f'{{"result":null,"error":{{"code":-1,"message":"{message}"}}}}')


def close_at_once(exchange: Exchange) -> None:
    exchange.sock.close()


def hang(exchange: Exchange) -> None:
    """No reply until the peer hangs up."""
    exchange.closed_by_peer(HANG_S)


def stall_halfway(exchange: Exchange) -> None:
    """Half of the right reply, then nothing until the peer hangs up."""
    answer = exchange.answer()
    exchange.sock.sendall(answer[:len(answer) // 2])
    exchange.closed_by_peer(HANG_S)


def after(seconds: float) -> Behaviour:
    def behave(exchange: Exchange) -> None:
        time.sleep(seconds)
        exchange.sock.sendall(exchange.answer())
    return behave


def close_door(exchange: Exchange) -> None:
    """The right reply, after which connections are refused."""
    exchange.node.close_door()
    exchange.sock.sendall(exchange.answer())


def trickle(exchange: Exchange) -> None:
    """A reply that goes on for ever, one byte at a time."""
    exchange.sock.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n")
    until = time.monotonic() + HANG_S
    while time.monotonic() < until:
        exchange.sock.sendall(b" ")
        time.sleep(0.1)


def endless(piece: bytes, head: bytes = b"HTTP/1.1 200 OK\r\n\r\n") -> Behaviour:
    """A reply that repeats `piece` until the peer hangs up; each "%d" in it is another number."""
    def behave(exchange: Exchange) -> None:
        exchange.sock.settimeout(HANG_S)
        exchange.sock.sendall(head)
        for first in range(0, 1 << 32, 65536):
            numbers = range(first, first + 65536)
            exchange.sock.sendall(b"".join(piece % n for n in numbers) if b"%d" in piece else piece * 65536)
    return behave
