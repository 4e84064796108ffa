"""The limits of a storm's model: each side of each edge, and a clock that is set back."""

from __future__ import annotations

import time

import pytest
from velm_harness.storm.limits import AccessToken, Junk, Logins, Moment
from velm_sim.limits import LOGIN_ATTEMPTS, LOGIN_BLOCK

NOON = 1_000_000


@pytest.mark.parametrize(
    ("wall", "steady", "lately"),
    [(59, 0.0, True), (60, 0.0, False), (-1, 0.0, False), (0, 59.9, True), (0, 60.0, False)],
)
def test_a_period_is_over_when_either_clock_says_so(
    wall: int, steady: float, lately: bool, monkeypatch: pytest.MonkeyPatch
) -> None:
    moment = Moment(NOON, steady=5.0)
    monkeypatch.setattr(time, "monotonic", lambda: 5.0 + steady)
    assert moment.was_lately(NOON + wall, 60) == lately


@pytest.mark.parametrize(
    ("later", "allowed"), [(LOGIN_BLOCK - 1, False), (LOGIN_BLOCK, True), (-1, True)]
)
def test_wrong_logins_block_until_some_time_after_the_first(later: int, allowed: bool) -> None:
    logins = Logins()
    for second in range(LOGIN_ATTEMPTS):
        assert not logins.attempt("admin", False, NOON + second)
    assert not logins.attempt("admin", True, NOON + LOGIN_ATTEMPTS)
    assert logins.attempt("admin", True, NOON + later) == allowed


def test_another_name_that_logs_in_does_not_end_the_block_of_one() -> None:
    logins = Logins()
    for _ in range(LOGIN_ATTEMPTS):
        assert not logins.attempt("victim", False, NOON)
        assert logins.attempt("other", True, NOON)
    assert not logins.attempt("victim", True, NOON + LOGIN_BLOCK - 1)
    assert logins.attempt("victim", True, NOON + LOGIN_BLOCK)


def test_a_block_of_all_counts_nothing() -> None:
    logins = Logins()
    for _ in range(LOGIN_ATTEMPTS):
        logins.attempt("nobody", False, NOON)
    for _ in range(9):
        logins.attempt("admin", False, NOON + LOGIN_BLOCK - 1)
    assert logins.attempt("admin", True, NOON + LOGIN_BLOCK)


def test_a_success_leaves_nothing_of_that_name() -> None:
    logins = Logins()
    logins.attempt("admin", False, NOON)
    assert not logins.untouched_by_success("admin")
    logins.attempt("admin", True, NOON)
    assert logins.untouched_by_success("admin")


@pytest.mark.parametrize(("later", "serves"), [(0, True), (3599, True), (3600, False), (-1, False)])
def test_an_access_token_serves_for_an_hour(later: int, serves: bool) -> None:
    assert AccessToken.fresh(NOON).serves(NOON + later) == serves


@pytest.mark.parametrize(("later", "shut_out"), [(59, True), (60, False), (-1, False)])
def test_ten_junk_tokens_shut_their_sender_out_for_a_minute(later: int, shut_out: bool) -> None:
    junk = Junk()
    for _ in range(9):
        junk.add("a", NOON)
    assert not junk.shuts_out("a", NOON)
    junk.add("a", NOON)
    assert not junk.shuts_out("b", NOON)
    assert junk.shuts_out("a", NOON + later) == shut_out


@pytest.mark.parametrize(("later", "shut_out"), [(3599, True), (3600, False)])
def test_sixty_of_all_shut_every_sender_out_for_the_hour(later: int, shut_out: bool) -> None:
    junk = Junk()
    for number in range(60):
        junk.add(f"host {number}", NOON)
    assert not junk.shuts_out("who sent none", NOON + later)
    assert junk.shuts_out("host 7", NOON + later) == shut_out
