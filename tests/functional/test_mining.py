"""Mining end to end: proof of work, blocks checked byte for byte, exact requests, the report and the dashboard."""

import json
import os
import re
from typing import List

import pytest

import behaviours as b
import screen
from block_check import template_time
from miner_process import Miner, wait_until
from norvel_formats import Block, address_of, hash_text, le, sha256d, target_of
from stand_in_node import (EASY, MINER_ADDRESS, MINER_KEY, NEVER, START_HEIGHT, StandInNode, answer_well,
                           request_bytes)

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


def check_nonces(blocks: List[Block], threads: int) -> None:
    """Worker i walks from i * 10,000,000 in steps of the thread count."""
    for block in blocks:
        start = block.nonce // 10_000_000 * 10_000_000
        assert start < threads * 10_000_000 and (block.nonce - start) % threads == 0, block.nonce


def first_nonce(block: Block, start: int) -> int:
    """The smallest nonce from `start` on that solves the block's header; slow and plain."""
    head, target = block.header()[:-4], target_of(block.bits)
    while int.from_bytes(sha256d(head + le(start, 4)), "little") > target:
        start += 1
    return start


def parts_of(out: str, port: int, threads: int) -> "list[tuple[str, str]]":
    """Checks the start-up output and cuts the rest into pieces."""
    start = (screen.BANNER + screen.configuration(MINER_ADDRESS, "127.0.0.1", port, str(threads)) + screen.CONNECTING
             + screen.connected(START_HEIGHT, threads))
    assert out[:len(start)] == start
    return list(screen.pieces(out[len(start):]))


@pytest.mark.parametrize("threads", [1, 2, 3])
def test_mines_blocks_that_the_node_accepts(threads: int) -> None:
    with StandInNode(EASY, BLOCKS) as node, Miner("--address", MINER_ADDRESS, "--rpcport", node.port, "--threads",
                                                  threads) as miner:
        wait_until(lambda: len(node.accepted) >= BLOCKS or node.problems, "blocks", 30)
        assert node.problems == []
        miner.wait_for_dashboard(lambda d: d.found == BLOCKS and d.height == START_HEIGHT + BLOCKS)
        assert len(os.listdir(f"/proc/{miner.process.pid}/fd")) < 20  # each exchange closes its socket
        parts = parts_of(miner.stop(), node.port, threads)
        assert miner.err() == ""
    assert node.problems == []
    assert len(node.accepted) == BLOCKS
    check_requests(node)
    check_nonces(node.submitted, threads)
    reports = [text for name, text in parts if name == "report"]
    assert sorted(reports) == sorted(screen.report(block) for block in node.submitted)
    closing = screen.CLOSING.match(parts[-1][1])
    assert closing and int(closing["found"]) == BLOCKS
    assert [name for name, _ in parts if name in STOP] == STOP
    assert [name for name, _ in parts].count("started") == 1


def test_one_worker_reports_in_order_and_skips_no_nonce() -> None:
    with StandInNode(EASY, BLOCKS) as node, Miner("--address", MINER_ADDRESS, "--rpcport", node.port, "--threads",
                                                  "1") as miner:
        wait_until(lambda: len(node.accepted) >= BLOCKS or node.problems, "blocks", 30)
        assert node.problems == []
        miner.wait_for(screen.accepted(START_HEIGHT + BLOCKS))
        parts = parts_of(miner.stop(), node.port, 1)
    assert node.methods() == ["getblockcount"] * 2 + ["getblocktemplate"] + [
        "submitblock", "getblockcount", "getblocktemplate"] * BLOCKS
    printed = "".join(text for name, text in parts if name in ("report", "outcome"))
    assert printed == "".join(screen.report(block) + screen.accepted(block.height) for block in node.accepted)
    for number, block in enumerate(node.accepted):
        # The first search starts at the start nonce, the one after a found block a step behind it. A header whose
        # time was renewed during the search has earlier nonces that were tested under the old time.
        if block.timestamp == template_time(node.served_of[hash_text(block.prev_hash)].fields):
            assert block.nonce == first_nonce(block, min(number, 1))


def test_dashboard_and_closing_block() -> None:
    with StandInNode(NEVER) as node, Miner("--address", MINER_ADDRESS, "--rpcport", node.port, "--threads",
                                           "2") as miner:
        for _ in range(2):
            miner.wait_for_dashboard(lambda d: True)
        parts = parts_of(miner.stop(), node.port, 2)
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


@pytest.mark.parametrize("label, fields, header_time", [
    ("parent time at the end of time", {"prevblocktime": 10**19}, 2**63 - 1),
    ("times before the epoch", {"curtime": -5, "prevblocktime": -7}, 0),
    ("parent one second behind", {"curtime": 1000, "prevblocktime": 1000}, 1001),
    ("height, version and bits beyond 32 bits or with a fraction", {"height": 2**40, "version": 2**33,
                                                                   "bits": EASY + 0.9}, None),
    ("large fees, negative reward", {"total_fees": 2**53, "miner_reward": -1}, None),
    ("fraction of a unit", {"total_fees": 19_999.9, "miner_reward": 1.9}, None),
])
def test_extreme_template_numbers(label: str, fields: "dict[str, float]", header_time: "int | None") -> None:
    with StandInNode(EASY, 1) as node:
        node.overrides = fields
        with Miner("--address", MINER_ADDRESS, "--rpcport", node.port, "--threads", "1") as miner:
            wait_until(lambda: node.accepted or node.problems, "block")
            miner.stop()
    assert node.problems == []
    assert header_time in (None, node.accepted[0].timestamp)


def test_the_address_alone_decides_who_is_paid_whatever_its_version() -> None:
    with StandInNode(EASY, 1) as node, Miner("--address", address_of(MINER_KEY, 5), "--rpcport", node.port,
                                             "--threads", "0") as miner:
        wait_until(lambda: node.accepted or node.problems, "block")
        out = miner.stop()
    assert node.problems == []
    used = re.search(r"\nUsing (\d+) threads\n", out)
    assert used and int(used[1]) in (os.cpu_count(), len(os.sched_getaffinity(0)))


def test_outcomes_of_a_submission() -> None:
    outcomes = [
        (b.body('{"result":{"accepted":false}}'), "Block rejected by node"),
        (b.body('{"result":{"accepted":1}}'), "Block rejected by node"),
        (b.body('{"result":true}'), "Block rejected by node"),
        (b.rpc_error("Error: bad\x1b[31m\nblock"), "submitblock error: Error: bad?[31m?block"),
        (b.body('{"error":7}'), "submitblock error: RPC error"),
        (b.raw(b"HTTP/1.1 200 OK\r\nContent-Length: ?\r\n\r\n"), "submitblock error: stoi"),
        (b.close_at_once, "Block rejected by node"),
    ]
    with StandInNode(EASY, 1) as node:
        node.plan("submitblock", *(behaviour for behaviour, _ in outcomes))
        node.plan("getblockcount", answer_well, answer_well, b.rpc_error("no count"))
        with Miner("--address", MINER_ADDRESS, "--rpcport", node.port, "--threads", "1") as miner:
            miner.wait_for_dashboard(lambda d: (d.found, d.height) == (1, START_HEIGHT + 1))
            parts = parts_of(miner.stop(), node.port, 1)
            assert miner.err() == "[RPC Client] getblockcount error: no count\n"
    assert [text for name, text in parts if name == "outcome"] == [
        screen.rejected(text) for _, text in outcomes] + ["Block accepted by node!\n\nResuming mining...\n"]
    assert node.problems == []
