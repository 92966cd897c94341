"""Files under src/ include each other without a cycle, and only along the folder edges of docs/architecture.md."""

import re
from pathlib import Path
from typing import Dict, Iterable, List, Optional, Set, Tuple

ROOT = Path(__file__).resolve().parent.parent
SECTION = "Folder edges"

Graph = Dict[str, List[str]]
Edge = Tuple[str, str]


def read_includes(source: Path) -> Graph:
    """Each file below `source` with the files that it includes in double quotes, both relative to `source`."""
    graph: Graph = {}
    for path in sorted(source.rglob("*")):
        if path.suffix in (".h", ".cpp", ".inc"):
            text = path.read_text(encoding="utf-8")
            graph[str(path.relative_to(source))] = re.findall(r'^\s*#\s*include\s*"([^"]+)"', text, re.MULTILINE)
    return graph


def find_cycle(graph: Graph) -> Optional[List[str]]:
    """A path of files that ends where it begins, or None."""
    done: Set[str] = set()
    path: List[str] = []

    def visit(file: str) -> Optional[List[str]]:
        if file in path:
            return path[path.index(file):] + [file]
        if file in done:
            return None
        path.append(file)
        for target in graph.get(file, []):
            cycle = visit(target)
            if cycle:
                return cycle
        done.add(path.pop())
        return None

    return next((cycle for cycle in map(visit, graph) if cycle), None)


def folder_edges(graph: Graph) -> Set[Edge]:
    """Pairs of different folders of which the first includes from the second."""
    pairs = ((file.split("/")[0], target.split("/")[0]) for file, targets in graph.items() for target in targets)
    return {(a, b) for a, b in pairs if a != b}


def listed_edges(lines: Iterable[str]) -> List[Edge]:
    """Rows `| from | to | reason |` below the heading, up to the next one of its level; every row needs a reason."""
    edges: List[Edge] = []
    inside = False
    for line in lines:
        if line.startswith("## "):
            inside = line[3:].strip() == SECTION
        elif inside and line.startswith("|"):
            start, end, reason = [cell.strip().strip("`") for cell in line.strip().strip("|").split("|", 2)]
            if start != "from" and not set(start) <= set("-: "):
                assert reason, f"edge without a reason: {line}"
                edges.append((start, end))
    return edges


def test_no_file_includes_itself_by_a_detour() -> None:
    graph = read_includes(ROOT / "src")
    assert graph, "no sources found"
    missing = {(file, target) for file, targets in graph.items() for target in targets if target not in graph}
    assert not missing, f"includes in double quotes are relative to src/: {sorted(missing)}"
    cycle = find_cycle(graph)
    assert cycle is None, " -> ".join(cycle or [])


def test_folder_edges_are_those_of_the_architecture_page() -> None:
    used = folder_edges(read_includes(ROOT / "src"))
    listed = listed_edges((ROOT / "docs" / "architecture.md").read_text(encoding="utf-8").splitlines())
    assert len(listed) == len(set(listed)), "an edge is listed twice"
    assert not used - set(listed), f"not listed: {sorted(used - set(listed))}"
    assert not set(listed) - used, f"listed, but no longer there: {sorted(set(listed) - used)}"


def test_the_checker_itself(tmp_path: Path) -> None:
    for name, text in {"a/x.h": '#include "b/y.h"\n#include <vector>', "b/y.h": '  #  include "b/z.inc"',
                       "b/z.inc": '// #include "a/x.h"', "a/x.cpp": '#include "a/x.h"'}.items():
        (tmp_path / name).parent.mkdir(exist_ok=True)
        (tmp_path / name).write_text(text, encoding="utf-8")
    graph = read_includes(tmp_path)
    assert find_cycle(graph) is None and folder_edges(graph) == {("a", "b")}
    graph["b/z.inc"].append("a/x.h")
    assert find_cycle(graph) == ["a/x.h", "b/y.h", "b/z.inc", "a/x.h"]
    page = ["| q | r | elsewhere |", "## Folder edges", "", "| from | to | reason |", "|---|---|---|",
            "| `a` | b | x | y |", "### Notes", "| b | a | up |", "## Next", "| c | d | no |"]
    assert listed_edges(page) == [("a", "b"), ("b", "a")]
