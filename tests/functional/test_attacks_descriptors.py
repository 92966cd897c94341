"""Connections that would take all descriptors of a node, with few of them to have and with many."""

import resource
import time
from contextlib import ExitStack, contextmanager, suppress
from typing import Iterator

import pytest

import raw_peer as p
from child_process import SLOW, wait_until
from node_process import Node
from node_scenes import Stage
from node_watch import beside_clients
from raw_http import open_stream, request
from raw_peer import RawPeer
from stored_chain import chain

HEIGHT = 100
FEW, PEERS = 64, 1100


@contextmanager
def descriptors(count: int) -> Iterator[None]:
    """What may be open in this process, and in those that it starts meanwhile."""
    before = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (count, before[1]))
    try:
        yield
    finally:
        resource.setrlimit(resource.RLIMIT_NOFILE, before)


def fill(stack: ExitStack, node: Node) -> None:
    """Connections on both ports that never say what they want, many more than there are descriptors."""
    for number in range(3 * FEW):
        stack.enter_context(RawPeer(node, f"127.0.4.{number + 1}"))
        sock = stack.enter_context(open_stream(node.rpc_port))
        with suppress(OSError):  # has given way already
            sock.sendall(request(b"")[: number % 20])
        time.sleep(0.002)  # the queue of the RPC listener is short


@pytest.mark.skipif(SLOW > 1, reason="a sanitizer needs descriptors of its own")
def test_a_node_of_64_descriptors_answers_calls_and_stores_blocks(stage: Stage) -> None:
    node = stage.node(1, HEIGHT)
    resource.prlimit(node.running.process.pid, resource.RLIMIT_NOFILE, (FEW, FEW))
    with ExitStack() as stack:
        fill(stack, node)
        with beside_clients(node, 96, FEW):
            node.feed(chain()[HEIGHT + 1 : HEIGHT + 21])
        print(node.descriptor_count(), "descriptors while both ports are full")
        assert node.descriptor_count() <= FEW - 8
    wait_until(lambda: node.descriptor_count() < FEW // 4, "end of the connections")
    RawPeer(node, "127.0.5.1").handshake().sock.close()
    assert "Failed" not in node.running.err() and "Cannot" not in node.running.err()
    node.stop()


def test_peers_beyond_descriptor_1023_are_served(stage: Stage) -> None:
    with descriptors(4 * PEERS), ExitStack() as stack:
        node = stage.node(1, HEIGHT, "--max-inbound", PEERS)
        memory = node.memory_bytes()
        peers = [stack.enter_context(RawPeer(node, f"127.6.{n // 600}.{n // 3 % 200 + 1}")) for n in range(PEERS)]
        for peer in peers:
            peer.send(p.VERSION, p.version_payload(port=peer.port))
            peer.send(p.VERACK)
        for peer in peers:
            peer.expect(p.GETADDR)
        assert node.descriptor_count() > 1023
        begin = time.monotonic()
        block = chain()[HEIGHT + 1]
        peers[-1].send(p.BLOCK, block.encode())
        for peer in peers:
            peer.expect(p.INV, lambda payload: payload[1:] == block.hash())
        assert node.height() == HEIGHT + 1 and peers[-1].ping_s() < 2 * SLOW
        took, grown = time.monotonic() - begin, (node.memory_bytes() - memory) // PEERS
        print(f"{took:.1f} s until all had the block, {grown // 1024} KiB a peer")
        assert took < 10 * SLOW and (grown < 1 << 18 or SLOW > 1)
        node.stop()
