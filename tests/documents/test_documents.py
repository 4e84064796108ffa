"""Do the documents speak of files, tests and programs that are there?"""

from __future__ import annotations

import re
from pathlib import Path

import pytest
from velm_harness.version import VERSION

REPOSITORY = Path(__file__).resolve().parents[2]
DOCUMENTS = sorted([REPOSITORY / "README.md", REPOSITORY / "SECURITY.md",
                    REPOSITORY / "tests" / "README.md", *REPOSITORY.glob("docs/*.md")])  # fmt: skip
SHORT = {"u/": "tests/unit/", "e/": "tests/e2e/"}


def limit_rows() -> list[list[str]]:
    """The cells of each row of docs/limits.md that states a bound."""
    text = (REPOSITORY / "docs" / "limits.md").read_text()
    rows = [
        [cell.strip() for cell in line.strip("|").split("|")]
        for line in text.splitlines()
        if line.startswith("|")
    ]
    return [row for row in rows if row[0] != "bound" and not row[0].startswith("--")]


def full_path(name: str) -> Path:
    for short, long in SHORT.items():
        if name.startswith(short):
            return REPOSITORY / (long + name.removeprefix(short))
    return REPOSITORY / name


@pytest.mark.parametrize("row", limit_rows(), ids=lambda row: row[0][:40])
def test_a_limit_names_its_reason_its_place_and_its_test(row: list[str]) -> None:
    _bound, reason, where, tests = row
    assert reason
    places = re.findall(r"`([^`]+)`", where)
    assert places and all(full_path(place).is_file() for place in places), where
    if tests.startswith("none"):
        return
    for part in tests.split(";"):
        found = re.fullmatch(r"`([^`]+)` (\w+(?:, \w+)*)", part.strip())
        assert found, part
        code = full_path(found.group(1)).read_text()
        for name in found.group(2).split(", "):
            assert re.search(rf"\b{name}\b", code), f"{name} is not in {found.group(1)}"


@pytest.mark.parametrize("document", DOCUMENTS, ids=lambda path: path.name)
def test_links_lead_to_files(document: Path) -> None:
    links = re.findall(r"\]\((?!https?:|#)([^)#]+)\)", document.read_text())
    missing = [link for link in links if not (document.parent / link).exists()]
    assert not missing


@pytest.mark.parametrize("document", DOCUMENTS, ids=lambda path: path.name)
def test_scripts_and_presets_exist(document: Path) -> None:
    text = document.read_text()
    missing = [name for name in re.findall(r"\./(scripts/[\w.-]+)", text)
               if not (REPOSITORY / name).is_file()]  # fmt: skip
    presets = (REPOSITORY / "CMakePresets.json").read_text()
    missing += [name for name in re.findall(r"--preset (\w+)", text) if f'"{name}"' not in presets]
    assert not missing


def test_the_newest_changes_are_those_of_the_version_that_is_built() -> None:
    text = (REPOSITORY / "CHANGELOG.md").read_text()
    newest = re.search(r"^## (\S+)", text, re.MULTILINE)
    assert newest and newest.group(1) == VERSION


NAMES_TESTS = ("SECURITY.md", "docs/developing.md", "docs/faults.md", "docs/limits.md",
               "docs/testing.md")  # fmt: skip


@pytest.mark.parametrize("document", NAMES_TESTS)
def test_every_file_and_test_that_is_named_is_there(document: str) -> None:
    """In backquotes: a path of ours, a test's file, a test function."""
    text = (REPOSITORY / document).read_text()
    code = "\n".join(path.read_text() for path in (REPOSITORY / "tests").rglob("test_*.py"))
    missing = []
    for name in re.findall(r"`([^`\s]+)`", text):
        if re.fullmatch(r"(u|e|src|tests|sim|fuzz|docs|platform|packaging|include|etc|tools|scripts)/[\w./*-]+", name):
            path = full_path(re.sub(r"NAME|TARGET", "*", name))
            there = any(path.parent.glob(path.name))
        elif re.fullmatch(r"\w+\.(py|c)", name):
            there = any((REPOSITORY / "tests").rglob(name))
        elif name.startswith("test_"):
            there = f"def {name}(" in code
        else:
            continue
        if not there:
            missing.append(name)
    assert not missing


def reasons() -> list[tuple[str, str, str, str]]:
    """What docs/developing.md says of refusals: check, status, reason, and the file that decides."""
    section = (REPOSITORY / "docs" / "developing.md").read_text().partition("| check | status |")[2]
    rows = section.partition("\n\n")[0].splitlines()[2:]
    return [named for row in rows for named in re.findall(
        r'^\| "([^"]+)" \| (\d+) \| (any other|"[^"]+") \| `([^`]+)` \|$', row)]  # fmt: skip


def test_every_break_has_its_reasons() -> None:
    assert {status for _check, status, _reason, _read in reasons()} == {
        "400", "401", "404", "409", "412", "424"}  # fmt: skip


@pytest.mark.parametrize("row", reasons(), ids=lambda row: f"{row[0]}: {row[2]}")
def test_a_reason_is_written_and_its_file_is_there(row: tuple[str, str, str, str]) -> None:
    check, _status, reason, read = row
    source = "".join(file.read_text() for file in (REPOSITORY / "src").rglob("*.cpp"))
    assert f'"{check}"' in source
    assert reason == "any other" or reason in source
    assert (REPOSITORY / read).is_file()


def protections() -> list[tuple[str, str]]:
    """The checks of SECURITY.md, each with what it is shown by."""
    section = (REPOSITORY / "SECURITY.md").read_text().partition("## What each check protects")[2]
    rows = [line.strip("|").split("|") for line in section.partition("\n## ")[0].splitlines()
            if line.startswith("|") and not line.startswith("|--")]  # fmt: skip
    return [(row[0].strip(), row[2].strip()) for row in rows[1:]]


@pytest.mark.parametrize("row", protections(), ids=lambda row: row[0][:40])
def test_a_protection_names_the_tests_that_show_it(row: tuple[str, str]) -> None:
    _check, shown_by = row
    named = re.findall(r"`((?:tests|docs)/[\w./-]+)`", shown_by)
    assert named and all((REPOSITORY / name).is_file() for name in named), shown_by
