"""Does the control socket keep to docs/control-api.yaml, and tell the truth?"""

from __future__ import annotations

import json
import re
import time
from collections.abc import Callable
from contextlib import ExitStack
from pathlib import Path
from typing import Any

import pytest
from velm_harness.openapi import Contract
from velm_sim.access_point import AccessPoint
from velm_sim.certificates import make_server
from velm_sim.cloud import Cloud
from velm_sim.control import ControlAnswer
from velm_sim.daemon import wait_until
from velm_sim.ipc_client import IpcClient
from velm_sim.limits import CONNECTIONS, CONNECTIONS_PER_HOST, LOCAL_CLIENTS
from velm_sim.namespaces import Network
from velm_sim.phone import Phone, Profile
from velm_sim.ssdp import discover

CONTRACT = Contract(Path(__file__).resolve().parents[2] / "docs" / "control-api.yaml")
PATHS = list(CONTRACT.operations())


def asked(access_point: AccessPoint, target: str, method: str = "GET") -> ControlAnswer:
    """An answer that the document allows."""
    answer = access_point.control.request(method, target)
    CONTRACT.check(target.partition("?")[0], answer)
    return answer


def status_of(access_point: AccessPoint) -> Any:
    return asked(access_point, "/v1/status").json()


def wait_for_push(access_point: AccessPoint) -> None:
    """Until the daemon has the cloud's answer too."""
    wait_until(
        lambda: status_of(access_point)["pairings"][0]["lastPushStatus"], 10, "no push has ended"
    )


# Every documented status.


def ask_in_a_full_house(access_point: AccessPoint, path: str) -> ControlAnswer:
    with access_point.control.full_house(b"GET "):
        return asked(access_point, path)


PROVOKED: dict[int, Callable[[AccessPoint, str], ControlAnswer]] = {
    200: asked,
    400: lambda access_point, path: asked(access_point, f"{path}?until=now"),
    405: lambda access_point, path: asked(access_point, path, "POST"),
    431: lambda access_point, path: asked(access_point, f"{path}?{'a' * 4200}"),
    503: ask_in_a_full_house,
}


@pytest.mark.each_machine
@pytest.mark.parametrize("path", PATHS)
def test_each_documented_status_is_answered_as_it_is_documented(
    path: str, access_point: AccessPoint
) -> None:
    assert set(PROVOKED) == set(CONTRACT.responses(path))
    for status, provoke in PROVOKED.items():
        assert provoke(access_point, path).status == status


# The status.


def test_a_busy_daemon_tells_what_it_has_done(
    paired_phone: Phone, access_point: AccessPoint, cloud: Cloud
) -> None:
    assert discover(access_point.network.phone, Network.PHONE_ADDRESSES[0])
    with IpcClient(access_point.socket_path) as client:
        client.request()
        cloud.fcm.wait(1)
        assert paired_phone.location().status == 200
        client.receive_report()
        wait_for_push(access_point)
        status = status_of(access_point)
    connections = {"now": 1, "most": 1, "limit": LOCAL_CLIENTS}
    assert status["localClients"]["connections"] == connections
    assert status["localClients"]["openRequests"] == 1
    assert status["https"]["listening"] and status["https"]["connections"]["most"] >= 1
    assert status["discovery"]["searches"] >= 1
    assert status["discovery"]["answered"] == status["discovery"]["searches"]
    report = status["lastReport"]
    assert report["deviceId"] == paired_phone.profile.device_id
    assert report["address"] == Network.PHONE_ADDRESSES[0]
    assert report["accuracyMeters"] > 0
    (pairing,) = status["pairings"]
    assert pairing["slot"] == 0 and pairing["deviceId"] == paired_phone.profile.device_id
    assert pairing["name"] == paired_phone.profile.name
    assert pairing["lastPushStatus"] == 200 and pairing["lastPush"] < status["now"]
    assert pairing["lastVisitAccepted"] is True and pairing["lastVisit"] <= status["now"]


def test_what_is_refused_shows_in_the_pairing(
    paired_phone: Phone, access_point: AccessPoint
) -> None:
    paired_phone.location()
    wrong = paired_phone.prepare_location(auth={"bssid": "02:00:00:00:00:01"})
    assert paired_phone.send(wrong).status == 409
    (pairing,) = status_of(access_point)["pairings"]
    assert pairing["lastVisitAccepted"] is False
    assert pairing["lastPush"] is None and pairing["lastPushStatus"] is None


