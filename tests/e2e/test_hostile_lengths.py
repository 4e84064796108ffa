"""No length that somebody claims is asked of the allocator: a few bytes would exhaust the memory.

A preloaded allocator notes the largest request; what is served as it should be stays far below it.
"""

from __future__ import annotations

import base64
import contextlib
import dataclasses
import struct
from collections.abc import Callable, Iterator

import pytest
from velm_harness.allocation_fault import AllocationFault
from velm_harness.everybody import CUT_OFF, use_everything
from velm_sim.access_point import AccessPoint
from velm_sim.answers import Answer
from velm_sim.build import Build
from velm_sim.cloud import Cloud
from velm_sim.daemon import wait_until
from velm_sim.ipc_client import HEADER, REQUEST, IpcClient
from velm_sim.namespaces import Network
from velm_sim.phone import Phone
from velm_sim.play_integrity import base64url
from velm_sim.ssdp import GROUP, LARGEST_DATAGRAM, PORT, Searcher

LARGEST = 128 * 1024
# Just beyond each width of a number, and what turns negative or to nothing in one.
COUNTS = (1 << 24, 0x7FFFFFFF, 1 << 31, 0xFFFFFFFF, 1 << 40, (1 << 63) - 1, 1 << 63, (1 << 64) - 1)


@dataclasses.dataclass
class Target:
    """An access point whose daemon's requests for memory are watched."""

    access_point: AccessPoint
    cloud: Cloud
    phone: Phone
    ipc: IpcClient


@pytest.fixture
def target(
    build: Build, cold_access_point: AccessPoint, cloud: Cloud
) -> Iterator[tuple[Target, AllocationFault]]:
    if build.is_asan:
        pytest.skip("an instrumented daemon has an allocator of its own; the fuzzers use that")
    fault = AllocationFault(cold_access_point.directory / "fault")
    daemon = cold_access_point.prepare(
        environment=fault.environment, preload=[fault.library(build)]
    )
    daemon.start()
    daemon.wait_until_serving()
    use_everything(cold_access_point, cold_access_point.phone(1))
    phone = cold_access_point.phone()
    phone.host.timeout = 3
    assert phone.pair().status == 200
    with IpcClient(cold_access_point.socket_path) as ipc:
        yield Target(cold_access_point, cloud, phone, ipc), fault


