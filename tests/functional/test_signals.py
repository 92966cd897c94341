"""Ctrl+C and termination at every stage of a run (while mining: test_mining), suspension, and many short runs."""

import contextlib
import fcntl
import itertools
import os
import pty
import signal
import socket
import time
from typing import Callable, Iterator

import pytest

import behaviours as b
import screen
from child_process import SLOW, Child, program, wait_until
from miner_process import Miner, mine, pieces_of, side_by_side
from stand_in_node import EASY, MINER_ADDRESS, START_HEIGHT, Behaviour, StandInNode, answer_well

SIGNALS = [signal.SIGINT, signal.SIGTERM]
ENDING = ["signalled", "stopping", "stopped", "closing"]


def names(out: str, port: int) -> "list[str]":
    """The pieces printed after the second banner, dashboards left out."""
    return [name for name, _ in pieces_of(out, port) if name != "dashboard"]


def suspend(miner: Miner) -> None:
    """What Ctrl+Z and a later `fg` do."""
    time.sleep(0.1)
    miner.send(signal.SIGSTOP)
    time.sleep(0.2)
    miner.send(signal.SIGCONT)


@contextlib.contextmanager
def full_backlog() -> Iterator[int]:
    """A port whose connections are never established."""
    with contextlib.ExitStack() as stack:
        listener = stack.enter_context(socket.socket())
        listener.bind(("127.0.0.1", 0))
        listener.listen(0)
        for _ in range(4):
            client = stack.enter_context(socket.socket())
            client.setblocking(False)
            client.connect_ex(listener.getsockname())
        yield listener.getsockname()[1]


def ends_before_mining(miner: Miner, port: int, number: int, error: str) -> None:
    miner.send(number)
    out = screen.until_connecting(MINER_ADDRESS, port) + screen.SIGNALLED
    assert (miner.end(2), miner.out(), miner.err()) == (1, out, error)


def test_while_connecting() -> None:
    for number in SIGNALS:
        with full_backlog() as port, mine(port) as miner:
            miner.wait_for(screen.CONNECTING)
            time.sleep(0.1)
            ends_before_mining(miner, port, number, screen.no_connection("127.0.0.1", port))


def test_while_a_block_count_is_awaited() -> None:
    for number, nth, behaviour in itertools.product(SIGNALS, [1, 2], [b.hang, b.trickle]):
        with StandInNode() as node:
            node.plan("getblockcount", *[answer_well] * (nth - 1), behaviour)
            with mine(node.port) as miner:
                wait_until(lambda: node.count("getblockcount") == nth, "request")
                error = screen.no_connection("127.0.0.1", node.port) if nth == 1 else screen.NO_COUNT
                ends_before_mining(miner, node.port, number, error)


def stop_while_a_template_is_awaited(number: int, blocks: int, behaviour: Behaviour) -> None:
    with StandInNode(EASY, 1) as node:
        node.plan("getblocktemplate", *[answer_well] * blocks, behaviour)
        with mine(node.port) as miner:
            wait_until(lambda: node.count("getblocktemplate") == blocks + 1, "request")
            out = miner.stop(number)
            assert sorted(names(out, node.port)) == sorted(["started"] + ["report", "outcome"] * blocks + ENDING)
            assert (screen.accepted(START_HEIGHT + 1) in out) == bool(blocks)
            assert all(drawn.height != 2**32 - 1 for drawn in screen.dashboards(out))
            assert miner.err() == ""


def test_while_a_template_is_awaited() -> None:
    side_by_side(stop_while_a_template_is_awaited,
                 itertools.product(SIGNALS, [0, 1], [b.hang, b.trickle, b.stall_halfway]))


ONLY_ACCEPTED = "Block accepted by node!\n\nResuming mining...\n"
SUBMISSIONS = [
    ("never answered", [b.hang], [], screen.rejected("Block rejected by node")),
    ("answered in time", [b.after(1)], [], screen.accepted(START_HEIGHT + 1)),
    ("late, then a count never answered: five seconds together", [b.after(4)], [b.hang], ONLY_ACCEPTED),
    ("count never answered", [], [b.trickle], ONLY_ACCEPTED),
]