@pytest.mark.each_machine
def test_settings_say_where_they_came_from(cold_access_point: AccessPoint) -> None:
    cold_access_point.nvram_set({"zelkad_pairing_maxnum": "3", "ap_serial_number": ""})
    file = str(cold_access_point.configuration_file)
    daemon = cold_access_point.prepare(arguments=["-c", file, "-s", "FROM-THE-LINE"])
    daemon.start()
    daemon.wait_until_serving()
    status = status_of(cold_access_point)
    rows = {row["key"]: (row["value"], row["source"]) for row in status["settings"]}
    assert rows["http.server.port"] == (str(cold_access_point.port), "file")
    assert rows["pairings.limit"] == ("3", "nvram")
    assert rows["serial.number"] == ("FROM-THE-LINE", "command line")
    assert rows["lan.name"] == ("br0", "platform")
    assert rows["app.android.integrity.method"] == ("remote", "default")
    assert status["daemon"]["configurationFile"] == file
    assert status["pairingsLimit"] == 3


def test_files_say_why_they_cannot_be_used(access_point: AccessPoint) -> None:
    at = access_point.directory
    (at / "integrity_verification.jwk").write_text("no JSON")
    (at / "service_account.json").write_text("{}")
    access_point.reload()
    files = {row["key"]: row for row in status_of(access_point)["files"]}
    assert files["app.android.integrity.v.key.path"]["why"] == "the file is no JSON"
    assert not files["app.android.integrity.v.key.path"]["usable"]
    account = files["cloudmessaging.firebase.privatekey.path"]
    assert not account["usable"] and "project_id" in account["why"]
    assert files["http.server.cert.path"]["usable"] and files["http.server.cert.path"]["read"]
    (at / "service_account.json").unlink()
    access_point.configure({"app.ios.attest.root.ca.path": ""})
    access_point.reload()
    files = {row["key"]: row for row in status_of(access_point)["files"]}
    assert "is missing" in files["cloudmessaging.firebase.privatekey.path"]["why"]
    root = files["app.ios.attest.root.ca.path"]
    assert root["usable"] and root["read"] is None and "built-in" in root["why"]


def test_a_renewed_certificate_shows_after_the_reload(access_point: AccessPoint) -> None:
    at = access_point.directory
    before = status_of(access_point)["certificate"]
    assert before["subject"] == "CN=192.168.1.1,O=Velm Test"
    make_server([Network.AP_ADDRESS]).write(at / "server_cert.pem", at / "server_key.pem")
    access_point.reload()
    after = status_of(access_point)["certificate"]
    assert after["sha256"] != before["sha256"]
    assert after["notBefore"] < after["notAfter"]


@pytest.mark.each_machine
@pytest.mark.movable_clock
def test_a_clock_that_was_never_set_is_seen(access_point: AccessPoint) -> None:
    assert status_of(access_point)["clock"] == {"plausible": True, "why": None}
    access_point.stop_clock(100)
    clock = status_of(access_point)["clock"]
    assert not clock["plausible"] and "before 2025" in clock["why"]
    access_point.stop_clock(1748736000)  # 2025-06-01, before the certificate
    assert "certificate" in status_of(access_point)["clock"]["why"]


def test_without_its_address_the_lan_has_none(access_point: AccessPoint, network: Network) -> None:
    with access_point.control.connect() as begun:
        network.ap.batch(f"addr del {Network.AP_ADDRESS}/24 dev br0\n")
        try:
            begun.sendall(b"GET /v1/status HTTP/1.1\r\n\r\n")
            answer = b"".join(iter(lambda: begun.recv(65536), b""))
        finally:
            network.ap.batch(f"addr add {Network.AP_ADDRESS}/24 dev br0\n")
    lan = json.loads(answer.partition(b"\r\n\r\n")[2])["lan"]
    assert lan["address"] is None and lan["since"] is None


def test_servers_that_are_off_do_not_listen(cold_access_point: AccessPoint) -> None:
    cold_access_point.configure({"ssdp.server.port": "0", "location.policy.ipc.sock": ""})
    daemon = cold_access_point.prepare()
    daemon.start()
    wait_until(cold_access_point.control.path.exists, 10, "no control socket")
    wait_until(
        lambda: status_of(cold_access_point)["https"]["listening"], 10, "HTTPS does not listen"
    )
    status = status_of(cold_access_point)
    assert not status["discovery"]["listening"]
    assert not status["localClients"]["listening"]


# The metrics.

SAMPLE = re.compile(
    r'(?P<name>[a-z_]+)(?:\{(?P<labels>(?:[a-z_]+="(?:[^"\\\n]|\\["\\n])*",?)*)\})? (?P<value>\S+)'
)


