"""Mining end to end: proof of work, blocks checked byte for byte, exact requests, the report and the dashboard."""

import itertools
import json
import os
import signal

import pytest

import behaviours as b
import screen
from child_process import wait_until
from miner_process import mine, pieces_of, side_by_side
from stand_in_node import EASY, MINER_ADDRESS, NEVER, START_HEIGHT, StandInNode, answer_well, request_bytes

BLOCKS = 24
STOP = ["signalled", "stopping", "stopped", "closing"]


def check_requests(node: StandInNode) -> None:
    """Every request has exactly the right bytes, and the ids are 0, 1, 2, ... without a gap."""
    numbers = []
    for raw in node.requests:
        body = json.loads(raw.partition(b"\r\n\r\n")[2])
        numbers.append(int(body["id"]))
        params = {"getblockcount": "{}", "getblocktemplate": f'{{"address":"{MINER_ADDRESS}"}}'}.get(
            body["method"], f'{{"data":"{bytes.fromhex(body["params"].get("data", "")).hex()}"}}')
        assert raw == request_bytes(node.port, numbers[-1], body["method"], params)
    assert sorted(numbers) == list(range(len(numbers)))


def check_one_worker(node: StandInNode, parts: "list[tuple[str, str]]") -> None:
    """Requests and reports come in order, a template for ten million hashes apart."""
    in_order = [method for method, _ in itertools.groupby(node.methods())]
    refresh = ["getblockcount", "getblocktemplate"]
    assert in_order == refresh + ["submitblock", *refresh] * BLOCKS
    printed = "".join(text for name, text in parts if name in ("report", "outcome"))
    assert printed == "".join(screen.report(block) + screen.accepted(block.height) for block in node.accepted)


@pytest.mark.parametrize("threads", [1, 2, 3])
def test_mines_blocks_that_the_node_accepts(threads: int) -> None:
    with StandInNode(EASY, BLOCKS) as node, mine(node.port, threads) as miner:
        wait_until(lambda: len(node.accepted) >= BLOCKS or node.problems, "blocks", 30)
        miner.wait_for_dashboard(lambda d: d.found == BLOCKS and d.height == START_HEIGHT + BLOCKS)
        assert len(os.listdir(f"/proc/{miner.process.pid}/fd")) < 20  # each exchange closes its socket
        parts = pieces_of(miner.stop(), node.port, threads)
        assert miner.err() == ""
    assert node.problems == []
    assert len(node.accepted) == BLOCKS
    check_requests(node)
    if threads == 1:
        check_one_worker(node, parts)
    reports = [text for name, text in parts if name == "report"]
    assert sorted(reports) == sorted(screen.report(block) for block in node.submitted)
    closing = screen.CLOSING.match(parts[-1][1])
    assert closing and int(closing["found"]) == BLOCKS
    assert [name for name, _ in parts if name in STOP] == STOP
    assert [name for name, _ in parts].count("started") == 1


def test_dashboard_and_closing_block() -> None:
    with StandInNode(NEVER) as node, mine(node.port, 2) as miner:
        for _ in range(2):
            miner.wait_for_dashboard(lambda d: True)
        parts = pieces_of(miner.stop(signal.SIGTERM), node.port, 2)
        assert miner.err() == "" and node.count("getblocktemplate") >= 1  # one more for ten million hashes of a thread
    drawn = screen.dashboards("".join(text for _, text in parts))
    assert [name for name, _ in parts if name != "dashboard"] == ["started"] + STOP
    for dashboard in drawn:
        assert dashboard[1:4] == (START_HEIGHT, screen.difficulty_text(NEVER), 0)
        assert dashboard[5:] == (0, "Connected")
        assert 0 < dashboard.rate < 1000
    closing = screen.CLOSING.match(parts[-1][1])
    assert closing and (closing["found"], closing["minutes"]) == ("0", "0")
    assert float(closing["rate"]) == drawn[-1].rate
    assert drawn[-1].hashes_m <= int(closing["hashes"]) // 1_000_000
    # The rate is over whole seconds, of which at least one has passed per box.
    assert drawn[-1].rate * 1_000_000 * len(drawn) <= int(closing["hashes"]) * 1.01 + 10_000


def mine_one_block(fields: "dict[str, float]", header_time: "int | None") -> None:
    with StandInNode(EASY, 1) as node:
        node.overrides = fields
        with mine(node.port) as miner:
            wait_until(lambda: node.accepted or node.problems, "block")
            miner.stop()
    assert node.problems == []
    assert header_time in (None, node.accepted[0].timestamp)


def test_extreme_template_numbers() -> None:
    side_by_side(mine_one_block, [
        ({"prevblocktime": 10**19}, 2**63 - 1),
        ({"curtime": -5, "prevblocktime": -7}, 0),
        ({"height": 2**40, "version": 2**33, "bits": EASY + 0.9}, None),
        ({"total_fees": 2**53, "miner_reward": -1}, None),
        ({"total_fees": 19_999.9, "miner_reward": 1.9}, None),
    ])


def test_outcomes_of_a_submission() -> None:
    outcomes = [
        (b.body('{"result":{"accepted":1}}'), "Block rejected by node"),
        (b.rpc_error("Error: bad\x1b[31m\nblock"), "submitblock error: Error: bad?[31m?block"),
        (b.raw(b"HTTP/1.1 200 OK\r\nContent-Length: ?\r\n\r\n"), "submitblock error: stoi"),
        (b.close_at_once, "Block rejected by node"),
    ]
    with StandInNode(EASY, 1) as node:
        node.plan("submitblock", *(behaviour for behaviour, _ in outcomes))
        node.plan("getblockcount", answer_well, answer_well, b.rpc_error("no count"))
        with mine(node.port) as miner:
            miner.wait_for_dashboard(lambda d: (d.found, d.height) == (1, START_HEIGHT + 1))
            parts = pieces_of(miner.stop(), node.port)
            assert miner.err() == "[RPC Client] getblockcount error: no count\n"
    assert [text for name, text in parts if name == "outcome"] == [
        screen.rejected(text) for _, text in outcomes] + ["Block accepted by node!\n\nResuming mining...\n"]
    assert node.problems == []
