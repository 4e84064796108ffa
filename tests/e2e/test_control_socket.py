"""The control socket: what it answers, to whom, and that nobody else notices."""

from __future__ import annotations

import os
import socket
import stat
import subprocess
import sys
import threading
import time
from collections.abc import Callable
from contextlib import ExitStack
from pathlib import Path

import pytest
from velm_harness.promptness import latencies, prompt_meanwhile
from velm_harness.sample import Sample
from velm_sim.access_point import AccessPoint
from velm_sim.control import Control, read_all
from velm_sim.daemon import wait_until
from velm_sim.ipc_client import IpcClient
from velm_sim.namespaces import Network

PLACES = 4
HEAD_LIMIT = 4096
HEAD_TIME = 5
REQUESTS = 10_000
PHONE = 8  # the number of a host that does nothing wrong
NOBODY = 65534


def status_line(answer: bytes) -> bytes:
    return answer.partition(b"\r\n")[0]


# Who may.


def test_the_socket_is_for_its_owner_and_group_whatever_the_umask(
    cold_access_point: AccessPoint,
) -> None:
    before = os.umask(0)
    try:
        cold_access_point.start()
    finally:
        os.umask(before)
    found = cold_access_point.control.path.stat()
    assert stat.S_ISSOCK(found.st_mode)
    assert stat.S_IMODE(found.st_mode) == 0o660


ASK = """
import os, socket, sys
path, user, groups = sys.argv[1], int(sys.argv[2]), [int(one) for one in sys.argv[3:]]
os.setgroups(groups)
os.setgid(user)
os.setuid(user)
with socket.socket(socket.AF_UNIX) as client:
    client.connect(path)
    client.sendall(b"GET /v1/status HTTP/1.1\\r\\n\\r\\n")
    print(client.recv(15))
"""


def asked_as_nobody(path: Path, groups: list[int]) -> subprocess.CompletedProcess[str]:
    command = [sys.executable, "-c", ASK, str(path), str(NOBODY), *map(str, groups)]
    return subprocess.run(command, capture_output=True, text=True, timeout=10)


def test_who_is_not_root_must_be_in_the_group(access_point: AccessPoint) -> None:
    path = access_point.control.path
    access_point.directory.chmod(0o755)
    refused = asked_as_nobody(path, [])
    assert refused.returncode == 1 and "PermissionError" in refused.stderr
    os.chown(path, 0, 4711)
    assert asked_as_nobody(path, [4711]).stdout == "b'HTTP/1.1 200 OK'\n"


# Where.


def test_the_socket_of_an_earlier_daemon_is_replaced(cold_access_point: AccessPoint) -> None:
    cold_access_point.start()
    cold_access_point.daemon.kill()
    assert cold_access_point.control.path.exists()
    cold_access_point.start()
    assert cold_access_point.control.json("/v1/status")["version"] == 1


def test_an_empty_path_switches_it_off(access_point: AccessPoint) -> None:
    path = access_point.control.path
    access_point.configure({"control.sock": ""})
    access_point.reload()
    wait_until(lambda: not path.exists(), 10, "the socket is still there")


def test_a_reload_moves_it_and_a_reload_alone_ends_nobody(access_point: AccessPoint) -> None:
    first = access_point.control
    with first.connect() as begun:
        begun.sendall(b"GET /v1/status HTTP/1.1\r\n")
        access_point.reload()
        begun.sendall(b"\r\n")
        assert status_line(read_all(begun)) == b"HTTP/1.1 200 OK"
    access_point.configure({"control.sock": str(access_point.directory / "elsewhere.sock")})
    access_point.reload()
    status = access_point.control.json("/v1/status")
    assert status["daemon"]["reloads"] == 2
    assert not first.path.exists()
    sources = {row["key"]: row["source"] for row in status["settings"]}
    assert sources["control.sock"] == "file"


def test_a_reload_puts_back_a_socket_that_was_removed(access_point: AccessPoint) -> None:
    access_point.control.path.unlink()
    access_point.reload()
    assert access_point.control.json("/v1/status")["daemon"]["reloads"] == 1


@pytest.mark.parametrize("where", ["nowhere", "a file", "too long"])
def test_without_a_place_for_it_the_daemon_goes_on(
    where: str, cold_access_point: AccessPoint
) -> None:
    at = cold_access_point.directory
    (at / "file").write_text("somebody's")
    path = {
        "nowhere": "/proc/nowhere/control.sock",
        "a file": str(at / "file"),
        "too long": f"{at}/{'s' * 107}",
    }[where]
    cold_access_point.configure({"control.sock": path})
    cold_access_point.start()
    assert "no control socket" in cold_access_point.log()
    assert (at / "file").read_text() == "somebody's"
    assert cold_access_point.lan_host().request("/info").status == 200


