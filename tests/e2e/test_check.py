"""`velmd -t`: what is wrong with a configuration, told before it is used."""

from __future__ import annotations

import datetime
import os
import shutil
import subprocess
from collections.abc import Callable, Sequence
from dataclasses import dataclass
from pathlib import Path

import pytest
from cryptography.hazmat.primitives import serialization
from velm_sim.access_point import AccessPoint
from velm_sim.build import Build
from velm_sim.certificates import Identity, issue, make_server, now, p256, subject

GOOD = "configuration is good"
AS_NOBODY = ("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups")


@dataclass
class Told:
    """What the check said. FILE and AT take the place of the configuration and of its directory."""

    status: int
    lines: list[str]


def run(
    access_point: AccessPoint,
    arguments: Sequence[str],
    through: Sequence[str] = (),
    stderr: str = "",
) -> Told:
    done = subprocess.run(
        access_point.inside(
            *through, str(access_point.build.program("velmd")), "-t", *arguments
        ),
        env={
            **os.environ,
            **access_point.environment,
            **access_point.build.environment(access_point.directory),
        },
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=30,
    )
    assert done.stderr.endswith(stderr) and bool(done.stderr) == bool(stderr)
    text = done.stdout.replace(str(access_point.configuration_file), "FILE")
    return Told(done.returncode, text.replace(str(access_point.directory), "AT").splitlines())


def check(access_point: AccessPoint, *options: str, through: Sequence[str] = ()) -> Told:
    return run(access_point, ["-c", str(access_point.configuration_file), *options], through)


def written(access_point: AccessPoint, text: str) -> int:
    """Puts the text behind the configuration; the number of its first line."""
    access_point.configure({})
    before = access_point.configuration_file.read_text()
    access_point.configuration_file.write_text(before + text)
    return before.count("\n") + 1


def test_a_good_configuration_is_said_to_be_good(cold_access_point: AccessPoint) -> None:
    cold_access_point.configure({})
    assert check(cold_access_point) == Told(0, [GOOD])


# A line of the file.

BAD_LINES = {
    "no pair": ("vendor.id\n", "no key=value pair: the whole file is left out"),
    "blanks alone": ("   \n", "no key=value pair: the whole file is left out"),
    "no key": ("= 7\n", 'no key before "="'),
    "a slip in a key": (
        "http.server.prot=1\n",
        'unknown key "http.server.prot": did you mean "http.server.port"?',
    ),
    "a slip in a key of the logger": (
        "loger.level=info\n",
        'unknown key "loger.level": did you mean "logger.level"?',
    ),
    "a key in another case": (
        "HTTP.Server.Port=1\n",
        'unknown key "HTTP.Server.Port": did you mean "http.server.port"?',
    ),
    "a key like no other": ("colour=blue\n", 'unknown key "colour"'),
    "what only the platform knows": (
        "lan.name=br0\n",
        "lan.name is not read from the file: the platform has it",
    ),
    "a port that is no number": (
        "ssdp.server.port=19oo\n",
        'ssdp.server.port: "19oo" is no number from 0 to 65535',
    ),
    "a port that is too large": (
        "ssdp.server.port=65536\n",
        'ssdp.server.port: "65536" is no number from 0 to 65535',
    ),
    "a port below zero": (
        "ssdp.server.port=-1\n",
        'ssdp.server.port: "-1" is no number from 0 to 65535',
    ),
    "a number that is empty": (
        "pairings.limit=\n",
        'pairings.limit: "" is no number from 0 to 65535',
    ),
    "neither yes nor no": (
        "app.android.integrity.enabled=Yes\n",
        'app.android.integrity.enabled: "Yes" is neither yes nor no: it counts as no',
    ),
    "a text that is too long": (
        f"vendor.id={'v' * 50}\n",
        "vendor.id: 50 characters: it is cut to 49",
    ),
    "a text that is no UTF-8": ("vendor.id=\udcff\n", 'vendor.id: "?" is no UTF-8'),
    "a value with blanks": (
        "vendor.id=TWO WORDS\n",
        'vendor.id: "WORDS" is left out: a value with blanks must be in quotes',
    ),
    "a path that no socket can have": (
        f"location.policy.ipc.sock=/{'s' * 108}\n",
        "location.policy.ipc.sock: 109 characters: a socket's path has at most 107",
    ),
    "no level": (
        "logger.level=loud\n",
        'logger.level: "loud" is no level (trace, debug, info, warn, error): nothing is logged',
    ),
    "a truth of the logger": (
        "logger.syslog=1\n",
        'logger.syslog: "1" is neither yes nor no: it counts as no',
    ),
    "no size": (
        "logger.file.maxsize=16M\n",
        'logger.file.maxsize: "16M" is no number: it counts as not given',
    ),
    "no category": (
        "logger.category.velm_htp_server=info\n",
        'logger.category: unknown category "velm_htp_server": did you mean "velm_http_server"?',
    ),
    "no level of a category": (
        "logger.category.velm_ipc=all\n",
        'logger.category.velm_ipc: "all" is no level (trace, debug, info, warn, error): '
        "nothing is logged",
    ),
    "a control character": ("\x1b[2J=1\n", 'unknown key "?[2J"'),
    "no newline at the end": (
        "vendor.id=NORVALE",
        'no newline at the end: the last character "E" is left out',
    ),
}


