"""velm-bench judges as the daemon does, and velm-load counts rightly."""

from __future__ import annotations

import base64
import contextlib
import datetime
import json
import os
import re
import socket
import subprocess
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest
from jwcrypto import jwe, jwk, jws
from velm_sim.app_attest import (
    AttestationAuthority,
    AttestKey,
    make_assertion,
    make_attestation,
    sha256,
)
from velm_sim.build import faketime_library
from velm_sim.certificates import DAY, now

APP_ID = "TEAM123456.org.example.app"
PACKAGE = "org.example.app"
ATTESTED, ASSERTED = sha256(b"a pairing"), sha256(b"a location")
ALL_LABELS = ["MEETS_BASIC_INTEGRITY", "MEETS_DEVICE_INTEGRITY", "MEETS_STRONG_INTEGRITY"]
KINDS = ("attest", "assert", "integrity")


@pytest.fixture(scope="session")
def programs(pytestconfig: pytest.Config) -> Path:
    found = Path(pytestconfig.getoption("--build")).absolute() / "bin"
    for name in ("velm-bench", "velm-load"):
        if not (found / name).exists():
            pytest.exit(f"{found / name} is not built", returncode=2)
    return found


# velm-bench.


def make_verdict(**changes: Any) -> dict[str, Any]:
    made: dict[str, Any] = {
        "requestDetails": {
            "requestPackageName": PACKAGE,
            "nonce": base64.urlsafe_b64encode(ASSERTED).rstrip(b"=").decode(),
            "timestampMillis": "1750000000123",
        },
        "appIntegrity": {"appRecognitionVerdict": "PLAY_RECOGNIZED"},
        "deviceIntegrity": {"deviceRecognitionVerdict": ALL_LABELS},
    }
    made["requestDetails"].update(changes.pop("requestDetails", {}))
    return {**made, **changes}


def token_files(
    verdict: dict[str, Any], *, signer: jwk.JWK | None = None, opener: jwk.JWK | None = None
) -> dict[str, bytes]:
    """A token and the keys for it; `signer` and `opener` are used in place of the right ones."""
    decryption = jwk.JWK.generate(kty="oct", size=256)
    verification = jwk.JWK.generate(kty="EC", crv="P-256")
    signed = jws.JWS(json.dumps(verdict))
    signed.add_signature(signer or verification, alg="ES256", protected='{"alg":"ES256"}')
    sealed = jwe.JWE(
        signed.serialize(compact=True), protected='{"alg":"A256KW","enc":"A256GCM"}',
        recipient=opener or decryption,
    )  # fmt: skip
    return {
        "token.jwe": sealed.serialize(compact=True).encode(),
        "dec.jwk": decryption.export().encode(),
        "ver.jwk": verification.export_public().encode(),
    }


class Objects:
    """What a phone made, in a directory, and its maker."""

    def __init__(self, directory: Path) -> None:
        self.directory = directory
        self.authority, self.key = AttestationAuthority(), AttestKey.generate()
        self.write(
            {
                "attestation.cbor": self.attestation(),
                "cdh.bin": ATTESTED,
                "root.pem": self.authority.root.pem.encode(),
                "appid.txt": APP_ID.encode() + b"\n",
                "assertion.cbor": make_assertion(self.key, APP_ID, ASSERTED),
                "body_sha256.bin": ASSERTED,
                "pubkey.der": self.key.public_der,
                **token_files(make_verdict()),
            }
        )

    def attestation(self, **changes: Any) -> bytes:
        return make_attestation(self.authority, self.key, APP_ID, ATTESTED, **changes)

    def write(self, files: dict[str, bytes]) -> None:
        for name, content in files.items():
            (self.directory / name).write_bytes(content)

    def flip(self, name: str, offset: int) -> None:
        """A token stays base64url."""
        content = bytearray((self.directory / name).read_bytes())
        if name.endswith(".jwe"):
            content[offset] = ord("A") if content[offset] != ord("A") else ord("B")
        else:
            content[offset] ^= 1
        (self.directory / name).write_bytes(content)


