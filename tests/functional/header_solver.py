"""Searches nonces through the solve_header program: hashing in Python would take seconds a block."""

import os
import subprocess

from norvel_formats import Block


class HeaderSolver:
    """One run of the program, for any number of blocks; leaving the context ends it."""

    def __init__(self) -> None:
        self.process = subprocess.Popen([os.environ["NORVEL_SOLVE_HEADER"]], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE)

    def __enter__(self) -> "HeaderSolver":
        return self

    def __exit__(self, *_: object) -> None:
        self.process.kill()
        self.process.communicate()

    def solve(self, block: Block) -> Block:
        """The block itself, its nonce now the lowest that meets its bits."""
        assert self.process.stdin and self.process.stdout
        self.process.stdin.write(block.header().hex().encode() + b"\n")
        self.process.stdin.flush()
        block.nonce = int(self.process.stdout.readline())
        assert block.meets_target()
        return block
