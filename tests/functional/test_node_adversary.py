"""Peers that attack a node: it stays within its bounds, answers others meanwhile and takes honest blocks after.

Every attack comes from an address of its own, since a ban holds for an address.
"""

import dataclasses
import itertools
import os
import random
import time
from typing import Callable, Sequence

import pytest

import raw_peer as p
from child_process import SLOW
from node_process import Node
from node_scenes import Stage
from node_watch import OBSERVER, beside_peers
from norvel_formats import Block, Tx, TxIn, TxOut, le, p2pkh
from raw_peer import RawPeer
from stored_chain import chain, child
from wallet import LEFT

HEIGHT = 100
TIP, NEXT = chain()[HEIGHT : HEIGHT + 2]
LOG_BYTES_PER_S = 10_000
_HOSTS = itertools.count(2)


def new_host() -> str:
    number = next(_HOSTS)
    return f"127.0.{2 + number // 250}.{number % 250 + 1}"


def attacker(node: Node) -> RawPeer:
    """A peer that has shaken hands, from a new address."""
    return RawPeer(node, new_host()).handshake()


def push(peer: RawPeer, data: bytes, limit_s: float = 3) -> bool:
    """Sends without ever reading; False when the node stopped taking bytes or closed."""
    try:
        peer.send_raw(data, limit_s)
        return True
    except OSError:
        return False


def with_body(block: Block, txs: Sequence[bytes]) -> Block:
    """The same header in front of other transactions."""
    return dataclasses.replace(block, txs=list(txs))


def malformed(node: Node, shake_hands: bool) -> None:
    """Every type with payloads that are empty, cut, oversized for their meaning, or noise."""
    noise = random.Random(1)
    payloads = [b"", b"\0", b"\xff" * 23, b"\xff" * 33, noise.randbytes(64), noise.randbytes(10_000), bytes(100_000)]
    for kind in [*range(0, 17), 255]:
        with RawPeer(node, new_host()) as peer:
            if shake_hands:
                peer.handshake()
            push(peer, b"".join(p.frame(kind, payload) for payload in payloads))
            peer.drain(0.05)


def large_pings_unread(node: Node) -> None:
    with attacker(node) as peer:
        frame = p.frame(p.PING, bytes(p.PAYLOAD_MAX))
        assert not all(push(peer, frame) for _ in range(60))  # at some point the node no longer reads