def test_without_a_pid_file_it_has_no_place_by_itself(cold_access_point: AccessPoint) -> None:
    cold_access_point.configure({"process.pidfile": ""})
    cold_access_point.start()
    assert "no control socket, since there is no pid file" in cold_access_point.log()


# What it is asked.


@pytest.mark.parametrize(
    ("sent", "answer"),
    {
        "the hello of TLS": (b"\x16\x03\x01\x00\xa5\x01\x00", b"400 Bad Request"),
        "a line that is no request": (b"hello\r\n", b"400 Bad Request"),
        "a NUL": (b"GET /v1/status\0 HTTP/1.1\r\n\r\n", b"400 Bad Request"),
        "another version": (b"GET /v1/status HTTP/3.0\r\n\r\n", b"400 Bad Request"),
        "another path": (b"GET /v1 HTTP/1.1\r\n\r\n", b"404 Not Found"),
        "an encoded path": (b"GET /v1%2fstatus HTTP/1.1\r\n\r\n", b"404 Not Found"),
        "another method": (b"DELETE /v1/status HTTP/1.1\r\n\r\n", b"405 Method Not Allowed"),
        "a query that is none": (b"GET /v1/status?x HTTP/1.1\r\n\r\n", b"400 Bad Request"),
        "a wait of a minute and more": (
            b"GET /v1/rounds?wait=61 HTTP/1.1\r\n\r\n",
            b"400 Bad Request",
        ),
        "a path that does not end": (
            b"GET /" + b"a" * 100_000,
            b"431 Request Header Fields Too Large",
        ),
        "a body behind the head": (
            b"GET /v1/status HTTP/1.1\r\nContent-Length: 100000\r\n\r\n" + b"b" * 100_000,
            b"200 OK",
        ),
    }.values(),
)
def test_whatever_comes_is_answered(sent: bytes, answer: bytes, access_point: AccessPoint) -> None:
    assert status_line(access_point.control.exchange(sent)) == b"HTTP/1.1 " + answer


def test_a_refused_method_is_told_which_is_allowed(access_point: AccessPoint) -> None:
    answer = access_point.control.request("PUT", "/v1/metrics")
    assert (answer.status, answer.headers["allow"]) == (405, "GET")
    assert answer.headers["connection"] == "close"


def test_a_head_has_at_most_4_kib(access_point: AccessPoint) -> None:
    front, end = b"GET /v1/status HTTP/1.1\r\nX: ", b"\r\n\r\n"
    rest = HEAD_LIMIT - len(front) - len(end)
    for more, answer in ((0, b"HTTP/1.1 200 OK"), (1, b"HTTP/1.1 431 ")):
        sent = front + b"x" * (rest + more) + end
        assert access_point.control.exchange(sent).startswith(answer)


def test_half_a_request_ends_after_five_seconds(access_point: AccessPoint) -> None:
    with access_point.control.connect() as half:
        half.sendall(b"GET /v1/status HTTP/1.1\r\n")
        begin = time.monotonic()
        assert read_all(half) == b""
        assert time.monotonic() - begin > HEAD_TIME - 0.5


# Many, and slow ones.


def test_the_fifth_client_is_turned_away_until_a_place_is_free(access_point: AccessPoint) -> None:
    control = access_point.control
    with control.full_house(b"GET /v1/st") as held:
        answer = control.get("/v1/status")
        assert (answer.status, answer.body) == (503, b"all places are taken\n")
        held[0].sendall(b"atus HTTP/1.1\r\n\r\n")
        assert status_line(read_all(held[0])) == b"HTTP/1.1 200 OK"
        assert control.get("/v1/status").status == 200


def test_a_full_house_of_waiting_clients_holds_nobody_else_up(access_point: AccessPoint) -> None:
    waiting = b"GET /v1/rounds?wait=60 HTTP/1.1\r\n\r\n"
    with access_point.control.full_house(waiting), prompt_meanwhile(
        access_point.daemon, access_point.lan_host(PHONE)
    ):
        time.sleep(0.5)  # the time for which promptness is measured


