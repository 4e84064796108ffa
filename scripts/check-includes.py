#!/usr/bin/python3
"""Looks for circles of includes: whoever reads a file must be able to read what it includes first.

usage: check-includes.py [ROOT]

A file and its header, such as src/velm_conn.cpp and src/velm_conn.h, are one room. No room may include
itself by way of others, and no folder may include another one that includes it back, directly or by way
of a third. A room directly in src/ counts for itself: src/ is no folder in this sense. So the rooms have
an order from the lowest to the highest, and so have the folders.

Prints FILE:LINE for each include that is part of a circle, with the way back, and exits 1 when there is
one. Looks at src, platform and tools.
"""
import collections
import pathlib
import re
import sys
from collections.abc import Callable
from typing import NamedTuple

folders = ("src", "platform", "tools")
# Where an include may be found, besides the folder of the file that has it.
search_path = ("", "src", "include", "platform/include")

include = re.compile(r'^[ \t]*#[ \t]*include[ \t]*["<]([^">\n]+)[">]')


class Arrow(NamedTuple):
    """One include of a file of ours."""

    file: str
    line: int
    includes: str


def find_arrows(root: pathlib.Path) -> list[Arrow]:
    """Every include of src, platform and tools that leads to a file of the repository."""
    arrows = []
    for path in [path for folder in folders for path in sorted((root / folder).rglob("*"))]:
        if path.suffix not in (".c", ".cpp", ".h"):
            continue
        for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
            found = include.match(line)
            if not found:
                continue
            places = (path.parent, *(root / place for place in search_path))
            target = next((place / found[1] for place in places if (place / found[1]).is_file()), None)
            if target is not None:
                file, included = (one.relative_to(root).as_posix() for one in (path, target))
                arrows.append(Arrow(file, number, included))
    return arrows


def room_of(file: str) -> str:
    """src/velm_conn.h: src/velm_conn"""
    return file.rpartition(".")[0]


def folder_of(file: str) -> str:
    """src/http/tls.h: src/http/, and for a file directly in src/ its room"""
    folder = file.rpartition("/")[0]
    return room_of(file) if folder == "src" else folder + "/"


def way_back(graph: dict[str, set[str]], begin: str, end: str) -> list[str] | None:
    """The shortest way from the one to the other, both included."""
    ways = collections.deque([[begin]])
    seen = {begin}
    while ways:
        way = ways.popleft()
        if way[-1] == end:
            return way
        for following in sorted(graph[way[-1]] - seen):
            seen.add(following)
            ways.append([*way, following])
    return None


def find_circles(arrows: list[Arrow], group_of: Callable[[str], str]) -> list[str]:
    """A line for each include that is part of a circle of groups."""
    graph: dict[str, set[str]] = collections.defaultdict(set)
    for arrow in arrows:
        graph[group_of(arrow.file)].add(group_of(arrow.includes))
    complaints = []
    for file, line, included in arrows:
        begin, end = group_of(included), group_of(file)
        way = None if begin == end else way_back(graph, begin, end)
        if way:
            complaints.append(f"{file}:{line}: {included} leads back: {' -> '.join([end, *way])}")
    return complaints


def check(root: pathlib.Path) -> list[str]:
    """A line for each complaint."""
    arrows = find_arrows(root)
    # A way by rooms of src/ is no way between folders: each of these rooms stands for itself.
    between_folders = [arrow for arrow in arrows
                       if all(folder_of(one).endswith("/") for one in (arrow.file, arrow.includes))]
    return find_circles(arrows, room_of) + find_circles(between_folders, folder_of)


def main() -> int:
    root = pathlib.Path(sys.argv[1]) if len(sys.argv) > 1 else pathlib.Path(__file__).parents[1]
    complaints = check(root)
    print("\n".join(complaints), end="\n" if complaints else "")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
