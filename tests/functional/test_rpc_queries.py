"""Every query method of a node against an account of its chain that is kept apart, and the error texts of all."""

import os
import time
from typing import Any, Callable, Dict, Iterator, List, Tuple

import pytest

import wallet
from chain_ledger import COIN, Ledger, coins
from chain_reader import read_chain
from child_process import SLOW
from cli_process import cli
from node_process import Node
from node_scenes import Stage
from norvel_formats import TREASURY_HASH, Tx, TxIn, TxOut, address_of, hash_text, p2pkh
from raw_http import RpcError
from raw_peer import RawPeer
from stored_chain import Key, coinbase
from wallet import LEFT, LOW, MAIN, RIGHT

HEIGHT = 130  # more than the window of the hash rate
PREIMAGE = b"a secret of 32 bytes or any other"
UNKNOWN = "ab" * 32
PROTOCOL_VERSION = 70015
ADDRESS_CHARACTERS_MAX = 64
LONG_TEXT_S = 2 * SLOW


class Scene:
    """A node whose chain holds payments of every form, two unconfirmed ones in its pool, and the account of it all."""

    def __init__(self, stage: Stage) -> None:
        self.stage = stage
        self.node = stage.node(1, HEIGHT)
        self.alice_file, self.alice = self._new_key("alice.key")
        self.bob_file, self.bob = self._new_key("bob.key")
        self._mine_payments()
        self.ledger = Ledger(read_chain(self.node))
        self.pooled = self._fill_pool()
        for raw in self.pooled:
            self.ledger.add_unconfirmed(raw)

    def _new_key(self, name: str) -> Tuple[str, Key]:
        path = os.path.join(self.node.directory, name)
        cli(self.node, "newkey", path)
        return path, wallet.read_key_file(path)

    def send(self, tx: bytes) -> bytes:
        self.node.rpc("sendrawtransaction", {"hex": tx.hex()})
        return tx

    def pay(self, key: Key, payee: Key, amount: int, fee: int = wallet.FEE, skip: int = 0) -> bytes:
        outputs = wallet.outputs_of(self.node, key)[skip:]
        return self.send(wallet.pay(key, payee.address, amount, outputs[:3], fee))

    def _lock(self, lock_time: int, skip: int) -> bytes:
        outputs = wallet.outputs_of(self.node, MAIN)[skip : skip + 1]
        return self.send(wallet.lock(MAIN, self.bob, 2 * COIN, PREIMAGE, lock_time, outputs))

    def _mine_payments(self) -> None:
        lock_time = HEIGHT + 4
        self.pay(MAIN, self.alice, 11 * COIN)
        self.pay(MAIN, self.bob, 9 * COIN, skip=3)
        self.stage.mine_on(self.node, LEFT)
        self.pay(self.bob, self.alice, 123_456_789)
        claimed, refunded = self._lock(lock_time, 0), self._lock(lock_time, 1)
        self.stage.mine_on(self.node, LEFT)
        cli(self.node, "send", self.alice_file, self.bob.address, "0.25", "--fee", "0.01", "--message", "Grüße")
        self.send(wallet.claim(self.bob, PREIMAGE, claimed))
        self.stage.mine_on(self.node, self.alice)
        self._send_to_self(MAIN)
        while self.node.height() <= lock_time:
            self.stage.mine_on(self.node, RIGHT)
        self.send(wallet.refund(MAIN, lock_time, refunded))
        self.stage.mine_on(self.node, RIGHT)

    def _send_to_self(self, key: Key) -> None:
        source = wallet.outputs_of(self.node, key)[0]
        value = int(source.split(":")[2])
        self.send(wallet.pay(key, key.address, value - wallet.FEE, [source]))

    def _fill_pool(self) -> List[bytes]:
        """A payment and its child, their fees large enough for the treasury's share."""
        parent = self.pay(self.bob, self.alice, COIN, 70_001)
        at = f"{wallet.txid(parent)}:0:{COIN}"
        return [parent, self.send(wallet.pay(self.alice, self.bob.address, COIN // 3, [at], 30_002))]


@pytest.fixture(scope="module", name="stage")
def fixture_stage() -> Iterator[Stage]:
    with Stage() as stage:
        yield stage


@pytest.fixture(scope="module", name="scene")
def fixture_scene(stage: Stage) -> Scene:
    return Scene(stage)


def both_forms(node: Node, method: str, key: str, value: Any) -> Any:
    """The answer to the array form, after comparing it with that to the object form."""
    answer = node.rpc(method, value)
    assert node.rpc(method, {key: value}) == answer
    return answer


def test_blocks_and_heights(scene: Scene) -> None:
    node, ledger = scene.node, scene.ledger
    for height in range(ledger.tip.height + 1):
        wanted = ledger.block(height)
        assert both_forms(node, "getblockhash", "height", height) == wanted["hash"]
        assert both_forms(node, "getblock", "hash", wanted["hash"]) == wanted
        assert both_forms(node, "getblockheader", "hash", wanted["hash"].upper()) == wanted
    assert node.height() == ledger.tip.height
    assert node.tip() == hash_text(ledger.tip.hash())


def test_transactions(scene: Scene) -> None:
    for txid, entry in scene.ledger.entries.items():
        wanted = scene.ledger.transaction(txid)
        assert both_forms(scene.node, "gettransaction", "txid", wanted["txid"]) == wanted
        assert both_forms(scene.node, "getrawtransaction", "txid", wanted["txid"]) == entry.raw.hex()


def test_what_the_scene_holds(scene: Scene) -> None:
    """So that the comparisons above and below compare something."""
    ledger = scene.ledger
    history = {name: [ledger.listed(key.key_hash, txid)["type"] for txid in ledger.history_of(key.key_hash)]
               for name, key in (("alice", scene.alice), ("main", MAIN))}
    assert set(history["alice"]) == {"receive", "send", "coinbase"}
    assert set(history["main"]) == {"receive", "send", "coinbase", "self"}
    entries = [ledger.transaction(txid) for txid in ledger.entries]
    assert len([entry for entry in entries if entry["message"]]) == 1
    assert len([entry for entry in entries if not entry["from"] and entry["type"] == "transfer"]) == 2  # of contracts
    assert ledger.outputs_of(TREASURY_HASH)


def test_addresses(scene: Scene) -> None:
    node, ledger = scene.node, scene.ledger
    key_hashes = sorted(ledger.key_hashes() | {LOW.key_hash})
    assert not ledger.history_of(LOW.key_hash) and TREASURY_HASH in key_hashes
    for key_hash in key_hashes:
        address, outputs, history = address_of(key_hash), ledger.outputs_of(key_hash), ledger.history_of(key_hash)
        balance = sum(outputs.values())
        wanted = {"address": address, "balance": coins(balance), "balance_satoshis": balance}
        assert both_forms(node, "getbalance", "address", address) == wanted
        assert both_forms(node, "getaddressinfo", "address", address) == {
            **wanted, "utxo_count": len(outputs), "tx_count": len(history)}
        listed = sorted(both_forms(node, "getutxos", "address", address), key=lambda row: (row["txid"], row["vout"]))
        assert listed == sorted(({"txid": hash_text(txid), "vout": index, "value": value, "value_nvl": coins(value)}
                                 for (txid, index), value in outputs.items()), key=lambda r: (r["txid"], r["vout"]))


def test_histories(scene: Scene) -> None:
    for key_hash in sorted(scene.ledger.key_hashes() | {LOW.key_hash}):
        address = address_of(key_hash)
        newest = [scene.ledger.listed(key_hash, txid) for txid in reversed(scene.ledger.history_of(key_hash))]
        assert both_forms(scene.node, "listtransactions", "address", address) == newest[:10]
        for count in (0, 1, len(newest), 1000, 10**12):
            assert scene.node.rpc("listtransactions", address, count) == newest[:count]
            assert scene.node.rpc("listtransactions", {"address": address, "count": count}) == newest[:count]


def test_revealed_keys(scene: Scene) -> None:
    revealed = {hash_: scene.ledger.revealed_key(hash_) for hash_ in scene.ledger.key_hashes()}
    assert {hash_ for hash_, key in revealed.items() if key} == {k.key_hash for k in (MAIN, scene.alice, scene.bob)}
    for key_hash, key in revealed.items():
        if key:
            assert both_forms(scene.node, "getpubkeyforaddress", "address", address_of(key_hash)) == key.hex()


def test_hash_rate_and_difficulty(stage: Stage, scene: Scene) -> None:
    """At heights on both sides of the window's length; the scene's newest blocks are years younger than the rest."""
    for node in (stage.node(2, 1, "--no-listen"), stage.node(3, 40, "--no-listen"), scene.node):
        blocks = scene.ledger.blocks[: node.height() + 1]
        wanted = {"blocks": blocks[-1].height, "difficulty": 1, "networkhashps": Ledger(blocks).hash_rate()}
        assert node.rpc("getmininginfo") == wanted


def test_peers(scene: Scene) -> None:
    assert scene.node.rpc("getnetworkinfo") == {"connections": 0, "version": PROTOCOL_VERSION}
    assert scene.node.peers() == []
    with RawPeer(scene.node, "127.0.0.9") as peer:
        peer.handshake(height=77, port=0)
        scene.node.wait_for_peers(1)
        shown = scene.node.peers()
        assert shown[0].pop("addr").startswith("127.0.0.9:")
        assert shown == [{"version": PROTOCOL_VERSION, "height": 77, "outbound": False}]
        assert scene.node.rpc("getnetworkinfo") == {"connections": 1, "version": PROTOCOL_VERSION}


def test_pool_and_template(scene: Scene) -> None:
    node, tip = scene.node, scene.ledger.tip
    size = sum(map(len, scene.pooled))
    assert node.rpc("getmempoolinfo") == {"size": 2, "bytes": size, "usage": size}
    assert sorted(node.rpc("getrawmempool")) == sorted(map(wallet.txid, scene.pooled))
    time.sleep(1.05)  # so old a template may be
    before = int(time.time())
    template = node.rpc("getblocktemplate", scene.alice.address)
    assert before <= template.pop("curtime") <= time.time()
    again = node.rpc("getblocktemplate", {"address": scene.alice.address})
    again.pop("curtime")
    assert again == template == {
        "version": 1, "previousblockhash": hash_text(tip.hash()), "height": tip.height + 1, "bits": tip.bits,
        "prevblocktime": tip.timestamp, "miningaddress": scene.alice.address, "total_fees": 100_003,
        "transactions": [{"txid": wallet.txid(tx), "data": tx.hex()} for tx in scene.pooled],
        "tx_data": [tx.hex() for tx in scene.pooled], "miner_reward": 8 * COIN, "treasury_value": 50_001,
        "treasury_address": address_of(TREASURY_HASH), "coinbasevalue": 8 * COIN + 50_001}


def test_status(scene: Scene) -> None:
    status, tip = scene.node.rpc("getnodestatus"), scene.ledger.tip
    assert status.pop("uptime") >= 0 and isinstance(status.pop("warnings"), list)
    assert status == {
        "height": tip.height, "tip": hash_text(tip.hash()), "tip_time": tip.timestamp, "difficulty": 1,
        "best_known_height": tip.height, "synchronising": False, "peers_in": 0, "peers_out": 0, "mempool_size": 2,
        "mempool_bytes": sum(map(len, scene.pooled)),
        "treasury_balance": scene.ledger.treasury_balance()}


def message_of(node: Node, method: str, params: Any) -> str:
    """The text of the error that a call gives, which must be a handler's."""
    with pytest.raises(RpcError) as failure:
        node.rpc(method, *([params] if isinstance(params, dict) else params))
    assert failure.value.code == -1 and failure.value.message.startswith("Error: "), failure.value
    return failure.value.message[len("Error: ") :]


NO_KEY = ("No public key available for this address. The address must send at least one transaction first to reveal "
          "its public key.")

# Method, member of the object form, text without it, texts for values that name nothing.
LOOKUPS: List[Tuple[str, str, str, Dict[Any, str]]] = [
    (method, "hash", "Block hash required",
     {UNKNOWN: "Block not found", UNKNOWN[1:]: "Block not found", UNKNOWN + "a": "Block not found",
      "x" * 64: "Block not found", "0x" + UNKNOWN: "Block not found"}) for method in ("getblock", "getblockheader")]
LOOKUPS += [
    ("getblockhash", "height", "Block height required",
     {height: f"Block not found at height {height}" for height in (100_000, -1, 2**32 - 1, 2**32, 2**32 + 5)}),
    ("gettransaction", "txid", "Transaction ID required",
     {UNKNOWN: "Transaction not found", "ab": "Transaction not found"}),
    ("getrawtransaction", "txid", "TXID required", {UNKNOWN: "Transaction not found", "ab": "Transaction not found"}),
]
BAD_ADDRESSES = ["x", "1" * ADDRESS_CHARACTERS_MAX, "1" * (ADDRESS_CHARACTERS_MAX + 1), MAIN.address[:-1],
                 MAIN.address + "1", " " + MAIN.address, MAIN.address[:-1] + "0", MAIN.address[:-4] + "1111"]
LOOKUPS += [(method, "address", "Address required", {text: "Invalid address" for text in BAD_ADDRESSES})
            for method in ("getbalance", "getutxos", "listtransactions", "getaddressinfo")]


@pytest.mark.parametrize("method,key,missing,unknown", LOOKUPS, ids=[row[0] for row in LOOKUPS])
def test_look_ups_that_find_nothing(scene: Scene, method: str, key: str, missing: str,
                                    unknown: Dict[Any, str]) -> None:
    wrong_type = "5" if key == "height" else 5
    for params in ([], {}, [None], {key: None}, [wrong_type], {key: wrong_type}, [[]], {key: {}}, {key.upper(): "x"}):
        assert message_of(scene.node, method, params) == missing, params
    if key != "height":
        assert message_of(scene.node, method, [""]) == missing
    for value, text in unknown.items():
        assert message_of(scene.node, method, [value]) == message_of(scene.node, method, {key: value}) == text, value


def test_texts_for_a_key_that_is_not_there(scene: Scene) -> None:
    rows: List[Tuple[Any, str]] = [
        ([], "Missing address parameter"), ([None], "Missing address parameter"), ([5], "Invalid address parameter"),
        ([["x"]], "Invalid address parameter"), ({}, "Missing or invalid 'address' parameter"),
        ({"address": 5}, "Missing or invalid 'address' parameter"), ([LOW.address], NO_KEY),
        ({"address": LEFT.address}, NO_KEY)]
    rows += [([text], "Invalid address") for text in BAD_ADDRESSES]
    for params, text in rows:
        assert message_of(scene.node, "getpubkeyforaddress", params) == text, params


def overspending(scene: Scene) -> str:
    txid, index, value = wallet.outputs_of(scene.node, MAIN)[0].split(":")
    source = TxIn(bytes.fromhex(txid)[::-1], int(index), b"\1", b"\2")
    return Tx([source], [TxOut(int(value) + 1, p2pkh(MAIN.key_hash))]).encode().hex()


def test_texts_for_what_is_not_taken(scene: Scene) -> None:
    pooled, mined = scene.pooled[0].hex(), scene.ledger.tip.txs[1].hex()
    orphan = Tx([TxIn(bytes.fromhex(UNKNOWN), 3, b"\1", b"\2")], [TxOut(1, p2pkh(MAIN.key_hash))]).encode().hex()
    rows: List[Tuple[str, Any, str]] = [
        ("getblocktemplate", [], "Mining address required"), ("getblocktemplate", {}, "Mining address required"),
        ("getblocktemplate", [""], "Mining address required"), ("submitblock", {}, "Block data required"),
        ("submitblock", {"hex": "00"}, "Block data required"), ("sendrawtransaction", {}, "Transaction hex required"),
        ("sendrawtransaction", {"data": "00"}, "Transaction hex required"),
        ("sendrawtransaction", {"hex": orphan}, "Transaction rejected: missing parent " + UNKNOWN),
        ("sendrawtransaction", {"hex": overspending(scene)}, "Invalid transaction: outputs exceed inputs")]
    for method, params, text in rows:
        assert message_of(scene.node, method, params) == text, (method, params)
    tip = scene.ledger.tip.encode().hex()
    begins = [("submitblock", {"data": text}, "Block rejected: ")
              for text in ("zz", "00", tip, tip[:-2], "0" * 3_000_000)]
    begins += [("sendrawtransaction", {"hex": text}, "Transaction rejected: ")
               for text in ("zz", "00", "0" * 3_000_000, coinbase(5, LOW.key_hash, 0).hex(), pooled[:-2])]
    begins += [("sendrawtransaction", {"hex": text}, "Mempool rejected: ") for text in (pooled, mined)]
    for method, params, text in begins:
        said = message_of(scene.node, method, params)
        assert said.startswith(text) and len(said) > len(text), (method, said)
    assert scene.node.tip() == hash_text(scene.ledger.tip.hash())


def test_long_texts_cost_little(scene: Scene) -> None:
    """Base58 of so many digits would take minutes, and hexadecimal of no block is not decoded."""
    def seconds(call: Callable[[], object]) -> float:
        start = time.monotonic()
        with pytest.raises(RpcError):
            call()
        return time.monotonic() - start

    for method in ("getbalance", "getpubkeyforaddress", "listtransactions"):
        assert seconds(lambda method=method: scene.node.rpc(method, "z" * 4_000_000)) < LONG_TEXT_S
    assert seconds(lambda: scene.node.rpc("submitblock", {"data": "0" * 4_000_000})) < LONG_TEXT_S


def test_the_node_stops_in_order(scene: Scene) -> None:
    scene.node.stop()
