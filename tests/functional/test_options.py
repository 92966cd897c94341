"""Usage and the texts of a start that fails, each with its stream and exit status; tests/miner has the options."""

import os
import re
import signal

import pytest

import screen
from behaviours import rpc_error
from miner_process import run
from stand_in_node import MINER_ADDRESS, StandInNode

A = MINER_ADDRESS
HELP = (0, screen.BANNER + screen.USAGE, "")
NO_ADDRESS = (1, screen.BANNER, screen.NO_ADDRESS)


@pytest.mark.parametrize("args, result", [
    (["stray", "--address", A, "-h", "--threads", "abc"], HELP),
    (["--address"], NO_ADDRESS),
    (["--address", A, "--address", ""], NO_ADDRESS),
])
def test_runs_that_end_before_the_configuration(args: "list[str]", result: "tuple[int, str, str]") -> None:
    assert run(*args) == result


def test_a_value_that_is_no_number_ends_abnormally() -> None:
    status, out, err = run("--threads", "abc")
    assert (status, out) == (-signal.SIGABRT, screen.BANNER)
    assert "stoi" in err


@pytest.mark.parametrize("args, address, port, threads", [
    (["--address", A], A, 8332, "Auto"),
    (["--address", "-h", "--rpcport", "70000", "--threads", "-1"], "-h", 4464, "-1"),
])
def test_configuration(args: "list[str]", address: str, port: int, threads: str) -> None:
    host = "no.such.host"  # names are not looked up, so nothing is contacted
    refused = screen.no_connection(host, port)
    assert run("--rpchost", host, *args) == (
        1, screen.until_connecting(address, port, threads, host),
        "[RPC Client] getblockcount error: " + refused.splitlines()[0] + "\n" + refused)


def test_threads_are_those_of_the_machine() -> None:
    with StandInNode() as node:
        node.plan("getblocktemplate", rpc_error("enough"))
        status, out, _ = run("--address", A, "--rpcport", node.port)
        assert status == 1
        assert node.methods() == ["getblockcount", "getblockcount", "getblocktemplate"]
    used = re.search(r"\nUsing (\d+) threads\n", out)
    assert used and int(used[1]) in (os.cpu_count(), len(os.sched_getaffinity(0)))


@pytest.mark.parametrize("args, reason", [
    (["--address", A, "--threads", "-1"], ""),
    (["--address", A, "--threads", "4097"], ""),
    (["--address", "0OIl"], "base58_decode: invalid character"),
    (["--address", "1" * 40_000], "address_to_hash160: invalid address length"),
], ids=lambda value: value if isinstance(value, str) else "")
def test_a_start_that_is_refused(args: "list[str]", reason: str) -> None:
    with StandInNode() as node:
        status, out, err = run("--rpcport", node.port, *args)
    line = f"[Miner] Error getting block template: {reason}\n" if reason else ""
    assert (status, err) == (1, line + screen.NO_START)
    assert out.endswith(screen.CLEAR + screen.BANNER)
