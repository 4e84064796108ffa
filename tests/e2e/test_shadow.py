"""Logins of accounts whose password field is in the shadow database."""

from __future__ import annotations

import statistics
from pathlib import Path

import pytest
from velm_sim.access_point import AccessPoint
from velm_sim.etc_files import ADMIN, ROOT, SECOND, crypt, hashed
from velm_sim.phone import Phone

PASSWORD = ADMIN.password
FIELD = hashed(PASSWORD)
DAY_AFTER_1970 = 1  # long ago: an account or a password that ended then


def status_of(phone: Phone, username: str, password: str) -> int:
    """What a login gets. A right one goes before, so that nobody is shut out."""
    with phone.host.session() as session:
        for name, secret in ((SECOND.username, SECOND.password), (username, password)):
            request = phone.prepare("/challenge", auth={"username": name, "password": secret})
            answer = phone.send(request, session)
    return answer.status


def start(access_point: AccessPoint, shadow: str | None, entries: dict[str, str]) -> Phone:
    """Accounts with "x" in their field, one with a hash there, and these entries of the shadow file."""
    access_point.etc.set_accounts([SECOND], {name: "x" for name in ("admin", "root", *entries)})
    access_point.etc.set_shadow(entries)
    access_point.configure({"accounts.shadow": shadow})
    access_point.start()
    return access_point.phone()


@pytest.mark.each_machine
@pytest.mark.parametrize("method", ["$6$", "$y$"])
def test_the_password_of_the_shadow_file_opens_and_no_other(
    method: str, cold_access_point: AccessPoint
) -> None:
    salt = {"$6$": "$6$rounds=1000$velmsalt$", "$y$": "$y$j9T$velmsalt$"}[method]
    field = crypt.crypt(PASSWORD, salt)
    phone = start(cold_access_point, "yes", {"admin": field, "root": field})
    assert status_of(phone, "admin", PASSWORD) == 200
    assert status_of(phone, "admin", PASSWORD + "x") == 401
    assert status_of(phone, "admin", "x") == 401
    assert status_of(phone, ROOT.username, PASSWORD) == 401


@pytest.mark.parametrize("setting", [None, "no"])
def test_without_the_setting_it_is_not_read(
    setting: str | None, cold_access_point: AccessPoint
) -> None:
    phone = start(cold_access_point, setting, {"admin": hashed(PASSWORD)})
    assert status_of(phone, "admin", PASSWORD) == 401


def test_a_reload_switches_it_on_and_off(cold_access_point: AccessPoint) -> None:
    phone = start(cold_access_point, "no", {"admin": hashed(PASSWORD)})
    for setting, status in (("yes", 200), ("no", 401)):
        cold_access_point.configure({"accounts.shadow": setting})
        cold_access_point.reload()
        assert status_of(phone, "admin", PASSWORD) == status


def test_a_new_password_counts_at_once(cold_access_point: AccessPoint) -> None:
    phone = start(cold_access_point, "yes", {"admin": hashed("before")})
    cold_access_point.etc.set_shadow({"admin": hashed("after")})
    assert status_of(phone, "admin", "before") == 401
    assert status_of(phone, "admin", "after") == 200


def test_a_database_that_it_cannot_read_is_told_in_the_log(
    cold_access_point: AccessPoint,
) -> None:
    cold_access_point.etc.set_accounts([SECOND], {"admin": "x"})
    cold_access_point.etc.set_shadow({"admin": FIELD})
    cold_access_point.configure({"accounts.shadow": "yes"})
    (cold_access_point.directory / "etc" / "shadow").chmod(0)
    # Without the capabilities that let root read what its mode forbids.
    through = ["setpriv", "--bounding-set=-dac_override,-dac_read_search", "--"]
    daemon = cold_access_point.prepare(through=through)
    daemon.start()
    daemon.wait_until_serving()
    assert status_of(cold_access_point.phone(), "admin", PASSWORD) == 401
    assert "velm_user_auth_passwd_login - getspnam_r error: 13" in cold_access_point.log()


