"""A cloud that says something wrong once, a clock that is set back, and strangers who have junk
judged: none of them keeps the owner's phones from working."""

from __future__ import annotations

import time
from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor
from dataclasses import replace

import pytest
from velm_sim.access_point import AccessPoint
from velm_sim.android_phone import AndroidPhone
from velm_sim.answers import Answer
from velm_sim.cloud import EXHAUSTED, UNREGISTERED, Cloud
from velm_sim.ipc_client import IpcClient
from velm_sim.limits import CONNECTIONS_PER_HOST
from velm_sim.phone import Phone
from velm_sim.service_account import MESSAGING_SCOPE

FOR_EVER = 2147483647
BAD_TOKEN = Answer.json({"access_token": "bad", "expires_in": FOR_EVER})
PAGE = b"<!DOCTYPE html>\n<html lang=en>\n  <title>Error 404 (Not Found)!!1</title>\n"
JUNK = b"not.a.token"


@pytest.fixture
def move_clocks(access_point: AccessPoint, cloud: Cloud) -> Callable[[float], None]:
    """The daemon's clock and the cloud's are off by that many seconds from now on."""

    def move(seconds: float) -> None:
        access_point.move_clock(seconds)
        cloud.clock_offset = seconds

    return move


def warnings(log: str) -> list[str]:
    return [line for line in log.splitlines() if "WARN" in line]


# Access tokens.


@pytest.mark.movable_clock
def test_an_access_token_that_the_push_service_refuses_is_not_used_again(
    cloud: Cloud,
    paired_phone: Phone,
    ipc: IpcClient,
    access_point: AccessPoint,
    move_clocks: Callable[[float], None],
) -> None:
    cloud.token.answer_next(BAD_TOKEN)
    ipc.request()
    cloud.fcm.wait(1)
    access_point.daemon.wait_log("access token refused")
    move_clocks(61)
    ipc.request()
    _, second = cloud.fcm.wait(2)
    assert second.headers["authorization"].removeprefix("Bearer ") in cloud.grants
    assert len(cloud.token.requests) == 2


def test_a_phone_whose_turn_comes_after_the_refusal_gets_its_push(
    access_point: AccessPoint,
    cloud: Cloud,
    pair_phones: Callable[[int], list[Phone]],
    ipc: IpcClient,
) -> None:
    pair_phones(2)
    cloud.token.answer_next(BAD_TOKEN)
    ipc.request()
    _, second = cloud.fcm.wait(2)
    assert second.headers["authorization"].removeprefix("Bearer ") in cloud.grants
    access_point.daemon.wait_log("code: 200")


def test_an_access_token_that_the_decoding_service_refuses_is_not_used_again(
    access_point: AccessPoint, cloud: Cloud
) -> None:
    phone = access_point.android_phone()
    cloud.token.answer_next(BAD_TOKEN)
    assert phone.pair().status == 412
    assert phone.pair().status == 200
    assert len(cloud.token.requests) == 2


@pytest.mark.movable_clock
def test_an_access_token_is_held_for_an_hour_at_most(
    cloud: Cloud, paired_phone: Phone, ipc: IpcClient, move_clocks: Callable[[float], None]
) -> None:
    cloud.grants["long"] = {"scope": MESSAGING_SCOPE, "valid_to": time.time() + 1e9}
    cloud.token.answer_next(Answer.json({"access_token": "long", "expires_in": FOR_EVER}))
    for pushes, (moment, tokens) in enumerate([(0, 1), (3500, 1), (3601, 2)], start=1):
        move_clocks(moment)
        ipc.request()
        cloud.fcm.wait(pushes)
        assert len(cloud.token.requests) == tokens, moment


# A 404 of the push service.

OTHER_MEANINGS = {
    "a page": Answer(404, PAGE, {"Content-Type": "text/html; charset=UTF-8"}),
    "a page under the wrong type": Answer(404, PAGE),
    "text that is called a page": Answer(404, b"gone", {"Content-Type": "text/html"}),
    "another error": Answer.json(
        {"error": {"code": 404, "details": [{"errorCode": "SENDER_ID_MISMATCH"}]}}, 404
    ),
}


