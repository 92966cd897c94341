"""Nodes on one machine: they find each other, catch up, relay, restart, and agree on the treasury."""

import os
from typing import List

import wallet
from child_process import Child, program, wait_until
from node_process import FIXED_DIFFICULTY, Node
from node_scenes import Stage, has_in_template, txids_of
from stored_chain import chain
from wallet import LEFT, MAIN, RIGHT

HEIGHT = 2000


def check_relay(stage: Stage, source: Node, nodes: List[Node]) -> None:
    """A transaction and then a block of one node reach all."""
    txid = wallet.pay(source, MAIN, RIGHT.address, "5")
    for node in nodes:
        wait_until(lambda node=node: has_in_template(node, txid), f"payment at {node.endpoint}")
    block = stage.mine_on(source, LEFT)
    assert txid in txids_of(block)
    for node in nodes:
        node.wait_for_tip(block, 10)
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
