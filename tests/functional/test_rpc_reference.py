"""docs/rpc.md against a running node: every call in it is sent as it stands, in the order of the page, and must give
the reply that stands there; every method of the node, and every field of the replies shown, must have its words.

NORVEL_REWRITE_RPC_REFERENCE=1 writes this run's replies into the page.
"""

import json
import os
import re
from typing import Any, Dict, Iterator, Set

import pytest

from node_process import FIXED_DIFFICULTY, Node, free_port
from raw_http import ask, call_body, reply_of, request
from raw_peer import RawPeer
from rpc_scenes import NOT_FOUND
from stored_chain import chain

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
PAGE = os.path.join(ROOT, "docs", "rpc.md")
HEIGHT = 10  # where the page begins
COLUMNS = 120
REWRITES = os.environ.get("NORVEL_REWRITE_RPC_REFERENCE") == "1"

# A call and its reply, each of as many lines as it takes.
EXAMPLE = re.compile(r"^-> (.*?)^<- (.*?)(?=^-> |^```)", re.M | re.S)
SECTION = re.compile(r"^### (`.*?)\n(.*?)(?=^##|\Z)", re.M | re.S)
VARYING = re.compile(r"Fields that vary are shown as they were: (.*?)\.\n", re.S)


def read_page() -> str:
    with open(PAGE, encoding="utf-8") as file:
        return file.read()


def names_in(text: str) -> Set[str]:
    return set(re.findall(r"`([a-z0-9_]+)`", text))


def joined(lines: str) -> str:
    return "".join(line.strip() for line in lines.splitlines())


def wrapped(reply: str) -> str:
    """The reply in lines as long as the page's where it can be broken behind a comma."""
    lines = ["<-"]
    for piece in re.split(r'(?<=,)(?=["{])', reply):
        glue = " " if lines[-1] == "<-" else ""
        if not glue and len(lines[-1] + piece) > COLUMNS:
            lines.append("  ")
            glue = " "
        lines[-1] += glue + piece
    return "\n".join(lines) + "\n"


def without_values(reply: str, varying: Set[str]) -> str:
    """The text of a reply, of fields that vary the kind of their value alone."""
    members = rf'("(?:{"|".join(varying)})":)("[^"]*"|[0-9.]+|\[[^]]*\])'
    return re.sub(members, lambda member: member[1] + re.sub("[0-9]", "0", member[2][0]), reply)


def keys_of(value: Any) -> Set[str]:
    if isinstance(value, dict):
        return set(value).union(*map(keys_of, value.values()))
    return set().union(*map(keys_of, value)) if isinstance(value, list) else set()


def sections() -> Dict[str, str]:
    """The words of each method."""
    return {method: text for heads, text in SECTION.findall(read_page()) for method in names_in(heads)}


@pytest.fixture(scope="module", name="mining_port")
def fixture_mining_port() -> int:
    return free_port()


@pytest.fixture(scope="module", name="node")
def fixture_node(mining_port: int) -> Iterator[Node]:
    with Node(*FIXED_DIFFICULTY, "--mining-port", mining_port) as node:
        node.feed(chain()[1 : HEIGHT + 1])
        with RawPeer(node, "127.0.0.9") as peer:
            peer.handshake(height=HEIGHT)
            node.wait_for_peers(1)
            yield node


def test_the_replies_are_those_of_a_node(node: Node) -> None:
    page = read_page()
    listed = VARYING.search(page)
    assert listed is not None
    varying, seen = names_in(listed[1]), set()
    rewritten = page
    for call, shown in EXAMPLE.findall(page):
        raw = ask(node.rpc_port, request(joined(call).encode()))
        seen |= keys_of(reply_of(raw))
        reply = raw.partition(b"\r\n\r\n")[2].decode()
        rewritten = rewritten.replace(f"-> {call}<- {shown}", f"-> {call}{wrapped(reply)}")
        assert REWRITES or without_values(joined(shown), varying) == without_values(reply, varying), call
    assert varying <= seen
    if REWRITES:
        with open(PAGE, "w", encoding="utf-8") as file:
            file.write(rewritten)


def test_every_method_and_field_has_its_words() -> None:
    for heads, text in SECTION.findall(read_page()):
        results = [json.loads(joined(shown)).get("result") for _, shown in EXAMPLE.findall(text)]
        called = {json.loads(joined(call))["method"] for call, _ in EXAMPLE.findall(text)}
        assert called == names_in(heads)
        assert keys_of(results) <= names_in(text), heads


def registered_at(port: int, words: Set[str]) -> Set[str]:
    replies = {word: reply_of(ask(port, request(call_body(word)))) for word in words}
    return {word for word, reply in replies.items() if reply.get("error", {}).get("code") != NOT_FOUND}


def test_the_page_has_all_methods_and_no_others(node: Node, mining_port: int) -> None:
    """A method's name is a text in the source, so all texts that may be names are asked for."""
    words: Set[str] = set()
    for folder, _, files in os.walk(os.path.join(ROOT, "src")):
        for name in files:
            with open(os.path.join(folder, name), encoding="utf-8") as file:
                words |= set(re.findall(r'"([a-z0-9_]{3,})"', file.read()))
    documented = sections()
    assert registered_at(node.rpc_port, words) == set(documented)
    at_mining_port = {method for method, text in documented.items() if "Mining listener: yes." in text}
    assert registered_at(mining_port, words) == at_mining_port
