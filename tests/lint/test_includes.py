"""What scripts/check-includes.py calls a circle, and what it passes over."""

from __future__ import annotations

import runpy
from pathlib import Path

import pytest

SCRIPT = Path(__file__).parents[2] / "scripts" / "check-includes.py"
check = runpy.run_path(str(SCRIPT))["check"]


def complaints(root: Path, files: dict[str, str]) -> list[str]:
    """About a tree with these files, each of which includes the files named, in this order."""
    for place, included in files.items():
        path = root / place
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text("".join(f'#include "{name}"\n' for name in included.split()))
    return check(root)


def test_two_rooms_that_include_each_other_are_both_named(tmp_path: Path) -> None:
    files = {"src/a.h": "", "src/a.cpp": "a.h b.h", "src/b.h": "a.h"}
    assert complaints(tmp_path, files) == [
        "src/a.cpp:2: src/b.h leads back: src/a -> src/b -> src/a",
        "src/b.h:1: src/a.h leads back: src/b -> src/a -> src/b",
    ]


def test_a_way_back_by_others_is_found(tmp_path: Path) -> None:
    files = {"src/a.h": "b.h", "src/b.h": "x/c.h", "src/x/c.cpp": "x/c.h", "src/x/c.h": "a.h"}
    assert complaints(tmp_path, files) == [
        "src/a.h:1: src/b.h leads back: src/a -> src/b -> src/x/c -> src/a",
        "src/b.h:1: src/x/c.h leads back: src/b -> src/x/c -> src/a -> src/b",
        "src/x/c.h:1: src/a.h leads back: src/x/c -> src/a -> src/b -> src/x/c",
    ]


def test_folders_that_include_each_other_by_different_rooms_are_named(tmp_path: Path) -> None:
    files = {"src/x/a.h": "y/b.h", "src/y/b.h": "", "src/y/c.h": "x/d.h", "src/x/d.h": ""}
    assert complaints(tmp_path, files) == [
        "src/x/a.h:1: src/y/b.h leads back: src/x/ -> src/y/ -> src/x/",
        "src/y/c.h:1: src/x/d.h leads back: src/y/ -> src/x/ -> src/y/",
    ]


def test_a_folder_comes_back_to_itself_by_a_third(tmp_path: Path) -> None:
    files = {"src/x/a.h": "y/b.h", "src/y/b.h": "", "src/y/c.h": "z/d.h", "src/z/d.h": "",
             "src/z/e.h": "x/f.h", "src/x/f.h": ""}  # fmt: skip
    assert [line.partition(" leads")[0] for line in complaints(tmp_path, files)] == [
        "src/x/a.h:1: src/y/b.h",
        "src/y/c.h:1: src/z/d.h",
        "src/z/e.h:1: src/x/f.h",
    ]


@pytest.mark.parametrize("text", ['  #  include "b.h"\n', "#include <b.h>\n"])
def test_an_include_is_known_however_it_is_written(tmp_path: Path, text: str) -> None:
    complaints(tmp_path, {"src/a.h": "", "src/b.h": "a.h"})
    (tmp_path / "src" / "a.h").write_text("\n" + text)
    assert check(tmp_path)[0] == "src/a.h:2: src/b.h leads back: src/a -> src/b -> src/a"


def test_the_platform_and_the_tools_are_looked_at_too(tmp_path: Path) -> None:
    files = {"src/a.h": "dm.h", "platform/include/dm.h": "a.h", "tools/t.h": "u.h", "tools/u.h": "t.h"}
    assert [line.partition(":")[0] for line in complaints(tmp_path, files)] == [
        "src/a.h", "platform/include/dm.h", "tools/t.h", "tools/u.h"]  # fmt: skip


@pytest.mark.parametrize(
    "files",
    [
        {"src/a.cpp": "a.h b.h", "src/a.h": "c.h", "src/b.h": "c.h", "src/c.h": ""},
        {"src/a.h": "x/b.h", "src/x/b.h": "", "src/x/c.h": "d.h", "src/d.h": ""},
        {"src/x/a.h": "b.h", "src/b.h": "y/c.h", "src/y/c.h": "", "src/y/d.h": "x/e.h", "src/x/e.h": ""},
        {"src/x/a.h": "x/b.h", "src/x/b.h": ""},
        {"src/a.h": "vector event2/event.h missing.h"},
    ],
    ids=["downwards", "a room of src is no folder", "by a room of src", "within a folder", "foreign"],
)
def test_what_runs_downwards_passes(tmp_path: Path, files: dict[str, str]) -> None:
    assert complaints(tmp_path, files) == []


def test_a_comment_includes_nothing(tmp_path: Path) -> None:
    complaints(tmp_path, {"src/a.h": "", "src/b.h": "a.h"})
    (tmp_path / "src" / "a.h").write_text('// #include "b.h"\n')
    assert check(tmp_path) == []
