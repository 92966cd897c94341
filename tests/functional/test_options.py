"""Options, usage and the texts of a start that fails, each with its stream and exit status."""

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
    (["--help"], HELP),
    (["stray", "--address", A, "-h", "--threads", "abc"], HELP),
    (["--threads", "abc", "--help"], HELP),
    ([], NO_ADDRESS),
    (["--address"], NO_ADDRESS),
    (["--address", A, "--address", ""], NO_ADDRESS),
    (["stray", "--Address", A, "-H"], NO_ADDRESS),
])
def test_runs_that_end_before_the_configuration(args: "list[str]", result: "tuple[int, str, str]") -> None:
    assert run(*args) == result


@pytest.mark.parametrize("args", [["--threads", "abc"], ["--rpcport", ""], ["--threads", "2147483648"]])
def test_a_value_that_is_no_number_ends_abnormally(args: "list[str]") -> None:
    status, out, err = run(*args)
    assert (status, out) == (-signal.SIGABRT, screen.BANNER)
    assert "stoi" in err


@pytest.mark.parametrize("label, args, address, port, threads", [
    ("defaults", ["--address", A], A, 8332, "Auto"),
    ("trailing option", ["--address", A, "--threads", "2", "--address"], A, 8332, "2"),
    ("repeated options", ["--address", "x", "--threads", "7", "--address", A, "--threads", "0"], A, 8332, "Auto"),
    ("unknown words", ["one", "--two", "--address", A, "--Threads", "x", "4"], A, 8332, "Auto"),
    ("options as values", ["--address", "-h", "--threads", " +3 threads"], "-h", 8332, "3"),
    ("port above 16 bits", ["--address", A, "--rpcport", "70000"], A, 4464, "Auto"),
    ("negative numbers", ["--address", A, "--rpcport", "-1", "--threads", "-1"], A, 65535, "-1"),
])
def test_configuration(label: str, args: "list[str]", address: str, port: int, threads: str) -> None:
    host = "no.such.host"  # names are not looked up, so nothing is contacted
    refused = screen.no_connection(host, port)
    assert run("--rpchost", host, *args) == (
        1, screen.until_connecting(address, port, threads, host),
        "[RPC Client] getblockcount error: " + refused.splitlines()[0] + "\n" + refused), label


def test_a_port_above_16_bits_wraps_and_trailing_text_is_ignored() -> None:
    with StandInNode() as node:
        node.plan("getblocktemplate", rpc_error("enough"))
        status, out, _ = run("--address", A, "--rpcport", f" +{node.port + 65536}abc")
        assert status == 1
        assert f"  RPC Server:     127.0.0.1:{node.port}\n" in out
        assert node.methods() == ["getblockcount", "getblockcount", "getblocktemplate"]
    used = re.search(r"\nUsing (\d+) threads\n", out)
    assert used and int(used[1]) in (os.cpu_count(), len(os.sched_getaffinity(0)))


@pytest.mark.parametrize("args, reason", [
    (["--address", A, "--threads", "-1"], ""),
    (["--address", A, "--threads", "4097"], ""),
    (["--address", "0OIl"], "base58_decode: invalid character"),
    (["--address", "1" * 40_000], "address_to_hash160: invalid address length"),
    (["--address", A[:-1] + ("2" if A[-1] != "2" else "3")], "address_to_hash160: invalid checksum"),
], ids=lambda value: value if isinstance(value, str) else "")
def test_a_start_that_is_refused(args: "list[str]", reason: str) -> None:
    with StandInNode() as node:
        status, out, err = run("--rpcport", node.port, *args)
    line = f"[Miner] Error getting block template: {reason}\n" if reason else ""
    assert (status, err) == (1, line + screen.NO_START)
    assert out.endswith(screen.CLEAR + screen.BANNER)
