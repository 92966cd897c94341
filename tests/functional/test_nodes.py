"""Nodes on one machine: they find each other, catch up, relay, restart, and agree on the treasury."""

import os
from typing import Iterator, List

import pytest

import wallet
from child_process import Child, program, wait_until
from node_process import FIXED_DIFFICULTY, Node
from node_scenes import Stage, has_in_template
from norvel_formats import hash_text
from raw_peer import INV, RawPeer, ServingPeer
from stored_chain import chain, child
from wallet import LEFT, MAIN, RIGHT

HEIGHT = 2000
LIE = 2**32 - 1


@pytest.fixture(scope="module", name="stage")
def fixture_stage() -> Iterator[Stage]:
    with Stage() as stage:
        yield stage


def wait_for_one_tip(nodes: List[Node], tip: str, limit_s: float = 30) -> None:
    for node in nodes:
        node.wait_for_tip_hash(tip, limit_s)


def check_relay(stage: Stage, source: Node, nodes: List[Node]) -> None:
    """A transaction and then a block of one node reach all."""
    outputs = wallet.outputs_of(source, MAIN)
    tx = wallet.pay(MAIN, RIGHT.address, 500_000_000, outputs[:1])
    assert source.rpc("sendrawtransaction", {"hex": tx.hex()}) == {"accepted": True, "txid": wallet.txid(tx)}
    for node in nodes:
        wait_until(lambda node=node: has_in_template(node, wallet.txid(tx)), f"payment at {node.endpoint}")
    block = stage.mine_on(source, LEFT)
    assert tx in block.txs
    wait_for_one_tip(nodes, hash_text(block.hash()), 10)
    for node in nodes:
        assert node.rpc("getrawmempool") == []


def known_peers(node: Node) -> List[str]:
    with open(os.path.join(node.directory, "peers.dat"), encoding="ascii") as file:
        assert file.readline() == "# Norvel peer list\n"
        return [line.split()[0] for line in file]


def test_three_nodes_find_each_other_relay_and_restart(stage: Stage) -> None:
    first = stage.node(1, HEIGHT)
    second = stage.node(2, 0, "--connect", first.endpoint)
    second.wait_for_tip(chain()[HEIGHT], 60)
    late = stage.node(3, 0, "--seednode", second.endpoint)
    late.wait_for_tip(chain()[HEIGHT], 60)
    late.wait_for_peers(2)  # the second told it of the first
    nodes = [first, second, late]
    for source in nodes:
        check_relay(stage, source, nodes)
    for node in nodes:
        height, tip = node.height(), node.tip()
        node.stop()
        assert len(known_peers(node)) >= 1
        others = [other for other in nodes if other is not node]
        news = stage.mine_on(others[0], RIGHT)
        node.start()
        assert node.height() in (height, news.height), tip
        node.wait_for_tip(news)
    for node in nodes:
        node.wait_for_peers(2)
    check_relay(stage, first, nodes)
    for node in nodes:
        node.stop()
        assert set(known_peers(node)) >= {other.endpoint for other in nodes if other is not node}


def test_the_peer_list_survives_and_is_dialled_again(stage: Stage) -> None:
    first, second = stage.node(1, 5), stage.node(2, 0)
    first.stop()
    first.start("--seednode", second.endpoint)
    second.wait_for_tip(chain()[5])
    first.stop()
    second.kill()
    first.start()
    second.start()
    first.wait_for_peers(1)
    assert [peer["addr"] for peer in first.peers()] == [second.endpoint]
    second.stop()
    first.stop()


def test_a_directory_serves_one_process(stage: Stage) -> None:
    with stage.node(1, 5) as node:
        for options in ((), ("--check",), ("--rebuild",)):
            with Child(program("NORVEL_NODE"), "--datadir", node.directory, *FIXED_DIFFICULTY, *options) as second:
                assert second.end() == 1
                assert "another process uses" in second.err()
        assert node.height() == 5
        node.stop()


def test_bytes_of_a_synchronisation_from_one_peer(stage: Stage) -> None:
    blocks = chain()
    with stage.node(1, 0) as node, ServingPeer(node, blocks) as peer:
        node.wait_for_tip(blocks[-1], 60)
        delivered = sorted(peer.delivered)
        assert delivered == list(range(1, HEIGHT + 1))
        size = sum(len(block.encode()) for block in blocks[1:])
        assert peer.sent_bytes + peer.received_bytes <= 1.3 * size + 100 * HEIGHT
        node.stop()


def test_a_peer_that_lies_about_its_height_holds_nothing_up(stage: Stage) -> None:
    with stage.node(1, 5) as node, RawPeer(node) as liar:
        liar.handshake(LIE)
        with ServingPeer(node, chain()[:1201]) as honest:
            node.wait_for_tip(chain()[1200], 60)
            assert honest.delivered
        news = stage.solver.solve(child(chain()[1200], LEFT.key_hash))
        node.submit(news)
        liar.expect(INV, lambda payload: news.hash() in payload)
        node.stop()
