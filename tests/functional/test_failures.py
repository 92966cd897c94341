"""A node that fails while mining goes on: what the miner prints and shows, and that it recovers."""

import json
import resource

import pytest

import behaviours as b
import screen
from child_process import SLOW, wait_until
from miner_process import mine, side_by_side
from stand_in_node import EASY, MEDIUM, START_HEIGHT, Behaviour, StandInNode, answer_well

TEMPLATE_ERROR = "[RPC Client] getblocktemplate error: "
UPDATE_ERROR = "[Miner] Error updating template: Failed to get block template from node\n"

# Templates that end in an error, and its text.
ERRORS = [
    (b.rpc_error("\x1b]0;title\x07\r\n"), "?]0;title???"),
    (b.raw(b"HTTP/1.1 200 OK\r\nContent-Length: x\r\n\r\n{}"), "stoi"),
    (b.body('{"result":{"tx_data":["01"]}}'), "Not enough data for version"),
]

# Replies that hold no result at all, or one without a usable field.
NULL_RESULTS = [
    ("null at the start", b.body("null")),
    ("closed at once", answer_well, b.close_at_once),
    ("HTML with status 500", answer_well, b.body("<html><body>no</body></html>", "500 Internal Server Error")),
    ("every field of a wrong type", answer_well, b.body(json.dumps({"result": {
        "version": "1", "previousblockhash": 7, "height": "9", "bits": [1], "curtime": {}, "prevblocktime": None,
        "miner_reward": True, "total_fees": "20000", "tx_data": {"0": "zz"}}}))),
]


def test_errors_keep_the_old_block_and_show_rpc_error() -> None:
    with StandInNode(MEDIUM) as node:
        node.plan("getblocktemplate", answer_well, *(behaviour for behaviour, _ in ERRORS))
        node.standard["getblocktemplate"] = b.rpc_error("still")
        with mine(node.port) as miner:
            miner.wait_for_dashboard(lambda d: d.status == "RPC Error", 30)
            wait_until(lambda: miner.err().count("\n") > 2 * len(ERRORS), "errors", 30)
            # Blocks went on being found on the old parent: the first was accepted, the others are stale.
            assert len(node.accepted) == 1 and {block.prev_hash for block in node.submitted} == {
                node.accepted[0].prev_hash}
            node.standard["getblocktemplate"] = answer_well
            wait_until(lambda: len(node.accepted) > 1, "block on a new parent", 30)
            healed = miner.wait_for_dashboard(lambda d: d.status == "Connected", 30)
            miner.stop(limit_s=8)
            texts = [text for _, text in ERRORS] + ["still"] * (miner.err().count("\n") // 2 - len(ERRORS))
            assert miner.err() == "".join(TEMPLATE_ERROR + text + "\n" + UPDATE_ERROR for text in texts)
            assert healed.height >= START_HEIGHT + 1
            assert node.problems == []


def test_a_node_that_goes_away_and_comes_back() -> None:
    with StandInNode(MEDIUM) as node, mine(node.port) as miner:
        node.plan("submitblock", answer_well, b.close_door)
        refused = f"Failed to connect to RPC server at 127.0.0.1:{node.port}"
        miner.wait_for_dashboard(lambda d: d.status == "RPC Error", 30)
        miner.wait_for(screen.rejected("submitblock error: " + refused), 30)
        before = len(node.accepted)
        node.open_door()
        wait_until(lambda: len(node.accepted) > before, "block after the return", 30)
        miner.wait_for_dashboard(lambda d: d.status == "Connected", 30)
        miner.stop(limit_s=8)
        assert set(miner.err().splitlines()) <= {
            TEMPLATE_ERROR + refused, UPDATE_ERROR.rstrip(), "[RPC Client] getblockcount error: " + refused}
        assert node.problems == []


@pytest.mark.skipif(SLOW > 1, reason="a sanitizer needs descriptors of its own")
def test_no_descriptor_left_for_a_connection() -> None:
    with StandInNode(MEDIUM) as node, mine(node.port) as miner:
        miner.wait_for_dashboard(lambda d: d.status == "Connected")
        resource.prlimit(miner.process.pid, resource.RLIMIT_NOFILE, (3, 3))
        miner.wait_for(screen.rejected("submitblock error: Failed to create socket"), 30)
        miner.stop()
        assert TEMPLATE_ERROR + "Failed to create socket\n" + UPDATE_ERROR in miner.err()


def mine_an_empty_template(label: str, *behaviours: Behaviour) -> None:
    with StandInNode(EASY, 1) as node:
        node.plan("getblocktemplate", *behaviours)
        with mine(node.port) as miner:
            miner.wait_for_dashboard(lambda d: d.height == 2**32 - 1, 30)
            last = screen.dashboards(miner.stop(limit_s=8))[-1]
            found = len(behaviours) - 1
            assert last[1:4] == (2**32 - 1, "1.0000", found), label
            assert last.status == "Connected", label
            assert (miner.err(), node.problems, len(node.submitted)) == ("", [], found), label


def test_null_results_are_mined_as_an_empty_template() -> None:
    side_by_side(mine_an_empty_template, NULL_RESULTS)
