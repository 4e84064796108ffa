"""velmctl status and metrics, by what a control socket says. No daemon runs here."""

from __future__ import annotations

import json
import os
import pty
import socket
import subprocess
import time
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest

from velm_harness.fake_control import FakeControl, moment, response, round_of, rounds, status
from velm_harness.version import VERSION
from velm_sim.build import Build


@pytest.fixture
def control(tmp_path: Path) -> Iterator[FakeControl]:
    with FakeControl(tmp_path / "velmd.control.sock") as made:
        yield made


@pytest.fixture
def environment(build: Build, tmp_path: Path) -> dict[str, str]:
    return {**os.environ, "TZ": "UTC", **build.environment(tmp_path)}


Done = subprocess.CompletedProcess[str]


def velmctl(build: Build, environment: dict[str, str], *arguments: str) -> Done:
    command = [str(build.program("velmctl")), *arguments]
    return subprocess.run(command, env=environment, capture_output=True, text=True, timeout=30)


def ask(build: Build, environment: dict[str, str], control: FakeControl, *words: str) -> Done:
    return velmctl(build, environment, *words, "--control", str(control.path))


def test_status_for_people(
    build: Build, environment: dict[str, str], control: FakeControl
) -> None:
    control.answer("/v1/status", status())
    done = ask(build, environment, control, "status")
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == (
        "velmd 7.14.3 is process 4711, since 2026-11-22 10:00:00 (2 h 5 min), 2 reloads\n"
        "\n"
        "  configuration  /etc/afc/velmd/velmd.conf\n"
        "  LAN            br0, 192.168.1.1 since 10:00:00, 0 moves\n"
        "  HTTPS          port 8443, 1 of 64 connections, 3 at most\n"
        "  discovery      port 1900, 10 searches, 4 answered\n"
        "  local clients  /var/afc/zelka_daemon, 1 of 20 connections, 2 at most, 0 open requests\n"
        "  certificate    CN=velmd, until 2027-01-01 00:00:00 (39 days left)\n"
        "  fingerprint    SHA-256 AB:CD\n"
        "  clock          plausible\n"
        "  last report    12:03:06 from Anna's iPhone at 192.168.1.50, accurate to 12.5 m\n"
        "\n"
        "Files\n"
        "  http.server.cert.path  /etc/cert.pem  read at 10:00:00\n"
        "\n"
        "Phones: 1 of 10 paired\n"
        "  slot  name           model       type  last push       last visit\n"
        "  0     Anna's iPhone  iPhone15,2  iOS   12:03:01 (200)  12:03:05\n"
        "\n"
        "Settings that are not defaults\n"
        "  http.server.port  8443  from the file\n"
        "\n"
        "Nothing is wrong.\n"
    )


@pytest.mark.parametrize(
    "changes, sentence",
    [
        ({"lan": {"interface": "br0", "address": None, "since": None, "moves": 0}},
         "The LAN interface br0 has no address"),
        ({"https": {"port": 8443, "listening": False,
                    "connections": {"now": 0, "most": 0, "limit": 64}}},
         "HTTPS does not listen on port 8443"),
        ({"https": {"port": 8443, "listening": True,
                    "connections": {"now": 64, "most": 64, "limit": 64}}},
         "All 64 connections of HTTPS are taken"),
        ({"discovery": {"port": 1900, "listening": False, "searches": 0, "answered": 0}},
         "Discovery does not listen on port 1900"),
        ({"certificate": None}, "There is no certificate"),
        ({"certificate": {"subject": "CN=a", "sha256": "AB", "notBefore": moment("00:00:00"),
                          "notAfter": moment("12:00:00")}},
         "The certificate expired at 2026-11-22 12:00:00"),
        ({"certificate": {"subject": "CN=a", "sha256": "AB", "notBefore": moment("13:00:00"),
                          "notAfter": "2028-01-01T00:00:00.000Z"}},
         "The certificate is not valid before 2026-11-22 13:00:00"),
        ({"files": [{"key": "k", "path": "/p", "read": moment("10:00:00"), "usable": False,
                     "why": "no file"}]},
         "The file /p (k) cannot be used: no file."),
        ({"clock": {"plausible": False, "why": "it is 1970"}}, "The clock is wrong: it is 1970."),
    ],
)  # fmt: skip
def test_what_is_wrong_is_said_and_ends_with_1(
    build: Build,
    environment: dict[str, str],
    control: FakeControl,
    changes: dict[str, Any],
    sentence: str,
) -> None:
    control.answer("/v1/status", status(**changes))
    done = ask(build, environment, control, "status")
    assert done.returncode == 1
    head, _, problems = done.stdout.partition("\nWrong:\n")
    assert problems.startswith(f"  {sentence}") and problems.count("\n") == 1
    assert ask(build, environment, control, "status", "--json").returncode == 1


