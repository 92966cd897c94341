"""The exchanges before mining: replies of every kind to getblockcount and to the first getblocktemplate."""

import resource

import pytest

import behaviours as b
import screen
from miner_process import SLOW, run
from stand_in_node import MINER_ADDRESS, START_HEIGHT, Behaviour, StandInNode, answer_well, http, request_bytes

COUNT_ERROR = "[RPC Client] getblockcount error: "

# Replies to getblockcount without a usable number, and the line that each leaves on standard error.
USELESS_COUNTS = [
    ("error reply", b.rpc_error("boom"), COUNT_ERROR + "boom\n"),
    ("error as text", b.body('{"error":"x"}'), COUNT_ERROR + "RPC error\n"),
    ("error without message", b.body('{"error":{}}'), COUNT_ERROR + "RPC error\n"),
    ("escape sequences", b.body(b'{"error":{"message":"\x1b[2J\\n\x07\x7f\\u0041 \xc3\xa9\\t"}}'),
     COUNT_ERROR + "?[2J???u0041 é?\n"),
    ("bad Content-Length", b.raw(b'HTTP/1.1 200 OK\r\nContent-Length: many\r\n\r\n{"result":7}'),
     COUNT_ERROR + "stoi\n"),
    ("huge Content-Length", b.raw(b'HTTP/1.1 200 OK\r\nContent-Length: 99999999999\r\n\r\n{"result":7}'),
     COUNT_ERROR + "stoi\n"),
    ("lone minus", b.body('{"result":-}'), COUNT_ERROR + "stod\n"),
    ("number out of range", b.body('{"result":' + "9" * 400 + "}"), COUNT_ERROR + "stod\n"),
    ("number as text", b.body('{"result":"7"}'), ""),
    ("null", b.body('{"result":null,"error":null}'), ""),
    ("no object", b.body("[7]"), ""),
    ("closed at once", b.close_at_once, ""),
    ("garbage", b.raw(b"\xff\xfe garbage"), ""),
    ("no blank line", b.raw(b'HTTP/1.1 200 OK\r\nContent-Length: 12\r\n{"result":7}'), ""),
    ("HTML with status 500", b.body("<html>busy</html>", "500 Internal Server Error"), ""),
    ("zero byte first", b.raw(b"\0" + http('{"result":7}')), ""),
    ("a million brackets", b.body("[" * 1_000_000), ""),
    ("deep objects", b.body('{"result":' * 100_000), ""),
]

# Replies to getblockcount that do carry a number, and the height printed for it.
USEFUL_COUNTS = [
    ("error null", b.body('{"result":7,"error":null}'), 7),
    ("status line is not examined", b.body('{"result":8}', "401 Unauthorized"), 8),
    ("fraction", b.body('{"result":9.99}'), 9),
    ("negative", b.body('{"result":-3}'), 0),
    ("above 32 bits", b.body('{"result":99999999999}'), 2**32 - 1),
    ("exponent is not read", b.body('{"result":1e5}'), 1),
    ("cut object", b.body('{"result":12'), 12),
    ("blanks, repeated key, text behind", b.body(' \n{ "result" : 1 , "result" : 5 } trailing'), 5),
    ("zero byte after the text", b.body(b'{"result":6}\0junk'), 6),
    ("one byte at a time", b.byte_by_byte, START_HEIGHT),
    ("no Content-Length", b.without_length, START_HEIGHT),
    ("connection held open", b.held_open, START_HEIGHT),
    ("late", b.after(0.3), START_HEIGHT),
    ("negative Content-Length ends at the blank line", b.raw(b'HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\n'
                                                              b'{"result":4}'), 4),
]


def until_connecting(port: int) -> str:
    return screen.BANNER + screen.configuration(MINER_ADDRESS, "127.0.0.1", port, "1") + screen.CONNECTING


