"""The main job: a local client asks, the phones are pushed, a phone posts, every client hears."""

from __future__ import annotations

import ssl
import time
from collections.abc import Callable

import pytest
from velm_sim.access_point import BSSIDS, SERIAL_NUMBER, VENDOR, AccessPoint
from velm_sim.build import Build, has_wide_words
from velm_sim.cloud import Cloud
from velm_sim.ipc_client import (
    REPORT,
    REQUEST,
    STATUS_NO_PAIRED_DEVICES,
    STATUS_OK,
    IpcClient,
    Report,
)
from velm_sim.limits import PUSH_GAP
from velm_sim.phone import Phone, sample_location

pytestmark = pytest.mark.each_machine
IN_2039 = 2_200_000_000  # later than 32 bits with a sign can say


@pytest.mark.parametrize("address", ["192.168.100.100", "203.0.113.255"])
def test_a_phone_with_an_address_of_fifteen_or_fewer_characters_is_served(
    address: str, access_point: AccessPoint, phone: Phone, ipc: IpcClient
) -> None:
    """Of another subnet on the same bridge, as after a change of the LAN's numbers."""
    network = access_point.network
    network.phone.batch(f"addr add {address}/32 dev eth0\n")
    network.ap.batch(f"route add {address}/32 dev br0\n")
    try:
        phone.host.source = address
        assert phone.pair().status == 200
        location = sample_location()
        assert phone.location(location).status == 200
        assert ipc.receive_report() == phone.expected_report(location)
    finally:
        network.ap.batch(f"route del {address}/32 dev br0\n")
        network.phone.batch(f"addr del {address}/32 dev eth0\n")


@pytest.mark.each_tls
def test_a_request_ends_in_a_report_for_every_client(
    cloud: Cloud, paired_phone: Phone, ipc: IpcClient, connect_ipc: Callable[[], IpcClient]
) -> None:
    bystander = connect_ipc()
    ipc.request(wanted_within=45)
    (push,) = cloud.fcm.wait()
    payload = push.json()["message"]["apns"]["payload"]
    assert payload["location"] == f"{paired_phone.host.server}:{paired_phone.host.port}"
    location = sample_location()
    assert paired_phone.location(location).status == 200
    for client in (ipc, bystander):
        frame = client.receive()
        assert (frame.type, frame.status) == (REPORT, STATUS_OK)
        assert Report.decode(frame.payload) == paired_phone.expected_report(location)