def hundred_thousand_addresses(node: Node) -> None:
    """On ports of loopback that refuse at once."""
    peers = [attacker(node) for _ in range(4)]
    for at in range(0, 100_000, 1000):
        entries = [(f"127.{10 + n // 40_000}.{n // 200 % 200}.{n % 200 + 1}", 1) for n in range(at, at + 1000)]
        push(peers[at // 25_000], p.frame(p.ADDR, p.addresses(entries)))
    peers[0].send(p.GETADDR)
    assert len(peers[0].expect(p.ADDR)) <= 4 + 18 * 1000
    for peer in peers:
        peer.sock.close()


def requests_unread(node: Node) -> None:
    """Few of those that are counted as spam, many of the others."""
    known = p.inventory(p.INV_BLOCK, [block.hash() for block in chain()[1 : HEIGHT + 1]])
    with attacker(node) as peer:
        push(peer, (p.frame(p.MEMPOOL) + p.frame(p.GETADDR)) * 20)
        push(peer, p.frame(p.GETBLOCKS, p.GETBLOCKS_FROM_GENESIS) * 2000)
        for _ in range(20):
            push(peer, p.frame(p.GETDATA, known * 500))
        time.sleep(2)


def endless_inventory(node: Node) -> None:
    with attacker(node) as peer:
        for kind in (p.INV_BLOCK, p.INV_TX, 77):
            push(peer, p.frame(p.INV, p.inventory(kind, [os.urandom(32) for _ in range(50_000)])))
        assert len(peer.drain(2 * SLOW)) > 16  # it asks for what it does not know, a few blocks at a time


def junk_blocks(node: Node) -> None:
    """Blocks without work, bodies that do not decode, and other bodies behind the header of an honest block."""
    with attacker(node) as peer:
        for nonce in range(200):
            push(peer, p.frame(p.BLOCK, child(TIP, LEFT.key_hash, nonce).encode() + bytes(1000)))
    with attacker(node) as peer:
        bloated = child(TIP, LEFT.key_hash)
        bloated.txs = [os.urandom(900_000)] * 4
        push(peer, p.frame(p.BLOCK, bloated.encode()) * 5)
        peer.drain(1)
    with attacker(node) as peer:
        filler = Tx([TxIn(os.urandom(32), 0)], [TxOut(1, bytes(100)) for _ in range(50)]).encode()
        for count in (0, 1, 100):
            push(peer, p.frame(p.BLOCK, with_body(NEXT, [NEXT.txs[0]] + [filler] * count + [filler]).encode()))
        push(peer, p.frame(p.BLOCK, with_body(NEXT, []).encode()))
        peer.ping_s()


def orphan_transactions(node: Node) -> None:
    """A hundred megabytes in large ones, and a thousand small ones."""
    with attacker(node) as peer:
        script = bytes(60_000)
        for n in range(100):
            outs = [TxOut(1, script) for _ in range(16)] + [TxOut(n, p2pkh(LEFT.key_hash))]
            push(peer, p.frame(p.TX, Tx([TxIn(os.urandom(32), 0)], outs).encode()))
        for n in range(1000):
            tx = Tx([TxIn(os.urandom(32), 0)], [TxOut(n, p2pkh(LEFT.key_hash))])
            push(peer, p.frame(p.TX, tx.encode()))
        peer.ping_s(20)


def orphan_blocks(node: Node) -> None:
    """Every second block of a branch, so that no parent is known."""
    with attacker(node) as peer:
        for block in chain("left")[700:1100:2]:
            push(peer, p.frame(p.BLOCK, block.encode()))
        peer.ping_s(20)


def slow_bytes(node: Node) -> None:
    peers = [RawPeer(node, new_host()) for _ in range(30)]
    for byte in p.frame(p.VERSION, p.version_payload()):
        for peer in peers:
            push(peer, bytes([byte]))
        time.sleep(0.03)
    for peer in peers:
        peer.expect(p.VERACK)
        peer.sock.close()


def echoes_of_its_nonce(node: Node) -> None:
    """5,000 connections, each of which says to be this node, under as many ports."""
    with RawPeer(node, new_host()) as peer:
        peer.send(p.VERSION, p.version_payload(port=peer.port))
        nonce = peer.expect(p.VERSION)[-8:]
    for first in range(0, 5000, 100):
        peers = [RawPeer(node, f"127.7.{n // 250}.{n % 250 + 1}") for n in range(first, first + 100)]
        for port, peer in enumerate(peers, 10_000 + first):
            push(peer, p.frame(p.VERSION, p.version_payload(port=port, nonce=nonce)))
        for peer in peers:
            peer.wait_closed()
            peer.sock.close()


def what_is_logged(node: Node) -> None:
    """All that a stranger can have printed, from 600 addresses."""
    unknown = p.frame(p.GETBLOCKS, os.urandom(64))
    no_tx, no_block = p.frame(p.TX, bytes(40)), p.frame(p.BLOCK, bytes(40))
    orphan = chain("left")[700].encode()
    for _ in range(600):
        with attacker(node) as peer:
            push(peer, p.frame(p.REJECT) * 40 + unknown * 40 + p.frame(p.BLOCK, orphan))
            push(peer, p.frame(p.BLOCK, child(TIP, LEFT.key_hash, 5).encode()) + no_tx * 5 + no_block * 20)
            peer.wait_closed()


ATTACKS = [
    ("malformed before the handshake", lambda node: malformed(node, False), 1),
    ("malformed after the handshake", lambda node: malformed(node, True), 1),
    ("large pings, never reading", large_pings_unread, 1),
    ("a hundred thousand addresses", hundred_thousand_addresses, 4),
    ("requests, never reading", requests_unread, 1),
    ("endless inventory", endless_inventory, 1),
    ("junk blocks", junk_blocks, 3),
    ("orphan transactions", orphan_transactions, 1),
    ("orphan blocks", orphan_blocks, 1),
    ("slow bytes", slow_bytes, 30),
    ("echoes of its nonce", echoes_of_its_nonce, 100),
    ("what is logged", what_is_logged, 1),
]


@pytest.mark.parametrize("attack, attackers", [row[1:] for row in ATTACKS], ids=[row[0] for row in ATTACKS])
def test_an_attack_holds_nobody_up(stage: Stage, attack: Callable[[Node], None], attackers: int) -> None:
    with stage.node(1, HEIGHT) as node:
        begin = time.monotonic()
        observer = RawPeer(node, OBSERVER).handshake()
        with beside_peers(node, observer, attackers):
            attack(node)
        seconds, logged = time.monotonic() - begin, len(node.running.out()) + len(node.running.err())
        assert logged < 8_000 + LOG_BYTES_PER_S * seconds
        observer.send(p.BLOCK, NEXT.encode())
        node.wait_for_tip(NEXT)
        observer.sock.close()
        assert "terminate" not in node.running.err()
        node.stop()


def is_taken(node: Node, host: str) -> bool:
    """Whether a connection from `host` is served."""
    with RawPeer(node, host) as peer:
        try:
            peer.handshake()
            return True
        except (AssertionError, OSError):
            return False


def test_a_ban_and_its_expiry(stage: Stage) -> None:
    with stage.node(1, HEIGHT, "--ban-duration", 2) as node:
        host = new_host()
        bystander = RawPeer(node, host).handshake()
        for _ in range(2):
            with RawPeer(node, host) as peer:
                peer.handshake()
                push(peer, p.MAGIC + bytes([p.PING]) + le(p.PAYLOAD_MAX + 1, 4))
                peer.wait_closed()
            time.sleep(0.5)
        bystander.wait_closed()  # of the same address
        assert f"[Network] Banning {host} \u2014 misbehavior score exceeded threshold" in node.running.out()
        assert not is_taken(node, host)
        assert is_taken(node, new_host())
        node.running.wait_for(f"[Network] Ban expired for {host}", 20)
        assert is_taken(node, host)