def stop_while_a_submission_is_awaited(number: int, row: "tuple[str, list[Behaviour], list[Behaviour], str]") -> None:
    label, submission, count, outcome = row
    method = "submitblock" if submission else "getblockcount"
    with StandInNode(EASY, 1) as node:
        node.plan("getblockcount", answer_well, answer_well, *count)
        node.plan("submitblock", *submission)
        with mine(node.port) as miner:
            wait_until(lambda: node.methods()[3:][-1:] == [method], "request")
            miner.send(number)
            time.sleep(0.1)
            out = miner.stop(number, limit_s=8)  # a second signal while the first one is at work
            assert [text for name, text in pieces_of(out, node.port) if name == "outcome"] == [outcome], label
            closing = screen.CLOSING.search(out)
            assert closing and int(closing["found"]) == ("accepted" in outcome)
            assert node.count("getblocktemplate") == 1  # no refresh begins after the stop


def test_while_a_submission_is_awaited() -> None:
    side_by_side(stop_while_a_submission_is_awaited, itertools.product(SIGNALS, SUBMISSIONS))


def test_suspension_changes_nothing() -> None:
    with StandInNode(EASY, 1) as node:
        for method in ("getblockcount", "getblockcount", "getblocktemplate", "submitblock"):
            node.plan(method, b.after(0.5))
        with mine(node.port) as miner:
            for seen in (1, 2, 3, 4):
                wait_until(lambda: len(node.requests) == seen, "request")
                suspend(miner)
            miner.wait_for(screen.accepted(START_HEIGHT + 1))
            suspend(miner)
            miner.wait_for_dashboard(lambda d: d.found == 1)
            ended = names(miner.stop(), node.port)
            # A worker may report before the main thread has said that mining started.
            assert (sorted(ended[:3]), ended[3:]) == (["outcome", "report", "started"], ENDING)
            assert (miner.err(), len(node.requests)) == ("", 6)


def test_thirty_short_runs_end_cleanly_wherever_the_signal_falls() -> None:
    with StandInNode(EASY, 20) as node:
        for batch in range(2):
            with contextlib.ExitStack() as stack:
                miners = [stack.enter_context(mine(node.port)) for _ in range(15)]
                for position, miner in enumerate(miners):
                    miner.wait_for(screen.BANNER)
                    time.sleep(0.002 * ((position * 4 + batch) % 15) * SLOW)
                    miner.send(SIGNALS[position % 2])
                for miner in miners:
                    status, out, err = miner.end(8), miner.out(), miner.err()
                    at_start = err in (screen.NO_COUNT, screen.no_connection("127.0.0.1", node.port))
                    assert (status, bool(screen.CLOSING.search(out))) == ((1, False) if at_start else (0, True)), err
                    assert at_start or err == ""
        assert node.problems == []


@pytest.mark.parametrize("make_ends", [os.pipe, pty.openpty])
def test_a_reader_that_stops_reading_holds_up_neither_mining_nor_the_end(
        make_ends: "Callable[[], tuple[int, int]]") -> None:
    reading, writing = make_ends()
    if make_ends is os.pipe:
        fcntl.fcntl(writing, fcntl.F_SETPIPE_SZ, 4096)  # a terminal takes little as it is
    with StandInNode(EASY, 8) as node, open(writing, "wb", buffering=0) as unread, mine(node.port, 2, unread) as miner:
        wait_until(lambda: len(node.accepted) == 8, "blocks", 20)
        time.sleep(2.5)  # dashboards that do not fit
        miner.send(signal.SIGINT)
        assert miner.end(6) == 0
    os.close(reading)


def mines_and_ends_with(redirections: str) -> None:
    with StandInNode(EASY, 3) as node:
        command = f'exec "$0" --address {MINER_ADDRESS} --rpcport {node.port} --threads 2 {redirections}'
        with Child("/bin/sh", "-c", command, program("NORVEL_MINER")) as miner:
            wait_until(lambda: len(node.accepted) == 3 or node.problems, "blocks")
            time.sleep(1.2)
            miner.send(signal.SIGTERM)
            assert miner.end(6) == 0
        assert node.problems == []


def test_closed_streams_become_no_connection_and_a_full_disk_stops_nothing() -> None:
    side_by_side(mines_and_ends_with, [("0<&-",), ("1>&-",), ("0<&- 1>&- 2>&-",), ("1>/dev/full",)])
