"""What scripts/check-ownership.py calls memory managed by hand, and what it passes over."""

from __future__ import annotations

import runpy
from pathlib import Path

import pytest

SCRIPT = Path(__file__).parents[2] / "scripts" / "check-ownership.py"
checker = runpy.run_path(str(SCRIPT))
find_names = checker["find_names"]
allowed = checker["allowed"]


def tree(root: Path, place: str, text: str) -> list[str]:
    """The complaints about a tree in which `place` holds the text, and nobody uses an exception."""
    path = root / place
    path.parent.mkdir(parents=True)
    path.write_text(text)
    return [line for line in checker["check"](root) if not line.endswith("is allowed but not used")]


@pytest.mark.parametrize(
    ("code", "name"),
    [
        ("auto *job = new push_job;", "new"),
        ("new (memory) T{};", "new"),
        ("delete job;", "delete"),
        ("delete[] list;", "delete"),
        ("void *m = std::malloc(8);", "malloc"),
        ("calloc(1, 8);", "calloc"),
        ("realloc(p, 8);", "realloc"),
        ("std::free(p);", "free"),
        ("hooks.release = free;", "free"),
        ("X509_free(cert);", "X509_free"),
        ("OPENSSL_free(bytes);", "OPENSSL_free"),
        ('auto *const s = "//"; free(s);', "free"),
        ("char c = '\"'; free(p); c = '\"';", "free"),
        ("int n = 1'000; free(p); n = 2'000;", "free"),
    ],
    ids=lambda value: value,
)
def test_finds_memory_managed_by_hand(code: str, name: str) -> None:
    assert find_names(f"\n{code}\n") == [(2, name)]


@pytest.mark.parametrize(
    "code",
    [
        "// a new address: free(it)",
        "/* delete\n free(x) */",
        'LOG_TRACE("new ip: free(x)");',
        'auto text = R"(new "x" delete)";',
        "#include <new>",
        "thing(const thing &) = delete;",
        "std::string renewed, newest, freed, malloc_text;",
        "evbuffer_ptr buffer{evbuffer_new()};",
    ],
)
def test_passes_over_what_manages_nothing(code: str) -> None:
    assert find_names(code) == []


def test_counts_the_lines_of_the_file() -> None:
    assert find_names('/* one\n two */\nauto a = R"(\n\n)";\nfree(a);\n') == [(6, "free")]


@pytest.mark.parametrize(
    "place", ["src/velm_x.cpp", "src/http/x.h", "platform/host/x.cpp", "tools/x.c"]
)
def test_looks_into_all_that_is_shipped(tmp_path: Path, place: str) -> None:
    assert tree(tmp_path, place, "free(p);\n") == [f"{place}:1: free stands outside src/handles/"]


def test_lets_the_handles_free(tmp_path: Path) -> None:
    assert tree(tmp_path, "src/handles/memory.h", "free(p);\n") == []


def test_lets_stand_what_is_named_with_a_reason(tmp_path: Path) -> None:
    call = "http_client_context_free(ctx);\n"
    assert tree(tmp_path, "src/http/http_client.cpp", call) == []


def test_reports_an_exception_that_nobody_uses(tmp_path: Path) -> None:
    unused = [f"{place}: {name} is allowed but not used" for place, name in allowed]
    assert checker["check"](tmp_path) == unused