REFUSED = {
    "starred": ("*", "invalid password"),
    "locked": (f"!{FIELD}", "invalid password"),
    "never-set": ("!", "invalid password"),
    "twice-away": ("x", "invalid password"),
    "expired": (f"{FIELD}:19000:::::{DAY_AFTER_1970}:", "the account has expired"),
    "to-be-changed": (f"{FIELD}:0", "the password must be changed first"),
    "too-old": (f"{FIELD}:{DAY_AFTER_1970}:0:10:7:10", "the password is too old"),
}


@pytest.mark.each_machine
def test_accounts_that_may_not_log_in_are_refused_with_a_reason(
    cold_access_point: AccessPoint,
) -> None:
    entries = {name: entry for name, (entry, _) in REFUSED.items()}
    phone = start(cold_access_point, "yes", entries)
    for name, (_, reason) in REFUSED.items():
        mark = cold_access_point.daemon.log_mark()
        for password in (PASSWORD, "x", "*"):
            assert status_of(phone, name, password) == 401, name
        assert f"velm_user_auth_passwd_login - {reason}" in cold_access_point.log(mark), name
    assert status_of(phone, "admin", PASSWORD) == 401  # no entry
    assert "velm_user_auth_passwd_login - no shadow entry" in cold_access_point.log()


def test_an_empty_field_takes_any_password_as_that_of_an_account_does(
    cold_access_point: AccessPoint,
) -> None:
    phone = start(cold_access_point, "yes", {"open": ""})
    assert status_of(phone, "open", "anything") == 200


@pytest.mark.each_machine
def test_an_old_password_in_its_days_of_grace_opens(cold_access_point: AccessPoint) -> None:
    phone = start(cold_access_point, "yes", {"admin": f"{FIELD}:1:0:10:7::"})
    assert status_of(phone, "admin", PASSWORD) == 200


def test_the_hash_is_not_in_the_log_though_it_traces(cold_access_point: AccessPoint) -> None:
    phone = start(cold_access_point, "yes", {"admin": FIELD})
    assert status_of(phone, "admin", PASSWORD) == 200
    assert FIELD.rpartition("$")[2] not in cold_access_point.log()


@pytest.mark.not_emulated("what the emulator translates anew takes time as well")
def test_a_refusal_takes_as_much_work_whether_the_account_is_there_or_not(
    cold_access_point: AccessPoint,
) -> None:
    slow = crypt.crypt(PASSWORD, "$6$rounds=50000$velmsalt$")
    cold_access_point.etc.set_accounts([], {"admin": "x", "gone": "x", "locked": "x", "old": "x"})
    cold_access_point.etc.set_shadow(
        {"admin": slow, "locked": f"!{slow}", "old": f"{slow}:1:::::{DAY_AFTER_1970}:"}
    )
    cold_access_point.configure({"accounts.shadow": "yes"})
    cold_access_point.start()
    phone = cold_access_point.phone()
    schedule = Path(f"/proc/{cold_access_point.daemon.pid}/schedstat")
    taken: dict[str, list[int]] = {}
    with phone.host.session() as session:
        assert session.request("/info").status == 200  # the handshake is no part of a login
        # The first of all is a name that no account has: the accounts tell how this device hashes.
        for _ in range(3):
            for name in ("nobody", "admin", "gone", "locked", "old"):
                start_work = int(schedule.read_text().split()[0])
                auth = {"username": name, "password": "wrong"}
                request = phone.prepare("/challenge", auth=auth)
                assert phone.send(request, session).status == 401
                taken.setdefault(name, []).append(int(schedule.read_text().split()[0]) - start_work)
                auth = {"username": "admin", "password": PASSWORD}
                assert phone.send(phone.prepare("/challenge", auth=auth), session).status == 200
    medians = {name: statistics.median(times) for name, times in taken.items()}
    usual = medians["admin"]
    assert all(0.6 * usual < median < 1.67 * usual for median in medians.values()), medians
    assert 0.6 * usual < taken["nobody"][0] < 1.67 * usual, taken
