"""Who may log in: by accounts of the passwd file."""

from __future__ import annotations

import statistics
from collections.abc import Iterable
from pathlib import Path

import pytest
from velm_sim.access_point import AccessPoint
from velm_sim.etc_files import ADMIN, ODD_ACCOUNTS, OPEN_ACCOUNT, ROOT, crypt, hashed
from velm_sim.lan_http import Session
from velm_sim.limits import LOGIN_ATTEMPTS, LOGIN_BLOCK
from velm_sim.phone import Login, Phone


def status_of(phone: Phone, username: str, password: str, session: Session | None = None) -> int:
    request = phone.prepare("/challenge", auth={"username": username, "password": password})
    return phone.send(request, session).status


@pytest.mark.each_machine
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


@pytest.mark.each_machine
def test_an_account_with_an_empty_field_takes_any_password_but_the_empty_one(
    access_point: AccessPoint, phone: Phone
) -> None:
    for password in ("x", "*", "a long one " * 90):
        assert status_of(phone, OPEN_ACCOUNT, password) == 200
    assert status_of(phone, OPEN_ACCOUNT, "") == 400
    assert access_point.daemon_alive()


@pytest.mark.each_machine
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


@pytest.mark.each_machine
@pytest.mark.movable_clock
def test_the_lock_is_for_everybody_and_measured_from_the_first_failure(
    access_point: AccessPoint, phone: Phone
) -> None:
    assert status_of(phone, "admin", "wrong") == 401
    access_point.move_clock(LOGIN_BLOCK - 10)
    for _ in range(LOGIN_ATTEMPTS - 1):
        assert status_of(phone, "admin", "wrong") == 401
    assert status_of(access_point.phone(3), ADMIN.username, ADMIN.password) == 401
    access_point.reload()
    assert status_of(phone, ADMIN.username, ADMIN.password) == 401
    access_point.move_clock(LOGIN_BLOCK + 1)
    assert status_of(phone, ADMIN.username, ADMIN.password) == 200


def wrong_between_right_ones(phone: Phone, names: Iterable[str]) -> list[int]:
    """What wrong passwords for these names get, each between right logins of another account."""
    statuses = []
    with phone.host.session() as session:
        for name in names:
            statuses.append(status_of(phone, name, "wrong", session))
            assert status_of(phone, ADMIN.username, ADMIN.password, session) == 200
    return statuses


@pytest.mark.parametrize("name", ["other", "nobody-here"])
@pytest.mark.movable_clock
def test_a_name_is_shut_after_too_many_wrong_passwords_whoever_logs_in_meanwhile(
    name: str, access_point: AccessPoint, phone: Phone
) -> None:
    access_point.etc.set_accounts([ADMIN, Login("other", "right")])
    assert set(wrong_between_right_ones(phone, [name] * 100)) == {401}
    log = access_point.log()
    looked_at = "unknown user" if name == "nobody-here" else "invalid password"
    line = f"ERROR velm_user_auth_passwd - velm_user_auth_passwd_login - {looked_at}"
    assert log.count(line) == LOGIN_ATTEMPTS
    assert log.count("seconds remained) for this user name") == 100 - LOGIN_ATTEMPTS
    assert status_of(phone, "other", "right") == (401 if name == "other" else 200)
    access_point.reload()
    assert status_of(phone, "other", "right") == (401 if name == "other" else 200)
    access_point.move_clock(LOGIN_BLOCK + 1)
    assert status_of(phone, "other", "right") == 200


@pytest.mark.movable_clock
def test_a_name_is_remembered_while_up_to_63_others_fail(
    access_point: AccessPoint, phone: Phone
) -> None:
    access_point.etc.set_accounts([ADMIN, Login("other", "right")])
    wrong_between_right_ones(phone, ["other"] * LOGIN_ATTEMPTS)
    wrong_between_right_ones(phone, [f"{number}".zfill(1024) for number in range(63)])
    assert status_of(phone, "other", "right") == 401
    wrong_between_right_ones(phone, ["the 64th"])
    assert status_of(phone, "other", "right") == 200


@pytest.mark.each_machine
@pytest.mark.movable_clock
def test_a_clock_that_is_set_back_shuts_nobody_out(
    access_point: AccessPoint, phone: Phone
) -> None:
    for _ in range(LOGIN_ATTEMPTS):
        assert status_of(phone, "admin", "wrong") == 401
    assert status_of(phone, ADMIN.username, ADMIN.password) == 401
    access_point.move_clock(-3600)
    assert status_of(phone, ADMIN.username, ADMIN.password) == 200


def work_of_a_wrong_login(
    access_point: AccessPoint, phone: Phone, session: Session, username: str
) -> int:
    """Nanoseconds of processor time, which the load of the machine does not change as it changes
    the time of an answer. A right login follows, so that nobody is shut out."""
    schedule = Path(f"/proc/{access_point.daemon.pid}/schedstat")
    start = int(schedule.read_text().split()[0])
    assert status_of(phone, username, "wrong", session) == 401
    taken = int(schedule.read_text().split()[0]) - start
    assert status_of(phone, ADMIN.username, ADMIN.password, session) == 200
    return taken


@pytest.mark.parametrize("salt", ["$6$rounds=5000$velmsalt$", "$y$j9T$velmsalt$"])
def test_a_refusal_takes_as_much_work_whether_the_account_is_there_or_not(
    salt: str, access_point: AccessPoint, phone: Phone
) -> None:
    field = crypt.crypt(ADMIN.password, salt)
    access_point.etc.set_accounts([ROOT], {ADMIN.username: field, **ODD_ACCOUNTS})
    names = {
        "a wrong password": lambda number: ADMIN.username,
        "an unknown name": lambda number: f"nobody-{number}",
        "root": lambda number: ROOT.username,
        "a locked account": lambda number: list(ODD_ACCOUNTS)[number % len(ODD_ACCOUNTS)],
    }
    taken: dict[str, list[int]] = {kind: [] for kind in names}
    with phone.host.session() as session:
        for number in range(5):
            for kind, name in names.items():
                taken[kind].append(
                    work_of_a_wrong_login(access_point, phone, session, name(number))
                )
    medians = {kind: statistics.median(times) for kind, times in taken.items()}
    usual = medians["a wrong password"]
    assert all(0.6 * usual < median < 1.67 * usual for median in medians.values()), medians
