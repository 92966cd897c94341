"""Ctrl+C and termination at every stage of a run, suspension, and many short runs."""

import contextlib
import fcntl
import os
import signal
import socket
import subprocess
import time
from typing import Iterator

import pytest

import behaviours as b
import screen
from miner_process import SLOW, Miner, program, wait_until
from stand_in_node import (EASY, MINER_ADDRESS, NEVER, START_HEIGHT, Behaviour, StandInNode, answer_well,
                           closed_port)

SIGNALS = [signal.SIGINT, signal.SIGTERM]
ENDING = ["signalled", "stopping", "stopped", "closing"]


def start(port: int) -> Miner:
    return Miner("--address", MINER_ADDRESS, "--rpcport", port, "--threads", 1)


def until_connecting(port: int) -> str:
    return screen.BANNER + screen.configuration(MINER_ADDRESS, "127.0.0.1", port, "1") + screen.CONNECTING


def pieces_after_start(out: str, port: int) -> "list[tuple[str, str]]":
    begin = until_connecting(port) + screen.connected(START_HEIGHT, 1)
    assert out.startswith(begin)
    return list(screen.pieces(out[len(begin):]))


def names(out: str, port: int) -> "list[str]":
    """The pieces printed after the second banner, dashboards left out."""
    return [name for name, _ in pieces_after_start(out, port) if name != "dashboard"]


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
        listener, port = closed_port()
        stack.enter_context(listener)
        listener.listen(0)
        for _ in range(16):
            client = stack.enter_context(socket.socket())
            client.settimeout(0.3)
            try:
                client.connect(("127.0.0.1", port))
            except OSError:
                break
        yield port


@pytest.mark.parametrize("number", SIGNALS)
def test_while_connecting(number: int) -> None:
    with full_backlog() as port, start(port) as miner:
        miner.wait_for(screen.CONNECTING)
        time.sleep(0.2)
        miner.send(number)
        assert (miner.end(2), miner.out(), miner.err()) == (
            1, until_connecting(port) + screen.SIGNALLED, screen.no_connection("127.0.0.1", port))


@pytest.mark.parametrize("number", SIGNALS)
@pytest.mark.parametrize("behaviour", [b.hang, b.trickle])
@pytest.mark.parametrize("nth", [1, 2])
def test_while_a_block_count_is_awaited(number: int, behaviour: Behaviour, nth: int) -> None:
    with StandInNode() as node:
        node.plan("getblockcount", *[answer_well] * (nth - 1), behaviour)
        with start(node.port) as miner:
            wait_until(lambda: node.count("getblockcount") == nth, "request")
            miner.send(number)
            error = screen.no_connection("127.0.0.1", node.port) if nth == 1 else screen.NO_COUNT
            assert (miner.end(2), miner.out(), miner.err()) == (
                1, until_connecting(node.port) + screen.SIGNALLED, error)


@pytest.mark.parametrize("number", SIGNALS)
@pytest.mark.parametrize("behaviour", [b.hang, b.trickle, b.stall_halfway])
def test_while_the_first_template_is_awaited(number: int, behaviour: Behaviour) -> None:
    with StandInNode() as node:
        node.plan("getblocktemplate", behaviour)
        with start(node.port) as miner:
            wait_until(lambda: node.count("getblocktemplate") == 1, "request")
            out = miner.stop(number)
            assert sorted(names(out, node.port)) == sorted(["started"] + ENDING)
            assert miner.err() == ""


@pytest.mark.parametrize("number", SIGNALS)
@pytest.mark.parametrize("delay_s", [0, 1.3])
def test_while_mining(number: int, delay_s: float) -> None:
    with StandInNode(NEVER) as node, start(node.port) as miner:
        miner.wait_for(screen.STARTED)
        time.sleep(delay_s)
        assert names(miner.stop(number), node.port) == ["started"] + ENDING
        assert miner.err() == ""
        assert node.count("getblocktemplate") == 1


@pytest.mark.parametrize("number", SIGNALS)
@pytest.mark.parametrize("behaviour", [b.hang, b.trickle, b.stall_halfway])
def test_while_a_refresh_is_awaited(number: int, behaviour: Behaviour) -> None:
    with StandInNode(EASY, 1) as node:
        node.plan("getblocktemplate", answer_well, behaviour)
        with start(node.port) as miner:
            wait_until(lambda: node.count("getblocktemplate") == 2, "refresh")
            out = miner.stop(number)
            assert screen.accepted(START_HEIGHT + 1) in out
            assert all(drawn.height != 2**32 - 1 for drawn in screen.dashboards(out))
            assert miner.err() == ""


