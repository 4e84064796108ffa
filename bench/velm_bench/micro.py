"""The daemon's own steps, in process, beside the bare work of the libraries."""

from __future__ import annotations

import json
import re
import subprocess
import time
from collections.abc import Iterator
from pathlib import Path
from typing import Any

from cryptography.hazmat.primitives import serialization
from jwcrypto import jwe, jwk, jws
from velm_sim.access_point import APP_ID
from velm_sim.app_attest import (
    AttestationAuthority,
    AttestKey,
    make_assertion,
    make_attestation,
    sha256,
)

from .figures import Figure, Target, ratio_at_most

PACKAGE = "com.norvale.afc"
TRIES = 5  # in turn: whatever else the machine does makes one only slower
# Of pairs that velm-micro names NAME/velmd and NAME/bare.
RATIOS = {"attest": 1.10, "assert": 1.02, "integrity": 1.05}


class MissingProgram(RuntimeError):
    """A benchmark program was not built."""


def required(programs: Path, name: str) -> str:
    path = programs / name
    if not path.exists():
        raise MissingProgram(f"{name} is not built")
    return str(path)


# velm-micro.


def micro(programs: Path, seconds: float) -> list[Figure]:
    command = [
        required(programs, "velm-micro"), "--benchmark_format=json",
        f"--benchmark_min_time={seconds}", f"--benchmark_repetitions={TRIES}",
        "--benchmark_enable_random_interleaving=true",
    ]  # fmt: skip
    done = subprocess.run(command, capture_output=True, text=True, timeout=180, check=True)
    return micro_figures(json.loads(done.stdout))


def micro_figures(said: dict[str, Any]) -> list[Figure]:
    """The best try of each. Pairs side by side, every other benchmark alone."""
    to_us = {"ns": 1e-3, "us": 1.0, "ms": 1e3, "s": 1e6}
    times: dict[str, float] = {}
    for one in said["benchmarks"]:
        if one.get("run_type", "iteration") == "iteration":
            time_us = one["cpu_time"] * to_us[one["time_unit"]]
            times[one["name"]] = min(time_us, times.get(one["name"], time_us))
    return list(_paired(times))


def _paired(times: dict[str, float]) -> Iterator[Figure]:
    for name, time_us in times.items():
        subject, _, role = name.rpartition("/")
        if role == "bare" and f"{subject}/velmd" in times:
            continue
        bare = times.get(f"{subject}/bare") if role == "velmd" else None
        target = ratio_at_most(RATIOS[subject]) if bare and subject in RATIOS else None
        what = subject if bare else name
        yield Figure(
            f"in process: {what}", "us CPU", time_us, "bare work" if bare else "", bare, target
        )


# velm-bench and openssl speed.


def verify_us(curve: str, seconds: float) -> float:
    """One bare signature check, by `openssl speed`."""
    whole = max(round(seconds), 1)
    done = subprocess.run(
        ["openssl", "speed", "-mr", "-seconds", str(whole), curve],
        capture_output=True, text=True, timeout=60, check=True,
    )  # fmt: skip
    return speed_verify_us(done.stdout)


def speed_verify_us(said: str) -> float:
    """Of its machine-readable lines "+F4:index:bits:signatures a second:verifications a second"."""
    found = re.search(r"^\+F4:\d+:\d+:[\d.]+:([\d.]+)$", said, re.M)
    if not found:
        raise RuntimeError(f"openssl speed said nothing of verifying: {said}")
    return 1e6 / float(found.group(1))


