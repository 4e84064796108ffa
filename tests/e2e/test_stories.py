"""What the daemon tells of a round afterwards: why a location came, or why none did."""

from __future__ import annotations

import json
import os
from collections.abc import Callable
from typing import Any

import pytest
from velm_sim.access_point import BSSIDS, AccessPoint
from velm_sim.answers import Answer
from velm_sim.cloud import Cloud
from velm_sim.daemon import wait_until
from velm_sim.etc_files import hashed
from velm_sim.ipc_client import IpcClient
from velm_sim.limits import LOGIN_ATTEMPTS
from velm_sim.phone import Login, Phone, sample_location

Document = dict[str, Any]

VISIT = {
    "at", "until", "times", "address", "deviceId", "route", "status", "accepted", "check", "why", "hint",
}  # fmt: skip
ROUND = {
    "id", "state", "asked", "closed", "cause", "causeText", "pushRun", "pushes", "visits", "reports",
    "forgotten",
}  # fmt: skip


def newest(access_point: AccessPoint) -> Document:
    document = access_point.control.json("/v1/rounds")
    assert set(document) == {"version", "now", "latest", "rounds", "visits"}
    assert document["version"] == 1
    assert all(set(visit) == VISIT for visit in document["visits"])
    story: Document = document["rounds"][0]
    assert set(story) == ROUND
    assert all(set(visit) == VISIT for visit in story["visits"])
    return story


def wait_for(access_point: AccessPoint, state: str, timeout: float = 10) -> Document:
    """The newest round, when it is in that state."""
    wait_until(
        lambda: newest(access_point)["state"] == state, timeout, f"the round is never {state}"
    )
    return newest(access_point)


def end_the_wait(access_point: AccessPoint, wanted_within: int = 60) -> Document:
    """The round, when its client has waited for as long as it wanted."""
    access_point.move_clock(wanted_within + 2)
    return wait_for(access_point, "expired")


def outcome(visit: Document) -> tuple[Any, ...]:
    return visit["route"], visit["status"], visit["accepted"], visit["check"]


def wait_for_push(access_point: AccessPoint, status: int) -> None:
    """The daemon has the answer of the push service."""
    wait_until(
        lambda: [push["status"] for push in newest(access_point)["pushes"]] == [status],
        10,
        f"no push is answered with {status}",
    )


