"""Do the strict TLS policies offer and take what they say, and nothing else?"""

from __future__ import annotations

import ssl
import struct
from collections.abc import Iterator

import pytest
from velm_sim.certificates import make_server
from velm_sim.tls_policy import DEFAULT, POLICIES, TlsPolicy

# Numbers of the TLS registries.
SUITES_OF_TLS_1_2 = {0xC02B, 0xC02C, 0xC02F, 0xC030}  # ECDHE, AES-GCM
SUITES_OF_TLS_1_3 = {0x1301, 0x1302}  # AES-GCM
RENEGOTIATION_SIGNAL = 0x00FF  # stands among the suites, is none
P256_AND_P384 = {23, 24}
ECDSA_AND_PSS = {0x0403, 0x0503, 0x0603, 0x0804, 0x0805, 0x0806}
SUPPORTED_GROUPS, SIGNATURE_ALGORITHMS, SUPPORTED_VERSIONS = 10, 13, 43


def client_context(policy: TlsPolicy) -> ssl.SSLContext:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    policy.apply(context)
    return context


def shorts(data: bytes) -> set[int]:
    return set(struct.unpack(f"!{len(data) // 2}H", data))


class Greeting:
    """What a client offers, read from the first record that it sends."""

    def __init__(self, policy: TlsPolicy) -> None:
        outgoing = ssl.MemoryBIO()
        client = client_context(policy).wrap_bio(ssl.MemoryBIO(), outgoing)
        with pytest.raises(ssl.SSLWantReadError):
            client.do_handshake()
        self._left = outgoing.read()
        self._take(5 + 4 + 2 + 32)  # record, message, version, random
        self._take_sized(1)  # session
        self.suites = shorts(self._take_sized(2)) - {RENEGOTIATION_SIGNAL}
        self._take_sized(1)  # compression
        self._left = self._take_sized(2)
        self.extensions = dict(self._extensions())

    def _take(self, count: int) -> bytes:
        taken, self._left = self._left[:count], self._left[count:]
        return taken

    def _take_sized(self, width: int) -> bytes:
        return self._take(int.from_bytes(self._take(width), "big"))

    def _extensions(self) -> Iterator[tuple[int, bytes]]:
        while self._left:
            yield int.from_bytes(self._take(2), "big"), self._take_sized(2)

    def listed(self, extension: int) -> set[int]:
        return shorts(self.extensions[extension][2:])


def test_tls_1_2_alone_is_offered() -> None:
    greeting = Greeting(POLICIES["1.2"])
    assert greeting.suites == SUITES_OF_TLS_1_2
    assert SUPPORTED_VERSIONS not in greeting.extensions


def test_tls_1_3_alone_is_offered() -> None:
    greeting = Greeting(POLICIES["1.3"])
    assert greeting.suites == SUITES_OF_TLS_1_3
    assert greeting.extensions[SUPPORTED_VERSIONS] == b"\x02\x03\x04"


@pytest.mark.parametrize("name", ["1.2", "1.3"])
def test_a_strict_policy_offers_its_curves_and_signatures_only(name: str) -> None:
    greeting = Greeting(POLICIES[name])
    assert greeting.listed(SUPPORTED_GROUPS) == P256_AND_P384
    assert greeting.listed(SIGNATURE_ALGORITHMS) == ECDSA_AND_PSS


def test_the_default_offers_more() -> None:
    greeting = Greeting(DEFAULT)
    assert greeting.suites > SUITES_OF_TLS_1_2 | SUITES_OF_TLS_1_3
    assert greeting.listed(SUPPORTED_GROUPS) > P256_AND_P384
    assert greeting.listed(SIGNATURE_ALGORITHMS) > ECDSA_AND_PSS


def shake_hands(client: ssl.SSLContext, server: ssl.SSLContext) -> tuple[str | None, str]:
    to_server, to_client = ssl.MemoryBIO(), ssl.MemoryBIO()
    asking = client.wrap_bio(to_client, to_server)
    answering = server.wrap_bio(to_server, to_client, server_side=True)
    left = [asking, answering]
    for _ in range(6):
        for side in list(left):
            try:
                side.do_handshake()
                left.remove(side)
            except ssl.SSLWantReadError:
                pass
    assert not left
    cipher = asking.cipher()
    return asking.version(), cipher[0] if cipher else ""


@pytest.fixture(scope="module")
def certificate(tmp_path_factory: pytest.TempPathFactory) -> str:
    identity = make_server(["192.168.1.1"])
    path = tmp_path_factory.mktemp("tls") / "both.pem"
    path.write_text(identity.key_pem + identity.pem)
    return str(path)


@pytest.fixture
def server(certificate: str) -> ssl.SSLContext:
    made = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    made.load_cert_chain(certificate)
    return made


@pytest.mark.parametrize("name", ["1.2", "1.3"])
def test_what_comes_of_a_strict_policy_is_what_it_allows(name: str, server: ssl.SSLContext) -> None:
    version, cipher = shake_hands(client_context(POLICIES[name]), server)
    assert version == f"TLSv{name}"
    assert [other for other in ("1.2", "1.3") if POLICIES[other].allows((version, cipher))] == [name]


@pytest.mark.parametrize(("client", "other"), [("1.2", "1.3"), ("1.3", "1.2")])
def test_strict_policies_of_different_versions_do_not_meet(
    client: str, other: str, server: ssl.SSLContext
) -> None:
    POLICIES[other].apply(server)
    with pytest.raises(ssl.SSLError):
        shake_hands(client_context(POLICIES[client]), server)


REFUSED = {
    "another cipher": lambda server: server.set_ciphers("ECDHE+CHACHA20"),
    "another curve": lambda server: server.set_ecdh_curve("secp521r1"),
}


@pytest.mark.parametrize("name", REFUSED)
def test_a_strict_client_refuses(name: str, server: ssl.SSLContext) -> None:
    server.maximum_version = ssl.TLSVersion.TLSv1_2
    REFUSED[name](server)
    shake_hands(client_context(DEFAULT), server)
    with pytest.raises(ssl.SSLError):
        shake_hands(client_context(POLICIES["1.2"]), server)
