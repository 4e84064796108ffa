"""Keys and X.509 certificates for the access point, the cloud and the phone's attestation."""

from __future__ import annotations

import datetime
import ipaddress
from collections.abc import Iterable
from dataclasses import dataclass
from pathlib import Path

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec, rsa
from cryptography.x509.oid import NameOID

PrivateKey = ec.EllipticCurvePrivateKey | rsa.RSAPrivateKey
Extension = tuple[x509.ExtensionType, bool]

DAY = datetime.timedelta(days=1)


def now() -> datetime.datetime:
    return datetime.datetime.utcnow().replace(microsecond=0)


def p256() -> ec.EllipticCurvePrivateKey:
    return ec.generate_private_key(ec.SECP256R1())


def p384() -> ec.EllipticCurvePrivateKey:
    return ec.generate_private_key(ec.SECP384R1())


@dataclass(frozen=True)
class Identity:
    """A certificate with its private key."""

    certificate: x509.Certificate
    key: PrivateKey

    @property
    def der(self) -> bytes:
        return self.certificate.public_bytes(serialization.Encoding.DER)

    @property
    def pem(self) -> str:
        return self.certificate.public_bytes(serialization.Encoding.PEM).decode()

    @property
    def key_pem(self) -> str:
        return private_key_pem(self.key)

    def write(self, certificate: Path, key: Path) -> None:
        certificate.write_text(self.pem)
        key.write_text(self.key_pem)
        key.chmod(0o600)


def private_key_pem(key: PrivateKey) -> str:
    return key.private_bytes(
        serialization.Encoding.PEM,
        serialization.PrivateFormat.PKCS8,
        serialization.NoEncryption(),
    ).decode()


def subject(common_name: str, organization: str = "Velm Test") -> x509.Name:
    return x509.Name(
        [
            x509.NameAttribute(NameOID.ORGANIZATION_NAME, organization),
            x509.NameAttribute(NameOID.COMMON_NAME, common_name),
        ]
    )


def issue(
    name: x509.Name,
    key: PrivateKey,
    issuer: Identity | None,
    *,
    extensions: Iterable[Extension] = (),
    not_before: datetime.datetime | None = None,
    not_after: datetime.datetime | None = None,
    digest: hashes.HashAlgorithm | None = None,
) -> Identity:
    """Signs a certificate for `key`; without an issuer it signs itself."""
    signer = issuer.key if issuer else key
    builder = (
        x509.CertificateBuilder()
        .subject_name(name)
        .issuer_name(issuer.certificate.subject if issuer else name)
        .public_key(key.public_key())
        .serial_number(x509.random_serial_number())
        .not_valid_before(not_before or now() - DAY)
        .not_valid_after(not_after or now() + 3650 * DAY)
    )
    for extension, critical in extensions:
        builder = builder.add_extension(extension, critical)
    return Identity(builder.sign(signer, digest or hashes.SHA256()), key)


def authority_extensions(key: PrivateKey, path_length: int | None = None) -> list[Extension]:
    return [
        (x509.BasicConstraints(ca=True, path_length=path_length), True),
        (x509.SubjectKeyIdentifier.from_public_key(key.public_key()), False),
        (key_usage(sign_certificates=True), True),
    ]


def key_usage(*, sign_certificates: bool = False, encipher: bool = False) -> x509.KeyUsage:
    return x509.KeyUsage(
        digital_signature=not sign_certificates,
        content_commitment=encipher,
        key_encipherment=encipher,
        data_encipherment=encipher,
        key_agreement=False,
        key_cert_sign=sign_certificates,
        crl_sign=sign_certificates,
        encipher_only=False,
        decipher_only=False,
    )


def make_authority(common_name: str, key: PrivateKey | None = None) -> Identity:
    """A self-signed root."""
    root_key = key or p256()
    return issue(subject(common_name), root_key, None, extensions=authority_extensions(root_key))


def make_server(
    hosts: Iterable[str],
    issuer: Identity | None = None,
    *,
    not_before: datetime.datetime | None = None,
    not_after: datetime.datetime | None = None,
) -> Identity:
    """A TLS server certificate (ECDSA P-256) for names and IPv4 addresses."""
    names = list(hosts)
    alternatives = x509.SubjectAlternativeName([_general_name(host) for host in names])
    return issue(
        subject(names[0]),
        p256(),
        issuer,
        extensions=[
            (alternatives, False),
            (x509.BasicConstraints(ca=False, path_length=None), True),
        ],
        not_before=not_before,
        not_after=not_after,
    )


def _general_name(host: str) -> x509.GeneralName:
    try:
        return x509.IPAddress(ipaddress.ip_address(host))
    except ValueError:
        return x509.DNSName(host)