def test_the_push_carries_what_the_app_needs(
    cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    ipc.request(wanted_within=45)
    (push,) = cloud.fcm.wait()
    message = push.json()
    stamp = message["message"]["apns"]["payload"]["timestamp"]
    assert abs(int(stamp) - push.time) <= 2
    assert message == {
        "message": {
            "token": paired_phone.profile.push_token,
            "apns": {
                "payload": {
                    "aps": {"content-available": 1},
                    "serialNumber": SERIAL_NUMBER,
                    "location": "192.168.1.1:8443",
                    "timestamp": stamp,
                    "timeout": "45",
                    "messageType": "data",
                    "bssids": list(BSSIDS),
                },
                "fcm_options": {"analytics_label": "push_ios"},
            },
        }
    }
    assert push.headers["content-type"] == "application/json"
    assert len(cloud.token.requests) == 1 and not cloud.refusals


def test_pushes_leave_one_after_another_in_their_time(
    build: Build, cloud: Cloud, pair_phones: Callable[[int], list[Phone]], ipc: IpcClient
) -> None:
    phones = pair_phones(3)
    asked = time.monotonic()
    ipc.request()
    pushes = cloud.fcm.wait(3)
    tokens = [push.json()["message"]["token"] for push in pushes]
    assert tokens == [phone.profile.push_token for phone in phones]
    # The first one gap after the request. Never early; and late only by what a busy machine takes
    # for a TLS connection.
    for number, push in enumerate(pushes, start=1):
        late = push.monotonic - asked - number * PUSH_GAP
        assert 0 <= late < build.time_limit(0.95), number


def test_a_request_without_a_paired_phone_is_answered_at_once(cloud: Cloud, ipc: IpcClient) -> None:
    asked = ipc.request(request_id=77)
    frame = ipc.receive(timeout=1)
    assert (frame.type, frame.id, frame.status) == (REQUEST, asked, STATUS_NO_PAIRED_DEVICES)
    report = Report.decode(frame.payload)
    assert report.valid == 0 and abs(report.time - time.time()) <= 2
    assert frame.payload[:136] == bytes(136) and frame.payload[140:] == bytes(84)
    assert not cloud.fcm.requests


def test_a_request_with_a_paired_phone_gets_no_answer_of_its_own(
    cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    ipc.request()
    cloud.fcm.wait()
    assert ipc.is_silent(0.2)


def test_info_names_the_access_point(phone: Phone) -> None:
    reply = phone.info()
    assert (reply.status, reply.headers["content-type"]) == (200, "application/json")
    assert reply.json() == {
        "serialNumber": SERIAL_NUMBER,
        "vendorId": VENDOR,
        "version": "1.2.0",
        "bssids": list(BSSIDS),
        "pairingsLimit": 10,
    }


def test_three_locations_in_one_body_are_three_reports(
    paired_phone: Phone, ipc: IpcClient
) -> None:
    locations = [sample_location(rssi=-40 - number) for number in range(3)]
    assert paired_phone.location(locations).status == 200
    for location in locations:
        assert ipc.receive_report() == paired_phone.expected_report(location)


def test_pairing_is_stored_with_the_attested_key(
    access_point: AccessPoint, paired_phone: Phone
) -> None:
    stored = access_point.pairing(0)
    profile = paired_phone.profile
    assert stored["status"] == "Valid"
    assert stored["dev_id"] == profile.device_id
    assert stored["name"] == profile.name
    assert stored["push_token"] == profile.push_token
    assert stored["attestation_key"]
    listed = paired_phone.pairings().json()["pairings"]
    assert listed == [
        {
            "deviceId": profile.device_id,
            "friendlyName": profile.name,
            "deviceType": "iOS",
            "pairingDate": stored["date_added"],
        }
    ]


def test_pairing_again_by_assertion_keeps_key_and_date(
    access_point: AccessPoint, paired_phone: Phone
) -> None:
    before = access_point.pairing(0)
    assert paired_phone.pair(by="assertion", pair={"friendlyName": "Renamed"}).status == 200
    assert access_point.pairing(0) == {**before, "name": "Renamed"}


def test_an_unpaired_phone_is_no_longer_heard(
    access_point: AccessPoint, paired_phone: Phone, ipc: IpcClient
) -> None:
    assert paired_phone.unpair().status == 200
    assert paired_phone.pairings().json() == {"pairings": []}
    assert access_point.pairing(0)["status"] == "Invalid"
    # Its key went with the pairing, so it is the signature that nobody can check any more.
    assert paired_phone.location().status == 412
    ipc.request()
    assert ipc.receive(timeout=1).status == STATUS_NO_PAIRED_DEVICES


def test_reload_keeps_pairings_and_forgets_challenges(
    access_point: AccessPoint, paired_phone: Phone, connect_ipc: Callable[[], IpcClient]
) -> None:
    challenge = paired_phone.fetch_challenge()
    access_point.reload()
    assert paired_phone.location(challenge=challenge).status == 424
    client = connect_ipc()
    location = sample_location()
    assert paired_phone.location(location).status == 200
    assert client.receive_report() == paired_phone.expected_report(location)


@pytest.mark.movable_clock
def test_a_challenge_lives_for_sixty_seconds(
    access_point: AccessPoint, paired_phone: Phone
) -> None:
    fresh, old = paired_phone.fetch_challenge(), paired_phone.fetch_challenge()
    access_point.move_clock(59)
    assert paired_phone.location(challenge=fresh).status == 200
    access_point.move_clock(61)
    assert paired_phone.location(challenge=old).status == 424


@pytest.mark.movable_clock
def test_its_times_are_right_after_2038(
    build: Build, access_point: AccessPoint, phone: Phone, ipc: IpcClient
) -> None:
    if not has_wide_words(build.program("velmd")):
        pytest.skip("the libraries of 32-bit machines have a time_t of 32 bits here")
    access_point.stop_clock(IN_2039)
    ipc.request()
    frame = ipc.receive(timeout=1)
    assert frame.status == STATUS_NO_PAIRED_DEVICES
    assert frame.time == Report.decode(frame.payload).time == IN_2039
    access_point.move_clock(0)  # the phone's certificate is of today
    assert phone.pair().status == 200
    access_point.stop_clock(IN_2039)
    old, fresh = phone.fetch_challenge(), phone.fetch_challenge()
    location = sample_location(timestamp=str(IN_2039))
    assert phone.location(location, challenge=fresh).status == 200
    frame = ipc.receive()
    assert frame.time == IN_2039
    assert Report.decode(frame.payload) == phone.expected_report(location)
    access_point.stop_clock(IN_2039 + 61)
    assert phone.location(challenge=old).status == 424
    assert "2039-09-" in access_point.log()


@pytest.mark.parametrize(
    ("version", "accepted"),
    [
        (ssl.TLSVersion.TLSv1_1, False),
        (ssl.TLSVersion.TLSv1_2, True),
        (ssl.TLSVersion.TLSv1_3, True),
    ],
)
def test_tls_version(phone: Phone, version: ssl.TLSVersion, accepted: bool) -> None:
    phone.host.tls = version
    if accepted:
        assert phone.info().status == 200
    else:
        with pytest.raises((ssl.SSLError, ConnectionError)):
            phone.info()
