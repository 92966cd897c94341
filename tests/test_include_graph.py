"""Files under src/ include each other without a cycle, and only along the folder edges of docs/architecture.md."""

import graphlib
import re
from pathlib import Path
from typing import Dict, List, Tuple

ROOT = Path(__file__).resolve().parent.parent


def read_includes() -> Dict[str, List[str]]:
    """Each source file with the files that it includes in double quotes, both relative to src/."""
    graph = {}
    for path in sorted((ROOT / "src").rglob("*")):
        if path.suffix in (".h", ".cpp", ".inc"):
            text = path.read_text(encoding="utf-8")
            name = str(path.relative_to(ROOT / "src"))
            graph[name] = re.findall(r'^\s*#\s*include\s*"([^"]+)"', text, re.MULTILINE)
    assert graph, "no sources found"
    return graph


def listed_edges() -> List[Tuple[str, str]]:
    """Rows `| from | to | reason |` of the architecture page; every row needs a reason."""
    page = (ROOT / "docs" / "architecture.md").read_text(encoding="utf-8")
    section = page.split("\n## Folder edges\n")[1].split("\n## ")[0]
    rows = re.findall(r"^\|(.+)\|$", section, re.MULTILINE)[2:]  # without the heading and its line
    cells = [[cell.strip(" `") for cell in row.split("|", 2)] for row in rows]
    assert all(reason for _, _, reason in cells), "an edge without a reason"
    return [(start, end) for start, end, _ in cells]


def test_no_file_includes_itself_by_a_detour() -> None:
    graph = read_includes()
    missing = {(file, target) for file, targets in graph.items() for target in targets if target not in graph}
    assert not missing, f"includes in double quotes are relative to src/: {sorted(missing)}"
    graphlib.TopologicalSorter(graph).prepare()  # raises CycleError with the cycle


def test_folder_edges_are_those_of_the_architecture_page() -> None:
    pairs = {(file.split("/")[0], target.split("/")[0]) for file, targets in read_includes().items()
             for target in targets}
    used = sorted(pair for pair in pairs if pair[0] != pair[1])
    assert sorted(listed_edges()) == used