@pytest.mark.parametrize(
    "file, state",
    [
        ({"key": "k", "path": "/p", "read": None, "usable": False, "why": "not read"}, "not read"),
        ({"key": "k", "path": "", "read": None, "usable": True, "why": "built in"}, "built in"),
        ({"key": "app.android.integrity.privatekey.path", "path": "/p", "usable": False,
          "read": moment("10:00:00"), "why": "no file"}, "not needed: no file"),
    ],
)  # fmt: skip
def test_a_file_that_is_not_needed_is_not_wrong(
    build: Build,
    environment: dict[str, str],
    control: FakeControl,
    file: dict[str, Any],
    state: str,
) -> None:
    control.answer("/v1/status", status(files=[file]))
    done = ask(build, environment, control, "status")
    assert done.returncode == 0
    assert f"  {state}\n" in done.stdout.partition("Files")[2].partition("Phones")[0]


def test_a_last_round_without_a_location_is_told(
    build: Build, environment: dict[str, str], control: FakeControl
) -> None:
    control.answer("/v1/status", status())
    failed = round_of(
        state="expired", cause="phone never came", causeText="no phone came", visits=[], reports=[]
    )
    control.answer("/v1/rounds", rounds(failed))
    done = ask(build, environment, control, "status")
    assert done.returncode == 0 and "Nothing is wrong" not in done.stdout
    assert "  last round     12:03:00, no location\n" in done.stdout
    assert done.stdout.endswith(
        "\nThe last round brought no location:\n"
        "  No phone came.\n"
        "  velmctl explain tells what happened.\n"
    )
    control.replace("/v1/rounds", rounds(round_of()))
    done = ask(build, environment, control, "status")
    assert "  last round     12:03:00, answered\n" in done.stdout
    assert done.stdout.endswith("\nNothing is wrong.\n")


def test_a_log_with_secrets_and_unknown_keys_are_warned_of(
    build: Build, environment: dict[str, str], control: FakeControl
) -> None:
    settings = [
        {"key": "logger.level", "value": "trace", "source": "nvram"},
        {"key": "logger.file", "value": "yes", "source": "file"},
        {"key": "ssdp.server.port", "value": "1900", "source": "file"},
    ]
    control.answer("/v1/status", status(settings=settings, unknownKeys=["http.server.prot\x1b"]))
    done = ask(build, environment, control, "status")
    assert done.returncode == 0
    assert "  ssdp.server.port" not in done.stdout  # as it would be without the line
    assert done.stdout.endswith(
        "\nWarning:\n"
        "  logger.level is trace: passwords, tokens and locations are written to the log.\n"
        "  The configuration file has a key that the daemon does not know: http.server.prot?.\n"
    )


def test_the_version(build: Build, environment: dict[str, str]) -> None:
    for option in ("--version", "-v"):
        done = velmctl(build, environment, option)
        assert (done.returncode, done.stdout) == (0, f"velmctl {VERSION}\n")


@pytest.mark.parametrize("count", [0, 1, 3])
def test_json_is_the_document_in_one_line(
    build: Build, environment: dict[str, str], control: FakeControl, count: int
) -> None:
    made = status()
    made["pairings"] *= count
    control.answer("/v1/status", made)
    done = ask(build, environment, control, "status", "--json")
    assert json.loads(done.stdout) == made and done.stdout.count("\n") == 1
    assert f"Phones: {count} of 10 paired" in ask(build, environment, control, "status").stdout


