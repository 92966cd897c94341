"""Reads a node's chain over the peer protocol, and the difficulty rule written apart from src/."""

from typing import List, Sequence

from node_process import Node
from norvel_formats import Block, target_of
from raw_peer import BLOCK, GETBLOCKS, GETDATA, INV, INV_BLOCK, RawPeer, inventory
from stored_chain import EASIEST_BITS, genesis


def read_chain(node: Node) -> List[Block]:
    """Blocks by height, genesis first; each stands on the one before and meets its own bits."""
    blocks = [genesis()]
    with RawPeer(node) as peer:
        peer.handshake(2**31)  # ahead of the node, which then announces nothing of itself
        while True:
            peer.send(GETBLOCKS, blocks[-1].hash() + bytes(32))
            listed = len(blocks)
            names = peer.expect(INV) if len(blocks) <= node.height() else b""
            for at in range(0, len(names), 33):
                peer.send(GETDATA, inventory(INV_BLOCK, [names[at + 1 : at + 33]]))
                block = Block.decode(peer.expect(BLOCK))
                assert (block.prev_hash, block.height) == (blocks[-1].hash(), len(blocks))
                assert block.hash() == names[at + 1 : at + 33] and block.meets_target()
                blocks.append(block)
            if len(blocks) == listed:
                return blocks


def bits_of(target: int) -> int:
    """Compact form of a target of more than two bytes."""
    size = (target.bit_length() + 7) // 8
    mantissa = target >> 8 * (size - 3)
    if mantissa > 0x7FFFFF:
        mantissa, size = mantissa >> 8, size + 1
    return size << 24 | mantissa


def next_bits(blocks: Sequence[Block], interval: int, spacing_s: int) -> int:
    """What a block on top of `blocks`, genesis first, must carry."""
    tip = blocks[-1]
    if interval > tip.height:
        return EASIEST_BITS
    if (tip.height + 1) % interval:
        return tip.bits
    expected = interval * spacing_s
    span = (tip.timestamp - blocks[-1 - interval].timestamp) % 2**64
    span = min(max(span, expected // 4), expected * 4)
    span = min(max(span, expected * 10 // 11), expected * 11 // 10)
    return bits_of(min(target_of(tip.bits) * span // expected, target_of(EASIEST_BITS)))