@pytest.fixture
def objects(tmp_path: Path) -> Objects:
    return Objects(tmp_path)


Bench = Callable[..., "subprocess.CompletedProcess[str]"]


@pytest.fixture
def bench(programs: Path, objects: Objects) -> Bench:
    def run(kind: str, count: str = "3", *before: str) -> subprocess.CompletedProcess[str]:
        return subprocess.run(
            [*before, str(programs / "velm-bench"), kind, str(objects.directory), count],
            capture_output=True, text=True, timeout=60,
            # faketime's library comes before the sanitizer's, if there is one.
            env={**os.environ, "ASAN_OPTIONS": "verify_asan_link_order=0"},
        )  # fmt: skip

    return run


def refusal(done: subprocess.CompletedProcess[str]) -> str:
    assert done.returncode == 1
    assert done.stdout == ""
    return done.stderr


@pytest.mark.parametrize("kind", KINDS)
def test_prints_the_time_of_an_operation_and_nothing_else(bench: Bench, kind: str) -> None:
    done = bench(kind, "20")
    assert (done.returncode, done.stderr) == (0, "")
    found = re.fullmatch(r"us_per_op (\d+\.\d+) (\d+\.\d+)\n", done.stdout)
    assert found
    wall, cpu = map(float, found.groups())
    # At least one signature check, and neither an unchecked object nor a sum over all of them.
    assert 5 < cpu < 1_000_000
    assert cpu < wall * 1.1 + 50


TAMPERED = {
    "another-challenge": ("attest", "cdh.bin", 0, "OID mismatch"),
    "auth-data": ("attest", "attestation.cbor", -1, "OID mismatch"),
    "another-app": ("attest", "appid.txt", 0, "AppId mismatch"),
    "assertion-of-another-body": ("assert", "body_sha256.bin", 31, "Verify unsuccessful"),
    "assertion-of-another-app": ("assert", "appid.txt", 0, "AppId mismatch"),
    "point-off-the-curve": ("assert", "pubkey.der", -1, "Cannot load pub key"),
    "token-ciphertext": ("integrity", "token.jwe", -40, "cjose_jwe_decrypt failed"),
}


@pytest.mark.parametrize("case", TAMPERED)
def test_refuses_what_was_tampered_with(bench: Bench, objects: Objects, case: str) -> None:
    kind, name, offset, reason = TAMPERED[case]
    assert bench(kind).returncode == 0
    objects.flip(name, offset)
    assert reason in refusal(bench(kind))


def test_refuses_a_chain_to_another_root(bench: Bench, objects: Objects) -> None:
    objects.write({"root.pem": AttestationAuthority().root.pem.encode()})
    assert "Invalid ca chain" in refusal(bench("attest"))


def test_refuses_an_assertion_by_another_key(bench: Bench, objects: Objects) -> None:
    objects.write({"pubkey.der": AttestKey.generate().public_der})
    assert "Verify unsuccessful" in refusal(bench("assert"))


def test_refuses_a_token_signed_by_another_key(bench: Bench, objects: Objects) -> None:
    objects.write(token_files(make_verdict(), signer=jwk.JWK.generate(kty="EC", crv="P-256")))
    assert "cjose_jws_verify failed" in refusal(bench("integrity"))


def test_refuses_a_token_for_another_key(bench: Bench, objects: Objects) -> None:
    objects.write(token_files(make_verdict(), opener=jwk.JWK.generate(kty="oct", size=256)))
    assert "cjose_jwe_decrypt failed" in refusal(bench("integrity"))


BAD_VERDICTS: dict[str, tuple[dict[str, Any], str]] = {
    "device": (
        {"deviceIntegrity": {"deviceRecognitionVerdict": ALL_LABELS[:2]}},
        "basic=true device=true strong=false",
    ),
    "app": ({"appIntegrity": {"appRecognitionVerdict": "UNKNOWN"}}, "appRecognitionVerdict is"),
    "no-time": ({"requestDetails": {"timestampMillis": "soon"}}, "names no package, nonce or time"),
    "no-nonce": ({"requestDetails": {"nonce": ""}}, "names no package, nonce or time"),
}