def test_no_text_from_outside_commands_the_terminal(
    build: Build, environment: dict[str, str], control: FakeControl
) -> None:
    evil = "\x1b]0;x\x07\x9b2J\u202eevil\r\nWrong:\n\x7f"
    made = json.loads(
        json.dumps(status()).replace("Anna's iPhone", json.dumps(evil)[1:-1]).replace(
            "CN=velmd", json.dumps(evil)[1:-1]
        )
    )
    control.answer("/v1/status", made)
    for form in ([], ["--json"]):
        done = ask(build, environment, control, "status", *form)
        assert done.returncode == 0 and "evil" in done.stdout
        assert not set(done.stdout) & set("\x1b\x07\x9b\u202e\r\x7f")
        assert "\nWrong:\n" not in done.stdout


def test_bytes_that_are_no_utf_8_are_replaced(
    build: Build, environment: dict[str, str], control: FakeControl
) -> None:
    body = json.dumps(status()).encode().replace(b"Anna's", b"An\xff\xc3a's")
    control.answer("/v1/status", response(body))
    for form in ([], ["--json"]):
        done = ask(build, environment, control, "status", *form)
        assert "An\ufffd\ufffda's iPhone" in done.stdout


def test_colours_are_for_a_terminal_alone(
    build: Build, environment: dict[str, str], control: FakeControl
) -> None:
    control.answer("/v1/status", status())
    command = [str(build.program("velmctl")), "status", "--control", str(control.path)]

    def on_terminal(changes: dict[str, str]) -> bytes:
        ours, theirs = pty.openpty()
        try:
            given = {**environment, "TERM": "xterm", **changes}
            given = {name: value for name, value in given.items() if value != "unset"}
            subprocess.run(command, env=given, stdout=theirs, timeout=30, check=True)
            return os.read(ours, 65536)
        finally:
            os.close(ours)
            os.close(theirs)

    assert b"\x1b[32mNothing is wrong.\x1b[0m" in on_terminal({"NO_COLOR": "unset"})
    assert b"\x1b" not in on_terminal({"NO_COLOR": "1"})
    assert b"\x1b" not in on_terminal({"NO_COLOR": "unset", "TERM": "dumb"})
    assert "\x1b" not in ask(build, environment, control, "status").stdout


METRICS = b'# HELP velmd_info x\n# TYPE velmd_info gauge\nvelmd_info{version="7.14.3"} 1\n'


def test_metrics_are_printed_as_they_come(
    build: Build, environment: dict[str, str], control: FakeControl
) -> None:
    control.answer("/v1/metrics", response(METRICS, kind="text/plain; version=0.0.4"))
    done = ask(build, environment, control, "metrics")
    assert (done.returncode, done.stdout) == (0, METRICS.decode())


def test_metrics_do_not_command_the_terminal(
    build: Build, environment: dict[str, str], control: FakeControl
) -> None:
    control.answer("/v1/metrics", response(b"a\x1b[2J\r\xc2\x9b 1\n"))
    assert ask(build, environment, control, "metrics").stdout == "a?[2J?? 1\n"


def test_no_daemon_ends_with_3(build: Build, environment: dict[str, str], tmp_path: Path) -> None:
    for command in ("status", "explain", "metrics"):
        done = velmctl(build, environment, command, "--control", str(tmp_path / "nobody"))
        assert done.returncode == 3 and done.stdout == ""
        assert done.stderr == (
            f"velmctl: no daemon answers at {tmp_path}/nobody: No such file or directory\n"
        )


@pytest.mark.parametrize(
    "lines, name",
    [
        ("control.sock={at}/velmd.control.sock\n", None),
        ("process.pidfile={at}/velmd.pid\n", None),
        ("control.sock={at}/other\n", "other"),
    ],
)
def test_the_daemons_configuration_says_where_the_socket_is(
    build: Build,
    environment: dict[str, str],
    control: FakeControl,
    tmp_path: Path,
    lines: str,
    name: str | None,
) -> None:
    configuration = tmp_path / "velmd.conf"
    configuration.write_text(lines.format(at=tmp_path))
    control.answer("/v1/status", status())
    done = velmctl(build, environment, "status", "-c", str(configuration))
    assert done.returncode == (0 if name is None else 3)
    assert name is None or f"{tmp_path}/{name}" in done.stderr