def metrics_of(access_point: AccessPoint) -> dict[str, float]:
    """The samples, by name and labels as they are written, in a text that keeps to the format."""
    text = asked(access_point, "/v1/metrics").text
    assert text.endswith("\n")
    samples: dict[str, float] = {}
    kinds: dict[str, str] = {}
    for line in text.splitlines():
        if line.startswith("# "):
            _, what, name, rest = line.split(" ", 3)
            assert (what == "HELP") == (name not in kinds) and rest
            kinds[name] = kinds.get(name, "") if what == "HELP" else rest
            continue
        found = SAMPLE.fullmatch(line)
        assert found, line
        assert kinds[found["name"]] == (
            "counter" if found["name"].endswith("_total") else "gauge"
        ), line
        whole = line.rpartition(" ")[0]
        assert whole not in samples
        samples[whole] = float(found["value"])
    assert {found.partition("{")[0] for found in samples} <= set(kinds)
    return samples


@pytest.mark.each_machine
def test_metrics_count_what_happened(
    paired_phone: Phone, access_point: AccessPoint, cloud: Cloud
) -> None:
    before = metrics_of(access_point)
    host = access_point.lan_host()
    assert host.request("/info").status == 200
    assert host.request("/favicon.ico").status == 404
    with IpcClient(access_point.socket_path) as client:
        client.request()
        cloud.fcm.wait(1)
        assert paired_phone.location().status == 200
        client.receive_report()
    wrong = paired_phone.prepare_location(auth={"bssid": "02:00:00:00:00:01"})
    assert paired_phone.send(wrong).status == 409
    assert paired_phone.send(paired_phone.prepare("/challenge", {}, auth={"password": "x"})).status == 401
    wait_for_push(access_point)
    after = metrics_of(access_point)
    grown = {name: value - before.get(name, 0) for name, value in after.items()}
    expected = {
        'velmd_requests_total{route="/info",status="200"}': 1,
        'velmd_requests_total{route="other",status="404"}': 1,
        'velmd_requests_total{route="/location",status="200"}': 1,
        'velmd_requests_total{route="/location",status="409"}': 1,
        'velmd_requests_total{route="/challenge",status="401"}': 1,
        'velmd_refusals_total{check="device_check"}': 1,
        'velmd_refusals_total{check="user_pass_check"}': 1,
        'velmd_refusals_total{check="path"}': 1,
        'velmd_pushes_total{status="200"}': 1,
        'velmd_rounds_total{state="answered"}': 1,
        "velmd_reports_total": 1,
    }
    assert {name: grown[name] for name in expected} == expected
    assert grown["velmd_password_hashes_total"] >= 3
    assert after["velmd_connections_max"] == CONNECTIONS
    assert after["process_resident_memory_bytes"] > 1 << 20
    assert after["process_open_fds"] == pytest.approx(access_point.daemon.descriptors(), abs=2)
    assert after["process_cpu_seconds_total"] >= before["process_cpu_seconds_total"]
    assert abs(after["velmd_start_time_seconds"] - time.time()) < 60


def test_reloads_are_counted(access_point: AccessPoint) -> None:
    for _ in range(2):
        access_point.reload()
    assert metrics_of(access_point)["velmd_reloads_total"] == 2


def test_connections_above_the_cap_are_counted(access_point: AccessPoint) -> None:
    with ExitStack() as open_ones:
        for _ in range(CONNECTIONS_PER_HOST + 2):
            open_ones.enter_context(
                access_point.lan_host().connect_tcp()
            )
        wait_until(
            lambda: metrics_of(access_point)['velmd_connections_refused_total{why="address"}'] == 2,
            10,
            "two refused connections",
        )
        assert metrics_of(access_point)["velmd_connections"] == CONNECTIONS_PER_HOST


# What came from outside, and what is secret.

HOSTILE = 'An"na\'s \\ \x1b[31m\n\t\x7f\u009b \U0001f4f1 </script> {{x}}'


def test_hostile_texts_stay_texts(access_point: AccessPoint) -> None:
    phone = access_point.phone(0, Profile(name=HOSTILE))
    assert phone.pair().status == 200
    raw = asked(access_point, "/v1/status").body
    assert b"\x1b" not in raw and b"\n" not in raw
    (pairing,) = json.loads(raw)["pairings"]
    assert pairing["name"] == HOSTILE
    metrics_of(access_point)


def test_nothing_secret_is_told(
    paired_phone: Phone, access_point: AccessPoint, cloud: Cloud
) -> None:
    with IpcClient(access_point.socket_path) as client:
        client.request()
        cloud.fcm.wait(1)
        assert paired_phone.location().status == 200
        client.receive_report()
    wrong = paired_phone.prepare("/challenge", {}, auth={"password": "a-wrong-password"})
    assert paired_phone.send(wrong).status == 401
    told = b"".join(asked(access_point, path).body for path in PATHS).decode()
    pairing = access_point.pairing(0)
    secrets = [
        access_point.login.password,
        "a-wrong-password",
        pairing["push_token"],
        pairing["attestation_key"],
        "BEGIN",
        "private_key",
        "latitude",
        "longitude",
        "challenge\":\"",
    ]
    assert [secret for secret in secrets if secret and secret in told] == []