@pytest.mark.parametrize("case", BAD_VERDICTS)
def test_refuses_a_bad_verdict(bench: Bench, objects: Objects, case: str) -> None:
    changes, reason = BAD_VERDICTS[case]
    objects.write(token_files(make_verdict(**changes)))
    assert reason in refusal(bench("integrity"))


def test_takes_a_request_hash_for_the_nonce(bench: Bench, objects: Objects) -> None:
    text = base64.urlsafe_b64encode(ASSERTED).rstrip(b"=").decode()
    objects.write(
        token_files(make_verdict(requestDetails={"nonce": "", "requestHash": text}))
    )
    assert bench("integrity").returncode == 0


def test_says_that_an_attestation_has_expired(
    bench: Bench, objects: Objects
) -> None:
    moment = now() - 100 * DAY
    objects.write(
        {"attestation.cbor": objects.attestation(not_before=moment - DAY, not_after=moment + DAY)}
    )
    assert "a certificate is not valid at this time" in refusal(bench("attest"))
    assert "certificate has expired" in bench("attest").stderr


def test_frozen_clock_of_faketime_does_not_reach_the_measurement(
    bench: Bench, objects: Objects
) -> None:
    tomorrow = (now() + DAY).strftime("%Y-%m-%d %H:%M:%S")
    objects.write(
        {
            "attestation.cbor": objects.attestation(
                not_before=now() + DAY - datetime.timedelta(hours=1), not_after=now() + 2 * DAY
            )
        }
    )
    assert "a certificate is not valid at this time" in refusal(bench("attest"))
    # Not by the command faketime: it ends when another process of this number left its semaphore.
    done = bench("attest", "20", "env", f"LD_PRELOAD={faketime_library()}", f"FAKETIME={tomorrow}")
    assert done.returncode == 0
    wall, cpu = map(float, done.stdout.split()[1:])
    assert wall > 5 and cpu > 5


@pytest.mark.parametrize("count", ("0", "-1", "x", "1x", ""))
def test_refuses_a_number_that_is_none(bench: Bench, count: str) -> None:
    assert "usage" in refusal(bench("assert", count))


def test_names_the_file_that_is_missing(bench: Bench, objects: Objects) -> None:
    (objects.directory / "pubkey.der").unlink()
    assert "pubkey.der" in refusal(bench("assert"))


# velm-load.


@contextlib.contextmanager
def peer(programs: Path, *arguments: str) -> Iterator[tuple[str, int]]:
    """A running peer: where it listens, and its process."""
    command = [str(programs / "velm-load"), *arguments, "--seconds", "20"]
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as process:
        try:
            assert process.stdout
            yield json.loads(process.stdout.readline())["listening"], process.pid
        finally:
            process.terminate()


def load(programs: Path, *arguments: str) -> dict[str, Any]:
    done = subprocess.run(
        [str(programs / "velm-load"), *arguments], capture_output=True, text=True, timeout=60
    )
    assert (done.returncode, done.stderr) == (0, "")
    said: dict[str, Any] = json.loads(done.stdout)
    return said


def test_ssdp_load_counts_every_reply(programs: Path, tmp_path: Path) -> None:
    with peer(programs, "ssdp-peer", "--address", "127.0.0.1:0") as (address, pid):
        reply = tmp_path / "reply"
        said = load(
            programs, "ssdp", "--address", address, "--count", "5000", "--pid", str(pid),
            "--reply", str(reply),
        )  # fmt: skip
    assert (said["sent"], said["answered"], said["lost"], said["wrong"]) == (5000, 5000, 0, 0)
    assert said["rate"] == pytest.approx(5000 / said["seconds"], rel=0.05)
    assert 0 < said["cpu_us"] < 1000
    assert reply.read_bytes().startswith(b"HTTP/1.1 200 OK\r\n")