@pytest.mark.each_machine
def test_the_story_of_a_good_round(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    ipc.request(wanted_within=45, request_id=77)
    cloud.fcm.wait()
    wait_for_push(access_point, 200)
    assert newest(access_point)["state"] == "open"
    assert paired_phone.location(sample_location()).status == 200
    ipc.receive_report()
    story = wait_for(access_point, "answered")
    assert (story["cause"], story["causeText"]) == (None, None)
    asked = story["asked"]
    assert (asked["uid"], asked["requestId"], asked["timeoutSeconds"]) == (0, 77, 45)
    assert story["pushRun"] == {"begun": True, "why": None, "whyText": None}
    (push,) = story["pushes"]
    assert (push["slot"], push["name"], push["model"]) == (
        0,
        paired_phone.profile.name,
        paired_phone.profile.model,
    )
    assert (push["status"], push["error"]) == (200, None)
    assert [outcome(visit) for visit in story["visits"]] == [
        ("/challenge", 200, True, None),
        ("/location", 200, True, None),
    ]
    (report,) = story["reports"]
    assert report["deviceId"] == paired_phone.profile.device_id
    assert (report["address"], report["clients"]) == (str(paired_phone.host.source), 1)
    assert story["asked"]["at"] <= push["at"] <= story["visits"][0]["at"] <= report["at"]
    assert story["closed"] >= report["at"]
    access_point.daemon.wait_log("answered: 1 pushes, 2 visits, 1 reports")


def test_a_phone_that_comes_after_another_has_answered_is_told_in_the_round_too(
    access_point: AccessPoint,
    cloud: Cloud,
    pair_phones: Callable[[int], list[Phone]],
    ipc: IpcClient,
) -> None:
    first, second = pair_phones(2)
    ipc.request()
    cloud.fcm.wait(2)
    assert first.location(sample_location()).status == 200
    ipc.receive_report()
    closed = wait_for(access_point, "answered")["closed"]
    assert second.location(sample_location()).status == 200
    ipc.receive_report()
    story = newest(access_point)
    assert (story["state"], story["closed"], story["cause"]) == ("answered", closed, None)
    named = [visit for visit in story["visits"] if visit["route"] == "/location"]
    ids = [phone.profile.device_id for phone in (first, second)]
    assert [visit["deviceId"] for visit in named] == ids
    assert [report["deviceId"] for report in story["reports"]] == ids
    assert story["forgotten"] == {"pushes": 0, "visits": 0, "reports": 0}
    outside = access_point.control.json("/v1/rounds")["visits"]
    assert not [visit for visit in outside if visit["route"] == "/location"]


@pytest.mark.each_machine
def test_the_story_of_the_caller_has_its_process_and_user(
    access_point: AccessPoint, paired_phone: Phone, ipc: IpcClient
) -> None:
    ipc.request()
    wait_until(lambda: access_point.control.json("/v1/rounds")["rounds"], 5, "no round")
    assert newest(access_point)["asked"]["pid"] == os.getpid()


def test_the_story_of_a_push_that_the_service_answers_with_404(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    cloud.fcm.answer_always(Answer.json({"error": {"status": "NOT_FOUND"}}, 404))
    ipc.request(wanted_within=3)
    cloud.fcm.wait()
    story = wait_for(access_point, "expired", 15)
    assert story["cause"] == "every push failed"
    assert story["causeText"] == "the push service took none of the pushes (status 404)"
    (push,) = story["pushes"]
    assert (push["status"], push["error"]) == (404, "the push token is not registered any more")
    access_point.daemon.wait_log("expired: 1 pushes, 0 visits, 0 reports; every push failed")


@pytest.mark.movable_clock
def test_the_story_of_a_phone_that_names_another_bssid(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    ipc.request()
    cloud.fcm.wait()
    paired_phone.bssid = "02:11:22:33:44:55"
    assert paired_phone.location().status == 409
    story = end_the_wait(access_point)
    assert story["cause"] == "phones refused"
    visit = story["visits"][-1]
    assert outcome(visit) == ("/location", 409, False, "device_check")
    assert visit["deviceId"] == paired_phone.profile.device_id
    assert visit["why"] == "the BSSID that it named is none of this access point's"
    assert visit["hint"].startswith(f"named 02:11:22:33:44:55, ours: {BSSIDS[0]}, ")
    assert visit["why"] in story["causeText"]


@pytest.mark.each_machine
@pytest.mark.movable_clock
def test_the_story_of_a_challenge_that_is_too_old(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    ipc.request(wanted_within=90)
    cloud.fcm.wait()
    late = paired_phone.prepare_location()
    access_point.move_clock(62)
    assert paired_phone.send(late).status == 424
    access_point.move_clock(62 + 92)
    story = wait_for(access_point, "expired")
    assert story["cause"] == "phones refused"
    visit = story["visits"][-1]
    assert outcome(visit) == ("/location", 424, False, "assertion_check")
    assert visit["why"] == "its challenge is older than 60 s"


@pytest.mark.movable_clock
def test_the_story_of_a_wrong_password(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    ipc.request()
    cloud.fcm.wait()
    paired_phone.login = Login(paired_phone.login.username, "an old password")
    for _ in range(LOGIN_ATTEMPTS):
        assert paired_phone.challenge().status == 401
    assert paired_phone.challenge().status == 401
    story = end_the_wait(access_point)
    assert story["cause"] == "phones refused"
    wrong, blocked = story["visits"]
    assert outcome(wrong) == ("/challenge", 401, False, "user_pass_check")
    assert (wrong["why"], wrong["times"]) == ("its user name or password is wrong", LOGIN_ATTEMPTS)
    assert wrong["until"] >= wrong["at"]
    assert blocked["why"] == "too many wrong passwords came, so logins are blocked"
    assert blocked["hint"].endswith(" s more")


@pytest.mark.movable_clock
def test_the_story_of_a_phone_that_never_came(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    ipc.request()
    wait_for_push_of(access_point, cloud)
    story = end_the_wait(access_point)
    assert story["cause"] == "phone never came"
    assert story["causeText"] == (
        f"the push service took the push to {paired_phone.profile.name}, but the phone did not come"
    )
    assert (story["visits"], story["reports"]) == ([], [])


def wait_for_push_of(access_point: AccessPoint, cloud: Cloud) -> None:
    cloud.fcm.wait()
    wait_for_push(access_point, 200)


@pytest.mark.movable_clock
def test_the_story_of_a_phone_that_comes_late_answers_the_round_late(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    ipc.request(wanted_within=30)
    wait_for_push_of(access_point, cloud)
    assert end_the_wait(access_point, 30)["cause"] == "phone never came"
    assert paired_phone.location().status == 200
    ipc.receive_report()
    story = wait_for(access_point, "answered")
    assert (story["cause"], story["visits"], len(story["reports"])) == (None, [], 1)
    unasked = access_point.control.json("/v1/rounds")["visits"]
    assert [visit["route"] for visit in unasked[:2]] == ["/location", "/challenge"]
    metrics = access_point.control.get("/v1/metrics").text
    assert 'velmd_rounds_total{state="expired"} 1\n' in metrics
    assert 'velmd_rounds_total{state="answered"} 0\n' in metrics


def test_the_story_without_a_pairing(access_point: AccessPoint, ipc: IpcClient) -> None:
    ipc.request()
    ipc.receive()
    story = wait_for(access_point, "refused")
    assert (story["cause"], story["pushes"]) == ("no pairings", [])


def test_the_story_of_a_second_request_within_a_minute(
    access_point: AccessPoint, paired_phone: Phone, ipc: IpcClient, connect_ipc: Callable[[], IpcClient]
) -> None:
    ipc.request()
    other = connect_ipc()
    other.request(request_id=2)
    wait_until(
        lambda: newest(access_point)["pushRun"]["why"] == "too soon", 5, "the run is not left out"
    )
    other.close()
    story = wait_for(access_point, "client gone")
    assert story["cause"] == "too soon"
    assert access_point.control.json("/v1/rounds")["rounds"][1]["state"] == "open"


def test_the_story_without_an_access_token(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    cloud.token.answer_always(Answer.json({"error": "invalid_grant"}, 400))
    ipc.request()
    wait_until(lambda: newest(access_point)["pushRun"]["why"], 5, "the run has not failed")
    run = newest(access_point)["pushRun"]
    assert (run["begun"], run["why"]) == (False, "no access token")
    assert run["whyText"].endswith("(status 400)")


def test_the_story_without_a_key(
    cold_access_point: AccessPoint,
) -> None:
    cold_access_point.configure({"cloudmessaging.firebase.privatekey.path": "/nowhere"})
    cold_access_point.start()
    assert cold_access_point.phone().pair().status == 200
    with IpcClient(cold_access_point.socket_path) as ipc:
        ipc.request()
        wait_until(lambda: newest(cold_access_point)["pushRun"]["why"], 5, "the run has not failed")
        ipc.close()
        assert wait_for(cold_access_point, "client gone")["cause"] == "no key"


def test_outside_of_a_round_phones_and_pairings_are_told(
    access_point: AccessPoint, phone: Phone
) -> None:
    assert phone.pair().status == 200
    assert phone.info().status == 200
    assert phone.unpair().status == 200
    visits = access_point.control.json("/v1/rounds")["visits"]
    assert [outcome(visit)[:3] for visit in reversed(visits)] == [
        ("/challenge", 200, True),
        ("/pair", 200, True),
        ("/info", 200, True),
        ("/unpair", 200, True),
    ]


def test_a_refusal_before_a_route_is_told(access_point: AccessPoint, phone: Phone) -> None:
    phone.host.exchange(b"GET /info HTTP/1.1\r\nX: " + b"x" * 20000)
    wait_until(
        lambda: [
            visit
            for visit in access_point.control.json("/v1/rounds")["visits"]
            if outcome(visit) == (None, 431, False, "http")
        ],
        5,
        "the refusal is not told",
    )


def secrets_of(access_point: AccessPoint, phone: Phone, challenge: str) -> dict[str, str]:
    pairing = access_point.pairing(0)
    location = sample_location()
    account = json.loads((access_point.directory / "service_account.json").read_text())
    return {
        "password": phone.login.password,
        "hash": hashed(phone.login.password)[:6],
        "push token": pairing["push_token"],
        "attestation key": pairing["attestation_key"],
        "challenge": challenge,
        "private key": account["private_key"].split("\n")[1],
        "latitude": str(location["latitude"]),
        "longitude": str(location["longitude"]),
        "altitude": str(location["altitude"]),
    }


def test_nothing_secret_is_told(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    ipc.request()
    cloud.fcm.wait()
    right = paired_phone.login
    paired_phone.login = Login(right.username, "a wrong password")
    assert paired_phone.challenge().status == 401
    paired_phone.login = right
    challenge = paired_phone.fetch_challenge()
    prepared = paired_phone.prepare_location(challenge=challenge)
    assert paired_phone.send(prepared).status == 200
    assert paired_phone.send(prepared).status == 424
    ipc.receive_report()
    text = access_point.control.get("/v1/rounds").text
    told = secrets_of(access_point, paired_phone, challenge)
    told["wrong password"] = "a wrong password"
    told["assertion"] = prepared.headers["X-Assertion"]
    assert [name for name, secret in told.items() if secret in text] == []
    assert "/location" in text and paired_phone.profile.device_id in text


@pytest.mark.each_machine
def test_the_wait_for_news_ends_with_a_visit(access_point: AccessPoint, phone: Phone) -> None:
    latest = access_point.control.json("/v1/rounds")["latest"]
    assert phone.info().status == 200
    document = access_point.control.json(f"/v1/rounds?wait=10&after={latest}")
    assert document["latest"] > latest
