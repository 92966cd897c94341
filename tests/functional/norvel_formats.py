"""Byte formats of the ledger, written apart from src/ so that the two can check each other.

Integers are little-endian. Hashes are `bytes` in digest order; `hash_text()` gives the printed (reversed) form.
Reading raises ValueError when the data is short or longer than its content.
"""

import hashlib
from dataclasses import dataclass, field
from typing import List, Optional, Sequence

BASE58 = "123456789ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz"
NULL_HASH = bytes(32)
TX_TRANSFER, TX_MESSAGE, TX_DISTRIBUTION, TX_HTLC, TX_COINBASE = 1, 2, 3, 4, 255


def sha256d(data: bytes) -> bytes:
    return hashlib.sha256(hashlib.sha256(data).digest()).digest()


def hash160(data: bytes) -> bytes:
    return hashlib.new("ripemd160", hashlib.sha256(data).digest()).digest()


TREASURY_HASH = hash160(b"NorvelCommonReserve_v1_Unowned_NoSigningKey_Seed77")


def hash_text(digest: bytes) -> str:
    """A hash as it is printed and sent: hexadecimal, most significant byte first."""
    return digest[::-1].hex()


def address_of(key_hash: bytes, version: int = 0) -> str:
    payload = bytes([version]) + key_hash
    return base58(payload + sha256d(payload)[:4])


def base58(data: bytes) -> str:
    """Base58 text of data that holds at least one non-zero byte."""
    number, digits = int.from_bytes(data, "big"), ""
    while number:
        number, digit = divmod(number, 58)
        digits = BASE58[digit] + digits
    return "1" * (len(data) - len(data.lstrip(b"\0"))) + digits


def target_of(bits: int) -> int:
    """Target of compact bits; the mantissa is unsigned and bits above 255 are lost."""
    exponent, mantissa = bits >> 24, bits & 0xFFFFFF
    if exponent < 4:
        return mantissa >> (8 * (3 - exponent))
    return (mantissa << (8 * (exponent - 3))) % 2**256


def merkle_root(hashes: Sequence[bytes]) -> bytes:
    """Root over transaction ids in block order; a lone last element is paired with itself."""
    level = list(hashes) or [NULL_HASH]
    while len(level) > 1:
        level += level[-1:] * (len(level) % 2)
        level = [sha256d(level[i] + level[i + 1]) for i in range(0, len(level), 2)]
    return level[0]


def p2pkh(key_hash: bytes) -> bytes:
    return b"\x76\xa9\x14" + key_hash + b"\x88\xac"


def htlc(recipient: bytes, refund: bytes, payment_hash: bytes, locktime: int) -> bytes:
    claim = b"\x63\xa8\x20" + payment_hash + b"\x88\x76\xa9\x14" + recipient + b"\x88\xac"
    return claim + b"\x67\x04" + le(locktime, 4) + b"\xb1\x75\x76\xa9\x14" + refund + b"\x88\xac\x68"


def encrypted_message(version: int, ciphertext: bytes, nonce: bytes, key: bytes) -> bytes:
    """Encrypted note; its length is the only big-endian number of the system."""
    return bytes([version]) + len(ciphertext).to_bytes(4, "big") + ciphertext + nonce + key


def le(value: int, size: int) -> bytes:
    return value.to_bytes(size, "little")


def compact_size(value: int) -> bytes:
    """Length prefix of a script: 1, 3 or 5 bytes."""
    if value < 253:
        return le(value, 1)
    return b"\xfd" + le(value, 2) if value < 65536 else b"\xfe" + le(value, 4)


class Reader:
    def __init__(self, data: bytes) -> None:
        self.data = data
        self.offset = 0

    def take(self, size: int) -> bytes:
        if size > len(self.data) - self.offset:
            raise ValueError(f"{size} bytes wanted at {self.offset} of {len(self.data)}")
        self.offset += size
        return self.data[self.offset - size : self.offset]

    def number(self, size: int) -> int:
        return int.from_bytes(self.take(size), "little")

    def compact_size(self) -> int:
        first = self.number(1)
        return self.number(2 if first == 253 else 4) if first >= 253 else first

    def end(self) -> None:
        if self.offset != len(self.data):
            raise ValueError(f"{len(self.data) - self.offset} bytes left over")


@dataclass
class TxIn:
    txid: bytes = NULL_HASH
    index: int = 0xFFFFFFFF
    signature: bytes = b""
    pubkey: bytes = b""
    sequence: int = 0xFFFFFFFF

    def encode(self) -> bytes:
        head = self.txid + le(self.index, 4) + le(len(self.signature), 2) + self.signature
        return head + le(len(self.pubkey), 1) + self.pubkey + le(self.sequence, 4)

    @staticmethod
    def read(r: Reader) -> "TxIn":
        return TxIn(r.take(32), r.number(4), r.take(r.number(2)), r.take(r.number(1)), r.number(4))


@dataclass
class TxOut:
    value: int
    script: bytes
    message: Optional[bytes] = None

    def encode(self) -> bytes:
        head = self.value.to_bytes(8, "little", signed=True) + compact_size(len(self.script)) + self.script
        if self.message is None:
            return head + b"\0"
        return head + b"\1" + le(len(self.message), 2) + self.message

    @staticmethod
    def read(r: Reader) -> "TxOut":
        value = int.from_bytes(r.take(8), "little", signed=True)
        script = r.take(r.compact_size())
        return TxOut(value, script, r.take(r.number(2)) if r.number(1) else None)


@dataclass
class Tx:
    inputs: List[TxIn] = field(default_factory=list)
    outputs: List[TxOut] = field(default_factory=list)
    type: int = TX_TRANSFER
    version: int = 1
    timestamp: int = 1_700_000_000
    locktime: int = 0

    def encode(self) -> bytes:
        head = le(self.type, 1) + le(self.version, 4) + le(self.timestamp, 8)
        ins = le(len(self.inputs), 2) + b"".join(i.encode() for i in self.inputs)
        outs = le(len(self.outputs), 2) + b"".join(o.encode() for o in self.outputs)
        return head + ins + outs + le(self.locktime, 4)

    @staticmethod
    def decode(data: bytes) -> "Tx":
        r = Reader(data)
        tx = Tx(type=r.number(1), version=r.number(4), timestamp=r.number(8))
        tx.inputs = [TxIn.read(r) for _ in range(r.number(2))]
        tx.outputs = [TxOut.read(r) for _ in range(r.number(2))]
        tx.locktime = r.number(4)
        r.end()
        return tx


@dataclass
class Block:
    """A block; `txs` holds each transaction's bytes, the coinbase first."""

    version: int
    prev_hash: bytes
    merkle_root: bytes
    timestamp: int
    bits: int
    nonce: int
    height: int
    txs: List[bytes]

    def header(self) -> bytes:
        head = le(self.version, 4) + self.prev_hash + self.merkle_root + le(self.timestamp, 8)
        return head + le(self.bits, 4) + le(self.nonce, 4)

    def hash(self) -> bytes:
        return sha256d(self.header())

    def meets_target(self) -> bool:
        return int.from_bytes(self.hash(), "little") <= target_of(self.bits)

    def encode(self) -> bytes:
        body = b"".join(le(len(tx), 4) + tx for tx in self.txs)
        return self.header() + le(self.height, 4) + le(len(self.txs), 4) + body

    @staticmethod
    def decode(data: bytes) -> "Block":
        r = Reader(data)
        block = Block(r.number(4), r.take(32), r.take(32), r.number(8), r.number(4), r.number(4), r.number(4), [])
        block.txs = [r.take(r.number(4)) for _ in range(r.number(4))]
        r.end()
        return block