@pytest.mark.parametrize(
    "text, sentence",
    [
        ("control.sock=\n", "the daemon has no control socket: control.sock is empty"),
        (None, "cannot be read"),
    ],
)
def test_a_daemon_without_a_control_socket_ends_with_3(
    build: Build, environment: dict[str, str], tmp_path: Path, text: str | None, sentence: str
) -> None:
    configuration = tmp_path / "velmd.conf"
    if text is not None:
        configuration.write_text(text)
    done = velmctl(build, environment, "status", "-c", str(configuration))
    assert done.returncode == 3 and sentence in done.stderr


@pytest.mark.parametrize(
    "arguments",
    [
        ["status", "now"],
        ["status", "--follow"],
        ["status", "--wait", "1"],
        ["explain", "0"],
        ["explain", "33"],
        ["explain", "one"],
        ["explain", "1", "2"],
        ["metrics", "--json"],
        ["locate", "--control", "/x"],
        ["--json"],
    ],
)
def test_what_a_command_does_not_take_ends_with_2(
    build: Build, environment: dict[str, str], arguments: list[str]
) -> None:
    done = velmctl(build, environment, *arguments)
    assert done.returncode == 2 and "usage: velmctl" in done.stderr and done.stdout == ""


def endless_head(connection: socket.socket) -> None:
    while True:
        connection.sendall(b"HTTP/1.1 200 OK\r\nX: " + b"y" * 4096)


def endless_body(connection: socket.socket) -> None:
    connection.sendall(b"HTTP/1.1 200 OK\r\n\r\n")
    while True:
        connection.sendall(b"[" * 65536)


def lying_length(connection: socket.socket) -> None:
    connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 99999999999\r\n\r\n{}")
    time.sleep(0.1)


HOSTILE: dict[str, Any] = {
    "endless head": (endless_head, "its answer is no HTTP"),
    "endless body": (endless_body, "its answer is too long"),
    "lying length": (lying_length, "its answer is too long"),
    "no http": (b"220 smtp ready\r\n\r\n", "its answer is no HTTP"),
    "cut off": (b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{}", "its answer is cut off"),
    "chunked": (b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n", "its answer is no HTTP"),
    "no json": (response(b"<html>"), "the document is no JSON"),
    "deep": (response(b"[" * 100_000), "the document is no JSON"),
    "a list": (response(b"[]"), "the document is no object"),
    "garbage behind": (response(json.dumps(status()).encode() + b"x"), "the document is no JSON"),
    "other version": (response(json.dumps(status(version=2)).encode()), "has version 2"),
    "no member": (response(b'{"version":1}'), "now is missing"),
    "wrong type": (
        response(json.dumps(status(pairings={})).encode()), "pairings is no list"),
    "wrong number": (
        response(json.dumps(status(pairingsLimit=1e300)).encode()),
        "pairingsLimit is no whole number",
    ),
    "wrong moment": (
        response(json.dumps(status(now="2026-13-22T12:05:00.000Z")).encode()),
        "now is no moment",
    ),
}  # fmt: skip


@pytest.mark.parametrize("what", HOSTILE)
def test_what_is_no_answer_is_refused(
    build: Build, environment: dict[str, str], control: FakeControl, what: str
) -> None:
    answer, sentence = HOSTILE[what]
    control.serve = answer if callable(answer) else lambda connection: connection.sendall(answer)
    done = ask(build, environment, control, "status")
    assert done.returncode == 1 and done.stdout == ""
    assert done.stderr.startswith("velmctl: this is no answer of velmd: ")
    assert sentence in done.stderr


def test_a_busy_daemon_is_said(
    build: Build, environment: dict[str, str], control: FakeControl
) -> None:
    control.answer("/v1/status", {}, code=503)
    done = ask(build, environment, control, "status")
    assert done.returncode == 1 and "the daemon is busy" in done.stderr