def der(tag: int, length: int) -> bytes:
    """The head of an ASN.1 object."""
    digits = length.to_bytes(max(1, (length.bit_length() + 7) // 8), "big")
    return bytes([tag, 0x80 | len(digits)]) + digits


def cbor_heads() -> Iterator[bytes]:
    """Texts, byte strings, arrays and maps of that length."""
    for major in (2, 3, 4, 5):
        for count in COUNTS:
            yield bytes([major << 5 | 27]) + struct.pack(">Q", count)


def requests(target: Target, raw: list[bytes]) -> None:
    for data in raw:
        with contextlib.suppress(*CUT_OFF):
            target.phone.host.exchange(data, half_close=True)


def heads(target: Target) -> None:
    post = b"POST /challenge HTTP/1.1\r\nHost: a\r\n"
    requests(target, [post + b"Content-Length: %d\r\n\r\nx" % count for count in COUNTS])
    requests(target, [post + b"Transfer-Encoding: chunked\r\n\r\n%x\r\nx" % n for n in COUNTS])


def bodies(target: Target) -> None:
    plain = target.phone.prepare("/challenge")
    nested, text = (b"[" * 8000, b'{"auth":' * 900), b'"' + b"\\u0000" * 1300
    for body in (*nested, text, b"1e999999999", b"-" * 8000):
        assert target.phone.send(plain.with_body(body)).status == 400


def headers(target: Target, name: str, path: str, values: list[bytes]) -> None:
    """Each with a body, a login and a challenge that are right."""
    phone = target.phone
    for value in values:
        make = phone.prepare_pair if path == "/pair" else phone.prepare_location
        request = make().with_headers(**{name: base64.b64encode(value).decode()})
        assert phone.send(request).status in (400, 412)


def attestations(target: Target) -> None:
    inside = [b"\xa3\x63fmt" + head for head in cbor_heads()]
    inside += [b"\xa1\x67attStmt\xa1\x63x5c\x82" + head for head in cbor_heads()]
    headers(target, "X_Attestation", "/pair", [*cbor_heads(), *inside])


def certificates(target: Target) -> None:
    phone = target.phone
    links = target.access_point.credentials.attestation.intermediate.der
    for tag in (0x30, 0x04, 0x03, 0x06):
        for count in COUNTS:
            lie = der(tag, count) + bytes(40)
            for x5c in ([lie, links], [der(0x30, 43) + lie, links], [links, lie]):
                assert phone.pair(x5c=x5c).status in (400, 412)


def authenticator_data(target: Target) -> None:
    # Of an id that says it is longer the first 32 bytes are taken.
    for length in (0xFFFF, 0x8000, 0x7FFF):
        assert target.phone.pair(credential_id_length=length).status in (200, 412)


def assertions(target: Target) -> None:
    headers(target, "X_Assertion", "/location", list(cbor_heads()))
    for count in COUNTS:
        signature = der(0x30, count) + der(0x02, count) + bytes(60)
        assert target.phone.location(signature=signature).status == 412


def tokens(target: Target) -> None:
    android = target.access_point.android_phone(2)
    rest = [base64url(bytes(length)) for length in (40, 12, 9, 16)]
    for header in ('{"alg":"A256KW","enc":"A256GCM","p2c":2147483647}', '{"a":' * 900, '"' * 4000):
        token = ".".join([base64url(header.encode()), *rest])
        assert android.pair(token=token.encode()).status == 412


def local_frames(target: Target) -> None:
    for length in (0xFFFF, 0x8000, 0x7FFF):
        with IpcClient(target.access_point.socket_path) as client:
            client.socket.send(HEADER.pack(REQUEST, length, 1, 0, 0) + bytes(140))
            client.is_silent(0.05)


def searches(target: Target) -> None:
    with Searcher(target.access_point.network.phone, Network.PHONE_ADDRESSES[0]) as searcher:
        for filling in (b"M-SEARCH * HTTP/1.1\r\n", b"ST:", b"\r\n"):
            searcher.send((filling * LARGEST_DATAGRAM)[:LARGEST_DATAGRAM], GROUP, PORT)


def greetings(target: Target) -> None:
    """TLS records, greetings and lists in them that are longer than what comes."""
    for inner in (0xFFFF, 0xFFFFFF):
        greeting = b"\x01" + struct.pack(">I", inner)[1:] + b"\x03\x03" + bytes(32) + b"\xff" * 60
        for record in (len(greeting), 0x4000, 0xFFFF):
            with target.phone.host.connect_tcp() as raw, contextlib.suppress(*CUT_OFF):
                raw.sendall(b"\x16\x03\x01" + struct.pack(">H", record) + greeting)
                raw.settimeout(0.05)
                raw.recv(100)


def cloud_answers(target: Target) -> None:
    for head in (b"Content-Length: %d\r\n\r\n{}", b"Transfer-Encoding: chunked\r\n\r\n%x\r\n{}"):
        for count in COUNTS:
            mark = target.access_point.daemon.log_mark()
            answer = Answer(raw=b"HTTP/1.1 200 OK\r\n" + head % count)
            target.cloud.token.answer_always(answer)
            target.access_point.reload()  # forgets the minute between two pushes, and the token
            with IpcClient(target.access_point.socket_path) as client:
                client.request()
                target.access_point.daemon.wait_log("missing access_token", start=mark, timeout=15)


ATTACKS: dict[str, Callable[[Target], None]] = {
    "heads": heads,
    "bodies": bodies,
    "attestations": attestations,
    "certificates": certificates,
    "authenticator data": authenticator_data,
    "assertions": assertions,
    "tokens": tokens,
    "frames of local clients": local_frames,
    "searches": searches,
    "greetings": greetings,
    "answers of the cloud": cloud_answers,
}


@pytest.mark.parametrize("attack", ATTACKS)
def test_no_length_is_asked_of_the_allocator_in(
    attack: str,
    target: tuple[Target, AllocationFault],
    record_property: Callable[[str, object], None],
) -> None:
    made, fault = target
    fault.count()
    ATTACKS[attack](made)
    made.cloud.token.answer_always(None)
    # Nothing answers to a search that is none: the daemon has read it when it has served another.
    wait_until(lambda: made.phone.host.request("/info").status == 200, 10, "not served")
    record_property("largest", fault.largest)
    assert 0 < fault.largest < LARGEST
    assert made.access_point.daemon.alive()


def test_what_is_served_asks_for_no_more(target: tuple[Target, AllocationFault]) -> None:
    """So that the bound says something; and the note is taken at all."""
    made, fault = target
    fault.count()
    use_everything(made.access_point, made.access_point.phone(3))
    assert 1000 < fault.largest < LARGEST