@pytest.mark.parametrize("number", SIGNALS)
@pytest.mark.parametrize("label, method, behaviour, outcome", [
    ("submission never answered", "submitblock", b.hang, screen.rejected("Block rejected by node")),
    ("submission answered in time", "submitblock", b.after(2), screen.accepted(START_HEIGHT + 1)),
    ("late submission, then a count never answered: five seconds together", "submitblock", b.after(4),
     "Block accepted by node!\n\nResuming mining...\n"),
    ("count never answered", "getblockcount", b.trickle, "Block accepted by node!\n\nResuming mining...\n"),
])
def test_while_a_submission_is_awaited(number: int, label: str, method: str, behaviour: Behaviour,
                                       outcome: str) -> None:
    with StandInNode(EASY, 1) as node:
        node.plan("getblockcount", answer_well, answer_well)
        node.plan(method, behaviour)
        if label.startswith("late"):
            node.plan("getblockcount", b.hang)
        with start(node.port) as miner:
            wait_until(lambda: node.methods()[3:][-1:] == [method], "request")
            miner.send(number)
            time.sleep(0.1)
            out = miner.stop(number, limit_s=8)  # a second signal while the first one is at work
            assert [text for name, text in pieces_after_start(out, node.port) if name == "outcome"] == [outcome]
            closing = screen.CLOSING.search(out)
            assert closing and int(closing["found"]) == ("accepted" in outcome)
            assert node.count("getblocktemplate") == 1  # no refresh begins after the stop


def test_many_signals_at_once_end_like_one() -> None:
    with StandInNode(NEVER) as node, start(node.port) as miner:
        miner.wait_for(screen.STARTED)
        for _ in range(20):
            miner.send(signal.SIGINT)
            miner.send(signal.SIGTERM)
            time.sleep(0.01)
        ended = names(miner.stop(), node.port)
        assert [name for name in ended if name != "signalled"] == ["started"] + ENDING[1:]


def test_suspension_changes_nothing_before_mining() -> None:
    with StandInNode(NEVER) as node:
        node.plan("getblockcount", b.after(0.8), b.after(0.8))
        node.plan("getblocktemplate", b.after(0.8))
        with start(node.port) as miner:
            for seen in (1, 2, 3):
                wait_until(lambda: len(node.requests) == seen, "request")
                suspend(miner)
            miner.wait_for(screen.STARTED)
            assert names(miner.stop(), node.port) == ["started"] + ENDING
            assert (miner.err(), len(node.requests)) == ("", 3)


def test_suspension_changes_nothing_while_mining() -> None:
    with StandInNode(EASY, 1) as node:
        node.plan("submitblock", b.after(0.8))
        with start(node.port) as miner:
            wait_until(lambda: node.count("submitblock") == 1, "submission")
            suspend(miner)
            miner.wait_for(screen.accepted(START_HEIGHT + 1))
            suspend(miner)
            miner.wait_for_dashboard(lambda d: d.found == 1)
            assert miner.stop().count(screen.SIGNALLED) == 1
            assert miner.err() == ""


def test_thirty_short_runs_end_cleanly_wherever_the_signal_falls() -> None:
    with StandInNode(EASY, 20) as node:
        for batch in range(3):
            with contextlib.ExitStack() as stack:
                miners = [stack.enter_context(start(node.port)) for _ in range(10)]
                for position, miner in enumerate(miners):
                    miner.wait_for(screen.BANNER)
                    time.sleep(0.003 * ((position * 3 + batch) % 10) * SLOW)
                    miner.send(SIGNALS[position % 2])
                for miner in miners:
                    status, out, err = miner.end(8), miner.out(), miner.err()
                    at_start = err in (screen.NO_COUNT, screen.no_connection("127.0.0.1", node.port))
                    assert (status, bool(screen.CLOSING.search(out))) == ((1, False) if at_start else (0, True)), err
                    assert at_start or err == ""
        assert node.problems == []


def test_a_reader_that_stops_reading_holds_up_neither_mining_nor_the_end() -> None:
    reading, writing = os.pipe()
    fcntl.fcntl(writing, fcntl.F_SETPIPE_SZ, 4096)
    with StandInNode(EASY, 8) as node, open(writing, "wb") as unread:
        with Miner("--address", MINER_ADDRESS, "--rpcport", node.port, stdout=unread) as miner:
            wait_until(lambda: len(node.accepted) == 8, "blocks", 20)
            miner.send(signal.SIGINT)
            assert miner.end(6) == 0
    os.close(reading)


@pytest.mark.parametrize("closed", ["0<&-", "1>&-", "0<&- 1>&- 2>&-"])
def test_a_closed_stream_does_not_become_a_connection(closed: str) -> None:
    with StandInNode(EASY, 3) as node:
        command = f'exec "$0" --address {MINER_ADDRESS} --rpcport {node.port} --threads 2 {closed}'
        with subprocess.Popen(["sh", "-c", command, program()], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL) as process:
            try:
                wait_until(lambda: len(node.accepted) == 3 or node.problems, "blocks")
                time.sleep(1.2)
                process.send_signal(signal.SIGTERM)
                assert process.wait(6 * SLOW) == 0
            finally:
                process.kill()
        assert node.problems == []


def test_a_full_disk_does_not_keep_the_miner_from_mining_or_ending() -> None:
    with StandInNode(EASY, 3) as node, open("/dev/full", "wb") as full:
        with Miner("--address", MINER_ADDRESS, "--rpcport", node.port, stdout=full) as miner:
            wait_until(lambda: len(node.accepted) == 3, "blocks")
            time.sleep(1.2)
            miner.send(signal.SIGTERM)
            assert miner.end(4) == 0
