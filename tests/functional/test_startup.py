"""The exchanges before mining: replies of every kind to getblockcount and to the first getblocktemplate."""

import resource

import pytest

import behaviours as b
import screen
from child_process import SLOW
from miner_process import run
from stand_in_node import MINER_ADDRESS, START_HEIGHT, Behaviour, StandInNode, answer_well

COUNT_ERROR = "[RPC Client] getblockcount error: "

# Replies to getblockcount without a usable number, and the line that each leaves on standard error.
USELESS_COUNTS = [
    ("escape sequences", b.body(b'{"error":{"message":"\x1b[2J\\n\x07\x7f\\u0041 \xc3\xa9\\t"}}'),
     COUNT_ERROR + "?[2J???u0041 é?\n"),
    ("an error without a message", b.body('{"error":{"code":-1},"result":7}'), COUNT_ERROR + "RPC error\n"),
    ("a count that is a text", b.body('{"result":"7","error":null}'), ""),
    ("bad Content-Length", b.raw(b'\r\nContent-Length: many\r\n\r\n{"result":7}'), COUNT_ERROR + "stoi\n"),
    ("closed at once", b.close_at_once, ""),
    ("a million brackets", b.body("[" * 1_000_000), ""),
]


@pytest.mark.parametrize("label, behaviour, line", USELESS_COUNTS, ids=lambda v: v if isinstance(v, str) else "")
def test_no_count(label: str, behaviour: Behaviour, line: str) -> None:
    for first in (True, False):
        with StandInNode() as node:
            node.plan("getblockcount", *([] if first else [answer_well]), behaviour)
            result = run("--address", MINER_ADDRESS, "--rpcport", node.port, "--threads", 1)
            end = screen.no_connection("127.0.0.1", node.port) if first else screen.NO_COUNT
            assert result == (1, screen.until_connecting(MINER_ADDRESS, node.port), line + end)
            assert node.problems == []


@pytest.mark.parametrize("fields, message", [
    ({"tx_data": ["zz"]}, "stoul"),
    ({"tx_data": ["01" + "00" * 20, "01" + "00" * 19]}, "Not enough data for locktime"),
    ({"previousblockhash": "xyz"}, "stoul"),
])
def test_a_first_template_that_cannot_be_read(fields: "dict[str, object]", message: str) -> None:
    with StandInNode() as node:
        node.overrides = fields
        result = run("--address", MINER_ADDRESS, "--rpcport", node.port, "--threads", 1)
    assert result == (1, screen.until_connecting(MINER_ADDRESS, node.port) + screen.connected(START_HEIGHT, 1),
                      f"[RPC Client] getblocktemplate error: {message}\n"
                      "[Miner] Error getting block template: Failed to get block template from node\n"
                      + screen.NO_START)


def test_an_endless_reply_is_cut_and_takes_bounded_memory() -> None:
    with StandInNode() as node:
        node.plan("getblockcount", b.endless(b'{"a":'))
        status, _, err = run("--address", MINER_ADDRESS, "--rpcport", node.port, limit_s=60)
        assert (status, err) == (1, screen.no_connection("127.0.0.1", node.port))
    peak_kb = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
    assert SLOW > 1 or peak_kb < 400_000