def make_objects(directory: Path) -> Path:
    """What velm-bench verifies, made as phones make it."""
    directory.mkdir(parents=True, exist_ok=True)
    authority, key = AttestationAuthority(), AttestKey.generate()
    attested, asserted = sha256(b"a pairing"), sha256(b"a location")
    public = key.private.public_key()
    files = {
        "attestation.cbor": make_attestation(authority, key, APP_ID, attested),
        "cdh.bin": attested,
        "root.pem": authority.root.pem.encode(),
        "appid.txt": APP_ID.encode(),
        "assertion.cbor": make_assertion(key, APP_ID, asserted, counter=1),
        "body_sha256.bin": asserted,
        "pubkey.der": public.public_bytes(
            serialization.Encoding.DER, serialization.PublicFormat.SubjectPublicKeyInfo
        ),
        **integrity_objects(asserted),
    }
    for name, content in files.items():
        (directory / name).write_bytes(content)
    return directory


def integrity_objects(digest: bytes) -> dict[str, bytes]:
    """A token around a verdict that is good, and the two keys."""
    decryption = jwk.JWK.generate(kty="oct", size=256, alg="A256KW", use="enc")
    verification = jwk.JWK.generate(kty="EC", crv="P-256", alg="ES256", use="sig")
    verdict = {
        "requestDetails": {
            "requestPackageName": PACKAGE,
            # With a hash instead of a nonce it is good for an hour.
            "requestHash": jwk.base64url_encode(digest),
            "timestampMillis": str(int(time.time() * 1000)),
        },
        "appIntegrity": {"appRecognitionVerdict": "PLAY_RECOGNIZED", "packageName": PACKAGE},
        "deviceIntegrity": {
            "deviceRecognitionVerdict": [
                "MEETS_BASIC_INTEGRITY", "MEETS_DEVICE_INTEGRITY", "MEETS_STRONG_INTEGRITY",
            ]
        },
        "accountDetails": {"appLicensingVerdict": "LICENSED"},
    }  # fmt: skip
    signed = jws.JWS(json.dumps(verdict))
    signed.add_signature(verification, alg="ES256", protected='{"alg":"ES256"}')
    sealed = jwe.JWE(
        signed.serialize(compact=True), protected='{"alg":"A256KW","enc":"A256GCM"}',
        recipient=decryption,
    )  # fmt: skip
    return {
        "token.jwe": sealed.serialize(compact=True).encode(),
        "dec.jwk": decryption.export().encode(),
        "ver.jwk": verification.export_public().encode(),
    }


def operation_us(programs: Path, kind: str, objects: Path, times: int) -> float:
    command = [required(programs, "velm-bench"), kind, str(objects), str(times)]
    done = subprocess.run(command, capture_output=True, text=True, timeout=60)
    found = re.search(r"^us_per_op\s+([\d.]+)\s+([\d.]+)", done.stdout, re.M)
    if done.returncode != 0 or not found:
        raise RuntimeError(f"velm-bench {kind}: {done.stdout} {done.stderr}")
    return float(found.group(2))


def verifications(programs: Path, scratch: Path, seconds: float) -> list[Figure]:
    objects = make_objects(scratch / "objects")
    times = max(round(seconds * 1000), 20)
    bare_us: dict[str, list[float]] = {"ecdsap384": [], "ecdsap256": []}
    own_us: dict[str, list[float]] = {"attest": [], "assert": [], "integrity": []}
    for _ in range(TRIES):
        for curve, tries in bare_us.items():
            tries.append(verify_us(curve, seconds))
        for kind, tries in own_us.items():
            tries.append(operation_us(programs, kind, objects, times))
    p384, p256 = min(bare_us["ecdsap384"]), min(bare_us["ecdsap256"])
    rows: tuple[tuple[str, str, str, float, Target | None], ...] = (
        ("attest", "attestation", "2 openssl ecdsap384", 2 * p384, ratio_at_most(1.25)),
        ("assert", "assertion", "openssl ecdsap256", p256, ratio_at_most(1.10)),
        ("integrity", "integrity token and verdict", "openssl ecdsap256", p256, None),
    )
    return [
        Figure(what, "us CPU", min(own_us[kind]), peer, bare, target)
        for kind, what, peer, bare, target in rows
    ]
