"""Query methods of a node in both forms of their parameters, what they say of what names nothing, and the node's state.
The replies to what names something stand in the page of reference, which test_rpc_reference asks for."""

import time
from typing import Any, Dict, List, Tuple

import pytest

import wallet
from child_process import SLOW
from node_process import Node
from node_scenes import Stage
from norvel_formats import hash_text
from raw_http import RpcError
from raw_peer import RawPeer
from stored_chain import chain
from wallet import MAIN, RIGHT

HEIGHT = 20
UNKNOWN = "ab" * 32
LONG_TEXT_S = 2 * SLOW


@pytest.fixture(scope="module", name="node")
def fixture_node(stage: Stage) -> Node:
    return stage.node(1, HEIGHT)


def test_state_of_pool_and_peers(node: Node) -> None:
    tx = node.rpc("getrawtransaction", wallet.pay(node, MAIN, RIGHT.address, "5"))
    with RawPeer(node, "127.0.0.9") as peer:
        peer.handshake(height=77, port=0)
        node.wait_for_peers(1)
        shown = node.peers()
        assert shown[0].pop("addr").startswith("127.0.0.9:")
        assert shown == [{"version": 70015, "height": 77, "outbound": False}]
        status, tip = node.rpc("getnodestatus"), chain()[HEIGHT]
        assert status.pop("uptime") >= 0 and isinstance(status.pop("warnings"), list)
        assert status == {
            "height": HEIGHT, "tip": hash_text(tip.hash()), "tip_time": tip.timestamp, "difficulty": 1,
            "best_known_height": 77, "synchronising": True, "peers_in": 1, "peers_out": 0, "mempool_size": 1,
            "mempool_bytes": len(tx) // 2, "treasury_balance": 0}


def message_of(node: Node, method: str, params: Any) -> str:
    """The text of the error that a call gives, which must be a handler's."""
    with pytest.raises(RpcError) as failure:
        node.rpc(method, *([params] if isinstance(params, dict) else params))
    assert failure.value.code == -1 and failure.value.message.startswith("Error: "), failure.value
    return failure.value.message[len("Error: ") :]


# Method, member of the object form, text without it, texts for values that name nothing.
LOOKUPS: List[Tuple[str, str, str, Dict[Any, str]]] = [
    ("getblockhash", "height", "Block height required",
     {height: f"Block not found at height {height}" for height in (100_000, -1, 2**32 - 1, 2**32, 2**32 + 5)})]
LOOKUPS += [(method, "hash", "Block hash required", dict.fromkeys(
    (UNKNOWN, UNKNOWN[1:], UNKNOWN + "a", "x" * 64, "0x" + UNKNOWN), "Block not found"))
    for method in ("getblock", "getblockheader")]
LOOKUPS += [(method, "txid", missing, dict.fromkeys((UNKNOWN, "ab"), "Transaction not found")) for method, missing in (
    ("gettransaction", "Transaction ID required"), ("getrawtransaction", "TXID required"))]
LOOKUPS += [(method, "address", "Address required", dict.fromkeys(
    ("x", "1" * 64, "1" * 65, MAIN.address[:-1], " " + MAIN.address, MAIN.address[:-1] + "0"), "Invalid address"))
    for method in ("getbalance", "getutxos", "listtransactions", "getaddressinfo")]


@pytest.mark.parametrize("method,key,missing,unknown", LOOKUPS, ids=[row[0] for row in LOOKUPS])
def test_look_ups_that_find_nothing(node: Node, method: str, key: str, missing: str, unknown: Dict[Any, str]) -> None:
    wrong_type = "5" if key == "height" else 5
    for params in ([], {}, [None], {key: None}, [wrong_type], {key: wrong_type}, [[]], {key: {}}, {key.upper(): "x"}):
        assert message_of(node, method, params) == missing, params
    for value, text in unknown.items():
        assert message_of(node, method, [value]) == message_of(node, method, {key: value}) == text, value


def test_long_texts_cost_little(node: Node) -> None:
    """Base58 of so many digits would take minutes, and hexadecimal of no block is not decoded."""
    calls: List[Tuple[str, Any]] = [(method, ["z" * 4_000_000])
                                    for method in ("getbalance", "getpubkeyforaddress", "listtransactions")]
    for method, params in [*calls, ("submitblock", {"data": "0" * 4_000_000})]:
        start = time.monotonic()
        message_of(node, method, params)
        assert time.monotonic() - start < LONG_TEXT_S, method
