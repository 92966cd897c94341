"""A node that fails while mining goes on: what the miner prints and shows, and that it recovers."""

import contextlib
import json
import resource
import signal

import behaviours as b
import screen
from miner_process import SLOW, Miner, wait_until
from stand_in_node import EASY, MEDIUM, MINER_ADDRESS, START_HEIGHT, StandInNode, answer_well

TEMPLATE_ERROR = "[RPC Client] getblocktemplate error: "
UPDATE_ERROR = "[Miner] Error updating template: Failed to get block template from node\n"

# Templates that end in an error, and its text.
ERRORS = [
    (b.rpc_error("boom"), "boom"),
    (b.rpc_error("\x1b]0;title\x07\r\n"), "?]0;title???"),
    (b.body('{"error":[]}'), "RPC error"),
    (b.raw(b"HTTP/1.1 200 OK\r\nContent-Length: x\r\n\r\n{}"), "stoi"),
    (b.body('{"result":{"height":-}}'), "stod"),
    (b.body('{"result":{"tx_data":["01"]}}'), "Not enough data for version"),
]

# Replies that hold no result at all, or one without a usable field.
NULL_RESULTS = {
    "closed at once": b.close_at_once,
    "garbage": b.raw(b"\xff garbage \r\n\r\n garbage"),
    "HTML with status 500": b.body("<html><body>no</body></html>", "500 Internal Server Error"),
    "zero byte": b.raw(b"HTTP/1.1 200 OK\0\r\nContent-Length: 4\r\n\r\nnull"),
    "empty body": b.body(""),
    "a million brackets": b.body("[" * 1_000_000),
    "result is a list": b.body('{"result":[{"height":5}]}'),
    "every field of a wrong type": b.body(json.dumps({"result": {
        "version": "1", "previousblockhash": 7, "height": "9", "bits": [1], "curtime": {}, "prevblocktime": None,
        "miner_reward": True, "total_fees": "20000", "tx_data": {"0": "zz"}}})),
    "ten megabytes of nothing": b.body("x" * 10_000_000),
}


def start(node: StandInNode, threads: int = 1) -> Miner:
    return Miner("--address", MINER_ADDRESS, "--rpcport", node.port, "--threads", threads)


def test_errors_keep_the_old_block_and_show_rpc_error() -> None:
    with StandInNode(MEDIUM) as node, contextlib.ExitStack() as stack:
        node.plan("getblocktemplate", answer_well, *(behaviour for behaviour, _ in ERRORS))
        node.standard["getblocktemplate"] = b.rpc_error("still")
        miner = stack.enter_context(start(node))
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
    with StandInNode(MEDIUM) as node, start(node) as miner:
        node.plan("submitblock", answer_well, b.close_door)
        miner.wait_for_dashboard(lambda d: d.status == "RPC Error", 30)
        before = len(node.accepted)
        node.open_door()
        wait_until(lambda: len(node.accepted) > before, "block after the return", 30)
        miner.wait_for_dashboard(lambda d: d.status == "Connected", 30)
        out = miner.stop(limit_s=8)
        refused = f"Failed to connect to RPC server at 127.0.0.1:{node.port}"
        assert set(miner.err().splitlines()) <= {
            TEMPLATE_ERROR + refused, UPDATE_ERROR.rstrip(), "[RPC Client] getblockcount error: " + refused}
        assert screen.rejected("submitblock error: " + refused) in out
        assert node.problems == []


def test_no_descriptor_left_for_a_connection() -> None:
    with StandInNode(MEDIUM) as node, start(node) as miner:
        miner.wait_for_dashboard(lambda d: d.status == "Connected")
        resource.prlimit(miner.process.pid, resource.RLIMIT_NOFILE, (3, 3))
        miner.wait_for(screen.rejected("submitblock error: Failed to create socket"), 30)
        miner.wait_for_dashboard(lambda d: d.status == "RPC Error", 30)
        miner.stop()
        assert TEMPLATE_ERROR + "Failed to create socket\n" + UPDATE_ERROR in miner.err()


def test_null_results_are_mined_as_an_empty_template() -> None:
    with contextlib.ExitStack() as stack:
        runs = {}
        for label, behaviour in NULL_RESULTS.items():
            node = stack.enter_context(StandInNode(EASY, 1))
            node.plan("getblocktemplate", answer_well, behaviour)
            runs[label] = (node, stack.enter_context(start(node)))
        for node, miner in runs.values():
            miner.wait_for_dashboard(lambda d: d.height == 2**32 - 1, 30)
        for node, miner in runs.values():
            miner.send(signal.SIGINT)
        for label, (node, miner) in runs.items():
            last = screen.dashboards(miner.stop(limit_s=8))[-1]
            assert last[1:4] == (2**32 - 1, "1.0000", 1), label
            assert last.status == "Connected", label
            assert (miner.err(), node.problems, len(node.submitted)) == ("", [], 1), label


def test_the_refresh_after_ten_million_hashes_ends_an_empty_template() -> None:
    with StandInNode(EASY, 1) as node:
        node.plan("getblocktemplate", b.body("null"))
        with start(node) as miner:
            miner.wait_for_dashboard(lambda d: (d.height, d.difficulty) == (2**32 - 1, "1.0000"))
            assert node.count("getblocktemplate") == 1
            wait_until(lambda: node.accepted, "block after the refresh", 60)
            closing = screen.CLOSING.search(miner.stop())
            assert closing and 10_000_000 <= int(closing["hashes"])
            assert node.problems == []


def test_large_replies_one_after_the_other_take_bounded_memory() -> None:
    with StandInNode(EASY, 12) as node:
        node.overrides = {"junk": "x" * 10_000_000}
        with start(node) as miner:
            wait_until(lambda: len(node.accepted) >= 12, "blocks", 30)
            peak_mb = miner.peak_memory_mb()
            miner.stop()
        assert node.problems == []
        assert SLOW > 1 or peak_mb < 300