@pytest.mark.parametrize("name", BAD_LINES)
def test_the_line_and_the_reason_are_named_of(name: str, cold_access_point: AccessPoint) -> None:
    text, reason = BAD_LINES[name]
    key = text.partition("=")[0]
    cold_access_point.configure({key: None} if key in cold_access_point.configuration else {})
    before = cold_access_point.configuration_file.read_text()
    file = cold_access_point.configuration_file
    file.write_text(before + text, encoding="utf-8", errors="surrogateescape")
    told = check(cold_access_point)
    assert told.status == 1
    assert f"FILE:{before.count(chr(10)) + 1}: {reason}" in told.lines
    assert GOOD not in told.lines


WARNED_LINES = {
    "a key that comes again": (
        "http.server.port=8443\nhttp.server.port=9443\n",
        lambda line: f"FILE:{line + 1}: warning: http.server.port is in line {line} too: "
        f"line {line + 1} counts",
    ),
    "a key of the logger that comes again": (
        "logger.lineandfile=no\nlogger.lineandfile=yes\n",
        lambda line: f"FILE:{line + 1}: warning: logger.lineandfile is in line {line} too: "
        f"line {line} counts",
    ),
    "a quote that is open": (
        'vendor.id="NORVALE\n',
        lambda line: f"FILE:{line}: warning: vendor.id: a quote is not closed",
    ),
    "another method": (
        "app.android.integrity.method=remot\n",
        lambda line: f'FILE:{line}: warning: app.android.integrity.method: "remot" is neither '
        "remote nor local: it counts as local",
    ),
    "no server": (
        "http.server.port=0\n",
        lambda line: f"FILE:{line}: warning: http.server.port: with 0 there is no HTTP server",
    ),
}


@pytest.mark.parametrize("name", WARNED_LINES)
def test_a_warning_leaves_the_configuration_good(
    name: str, cold_access_point: AccessPoint
) -> None:
    text, expected = WARNED_LINES[name]
    cold_access_point.configuration.pop("http.server.port")
    line = written(cold_access_point, text)
    assert check(cold_access_point) == Told(0, [expected(line), GOOD])


def test_every_bad_line_is_told_and_what_follows_it_is_looked_at(
    cold_access_point: AccessPoint,
) -> None:
    line = written(cold_access_point, "one\n\n# two\nthree\nvendor.ib=V # remark\n")
    assert check(cold_access_point) == Told(
        1,
        [
            f"FILE:{line}: no key=value pair: the whole file is left out",
            f"FILE:{line + 3}: no key=value pair: the whole file is left out",
            f'FILE:{line + 4}: unknown key "vendor.ib": did you mean "vendor.id"?',
        ],
    )