@pytest.mark.parametrize("label, behaviour, line", USELESS_COUNTS, ids=lambda v: v if isinstance(v, str) else "")
def test_no_count(label: str, behaviour: Behaviour, line: str) -> None:
    for first in (True, False):
        with StandInNode() as node:
            node.plan("getblockcount", *([] if first else [answer_well]), behaviour)
            result = run("--address", MINER_ADDRESS, "--rpcport", node.port, "--threads", 1)
            end = screen.no_connection("127.0.0.1", node.port) if first else screen.NO_COUNT
            assert result == (1, until_connecting(node.port), line + end)
            assert node.problems == []


@pytest.mark.parametrize("label, behaviour, height", USEFUL_COUNTS, ids=lambda v: v if isinstance(v, str) else "")
def test_count(label: str, behaviour: Behaviour, height: int) -> None:
    with StandInNode() as node:
        node.plan("getblockcount", answer_well, behaviour)
        node.plan("getblocktemplate", b.rpc_error("enough"))
        result = run("--address", MINER_ADDRESS, "--rpcport", node.port, "--threads", 1)
        error = ("[RPC Client] getblocktemplate error: enough\n"
                 "[Miner] Error getting block template: Failed to get block template from node\n")
        assert result == (1, until_connecting(node.port) + screen.connected(height, 1), error + screen.NO_START)


@pytest.mark.parametrize("label, fields, message", [
    ("not hexadecimal", {"tx_data": ["zz"]}, "stoul"),
    ("empty transaction", {"tx_data": [""]}, "Not enough data"),
    ("transaction cut early", {"tx_data": ["01"]}, "Not enough data for version"),
    ("good one, then a cut one", {"tx_data": ["01" + "00" * 20, "01" + "00" * 19]}, "Not enough data for locktime"),
    ("huge script length", {"tx_data": ["01" + "00" * 14 + "0100" + "00" * 8 + "ff" + "ff" * 8]},
     "Invalid script data: insufficient bytes"),
    ("65,535 inputs announced", {"tx_data": ["01" + "00" * 12 + "ffff"]}, "Not enough bytes to deserialize uint256"),
    ("number for a transaction", {"tx_data": [5]}, "Not enough data"),
    ("previous hash", {"previousblockhash": "xyz"}, "stoul"),
])
def test_a_first_template_that_cannot_be_read(label: str, fields: "dict[str, object]", message: str) -> None:
    with StandInNode() as node:
        node.overrides = {"previousblockhash": "00", **fields}
        status, out, err = run("--address", MINER_ADDRESS, "--rpcport", node.port)
    assert (status, err) == (1, f"[RPC Client] getblocktemplate error: {message}\n"
                                "[Miner] Error getting block template: Failed to get block template from node\n"
                                + screen.NO_START)
    assert out.endswith(screen.CLEAR + screen.BANNER)


def test_requests_are_exact() -> None:
    with StandInNode() as node:
        node.plan("getblocktemplate", b.rpc_error("enough"))
        run("--address", 'quote" back\\ tab\t ü', "--rpcport", node.port)
        assert node.requests == [
            request_bytes(node.port, 0, "getblockcount", "{}"),
            request_bytes(node.port, 1, "getblockcount", "{}"),
            request_bytes(node.port, 2, "getblocktemplate", '{"address":"quote\\" back\\\\ tab\\t ü"}'),
        ]


@pytest.mark.parametrize("piece", [b"A", b"[", b"HTTP\r\n\r\n", b'{"a":'])
def test_an_endless_reply_is_cut_and_takes_bounded_memory(piece: bytes) -> None:
    with StandInNode() as node:
        node.plan("getblockcount", b.endless(piece))
        status, _, err = run("--address", MINER_ADDRESS, "--rpcport", node.port, limit_s=60)
        assert (status, err) == (1, screen.no_connection("127.0.0.1", node.port))
    peak_kb = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
    assert SLOW > 1 or peak_kb < 400_000
