"""Transactions of every byte form, for the templates of the stand-in node. None of them needs to be valid."""

from typing import List

from norvel_formats import (TX_DISTRIBUTION, TX_HTLC, TX_MESSAGE, Tx, TxIn, TxOut, encrypted_message, htlc, le, p2pkh,
                            sha256d)

KEY_A, KEY_B = bytes(range(20)), bytes(range(100, 120))


def spend(seed: int, signature: bytes = b"\x30\x06\x02\x01\x01\x02\x01\x01", pubkey: bytes = b"\2" * 33) -> TxIn:
    return TxIn(sha256d(le(seed, 4)), seed % 7, signature, pubkey, 0xFFFFFFFE - seed)


def sample_transactions() -> List[Tx]:
    """Every form in one list; about 400 KB in total."""
    note = encrypted_message(1, bytes(116), b"n" * 12, b"\3" * 33)
    old_note = encrypted_message(0, b"", b"o" * 24, b"\2" * 33)
    lock = htlc(KEY_A, KEY_B, sha256d(b"secret"), 1)
    odd_lengths = [0, 1, 75, 76, 252, 253, 255, 256]
    return [
        Tx([spend(1), spend(2)], [TxOut(5, p2pkh(KEY_A)), TxOut(7, p2pkh(KEY_B))]),
        Tx([spend(3)], [TxOut(100_000, lock), TxOut(1, p2pkh(KEY_A))], type=TX_HTLC),
        Tx([spend(4)], [TxOut(0, p2pkh(KEY_B), note), TxOut(0, b"", old_note)], type=TX_MESSAGE),
        Tx(),
        Tx([spend(5, b"", b"")], [TxOut(n, bytes([0xAC]) * n) for n in odd_lengths]),
        Tx([spend(6)], [TxOut(1, b"\x6a" * 65535), TxOut(2, b"\x6b" * 65536)]),
        Tx([spend(7, b"\0" * 65535, b"\xff" * 255), spend(8, lock, b"HTLC")], [TxOut(9, p2pkh(KEY_A))]),
        Tx([TxIn(index=0xFFFFFFFE, signature=le(77, 4))], [TxOut(3, p2pkh(KEY_A))], type=TX_DISTRIBUTION),
        Tx([spend(n) for n in range(300)], [TxOut(n, p2pkh(KEY_B)) for n in range(300)]),
        Tx([TxIn(b"\xff" * 32)], [TxOut(-1, b"\0"), TxOut(2**63 - 1, b"\xff" * 30, b"\0" + bytes(4 + 57))],
           0xEE, 0xFFFFFFFF, 2**64 - 1, 0xFFFFFFFF),
    ]


_ENCODED = [tx.encode() for tx in sample_transactions()]


def transactions_at(height: int) -> List[bytes]:
    """The transactions that the template of `height` carries: from none to all, starting at a different one."""
    count, first = height % (len(_ENCODED) + 1), height % len(_ENCODED)
    return (_ENCODED[first:] + _ENCODED[:first])[:count]