def test_a_file_that_is_too_long_is_told_where_it_is_cut(cold_access_point: AccessPoint) -> None:
    cold_access_point.configure({})
    text = cold_access_point.configuration_file.read_text()
    filled = text + "#\n" * ((4096 - len(text)) // 2)
    file = cold_access_point.configuration_file
    file.write_text(filled.ljust(4096, "\n"))
    assert check(cold_access_point) == Told(0, [GOOD])
    file.write_text(filled.ljust(4096, "\n") + "# more\n")
    told = check(cold_access_point)
    assert told.status == 1
    assert [line.partition(": ")[2] for line in told.lines] == [
        "the file is longer than 4096 bytes: nothing behind this line is read"
    ]


def test_a_nul_is_told(cold_access_point: AccessPoint) -> None:
    line = written(cold_access_point, "# a\0b\nvendor.id=V\n")
    told = check(cold_access_point)
    assert told == Told(1, [f"FILE:{line}: a NUL character: nothing behind it is read"])


# A file as a whole.


def test_a_configuration_that_cannot_be_read_is_told(cold_access_point: AccessPoint) -> None:
    directory = str(cold_access_point.directory)
    missing = run(cold_access_point, ["-c", f"{directory}/none.conf"])
    assert missing.status == 1
    assert "AT/none.conf: cannot be read: No such file or directory" in missing.lines
    told = run(cold_access_point, ["-c", directory])
    assert "AT: cannot be read: Is a directory" in told.lines
    os.mkfifo(f"{directory}/fifo")
    told = run(cold_access_point, ["-c", f"{directory}/fifo"])
    assert "AT/fifo: cannot be read: it is no regular file" in told.lines


def expired() -> Identity:
    key, day = p256(), datetime.timedelta(days=1)
    return issue(
        subject("expired"), key, None, not_before=now() - 3 * day, not_after=now() - day
    )


def not_yet_valid() -> Identity:
    key, day = p256(), datetime.timedelta(days=1)
    return issue(
        subject("not yet"), key, None, not_before=now() + day, not_after=now() + 3 * day
    )


def put(name: str, text: str | None) -> Callable[[AccessPoint], None]:
    """None: the file is missing."""

    def spoil(access_point: AccessPoint) -> None:
        file = access_point.directory / name
        file.unlink()
        if text is not None:
            file.write_text(text)

    return spoil


def put_pair(make: Callable[[], Identity]) -> Callable[[AccessPoint], None]:
    def spoil(access_point: AccessPoint) -> None:
        at = access_point.directory
        make().write(at / "server_cert.pem", at / "server_key.pem")

    return spoil


def put_other_key(access_point: AccessPoint) -> None:
    (access_point.directory / "server_key.pem").write_text(make_server(["192.168.1.1"]).key_pem)


def encrypt_key(access_point: AccessPoint) -> None:
    key = access_point.credentials.server.key
    pem = key.private_bytes(
        serialization.Encoding.PEM,
        serialization.PrivateFormat.PKCS8,
        serialization.BestAvailableEncryption(b"secret"),
    )
    (access_point.directory / "server_key.pem").write_bytes(pem)


BAD_FILES: dict[str, tuple[Callable[[AccessPoint], None], str]] = {
    "no certificate": (
        put("server_cert.pem", None),
        "AT/server_cert.pem: cannot be read: No such file or directory (http.server.cert.path)",
    ),
    "garbage for a certificate": (
        put("server_cert.pem", "garbage\n"),
        "AT/server_cert.pem: no certificate can be read: it has none in PEM "
        "(http.server.cert.path)",
    ),
    "garbage for a key": (
        put("server_key.pem", "garbage\n"),
        "AT/server_key.pem: no private key can be read: ",
    ),
    "an encrypted key": (
        encrypt_key,
        "AT/server_key.pem: no private key can be read: it is encrypted (http.server.key.path)",
    ),
    "a key of another certificate": (
        put_other_key,
        "AT/server_key.pem: the key is not that of the certificate AT/server_cert.pem "
        "(http.server.key.path)",
    ),
    "an expired certificate": (
        put_pair(expired),
        "AT/server_cert.pem: the certificate has expired on ",
    ),
    "a certificate of tomorrow": (
        put_pair(not_yet_valid),
        "AT/server_cert.pem: the certificate is not valid before ",
    ),
    "no authorities": (
        put("cloud_ca.pem", None),
        "AT/cloud_ca.pem: cannot be read: No such file or directory (http.client.ca_cert.path)",
    ),
    "garbage for authorities": (
        put("cloud_ca.pem", "garbage\n"),
        "AT/cloud_ca.pem: no certificate can be read: ",
    ),
    "a service account that is no JSON": (
        put("service_account.json", "{"),
        "AT/service_account.json: it is no JSON (cloudmessaging.firebase.privatekey.path)",
    ),
    "a service account without a project": (
        put("service_account.json", '{"client_email":"a","private_key":"b"}'),
        'AT/service_account.json: it has no "project_id" '
        "(cloudmessaging.firebase.privatekey.path)",
    ),
    "a service account whose key cannot sign": (
        put(
            "service_account.json",
            '{"project_id":"p","client_email":"a","private_key":"b"}',
        ),
        'AT/service_account.json: its "private_key" is no RSA key in PEM that can sign '
        "(app.android.integrity.privatekey.path)",
    ),
    "a decryption key of another size": (
        put("integrity_decryption.jwk", '{"kty":"oct","k":"AAAA"}'),
        "AT/integrity_decryption.jwk: it is no JWK of kind oct with 32 bytes "
        "(app.android.integrity.d.key.path)",
    ),
    "a verification key of another kind": (
        put("integrity_verification.jwk", '{"kty":"oct","k":"AAAA"}'),
        "AT/integrity_verification.jwk: it is no JWK of kind EC on the curve P-256 "
        "(app.android.integrity.v.key.path)",
    ),
    "garbage for the root": (
        put("attestation_root.pem", "garbage\n"),
        "AT/attestation_root.pem: no certificate can be read: it has none in PEM "
        "(app.ios.attest.root.ca.path)",
    ),
    "an empty root": (
        put("attestation_root.pem", ""),
        "AT/attestation_root.pem: it is empty (app.ios.attest.root.ca.path)",
    ),
}


@pytest.mark.parametrize("name", BAD_FILES)
def test_a_file_that_cannot_be_used_is_told(name: str, cold_access_point: AccessPoint) -> None:
    spoil, reason = BAD_FILES[name]
    cold_access_point.configure({})
    spoil(cold_access_point)
    told = check(cold_access_point)
    assert told.status == 1
    assert [line for line in told.lines if line.startswith(reason)], told.lines


def test_keys_that_nothing_uses_may_be_missing(cold_access_point: AccessPoint) -> None:
    cold_access_point.configure({"app.ios.attest.root.ca.path": ""})
    for name in ("integrity_decryption.jwk", "integrity_verification.jwk"):
        put(name, None)(cold_access_point)
    assert check(cold_access_point) == Told(0, [GOOD])
    cold_access_point.configure({"app.android.integrity.method": "local"})
    assert check(cold_access_point).status == 1


# Where the daemon writes.


def test_places_that_cannot_be_written_are_told(cold_access_point: AccessPoint) -> None:
    at = cold_access_point.directory
    (at / "file").write_text("")
    cold_access_point.configure(
        {
            "process.daemonize": "yes",
            "process.pidfile": f"{at}/none/velmd.pid",
            "location.policy.ipc.sock": f"{at}/file",
            "logger.file.name": str(at),
        }
    )
    assert check(cold_access_point) == Told(
        1,
        [
            "AT/none/velmd.pid: cannot be written: No such file or directory (process.pidfile)",
            "AT/file: it is no socket, and is left alone (location.policy.ipc.sock)",
            "AT: cannot be written: Is a directory (logger.file.name)",
        ],
    )


def test_a_log_file_without_a_name_is_told(cold_access_point: AccessPoint) -> None:
    cold_access_point.configure({"logger.file.name": None})
    (line,) = check(cold_access_point).lines
    assert line.endswith(": logger.file.name is not set: there is no file")


def test_relative_paths_of_a_daemon_that_detaches_are_warned_of(
    cold_access_point: AccessPoint,
) -> None:
    relative = str(cold_access_point.directory / "cloud_ca.pem").lstrip("/")
    cold_access_point.configure({"process.daemonize": "yes", "http.client.ca_cert.path": relative})
    told = check(cold_access_point)
    assert told.status == 0
    assert told.lines[0].endswith(
        ": warning: http.client.ca_cert.path: a relative path counts from /"
    )


# nvram, the platform, the command line.

BAD_NVRAM = {
    "zelkad_http_server_port": ("84x3", '"84x3" is no number from 1 to 65535: it is ignored'),
    "zelkad_pairing_maxnum": ("0", '"0" is no number from 1 to 65535: it is ignored'),
    "zelkad_http_server_cert": ("/" * 256, "256 characters, more than 255: it is ignored"),
    "ap_vendor": ("v" * 50, "50 characters, more than 49: it is ignored"),
    "zelkad_mode": ("off", '"off" is no number from 0 to 65535: it is ignored'),
    "zelkad_debug_level": (
        "loud",
        '"loud" is no level (trace, debug, info, warn, error): nothing is logged',
    ),
    "wl0.1_hwaddr": ("00:1a:2b", '"00:1a:2b" is no BSSID'),
    "lan0_ifname": ("br0; reboot", '"br0; reboot" is no name of an interface'),
}


@pytest.mark.parametrize("name", BAD_NVRAM)
def test_a_setting_in_nvram_that_does_not_fit_is_told(
    name: str, cold_access_point: AccessPoint
) -> None:
    value, reason = BAD_NVRAM[name]
    cold_access_point.configure({})
    cold_access_point.nvram_set({name: value})
    assert check(cold_access_point) == Told(1, [f"nvram {name}: {reason}"])


def test_a_daemon_that_nvram_switches_off_can_be_checked(cold_access_point: AccessPoint) -> None:
    cold_access_point.configure({})
    cold_access_point.nvram_set({"zelkad_mode": "0"})
    assert check(cold_access_point) == Told(
        0, ["nvram zelkad_mode: warning: with 0 the daemon does not start", GOOD]
    )


def test_an_access_point_without_radios_is_warned_of(cold_access_point: AccessPoint) -> None:
    cold_access_point.configure({})
    cold_access_point.nvram_set({"wl_radio_num": "0"})
    assert check(cold_access_point) == Told(
        0,
        ["nvram wl_radio_num: warning: no radio has a BSSID: every location is refused", GOOD],
    )


def test_options_that_do_not_fit_are_told(cold_access_point: AccessPoint) -> None:
    cold_access_point.configure({})
    told = check(
        cold_access_point,
        "-i", "192.168.1", "-n", "a name that is too long", "-s", "s" * 50, "-m", "00:01",
        "-b", "00:1a:2b:3c:4d:50,none",
    )  # fmt: skip
    assert told == Told(
        1,
        [
            'command line: -i: "192.168.1" is no IPv4 address',
            'command line: -n: "a name that is too long" is no name of an interface',
            "command line: -s: 50 characters: it is cut to 49",
            'command line: -m: "00:01" is no MAC address',
            'command line: -b: "none" is no BSSID',
            "command line: -b: warning: the BSSIDs of the platform always take its place",
        ],
    )


# What it leaves alone.


def files_of(directory: Path) -> dict[str, tuple[int, int]]:
    """Each file with its time and mode, and none of what the daemon itself writes on."""
    return {
        str(path): (path.stat().st_mtime_ns, path.stat().st_mode)
        for path in directory.rglob("*")
        if path.name not in ("velmd.log", "nvram")
    }


def test_it_runs_beside_the_daemon_and_leaves_everything_as_it_was(
    cold_access_point: AccessPoint,
) -> None:
    daemon = cold_access_point.start(daemonize=True)
    before, listeners = files_of(cold_access_point.directory), daemon.https_listener()
    mark = daemon.log_mark()
    assert check(cold_access_point) == Told(0, [GOOD])
    assert files_of(cold_access_point.directory) == before
    assert daemon.log(mark) == ""
    assert daemon.https_listener() == listeners
    assert cold_access_point.pid_file.read_text() == f"{daemon.pid}\n"
    assert cold_access_point.phone().info().status == 200


def test_it_takes_no_lock_and_writes_no_byte(cold_access_point: AccessPoint) -> None:
    """Somebody holds the pid file, and a byte written to any file would end the check."""
    cold_access_point.configure({"process.daemonize": "yes"})
    pid_file = cold_access_point.pid_file
    pid_file.write_text("1\n")
    limited = ("flock", "--nonblock", str(pid_file), "prlimit", "--fsize=0")
    assert check(cold_access_point, through=limited) == Told(0, [GOOD])
    assert pid_file.read_text() == "1\n"
    assert not (cold_access_point.directory / "velmd.log").exists()


def open_to_all(directory: Path) -> None:
    directory.chmod(0o777)
    for file in directory.rglob("*"):
        file.chmod(0o755 if file.is_dir() else 0o644)


def test_another_user_is_told_what_that_user_cannot_read(cold_access_point: AccessPoint) -> None:
    cold_access_point.configure({})
    at = cold_access_point.directory
    open_to_all(at)
    assert check(cold_access_point, through=AS_NOBODY) == Told(0, [GOOD])
    (at / "server_key.pem").chmod(0o600)
    told = check(cold_access_point, through=AS_NOBODY)
    assert told == Told(
        1, ["AT/server_key.pem: cannot be read: Permission denied (http.server.key.path)"]
    )


def test_the_shadow_database_must_be_readable(cold_access_point: AccessPoint) -> None:
    cold_access_point.configure({"accounts.shadow": "yes"})
    open_to_all(cold_access_point.directory)
    assert check(cold_access_point, through=AS_NOBODY) == Told(0, [GOOD])
    (cold_access_point.directory / "etc" / "shadow").chmod(0o600)
    told = check(cold_access_point, through=AS_NOBODY)
    (line,) = told.lines
    assert line.endswith(
        ": accounts.shadow: the shadow database cannot be read: Permission denied"
    )


def test_other_options_say_what_they_always_said(cold_access_point: AccessPoint) -> None:
    told = run(cold_access_point, ["-z"], stderr="invalid option -- 'z'\n")
    assert told.status == 1
    assert told.lines[:2] == ["unknown parameter: -?", ""]


def test_without_velmctl_it_says_what_it_needs(build: Build, tmp_path: Path) -> None:
    program = tmp_path / "velmd"
    shutil.copy(build.program("velmd"), program)
    done = subprocess.run(
        [str(program), "-t"],
        env={**os.environ, **build.environment(tmp_path)},
        capture_output=True,
        text=True,
        timeout=10,
    )
    assert done.returncode == 1
    assert done.stderr.endswith(
        f"velmd: -t needs velmctl, which is neither in {tmp_path}/ nor in {tmp_path}/../bin/\n"
    )
