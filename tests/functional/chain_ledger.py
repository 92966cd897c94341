"""The account of a chain, kept apart from src/: what each query method of a node must answer, from its blocks alone.

Amounts are base units. Hashes are in digest order; keys of answers hold them as printed.
"""

from dataclasses import dataclass
from typing import Any, Dict, List, Optional, Sequence, Set, Tuple

from norvel_formats import (TX_COINBASE, TX_DISTRIBUTION, Block, Tx, TxOut, address_of, hash160, hash_text, p2pkh,
                            sha256d, target_of)
from stored_chain import EASIEST_BITS

COIN = 100_000_000
HASH_RATE_BLOCKS = 120
Outpoint = Tuple[bytes, int]
Answer = Dict[str, Any]


@dataclass(frozen=True)
class Entry:
    """A transaction and its block; no block while it is unconfirmed."""

    raw: bytes
    tx: Tx
    block: Optional[Block]


def coins(amount: int) -> float:
    """As JSON prints it: six significant digits unless it is whole."""
    return amount // COIN if amount % COIN == 0 else float(f"{amount / COIN:.6g}")


def payee_of(output: TxOut) -> Optional[bytes]:
    """The public-key hash that it pays; None for every other script."""
    key_hash = output.script[3:23]
    return key_hash if output.script == p2pkh(key_hash) else None


def difficulty_of(bits: int) -> float:
    ratio = target_of(EASIEST_BITS) / target_of(bits)
    return int(ratio) if ratio == int(ratio) else float(f"{ratio:.6g}")


def spends(tx: Tx) -> bool:
    return tx.type not in (TX_COINBASE, TX_DISTRIBUTION)


class Ledger:
    """`blocks` by height, genesis first."""

    def __init__(self, blocks: Sequence[Block]) -> None:
        self.blocks = list(blocks)
        self.entries: Dict[bytes, Entry] = {}
        self.unspent: Dict[Outpoint, TxOut] = {}
        for block in self.blocks:
            for raw in block.txs:
                entry = Entry(raw, Tx.decode(raw), block)
                txid = sha256d(raw)
                self.entries[txid] = entry
                for source in entry.tx.inputs if spends(entry.tx) else ():
                    del self.unspent[(source.txid, source.index)]
                self.unspent.update({(txid, at): output for at, output in enumerate(entry.tx.outputs)})

    @property
    def tip(self) -> Block:
        return self.blocks[-1]

    def spent_by(self, tx: Tx) -> List[TxOut]:
        sources = tx.inputs if spends(tx) else []
        return [self.entries[source.txid].tx.outputs[source.index] for source in sources]

    def fee_of(self, tx: Tx) -> int:
        spent = self.spent_by(tx)
        return sum(o.value for o in spent) - sum(o.value for o in tx.outputs) if spends(tx) else 0

    def key_hashes(self) -> Set[bytes]:
        """All that were ever paid."""
        paid = {payee_of(output) for entry in self.entries.values() for output in entry.tx.outputs}
        return {key_hash for key_hash in paid if key_hash}

    def outputs_of(self, key_hash: bytes) -> Dict[Outpoint, int]:
        return {at: output.value for at, output in self.unspent.items() if payee_of(output) == key_hash}

    def history_of(self, key_hash: bytes) -> List[bytes]:
        """Transactions that pay to it or spend from it, oldest first."""
        return [txid for txid, entry in self.entries.items() if entry.block and key_hash in
                map(payee_of, entry.tx.outputs + self.spent_by(entry.tx))]

    def revealed_key(self, key_hash: bytes) -> Optional[bytes]:
        for entry in self.entries.values():
            for source in entry.tx.inputs if spends(entry.tx) and entry.block else ():
                if address_of_key(source.pubkey) == address_of(key_hash):
                    return source.pubkey
        return None

    def add_unconfirmed(self, raw: bytes) -> None:
        """To be asked about; the account stays that of the blocks."""
        self.entries[sha256d(raw)] = Entry(raw, Tx.decode(raw), None)

    def place(self, entry: Entry) -> Answer:
        if entry.block is None:
            return {"confirmations": 0, "time": entry.tx.timestamp, "blockheight": None, "blockhash": None}
        block = entry.block
        return {"confirmations": self.tip.height - block.height + 1, "time": block.timestamp,
                "blockheight": block.height, "blockhash": hash_text(block.hash())}

    def transaction(self, txid: bytes) -> Answer:
        entry = self.entries[txid]
        sources = addresses_of(self.spent_by(entry.tx))
        payees = addresses_of(entry.tx.outputs)
        notes = [output.message.hex() for output in entry.tx.outputs if output.message is not None]
        fee, value = self.fee_of(entry.tx), sum(output.value for output in entry.tx.outputs)
        return {"txid": hash_text(txid), "type": "coinbase" if entry.tx.type == TX_COINBASE else "transfer",
                "fee": coins(fee), "fee_satoshis": fee, "value": coins(value), "value_satoshis": value,
                "hex": entry.raw.hex(), "from": sources, "to": payees, "from_address": (sources + [""])[0],
                "to_address": (payees + [""])[0], "message": (notes + [""])[0], **self.place(entry)}

    def listed(self, key_hash: bytes, txid: bytes) -> Answer:
        entry = self.entries[txid]
        payees = [payee_of(output) for output in entry.tx.outputs]
        received = sum(o.value for o in entry.tx.outputs if payee_of(o) == key_hash)
        sent = sum(o.value for o in self.spent_by(entry.tx) if payee_of(o) == key_hash)
        kind = "receive" if not sent else "self" if set(payees) == {key_hash} else "send"
        return {"txid": hash_text(txid), "type": "coinbase" if entry.tx.type == TX_COINBASE else kind,
                "amount": received - sent, "has_message": any(o.message is not None for o in entry.tx.outputs),
                "hex": entry.raw.hex(), **self.place(entry)}

    def block(self, height: int) -> Answer:
        block = self.blocks[height]
        txids = [hash_text(sha256d(tx)) for tx in block.txs]
        return {"hash": hash_text(block.hash()), "height": height, "version": block.version,
                "previousblockhash": hash_text(block.prev_hash), "merkleroot": hash_text(block.merkle_root),
                "time": block.timestamp, "bits": block.bits, "nonce": block.nonce,
                "difficulty": difficulty_of(block.bits), "size": len(block.encode()), "tx_count": len(txids),
                "tx": txids}

    def treasury_balance(self) -> int:
        """Half of each block's fees, also where they are too small for an output of their own."""
        fees = [sum(self.fee_of(Tx.decode(tx)) for tx in block.txs) for block in self.blocks]
        return sum(fee // 2 for fee in fees)

    def hash_rate(self) -> int:
        """Hashes a second over the newest blocks; what came before block 1 has no true time."""
        first = self.blocks[max(self.tip.height - HASH_RATE_BLOCKS, 1)]
        newer = self.blocks[first.height + 1 :]
        work = sum(2**256 // (target_of(block.bits) + 1) for block in newer)
        return work // max(self.tip.timestamp - first.timestamp, 1)


def address_of_key(pubkey: bytes) -> str:
    return address_of(hash160(pubkey))


def addresses_of(outputs: Sequence[TxOut]) -> List[str]:
    """Each once, in order."""
    payees = [address_of(key_hash) for key_hash in map(payee_of, outputs) if key_hash]
    return list(dict.fromkeys(payees))
