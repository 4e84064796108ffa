"""Who may log in: by accounts of the passwd file."""

from __future__ import annotations

import pytest
from velm_sim.access_point import AccessPoint
from velm_sim.etc_files import ADMIN, ODD_ACCOUNTS, ROOT, hashed
from velm_sim.phone import Login, Phone


def status_of(phone: Phone, username: str, password: str) -> int:
    return phone.challenge({"username": username, "password": password}).status


def test_the_right_password_opens(phone: Phone) -> None:
    assert status_of(phone, ADMIN.username, ADMIN.password) == 200


@pytest.mark.parametrize(
    ("username", "password"),
    [
        (ADMIN.username, ADMIN.password + "x"),
        (ADMIN.username, ADMIN.password[:-1]),
        (ADMIN.username, ADMIN.password.upper()),
        ("Admin", ADMIN.password),
        ("nobody knows", ADMIN.password),
        (ROOT.username, ROOT.password),
    ],
)
def test_nothing_else_opens(username: str, password: str, phone: Phone) -> None:
    assert status_of(phone, username, password) == 401


@pytest.mark.parametrize("username", ODD_ACCOUNTS)
@pytest.mark.parametrize("password", ["x", "*", "!", "*0", "secret"])
def test_an_account_without_a_hash_stays_shut_and_the_daemon_alive(
    username: str, password: str, access_point: AccessPoint, phone: Phone
) -> None:
    assert status_of(phone, username, password) == 401
    assert access_point.daemon_alive()


@pytest.mark.parametrize("method", ["$1$", "$5$", "$6$"])
def test_hash_methods(method: str, cold_access_point: AccessPoint) -> None:
    cold_access_point.etc.set_accounts([], {"other": hashed("the password", method)})
    cold_access_point.start()
    phone = cold_access_point.phone()
    assert status_of(phone, "other", "the password") == 200
    assert status_of(phone, "other", "the Password") == 401


def test_a_new_password_counts_at_once(access_point: AccessPoint, phone: Phone) -> None:
    access_point.etc.set_accounts([Login("admin", "changed")])
    assert status_of(phone, "admin", ADMIN.password) == 401
    assert status_of(phone, "admin", "changed") == 200


@pytest.mark.movable_clock
def test_the_lock_is_for_everybody_and_measured_from_the_first_failure(
    access_point: AccessPoint, phone: Phone
) -> None:
    assert status_of(phone, "admin", "wrong") == 401
    access_point.move_clock(50)
    for _ in range(4):
        assert status_of(phone, "admin", "wrong") == 401
    assert status_of(access_point.phone(3), ADMIN.username, ADMIN.password) == 401
    access_point.reload()
    assert status_of(phone, ADMIN.username, ADMIN.password) == 401
    access_point.move_clock(61)
    assert status_of(phone, ADMIN.username, ADMIN.password) == 200
