"""Options, usage and the texts of a start that fails, each with its stream and exit status."""

import signal

import pytest

import screen
from behaviours import rpc_error
from miner_process import Miner, run
from stand_in_node import MINER_ADDRESS, StandInNode, closed_port

A = MINER_ADDRESS


@pytest.mark.parametrize("args", [["--help"], ["-h"], ["--address", A, "-h"], ["--rpcport", "--help", "-h"],
                                  ["stray", "--rpchost", "x", "--help", "--threads", "abc"],
                                  ["--threads", "abc", "--help"]])
def test_help_prints_banner_and_usage_only(args: "list[str]") -> None:
    assert run(*args) == (0, screen.BANNER + screen.USAGE, "")


@pytest.mark.parametrize("args", [[], ["--address"], ["--address", ""], ["stray", "--Address", A], ["-H", "--HELP"],
                                  ["--address", A, "--address", ""], ["--threads"]])
def test_missing_address(args: "list[str]") -> None:
    assert run(*args) == (1, screen.BANNER, screen.NO_ADDRESS)


@pytest.mark.parametrize("args", [["--threads", "abc"], ["--rpcport", "x"], ["--rpcport", ""], ["--threads", "-"],
                                  ["--threads", "2147483648"], ["--rpcport", "-2147483649"],
                                  ["--rpcport", "--address", A], ["--threads", "x", "--threads", "2"]])
def test_a_value_that_is_no_number_ends_abnormally(args: "list[str]") -> None:
    status, out, err = run(*args)
    assert (status, out) == (-signal.SIGABRT, screen.BANNER)
    assert "stoi" in err


@pytest.mark.parametrize("label, args, address, threads", [
    ("plain", ["--address", A], A, "Auto"),
    ("trailing threads", ["--address", A, "--threads"], A, "Auto"),
    ("trailing address keeps the first", ["--address", A, "--threads", "2", "--address"], A, "2"),
    ("repeated options", ["--address", "x", "--threads", "7", "--address", A, "--threads", "0"], A, "Auto"),
    ("unknown words", ["one", "--two", "--address", A, "--Threads", "x", "4"], A, "Auto"),
    ("an option as a value", ["--address", "--threads", "9"], "--threads", "Auto"),
    ("help as a value", ["--address", "-h", "--threads", " +3 threads"], "-h", "3"),
    ("negative count", ["--threads", "-1", "--address", A], A, "-1"),
])
def test_configuration_and_refused_connection(label: str, args: "list[str]", address: str, threads: str) -> None:
    sock, port = closed_port()
    with sock:
        result = run("--rpcport", port, *args)
    refused = screen.no_connection("127.0.0.1", port)
    assert result == (
        1, screen.BANNER + screen.configuration(address, "127.0.0.1", port, threads) + screen.CONNECTING,
        "[RPC Client] getblockcount error: " + refused.splitlines()[0] + "\n" + refused), label


@pytest.mark.parametrize("value, port", [("70000", 4464), ("65536", 0), ("-1", 65535), (" 9x", 9)])
def test_port_texts(value: str, port: int) -> None:
    # Names are not looked up, so nothing is contacted and only the printed port matters.
    status, out, err = run("--address", A, "--rpchost", "no.such.host", "--rpcport", value)
    assert (status, out) == (
        1, screen.BANNER + screen.configuration(A, "no.such.host", port, "Auto") + screen.CONNECTING)
    assert err.endswith(screen.no_connection("no.such.host", port))


def test_default_host_and_port() -> None:
    status, out, _ = run("--address", A, "--rpchost", "localhost")  # names are not looked up
    assert (status, out) == (1, screen.BANNER + screen.configuration(A, "localhost", 8332, "Auto") + screen.CONNECTING)


def test_a_port_above_16_bits_wraps_and_trailing_text_is_ignored() -> None:
    with StandInNode() as node:
        node.plan("getblocktemplate", rpc_error("enough"))
        status, out, _ = run("--address", A, "--rpcport", f" +{node.port + 65536}abc")
        assert status == 1
        assert f"  RPC Server:     127.0.0.1:{node.port}\n" in out
        assert node.methods() == ["getblockcount", "getblockcount", "getblocktemplate"]


@pytest.mark.parametrize("threads", ["-1", "4097", "5000", "-2147483648", "2147483647"])
def test_thread_counts_that_cannot_start(threads: str) -> None:
    with StandInNode() as node:
        status, out, err = run("--address", A, "--rpcport", node.port, "--threads", threads)
    assert (status, err) == (1, screen.NO_START)
    assert out.startswith(screen.BANNER + screen.configuration(A, "127.0.0.1", node.port, threads))
    assert out.endswith(screen.CLEAR + screen.BANNER)


@pytest.mark.parametrize("address, message", [
    ("0OIl", "base58_decode: invalid character"),
    ('a"\\b\n', "base58_decode: invalid character"),
    ("1" * 24, "address_to_hash160: invalid checksum"),  # 25 zero bytes
    ("1" * 23, "address_to_hash160: invalid address length"),
    pytest.param("1" * 40_000, "address_to_hash160: invalid address length", id="40,000 ones"),
    (A[:-1] + ("2" if A[-1] != "2" else "3"), "address_to_hash160: invalid checksum"),
    ("1" + A, "address_to_hash160: invalid address length"),  # 26 bytes
])
def test_bad_address(address: str, message: str) -> None:
    with StandInNode() as node:
        status, out, err = run("--address", address, "--rpcport", node.port)
    assert (status, err) == (1, f"[Miner] Error getting block template: {message}\n" + screen.NO_START)
    assert out.endswith(screen.CLEAR + screen.BANNER)


@pytest.mark.parametrize("args", [["--help"], [], ["--address", A]])
def test_a_full_disk_changes_no_exit_status(args: "list[str]") -> None:
    sock, port = closed_port()
    with sock, open("/dev/full", "wb") as full, Miner("--rpcport", port, *args, stdout=full) as miner:
        assert miner.end() == (0 if "--help" in args else 1)