@pytest.mark.parametrize("name", OTHER_MEANINGS)
def test_a_404_about_another_thing_unpairs_nobody(
    name: str, access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    cloud.fcm.answer_next(OTHER_MEANINGS[name])
    mark = access_point.daemon.log_mark()
    ipc.request()
    log = access_point.daemon.wait_log("send_push_handler - [", start=mark)
    assert access_point.pairing(0)["status"] == "Valid"
    (warning,) = warnings(log)
    assert paired_phone.profile.device_id in warning
    assert paired_phone.location().status == 200


@pytest.mark.parametrize("body", [b"", b"{}", b"gone", UNREGISTERED.body])
def test_any_other_404_unpairs_the_phone(
    body: bytes, access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    cloud.fcm.answer_next(Answer(404, body))
    ipc.request()
    access_point.daemon.wait_log("unpaired (unregistered token)")
    assert access_point.pairing(0)["status"] == "Invalid"


def test_a_late_404_leaves_the_phone_paired_that_has_paired_again(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    cloud.fcm.answer_next(replace(UNREGISTERED, delay=1.0))
    ipc.request()
    cloud.fcm.wait()
    again = replace(
        paired_phone, profile=replace(paired_phone.profile, push_token="fcm-new:APA91b")
    )
    assert again.pair().status == 200
    access_point.daemon.wait_log("stays paired")
    assert access_point.pairing(0)["status"] == "Valid"
    assert access_point.pairing(0)["push_token"] == "fcm-new:APA91b"
    assert again.location().status == 200


def test_a_phone_that_is_unpaired_before_its_turn_gets_no_push(
    access_point: AccessPoint,
    cloud: Cloud,
    pair_phones: Callable[[int], list[Phone]],
    ipc: IpcClient,
) -> None:
    stays, goes, moves = pair_phones(3)
    ipc.request()
    access_point.daemon.wait_log("prepare_to_send_push")
    assert goes.unpair().status == 200
    renamed = replace(moves, profile=replace(moves.profile, push_token="fcm-new:APA91b"))
    assert renamed.pair().status == 200
    pushes = cloud.fcm.wait(2)
    tokens = [push.json()["message"]["token"] for push in pushes]
    assert tokens == [stays.profile.push_token, "fcm-new:APA91b"]
    assert "slot 1 is not paired any more" in access_point.log()


# A clock that is set back.


@pytest.mark.movable_clock
@pytest.mark.parametrize("back", [3600, 80000])
def test_a_clock_that_is_set_back_holds_no_push_up(
    back: int,
    cloud: Cloud,
    paired_phone: Phone,
    ipc: IpcClient,
    access_point: AccessPoint,
    move_clocks: Callable[[float], None],
) -> None:
    ipc.request()
    cloud.fcm.wait(1)
    move_clocks(-back)
    ipc.request()
    cloud.fcm.wait(2)
    assert "too often" not in access_point.log()


@pytest.mark.movable_clock
def test_a_clock_that_is_set_back_ends_the_silence_after_a_429(
    access_point: AccessPoint, cloud: Cloud, move_clocks: Callable[[float], None]
) -> None:
    phone = access_point.android_phone()
    assert phone.pair().status == 200
    cloud.integrity.answer_next(EXHAUSTED)
    assert phone.location().status == 412
    assert phone.location().status == 412
    move_clocks(-3600)
    phone.clock_offset = -3600
    assert phone.location().status == 200


@pytest.mark.movable_clock
def test_a_challenge_serves_also_when_the_clock_is_set_back_meanwhile(
    phone: Phone, move_clocks: Callable[[float], None]
) -> None:
    challenge = phone.fetch_challenge()
    move_clocks(-3600)
    assert phone.pair(challenge=challenge).status == 200
    assert phone.pair(challenge=challenge).status == 424


# Junk tokens.


def junk(phone: AndroidPhone, count: int) -> None:
    for _ in range(count):
        assert phone.location(token=JUNK).status == 412


@pytest.mark.movable_clock
def test_who_sends_junk_is_not_asked_about_for_the_rest_of_the_minute_and_the_others_are(
    access_point: AccessPoint, cloud: Cloud, move_clocks: Callable[[float], None]
) -> None:
    stranger, owner = access_point.android_phone(1), access_point.android_phone(2)
    assert owner.pair().status == 200
    asked = len(cloud.integrity.requests)
    mark = access_point.daemon.log_mark()
    junk(stranger, 12)
    assert len(cloud.integrity.requests) == asked + 10
    assert stranger.pair().status == 412, "a good token of that address is not asked about either"
    log = access_point.log(mark)
    assert log.count(f"too many junk tokens from {stranger.host.source}") == 3
    assert owner.location().status == 200
    move_clocks(61)
    stranger.clock_offset = 61
    assert stranger.pair().status == 200


def test_junk_that_comes_all_at_once_gains_nothing(access_point: AccessPoint, cloud: Cloud) -> None:
    stranger, owner = access_point.android_phone(1), access_point.android_phone(2)
    assert owner.pair().status == 200
    cloud.integrity.reset()
    refusal = Answer.json({"error": {"code": 400}}, 400, delay=0.5)
    cloud.integrity.answer_next(*[refusal] * 10)
    requests = [stranger.prepare_location(token=JUNK) for _ in range(CONNECTIONS_PER_HOST - 2)]
    with ThreadPoolExecutor(len(requests)) as pool:
        replies = list(pool.map(stranger.send, requests))
    assert [reply.status for reply in replies] == [412] * len(requests)
    assert len(cloud.integrity.requests) == 10
    assert owner.location().status == 200


@pytest.mark.movable_clock
def test_sixty_in_an_hour_shut_out_all_who_sent_any_until_it_is_over(
    access_point: AccessPoint, cloud: Cloud, move_clocks: Callable[[float], None]
) -> None:
    strangers = [access_point.android_phone(number) for number in range(1, 7)]
    owner = access_point.android_phone(7)
    for stranger in strangers:
        junk(stranger, 10)
    assert len(cloud.integrity.requests) == 60
    for later in (61, 3500):
        move_clocks(later)
        for stranger in strangers:
            junk(stranger, 1)
    assert len(cloud.integrity.requests) == 60
    owner.clock_offset = 3500
    assert owner.pair().status == 200
    move_clocks(3660)
    strangers[0].clock_offset = 3660
    assert strangers[0].pair().status == 200


def test_junk_counts_for_google_alone(access_point: AccessPoint, cloud: Cloud) -> None:
    """Status 400 is what Google refuses; an outage of its service is nobody's fault."""
    phone = access_point.android_phone()
    assert phone.pair().status == 200
    cloud.integrity.answer_next(*[Answer(503, b"")] * 12)
    for _ in range(12):
        assert phone.location().status == 412
    assert phone.location().status == 200
    assert "junk" not in access_point.log()
