"""Does rpcd's plug-in serve what velmctl says, and only to those that may read it?"""

from __future__ import annotations

import json
import os
import subprocess
from typing import Any

import pytest
from openwrt_router import FILES, SHELLS, STAND_INS


@pytest.fixture(params=SHELLS)
def shell(request: pytest.FixtureRequest) -> list[str]:
    return SHELLS[request.param]


def ask(shell: list[str], *arguments: str, given: str = "{}", velmctl: str = "") -> Any:
    done = subprocess.run(
        [*shell, FILES / "velmd.rpcd", *arguments],
        input=given,
        stdout=subprocess.PIPE,
        text=True,
        timeout=30,
        env={
            **os.environ,
            "PATH": f"{STAND_INS / 'programs'}:{os.environ['PATH']}",
            "VELMCTL": velmctl,
        },
        check=True,
    )
    return json.loads(done.stdout)


FILE = "--json -c /var/etc/velmd.conf"


def test_it_lists_what_can_be_called(shell: list[str]) -> None:
    assert ask(shell, "list") == {"status": {}, "explain": {"rounds": 32}}


def test_status_is_the_document_of_velmctl(shell: list[str]) -> None:
    assert ask(shell, "call", "status") == {"version": 1, "arguments": f"status {FILE}"}


@pytest.mark.parametrize(
    ("given", "rounds"),
    [
        ('{"rounds": 1}', 1),
        ('{"rounds": 32}', 32),
        ("{}", 32),
        ("", 32),
        ('{"rounds": 0}', 32),
        ('{"rounds": 33}', 32),
        ('{"rounds": "--control=/tmp/x"}', 32),
        ('{"rounds": "5 --follow"}', 32),
        ('{"rounds": "$(touch made)"}', 32),
        ('{"rounds": [7]}', 32),
        ("no JSON", 32),
    ],
)
def test_explain_takes_a_number_of_rounds_only(shell: list[str], given: str, rounds: int) -> None:
    answer = ask(shell, "call", "explain", given=given)
    assert answer["arguments"] == f"explain {rounds} {FILE}"


def test_a_document_counts_whatever_the_exit_status_says(shell: list[str]) -> None:
    assert ask(shell, "call", "status", velmctl="problems") == {"version": 1}


def test_without_a_document_the_answer_says_so(shell: list[str]) -> None:
    answer = ask(shell, "call", "status", velmctl="silent")
    assert answer == {"error": "velmctl status gave no document", "exit": 3}


@pytest.mark.parametrize("arguments", [("call", "reload"), ("call",), (), ("call", "status; id")])
def test_nothing_else_can_be_called(shell: list[str], arguments: tuple[str, ...]) -> None:
    with pytest.raises(subprocess.CalledProcessError):
        ask(shell, *arguments)


def test_the_right_to_read_names_what_is_listed(shell: list[str]) -> None:
    rights = json.loads((FILES / "velmd.acl.json").read_text())
    assert set(rights["velmd"]) == {"description", "read"}
    assert set(rights["velmd"]["read"]["ubus"]["velmd"]) == set(ask(shell, "list"))
