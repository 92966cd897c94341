"""Two nodes apart: each with a branch of its own they join, the heavier one wins, and what the other held returns."""

from typing import Iterator

import pytest

import wallet
from child_process import wait_until
from node_process import Node
from node_scenes import Stage, has_in_template, serve
from stored_chain import BRANCHES, chain, child
from wallet import MAIN

# Fork height, then the branch and its length of the node that listens and of the one that dials.
ROWS = [
    (5, "main", 1, "low", 2),
    (5, "main", 2, "low", 1),
    (5, "main", 510, "low", 520),
    (5, "low", 520, "main", 510),
    (600, "left", 1, "right", 2),
    (600, "left", 2, "right", 1),
    (600, "left", 510, "right", 520),
    (600, "right", 520, "left", 510),
]


@pytest.fixture(scope="module", name="stage")
def fixture_stage() -> Iterator[Stage]:
    with Stage() as stage:
        yield stage


def grow_with_payment(stage: Stage, node: Node, branch: str, fork: int, count: int) -> bytes:
    """The branch, but its last block, mined now, holds a payment of the oldest coins; returns that."""
    serve(node, chain(branch)[: fork + count])
    first = chain()[1].txs[0]
    tx = wallet.pay(MAIN, MAIN.address, 700_000_000, [f"{wallet.txid(first)}:0:800000000"])
    tip = chain(branch)[fork + count - 1]
    node.submit(stage.solver.solve(child(tip, BRANCHES[branch].payee.key_hash, txs=[tx])))
    return tx


@pytest.mark.parametrize("fork, branch_a, count_a, branch_b, count_b", ROWS)
def test_the_heavier_branch_wins(stage: Stage, fork: int, branch_a: str, count_a: int, branch_b: str,
                                 count_b: int) -> None:
    with stage.node(1, fork) as listener, stage.node(2, fork) as dialler:
        rows = [(listener, branch_a, count_a), (dialler, branch_b, count_b)]
        (loser, lost, lost_count), (winner, won, won_count) = sorted(rows, key=lambda row: row[2])
        serve(winner, chain(won)[: fork + won_count + 1])
        tx = grow_with_payment(stage, loser, lost, fork, lost_count)
        assert loser.rpc("gettransaction", wallet.txid(tx))["confirmations"] == 1
        dialler.stop()
        dialler.start("--connect", listener.endpoint)
        for node in (listener, dialler):
            node.wait_for_tip(chain(won)[fork + won_count], 60)
        wait_until(lambda: loser.rpc("getrawmempool") == [wallet.txid(tx)], "resurrected payment in the pool")
        wait_until(lambda: has_in_template(loser, wallet.txid(tx)), "resurrected payment in the template")
        block = stage.mine_on(loser, MAIN)
        assert tx in block.txs
        winner.wait_for_tip(block)
        assert winner.rpc("gettransaction", wallet.txid(tx))["blockheight"] == block.height
        listener.stop()
        dialler.stop()
