"""No copy of a password outlives its request in the daemon's memory."""

from __future__ import annotations

import contextlib
import re
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from velm_harness.phone_api import LOGIN_PATHS
from velm_sim.access_point import AccessPoint
from velm_sim.daemon import wait_until
from velm_sim.phone import OMIT, Login, Phone, Prepared, sample_location

# Long enough that every piece of it is rare, and told from what the test sends around it.
PASSWORD = "Vq7fXw2kR9tZ-the-password-that-is-looked-for-Lm4cHs8yBn3d"
PIECE = 16


def writable_memory(pid: int) -> Iterator[tuple[str, bytes]]:
    """The name of each mapping that the process may write, and what it holds."""
    maps = Path(f"/proc/{pid}/maps").read_text()
    with open(f"/proc/{pid}/mem", "rb", buffering=0) as memory:
        for line in maps.splitlines():
            found = re.match(r"(\w+)-(\w+) (\S+) \S+ \S+ \S+ *(.*)", line)
            assert found
            start, end = int(found[1], 16), int(found[2], 16)
            # On the stack OpenSSL leaves the end of the last short record that it decrypted.
            if "w" not in found[3] or found[4] in ("[vvar]", "[vsyscall]", "[stack]"):
                continue
            memory.seek(start)
            yield found[4] or "anonymous", memory.read(end - start)


def remains_of(secret: str, pid: int) -> list[str]:
    """Where pieces of it are, and what is around them."""
    pieces = [secret[at : at + PIECE].encode() for at in range(0, len(secret) - PIECE + 1, PIECE)]
    found = []
    for name, content in writable_memory(pid):
        for piece in pieces:
            for match in re.finditer(re.escape(piece), content):
                around = content[max(0, match.start() - 48) : match.end() + 48]
                found.append(f"{name}+{match.start():#x}: {around!r}")
    return found


@pytest.fixture
def quiet_access_point(cold_access_point: AccessPoint) -> AccessPoint:
    """Its log is at the level ERROR, and the account's password is the one that is looked for."""
    if cold_access_point.build.is_asan:
        pytest.skip("a sanitizer brings an allocator of its own, which keeps what was freed")
    cold_access_point.configure({"logger.level": "error"})
    cold_access_point.nvram_set({"zelkad_debug_level": "error"})
    cold_access_point.login = Login("admin", PASSWORD)
    cold_access_point.etc.set_accounts([cold_access_point.login])
    cold_access_point.start()
    return cold_access_point


def assert_forgotten(access_point: AccessPoint) -> None:
    """Soon: the daemon frees a request when its answer has left."""
    with contextlib.suppress(TimeoutError):
        wait_until(lambda: not remains_of(PASSWORD, access_point.daemon.pid), 3, "remains")
    assert remains_of(PASSWORD, access_point.daemon.pid) == []


def test_a_password_that_is_in_memory_is_found(quiet_access_point: AccessPoint) -> None:
    """Else the other tests here would show nothing."""
    phone = quiet_access_point.phone()
    body = phone.prepare("/challenge").body
    with phone.host.connect_tls() as tls:
        tls.sendall(b"POST /challenge HTTP/1.1\r\nContent-Length: 4000\r\n\r\n" + body)
        wait_until(
            lambda: remains_of(PASSWORD, quiet_access_point.daemon.pid), 5, "nothing is found"
        )
    assert_forgotten(quiet_access_point)


def escaped(phone: Phone) -> Prepared:
    """The password's first and last letters as JSON may write them too."""
    request = phone.prepare("/challenge")
    body = request.body.replace(b"Vq7f", b"\\u0056q7f").replace(b"Bn3d", b"Bn3\\u0064")
    return request.with_body(body)


# What is asked, and how it is answered.
REQUESTS: dict[str, tuple[Callable[[Phone], Prepared], int]] = {
    "a right login": (lambda phone: phone.prepare("/challenge"), 200),
    "an escaped password": (escaped, 200),
    "an unknown name": (lambda phone: phone.prepare("/challenge", auth={"username": "x"}), 401),
    "a wrong password": (
        lambda phone: phone.prepare("/challenge", auth={"password": PASSWORD + "x"}),
        401,
    ),
    "root": (lambda phone: phone.prepare("/challenge", auth={"username": "root"}), 401),
    "a body that is cut": (
        lambda phone: phone.prepare("/pairings").with_body(phone.prepare("/pairings").body[:-1]),
        400,
    ),
    "no user name": (lambda phone: phone.prepare("/pairings", auth={"username": OMIT}), 400),
    "a long body": (lambda phone: phone.prepare("/pairings", {"filler": "f" * 7500}), 200),
    "a name that is too long": (
        lambda phone: phone.prepare_pair(pair={"friendlyName": "n" * 1025}),
        400,
    ),
    "a pairing": (lambda phone: phone.prepare_pair(), 200),
    "a pairing by assertion": (lambda phone: phone.prepare_pair(by="assertion"), 200),
    "a location": (lambda phone: phone.prepare_location(), 200),
    "locations": (lambda phone: phone.prepare_location([sample_location()] * 20), 200),
    **{path: (lambda phone, path=path: phone.prepare_login(path), 200) for path in LOGIN_PATHS},
}


def test_no_copy_of_a_password_outlives_its_request(quiet_access_point: AccessPoint) -> None:
    phone = quiet_access_point.phone()
    for name, (make, status) in REQUESTS.items():
        assert phone.send(make(phone)).status == status, name
        assert_forgotten(quiet_access_point)


def test_no_copy_outlives_its_request_on_a_connection_that_stays(
    quiet_access_point: AccessPoint,
) -> None:
    phone = quiet_access_point.phone()
    with phone.host.session() as session:
        for make, status in list(REQUESTS.values())[:8]:
            assert phone.send(make(phone), session).status == status
            assert session.is_open
            assert_forgotten(quiet_access_point)


@pytest.mark.parametrize("end", ["in the middle of the body", "before the answer"])
def test_no_copy_outlives_a_connection_that_ends(
    end: str, quiet_access_point: AccessPoint
) -> None:
    phone = quiet_access_point.phone()
    body = phone.prepare("/challenge").body
    length = len(body) + (10 if end == "in the middle of the body" else 0)
    head = f"POST /challenge HTTP/1.1\r\nContent-Length: {length}\r\n\r\n".encode()
    for pieces in ([head + body], [head, body], [head, *(bytes([byte]) for byte in body)]):
        with phone.host.connect_tls() as tls:
            for piece in pieces:
                tls.sendall(piece)
        assert_forgotten(quiet_access_point)


def test_no_copy_of_a_chunked_body_outlives_its_request(quiet_access_point: AccessPoint) -> None:
    phone = quiet_access_point.phone()
    body = phone.prepare("/challenge").body
    head = b"POST /challenge HTTP/1.1\r\nTransfer-Encoding: chunked\r\nConnection: close\r\n\r\n"
    for size in (1000, 30, 1):
        chunks = [body[at : at + size] for at in range(0, len(body), size)]
        sent = b"".join(b"%x\r\n%s\r\n" % (len(chunk), chunk) for chunk in chunks)
        answer = phone.host.exchange(head + sent + b"0\r\n\r\n")
        assert answer.startswith(b"HTTP/1.1 200 ")
        assert_forgotten(quiet_access_point)