def test_ten_thousand_requests_change_nothing_for_phones(
    access_point: AccessPoint, sample: Sample
) -> None:
    control = access_point.control
    targets = ("/v1/status", "/v1/rounds", "/v1/metrics", "/v1/nothing")
    for target in targets * 25:
        control.get(target)
    resident, descriptors = access_point.daemon.resident_kib(), access_point.daemon.descriptors()
    with prompt_meanwhile(
        access_point.daemon, access_point.lan_host(PHONE)
    ):
        for number in range(len(sample.of(range(REQUESTS), 20))):
            expected = 404 if number % 4 == 3 else 200
            assert control.get(targets[number % 4]).status == expected
    wait_until(
        lambda: access_point.daemon.descriptors() <= descriptors, 10, "connections are left open"
    )
    grown = access_point.daemon.resident_kib() - resident
    assert grown < access_point.build.memory_limit_kib(400)


def test_slow_readers_change_nothing_for_phones(access_point: AccessPoint) -> None:
    with ExitStack() as open_ones, prompt_meanwhile(
        access_point.daemon, access_point.lan_host(PHONE)
    ):
        for _ in range(3 * PLACES):
            slow = open_ones.enter_context(access_point.control.connect())
            slow.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1024)
            slow.sendall(b"GET /v1/status HTTP/1.1\r\n\r\n")
            time.sleep(0.05)  # the time for which promptness is measured


def abuse(control: Control, over: threading.Event) -> None:
    """Half requests, whole ones one after another, and readers that do not read, on all places."""
    while not over.is_set():
        with ExitStack() as open_ones:
            for sent in (b"GET /v1/st", b"GET /v1/status HTTP/1.1\r\n\r\n"):
                slow = open_ones.enter_context(control.connect())
                slow.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1024)
                slow.sendall(sent)
            for target in ("/v1/status", "/v1/rounds", "/v1/metrics", "/v1/nothing") * 10:
                control.get(target)


def p99(taken: list[float]) -> float:
    return taken[len(taken) * 99 // 100] * 1000


def test_the_p99_of_info_stays_within_five_milliseconds(
    access_point: AccessPoint, sample: Sample, record_property: Callable[[str, object], None]
) -> None:
    """docs/performance.md has the figures. The best of three tries: the machine may be busy."""
    count = 3000 if sample.whole else 200
    tries = []
    with access_point.lan_host(PHONE).session() as session:
        session.connect()
        for _ in range(3):
            before = latencies(access_point.daemon, session, count, pause=0.001)
            over = threading.Event()
            abuser = threading.Thread(target=abuse, args=(access_point.control, over))
            abuser.start()
            try:
                meanwhile = latencies(access_point.daemon, session, count, pause=0.001)
            finally:
                over.set()
                abuser.join()
            tries.append((p99(meanwhile) - p99(before), p99(before), p99(meanwhile)))
            if tries[-1][0] < 5 and not sample.whole:
                break
    record_property("p99_ms", tries)
    print("p99 of /info, ms: later, before, meanwhile:", tries)
    assert min(tries)[0] < 5, tries


# Waiting.


def test_a_wait_ends_when_a_round_begins(access_point: AccessPoint) -> None:
    control = access_point.control
    latest = control.json("/v1/rounds")["latest"]
    with control.connect(timeout=30) as waiting:
        waiting.sendall(b"GET /v1/rounds?wait=60&after=%d HTTP/1.1\r\n\r\n" % latest)
        waiting.settimeout(0.2)
        with pytest.raises(TimeoutError):
            waiting.recv(1)
        waiting.settimeout(10)
        with IpcClient(access_point.socket_path) as client:
            client.request()
            assert status_line(read_all(waiting)) == b"HTTP/1.1 200 OK"
    assert control.json("/v1/rounds")["latest"] > latest


def test_a_wait_without_news_ends_with_its_time(access_point: AccessPoint) -> None:
    begin = time.monotonic()
    assert access_point.control.get("/v1/rounds?wait=1").status == 200
    assert time.monotonic() - begin > 0.9


def test_a_move_of_the_lan_ends_no_connection(access_point: AccessPoint, network: Network) -> None:
    other = "192.168.1.77"
    control = access_point.control
    with control.connect() as begun:
        begun.sendall(b"GET /v1/status HTTP/1.1\r\n")
        network.ap.batch(f"addr add {other}/24 dev br0\n")
        try:
            wait_until(
                lambda: control.json("/v1/status")["lan"]["address"] == other, 3, "no move"
            )
        finally:
            network.ap.batch(f"addr del {other}/24 dev br0\n")
        begun.sendall(b"\r\n")
        assert status_line(read_all(begun)) == b"HTTP/1.1 200 OK"
    assert control.json("/v1/status")["lan"]["moves"] in (1, 2)  # and perhaps back already
