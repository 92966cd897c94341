"""What norvel-miner prints, and a reader that cuts its standard output into pieces with nothing left over."""

import re
from typing import Iterator, NamedTuple, Tuple

from norvel_formats import Block, hash_text, target_of

SAVE, HOME, ERASE, RESTORE = "\x1b[s", "\x1b[10;0H", "\x1b[J", "\x1b[u"
CLEAR = "\x1b[2J\x1b[H"
BANNER = (
    "\n╔" + "═" * 42 + "╗\n"
    "║         NORVEL NETWORK MINER v10.1.0     ║\n"
    "║     High-Performance CPU Mining Tool     ║\n"
    "╚" + "═" * 42 + "╝\n\n"
)
USAGE = (
    "Usage: norvel-miner [options]\n\n"
    "Options:\n"
    "  --address <addr>   Mining address (required)\n"
    "  --rpchost <host>   RPC server host (default: 127.0.0.1)\n"
    "  --rpcport <port>   RPC server port (default: 8332)\n"
    "  --threads <n>      Number of threads (default: auto)\n"
    "  --help, -h         Show this help message\n"
)
NO_ADDRESS = "Error: Mining address is required!\nUse --address <your_norvel_address>\n"
NO_COUNT = "Failed to get block count from node!\n"
NO_START = "Failed to start miner!\n"
CONNECTING = "Connecting to Norvel Core node...\n"
STARTED = "[Miner] Mining started successfully!\n[Miner] Press Ctrl+C to stop\n\n"
SIGNALLED = "\nStopping Norvel Miner...\n"
STOPPING = "\n[Miner] Stopping miner...\n"
STOPPED = "[Miner] Miner stopped\n"


def no_connection(host: str, port: int) -> str:
    return f"Failed to connect to RPC server at {host}:{port}\nMake sure norveld is running!\n"


def until_connecting(address: str, port: int, threads: str = "1", host: str = "127.0.0.1") -> str:
    return (BANNER + f"Miner Configuration:\n  Mining Address: {address}\n  RPC Server:     {host}:{port}\n"
            f"  Threads:        {threads}\n\n" + CONNECTING)


def connected(height: int, threads: int) -> str:
    """From the first reply to the cleared screen."""
    return (f"Connected successfully! Current height: {height}\n\nStarting mining...\nUsing {threads} threads\n\n"
            + CLEAR + BANNER)


def difficulty_text(bits: int) -> str:
    """Ratio of the easiest target of a real chain to that of `bits`; 1 for a zero target."""
    target = target_of(bits)
    return f"{(0x0FFFFF << 216) / target if target else 1.0:.4f}"


def report(block: Block) -> str:
    return ("\n\n╔" + "═" * 62 + "╗\n"
            "║                         BLOCK FOUND!                         ║\n"
            "╚" + "═" * 62 + "╝\n"
            f"Block Hash:   {hash_text(block.hash())[:56]}...\nHeight:       {block.height}\n"
            f"Transactions: {len(block.txs)}\nNonce:        {block.nonce}\n\nSubmitting block to node...\n")


def accepted(height: int) -> str:
    return f"Block accepted by node!\nNew chain height: {height}\n\nResuming mining...\n"


def rejected(reason: str) -> str:
    return f"❌ Block rejected: {reason}\n\nResuming mining...\n"


def number(name: str, digits: str) -> str:
    """A field right-aligned in exactly ten columns, or a longer number without padding."""
    return rf"(?P<{name}>(?=[ \d.]{{10}})(?:(?=\S)|(?=.{{10}} )) *{digits})"


class Dashboard(NamedTuple):
    rate: float
    height: int
    difficulty: str
    found: int
    hashes_m: int
    uptime_min: int
    status: str


DASHBOARD = re.compile(re.escape(SAVE + HOME + ERASE) + "\n".join([
    "┌─{61}┐",
    "│                    MINING DASHBOARD                         │",
    "├─{61}┤",
    "│ Hashrate:                " + number("rate", r"\d+\.\d\d") + " MH/s                    │",
    "│ Block Height:       " + number("height", r"\d+") + "                              │",
    "│ Difficulty:             " + number("difficulty", r"\d+\.\d{4}") + "                          │",
    "│ Blocks Found:       " + number("found", r"\d+") + "                              │",
    "│ Total Hashes:          " + number("hashes_m", r"\d+") + " M                         │",
    "│ Uptime:              " + number("uptime_min", r"\d+") + " minutes                     │",
    r"│ Node Status:         (?P<status>[^│\n]{35})    │",
    "└─{61}┘\n",
]) + re.escape(RESTORE))
CLOSING = re.compile(
    "\n\n╔" + "═" * 42 + "╗\n║         Mining Session Ended             ║\n╚" + "═" * 42 + "╝\n"
    r"\nFinal Statistics:\n  Total Hashes:    (?P<hashes>\d+)\n  Blocks Found:    (?P<found>\d+)\n"
    r"  Avg Hashrate:    (?P<rate>\d+\.\d\d) MH/s\n  Total Runtime:   (?P<minutes>\d+) minutes\n\n\Z")

PIECES = {
    "dashboard": DASHBOARD,
    "report": re.compile(r"\n\n╔═{62}╗\n(?:[^\n]+\n){6}\nSubmitting block to node\.\.\.\n"),
    "outcome": re.compile(r"(?:Block accepted by node!\n(?:New chain height: \d+\n)?|❌ Block rejected: [^\n]*\n)"
                          r"\nResuming mining\.\.\.\n"),
    "started": re.compile(re.escape(STARTED)),
    "signalled": re.compile(re.escape(SIGNALLED)),
    "stopping": re.compile(re.escape(STOPPING)),
    "stopped": re.compile(re.escape(STOPPED)),
    "closing": CLOSING,
}


def pieces(text: str, start: str) -> Iterator[Tuple[str, str]]:
    """(name, text) of each piece that follows `start`; AssertionError where the text is none of them."""
    assert text[:len(start)] == start
    offset = len(start)
    while offset < len(text):
        for name, pattern in PIECES.items():
            match = pattern.match(text, offset)
            if match:
                yield name, match[0]
                offset = match.end()
                break
        else:
            raise AssertionError(f"unknown output: {text[offset:offset + 300]!r}")


def dashboards(text: str) -> "list[Dashboard]":
    """The complete dashboards in the text, in order."""
    return [Dashboard(float(m["rate"]), int(m["height"]), m["difficulty"].strip(), int(m["found"]),
                      int(m["hashes_m"]), int(m["uptime_min"]), m["status"].rstrip())
            for m in DASHBOARD.finditer(text)]
