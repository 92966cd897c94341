"""Two nodes apart: each with a branch of its own they join, the heavier one wins, and what the other held returns."""

import pytest

import wallet
from child_process import wait_until
from node_process import Node
from node_scenes import Stage, has_in_template, serve, txids_of
from stored_chain import BRANCHES, chain
from wallet import MAIN

# Fork height, then the branch and its length of the node that listens and of the one that dials.
ROWS = [
    (5, "main", 1, "low", 2),
    (5, "low", 520, "main", 510),
    (600, "left", 2, "right", 1),
    (600, "left", 510, "right", 520),
]


def grow_with_payment(stage: Stage, node: Node, branch: str, fork: int, count: int) -> str:
    """The branch, but its last block, mined now, holds a payment of coins from before the fork; returns its id."""
    txid = wallet.pay(node, MAIN, MAIN.address, "7")
    serve(node, chain(branch)[: fork + count])
    assert txid in txids_of(stage.mine_on(node, BRANCHES[branch].payee))
    return txid


@pytest.mark.parametrize("fork, branch_a, count_a, branch_b, count_b", ROWS)
def test_the_heavier_branch_wins(stage: Stage, fork: int, branch_a: str, count_a: int, branch_b: str,
                                 count_b: int) -> None:
    with stage.node(1, fork) as listener, stage.node(2, fork) as dialler:
        rows = [(listener, branch_a, count_a), (dialler, branch_b, count_b)]
        (loser, lost, lost_count), (winner, won, won_count) = sorted(rows, key=lambda row: row[2])
        serve(winner, chain(won)[: fork + won_count + 1])
        txid = grow_with_payment(stage, loser, lost, fork, lost_count)
        assert loser.rpc("gettransaction", txid)["confirmations"] == 1
        dialler.stop()
        dialler.start("--connect", listener.endpoint)
        for node in (listener, dialler):
            node.wait_for_tip(chain(won)[fork + won_count], 60)
        wait_until(lambda: loser.rpc("getrawmempool") == [txid], "resurrected payment in the pool")
        wait_until(lambda: has_in_template(loser, txid), "resurrected payment in the template")
        block = stage.mine_on(loser, MAIN)
        assert txid in txids_of(block)
        winner.wait_for_tip(block)
        assert winner.rpc("gettransaction", txid)["blockheight"] == block.height
        listener.stop()
        dialler.stop()