def test_ssdp_load_counts_what_is_lost_and_what_is_no_reply(
    programs: Path, tmp_path: Path
) -> None:
    nonsense = tmp_path / "reply"
    nonsense.write_text("HTTP/1.1 404 Not Found\r\n\r\n")
    with peer(programs, "ssdp-peer", "--address", "127.0.0.1:0", "--reply", str(nonsense)) as (
        address, _,
    ):  # fmt: skip
        said = load(programs, "ssdp", "--address", address, "--count", "40")
    assert (said["sent"], said["answered"], said["lost"], said["wrong"]) == (40, 0, 40, 40)


def test_ssdp_load_keeps_no_more_outstanding_than_told(programs: Path) -> None:
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent:
        silent.bind(("127.0.0.1", 0))
        silent.settimeout(10)
        address = f"127.0.0.1:{silent.getsockname()[1]}"
        command = [str(programs / "velm-load"), "ssdp", "--address", address, "--seconds", "1"]
        with subprocess.Popen(command, stdout=subprocess.DEVNULL) as process:
            seen = [silent.recv(2048)]
            # Shorter than it takes to give those up that were never answered.
            silent.settimeout(0.2)
            with contextlib.suppress(TimeoutError):
                while True:
                    seen.append(silent.recv(2048))
            assert process.wait(10) == 0
    assert len(seen) == 32
    assert set(seen) == {seen[0]} and seen[0].startswith(b"M-SEARCH * HTTP/1.1\r\n")


def test_ipc_load_makes_round_trips(programs: Path, tmp_path: Path) -> None:
    with peer(programs, "ipc-peer", "--socket", str(tmp_path / "socket")) as (path, pid):
        said = load(programs, "ipc", "--socket", path, "--count", "2000", "--pid", str(pid))
    assert (said["sent"], said["answered"], said["wrong"]) == (2000, 2000, 0)
    assert 0 < said["p50_us"] <= said["p99_us"]
    assert 0 < said["cpu_us"] < 1000


def test_ipc_load_takes_another_status_for_no_answer(programs: Path, tmp_path: Path) -> None:
    path = str(tmp_path / "socket")
    with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as listener:
        listener.bind(path)
        listener.listen(1)
        command = [str(programs / "velm-load"), "ipc", "--socket", path, "--count", "3"]
        with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as process:
            client, _ = listener.accept()
            with client:
                for status in (3, 1, 3):
                    request = client.recv(4096)
                    assert len(request) == 156
                    header = request[:2] + (224).to_bytes(2, "little") + request[4:12]
                    client.send(header + status.to_bytes(4, "little") + bytes(224))
            assert process.stdout
            said = json.loads(process.stdout.read())
    assert (said["sent"], said["answered"], said["wrong"]) == (3, 2, 1)


@pytest.mark.parametrize("kind", ("ssdp-peer", "ipc-peer"))
def test_a_peer_ends_by_itself(programs: Path, tmp_path: Path, kind: str) -> None:
    done = subprocess.run(
        [str(programs / "velm-load"), kind, "--address", "127.0.0.1:0",
         "--socket", str(tmp_path / "socket"), "--seconds", "1"],
        capture_output=True, text=True, timeout=10,
    )  # fmt: skip
    assert done.returncode == 0
    assert json.loads(done.stdout.splitlines()[1])["answered"] == 0


@pytest.mark.parametrize(
    "arguments", (["ipc", "--socket", "/nonexistent/socket"], ["ssdp", "--address", "nowhere"])
)
def test_a_load_without_a_server_fails(programs: Path, arguments: list[str]) -> None:
    done = subprocess.run(
        [str(programs / "velm-load"), *arguments], capture_output=True, text=True, timeout=10
    )
    assert done.returncode == 1
    assert done.stdout == ""
    assert "velm-load: cannot" in done.stderr or "velm-load: nowhere" in done.stderr
