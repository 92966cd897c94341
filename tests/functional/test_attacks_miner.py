"""A hostile node against a miner at work: its memory is bounded, and Ctrl+C is answered wherever the reply stands."""

import time

import pytest

import behaviours as b
from child_process import SLOW, wait_until
from miner_process import Miner, mine
from stand_in_node import EASY, Behaviour, StandInNode, answer_well

OK = b"HTTP/1.1 200 OK\r\n"
RESULT = OK + b'\r\n{"result":{"height":7,"tx_data":['
SMALLEST_TX = b'"01' + b"00" * 20 + b'",'
MEMORY_MAX_MIB = 400  # 64 MiB of text and what 500,000 values take
STOP_MAX_S = 7

REPLIES = [
    ("four gigabytes announced", b.endless(b"x" * 16, OK + b"Content-Length: 4294967296\r\n\r\n")),
    ("two gigabytes announced", b.endless(b"x" * 16, OK + b"Content-Length: 2147483647\r\n\r\n")),
    ("headers without end", b.endless(b"A: b\r\n", OK)),
    ("zero bytes without end", b.endless(bytes(16))),
    ("a text without end", b.endless(b"x" * 16, OK + b'\r\n{"result":{"previousblockhash":"')),
    ("numbers without end", b.endless(b"0,", RESULT)),
    ("names without end", b.endless(b'"%d":0,', OK + b'\r\n{"result":{')),
    ("transactions without end", b.endless(SMALLEST_TX, RESULT)),
    ("lists in lists", b.endless(b"[" * 16, RESULT)),
    ("objects in objects", b.endless(b'{"tx_data":', OK + b'\r\n{"result":')),
    ("wrong types, again and again", b.body('{"result":{"height":{},"bits":"x","tx_data":[[[7]],{"a":null},"0"]}}')),
    ("an error of four megabytes", b.rpc_error("\x1b[2J" * (1 << 20))),
    ("never a reply", b.hang),
]


def peak_mib(miner: Miner) -> int:
    with open(f"/proc/{miner.process.pid}/status", encoding="ascii") as file:
        return next(int(line.split()[1]) for line in file if line.startswith("VmHWM")) // 1024


@pytest.mark.parametrize("reply", [row[1] for row in REPLIES], ids=[row[0] for row in REPLIES])
def test_a_template_that_attacks(reply: Behaviour) -> None:
    with StandInNode(EASY, 1) as node:
        node.plan("getblocktemplate", answer_well)
        node.standard["getblocktemplate"] = reply
        with mine(node.port) as miner:
            asked_again = 2 if reply is b.hang else 3  # the first reply has then been dealt with
            wait_until(lambda: node.count("getblocktemplate") >= asked_again, "request", 60)
            time.sleep(0.3)
            begin, peak = time.monotonic(), peak_mib(miner)
            miner.stop(limit_s=STOP_MAX_S)
            print(f"{peak} MiB, {time.monotonic() - begin:.1f} s to stop")
            assert peak < MEMORY_MAX_MIB or SLOW > 1
            assert len(node.accepted) == 1 and node.problems == []
            assert len(miner.err()) < 20 << 20
