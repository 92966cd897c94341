"""The treasury across nodes: what one pays out the other takes."""

from collections import Counter
from typing import Dict, List

import wallet
from child_process import wait_until
from node_process import Node
from node_scenes import Stage, has_in_template
from norvel_formats import TX_DISTRIBUTION, Block, Tx, TxIn, TxOut, le, p2pkh
from stored_chain import SUBSIDY, chain
from wallet import LEFT, MAIN, RIGHT

INTERVAL = 10
COIN = 100_000_000
FEE = 1_000_003  # odd: the treasury's half is rounded down
SHARE = FEE // 2


def shares(amount: int, blocks_of: Dict[str, int]) -> Dict[str, int]:
    total = sum(blocks_of.values())
    paid = {who: amount * count // total for who, count in sorted(blocks_of.items())}
    paid = {who: share for who, share in paid.items() if share >= 10_000}
    top = max(paid, key=lambda who: blocks_of[who])  # the first of equals in address order
    paid[top] += amount - sum(paid.values())
    return paid


def check_distribution(block: Block, amount: int, blocks_of: Dict[str, int]) -> None:
    tx = Tx.decode(block.txs[1])
    source = TxIn(index=0xFFFFFFFE, signature=le(block.height, 4))
    assert (tx.type, tx.version, tx.inputs, tx.locktime) == (TX_DISTRIBUTION, 1, [source], 0)
    paid = shares(amount, blocks_of)
    script_of = {key.address: p2pkh(key.key_hash) for key in (MAIN, LEFT, RIGHT)}
    assert tx.outputs == [TxOut(paid[who], script_of[who]) for who in sorted(paid)]


def pay_fee(node: Node, others: List[Node]) -> None:
    """A payment to its own sender, waited for in every template."""
    txid = wallet.pay(node, MAIN, MAIN.address, "1", "--fee", FEE / COIN)
    for other in [node, *others]:
        wait_until(lambda other=other: has_in_template(other, txid), "payment in the template")


def treasury(node: Node) -> int:
    return int(node.rpc("getnodestatus")["treasury_balance"])


def test_distributions_across_nodes() -> None:
    option = ("--distribution-interval", INTERVAL)
    with Stage() as stage:
        first, second = stage.node(1, 0, *option), stage.node(2, 0, *option)
        first.feed(chain()[1:26])
        second.stop()
        second.start("--connect", first.endpoint)
        second.wait_for_tip(chain()[25])
        blocks_of = Counter({MAIN.address: 25})
        for miner, payee in [(first, LEFT), (second, RIGHT), (first, LEFT), (second, RIGHT)]:  # 26 to 29
            pay_fee(first, [second])
            block = stage.mine_on(miner, payee)
            blocks_of[payee.address] += 1
            for node in (first, second):
                node.wait_for_tip(block)
        assert treasury(first) == treasury(second) == 4 * SHARE
        block = stage.mine_on(second, RIGHT)  # 30
        check_distribution(block, 4 * SHARE, blocks_of)
        first.wait_for_tip(block)
        assert treasury(first) == treasury(second) == 0
        earned = 3 * SUBSIDY + shares(4 * SHARE, blocks_of)[RIGHT.address]  # fees are not the miner's
        assert first.rpc("getbalance", {"address": RIGHT.address})["balance_satoshis"] == earned
        first.stop()
        second.stop()
