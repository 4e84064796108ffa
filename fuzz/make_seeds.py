#!/usr/bin/python3
"""Writes the first inputs of every fuzz target: real samples of tests/data, and made ones.

usage: fuzz/make_seeds.py FOLDER        FOLDER/TARGET/... is made; scripts/fuzz.sh takes it from there
"""

import base64
import json
import pathlib
import struct
import sys
import zlib
from collections.abc import Iterable

ROOT = pathlib.Path(__file__).resolve().parent.parent
DATA = ROOT / "tests" / "data"
APPLE_PHONES = ("ios-14.4", "chiff-2021", "apple-guide-2024", "insight-staging-2026")


def load(name: str) -> object:
    return json.loads((DATA / name).read_text())


def word(number: int) -> bytes:
    return struct.pack(">H", number)


def block(content: bytes) -> bytes:
    return word(len(content)) + content


def phone(name: str) -> tuple[dict, bytes]:
    folder = DATA / "app_attest" / name
    return json.loads((folder / "params.json").read_text()), (folder / "attestation.cbor").read_bytes()


def auth_data_of(attestation: bytes) -> bytes:
    mark = b"hauthDataX"
    at = attestation.index(mark) + len(mark)
    return attestation[at + 1 : at + 1 + attestation[at]]


# --- one function a target -------------------------------------------------------------------


def base64_seeds() -> Iterable[bytes]:
    yield from (b"", b"f", b"fo", b"foo", b"Zg==", b"Zm8=", b"Zm9v", b"Zh==", b"Zm9v\n", b"====")
    yield base64.b64encode(phone("ios-14.4")[1][:300])


def config_file() -> Iterable[bytes]:
    yield (ROOT / "etc" / "velmd.conf").read_bytes()
    yield b'a=b\n#c\n "k k" = "v \\"q\\" v" rest\nlogger.enabled=yes\nlogger.level=trace\n'
    yield b"http.server.port=70000\npairings.limit=-1\nprocess.daemonize=1\nvendor.id=" + b"x" * 80
    yield b"logger.file=yes\nlogger.file.name=/x/y\nlogger.syslog=yes\nlogger.syslog.ident=a\n"
    yield b"no pair\n"


def escapes() -> Iterable[bytes]:
    yield from (b"abc\\u003d\\u003D", b"\\u002b\\u002F\\u002f", b"\\u00", b"00:1a:2b:3c:4d:5e")
    yield from (b"192.168.1.1", b"192.168.100.200", b"1700000000", b"99999999999999999999")
    yield from (b"-1", b" a , b;;c\t", b"0x1:2:3:4:5:6")


def hostname_match() -> Iterable[bytes]:
    yield from (
        b"oauth2.googleapis.com\noauth2.googleapis.com",
        b"*.googleapis.com\nfcm.googleapis.com",
        b"f*m.googleapis.com\nFCM.googleapis.com",
        b"fc*cm.googleapis.com\nfcm.googleapis.com",
        b"fcm*.googleapis.com\nfcm.googleapis.com",
        b"*.com\ngoogle.com",
        b"xn--*.googleapis.com\nxn--a.googleapis.com",
        b"a.*.com\na.b.com",
    )


def hostname_certificate() -> Iterable[bytes]:
    def names(*entries: tuple[int, bytes]) -> bytes:
        content = b"".join(bytes((0x80 | kind, len(text))) + text for kind, text in entries)
        return bytes((0x30, len(content))) + content

    dns, address = 2, 7
    host = b"fcm.googleapis.com\0"
    yield host + b"x\0" + names((dns, b"*.googleapis.com"), (dns, b"googleapis.com"))
    yield host + b"x\0" + names((address, b"\x7f\0\0\1"), (dns, b"fcm.googleapis.com"))
    yield host + b"x\0" + names((dns, b"fcm.googleapis.com\0.evil.example"))
    yield host + b"fcm.googleapis.com\0" + names((dns, b"evil.example"))
    yield host + b"fcm.googleapis.com\0"
    yield host + b"x\0" + b"\x30\x05\x82"


HEAD = b"POST /location HTTP/1.1\r\nHost: 192.168.1.1:8080\r\nUser-Agent: afc/1.0\r\n"


def http_head() -> Iterable[bytes]:
    yield b"GET /info HTTP/1.1\r\nHost: x\r\n\r\n"
    yield HEAD + b"X-Assertion: " + b"A" * 300 + b"\r\nContent-Length: 17\r\n\r\n"
    yield HEAD + b"x-attestation: " + b"B" * 9000 + b"\r\n folded\r\nTransfer-Encoding:Chunked\r\n\r\n"
    yield b"GET / HTTP/1.1\r\nA: b\r\n c\r\n\td\r\nContent-Length: 1\r\nContent-Length: 1\r\n\r\n"
    yield b"GET /\r\n\r\n"
    yield b"GET / HTTP/1.1\n\n"


def http_requests() -> Iterable[bytes]:
    body = b'{"auth":{"deviceId":"a","deviceType":"iOS"}}'
    with_body = HEAD + b"Content-Length: %d\r\n\r\n" % len(body) + body
    chunked = HEAD + b"Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n6;x=y\r\n world\r\n0\r\n\r\n"
    info = b"GET /info HTTP/1.1\r\nHost: x\r\n\r\n"
    paused = info.replace(b"/info", b"/pair")
    yield info + info
    yield with_body + info
    yield chunked + with_body
    yield paused + with_body + paused + chunked
    yield HEAD + b"X-Attestation: " + b"C" * 8500 + b"\r\n\r\n" + info
    yield HEAD + b"Content-Length: 8192\r\n\r\n" + b"x" * 8192
    yield HEAD + b"Content-Length: 8193\r\n\r\n"
    yield HEAD + b"Expect: 100-continue\r\nConnection: close\r\nContent-Length: 2\r\n\r\n{}"
    yield b"\r\n\r\n" + info.replace(b"HTTP/1.1", b"HTTP/1.0")
    yield b"HEAD /info?a=b#c HTTP/1.1\r\nTransfer-Encoding: gzip, chunked\r\n\r\n"
    yield b"OPTIONS * HTTP/1.1\r\n\r\nCONNECT a:1 HTTP/1.1\r\n\r\n"


def ipc_frame(kind: int, length: int, number: int, payload: bytes | None = None) -> bytes:
    content = bytes(length) if payload is None else payload
    return struct.pack("=HHIII", kind, length, number, 0, 0) + content


def ipc_stream() -> Iterable[bytes]:
    request = ipc_frame(0x1000, 140, 2, b"\x3c\0" + bytes(138))
    busy = ipc_frame(0x1000, 140, 3)
    yield block(request)
    yield block(request[:20]) + block(request[20:]) + block(busy)
    yield block(ipc_frame(0x1000, 139, 4) + request + busy)
    yield block(ipc_frame(0x1000, 2000, 4, b"") + bytes(1500)) + block(bytes(500) + request)
    yield block(ipc_frame(0xA000, 224, 4) + request) + block(request)
    yield block((request + busy) * 13)
    yield block(b"") + block(request)


def logger_config() -> Iterable[bytes]:
    yield b"enabled=no:level=error:syslog=no:syslog.ident=velmd:stdout=no\0message"
    yield b"enabled=yes:level=trace:stdout=yes:lineandfile=yes\0a\nb\x1b[31m\xc2\x9bx"
    yield b"syslog=yes:syslog.ident=a:syslog.ident=b:file=yes:file.name=/x/y\0" + b"m" * 8100
    yield b"enabled=true:category.fuzz=mute:category.fuzz=warn:category.other=info\0m"


def request_body() -> Iterable[bytes]:
    yield b'{"auth":{"deviceId":"a","deviceType":"Android","userName":"u","password":"p","challenge":"c"}}'
    yield b'{"auth":{},"locations":[{"latitude":1.5e3,"longitude":-0.25,"x":null}],"n":1e999}'
    yield '{"auth":{"name":"\u00e4\u20ac\U0001f600"},"e":"\\ud83d\\ude00\\u0001\\n"}'.encode()
    yield b'{"auth":{"a":"\\u0000"}}'
    yield b'{"auth":[]}'
    yield b"[" * 1100
    yield b'{"auth":{}} trailing \xff\x00'


def ios_assertion() -> Iterable[bytes]:
    for name in ("ios-14.4", "chiff-2021"):
        yield b"\0" + (DATA / "app_attest" / name / "assertion.cbor").read_bytes()
    auth_data = b"good" + bytes(28) + b"\x40" + struct.pack(">I", 5)
    yield from (b"\1" + struct.pack(">I", stored) + auth_data for stored in (0, 4, 5, 0xFFFFFFFF))


def ios_attestation() -> Iterable[bytes]:
    for name in APPLE_PHONES:
        params, attestation = phone(name)
        hash_ = bytes.fromhex(params["client_data_hash_hex"])
        yield params["app_id"].encode() + b"\0" + hash_ + attestation


def ios_auth_data() -> Iterable[bytes]:
    for name in APPLE_PHONES:
        yield auth_data_of(phone(name)[1])
    for aaguid in (b"appattest" + bytes(7), b"appattestdevelop"):
        yield b"good" + bytes(28) + b"\x40" + bytes(4) + aaguid + b"\0\x20good" + bytes(28) + b"\xa0"
    yield b"good" + bytes(28) + b"\x40" + bytes(4) + b"appattest" + bytes(7) + b"\1\0good" + bytes(28)


def ios_certificate() -> Iterable[bytes]:
    for name in APPLE_PHONES:
        attestation = phone(name)[1]
        at = attestation.index(b"cx5c\x82") + 5
        for _ in range(2):
            (length,) = struct.unpack(">H", attestation[at + 1 : at + 3])
            yield attestation[at + 3 : at + 3 + length]
            at += 3 + length


def ios_nonce_extension() -> Iterable[bytes]:
    yield bytes.fromhex("3024a1220420") + b"nonce"
    yield b"nonce"
    yield bytes.fromhex("3024a1220420") + b"nonce\0"
    yield bytes.fromhex("3024a1220420") + bytes(32)
    yield b""


def ios_objects() -> Iterable[bytes]:
    for name in APPLE_PHONES:
        yield phone(name)[1]
    for name in ("ios-14.4", "chiff-2021"):
        yield (DATA / "app_attest" / name / "assertion.cbor").read_bytes()
    for example in load("cbor/appendix_a.json"):
        yield bytes.fromhex(example["hex"])
    yield bytes.fromhex("9b0000000001000000")
    yield bytes.fromhex("bf") + b"csig" + bytes.fromhex("5f41ffff")


def ios_signature() -> Iterable[bytes]:
    groups = load("wycheproof/ecdsa_secp256r1_sha256_test.json")["testGroups"]
    for group in groups[:: max(1, len(groups) // 20)]:
        key = bytes.fromhex(group["publicKeyDer"])
        for test in group["tests"][::29]:
            yield block(key) + block(bytes.fromhex(test["sig"])) + bytes.fromhex(test["msg"])


def status(code: int) -> bytes:
    return word(code + 8)


def body_of(entry: dict) -> bytes:
    if "body_text" in entry:
        return entry["body_text"].encode()
    return json.dumps(entry["body"]).encode() if "body" in entry else b""


def cloud_token() -> Iterable[bytes]:
    for entry in load("google/oauth_token_responses.json"):
        code = entry["http_status"]
        yield (word(0) if code == 200 else status(code)) + body_of(entry)
    yield word(0) + b'{"expires_in":1e999,"valid_to":1,"valid_to":[],"access_token":"x"}'
    yield word(0) + b'{"expires_in":-5,"access_token":1}'
    yield word(7) + b""


def cloud_answer() -> Iterable[bytes]:
    head = b"HTTP/1.1 200 OK\r\n"
    chunked = head + b"Transfer-Encoding: chunked\r\n\r\n"
    yield head + b"Content-Length: 5\r\n\r\n12345"
    yield chunked + b"3\r\nabc\r\n2;x=y\r\nde\r\n0\r\nX: y\r\n\r\n"
    yield head + b"X: a\r\n b\r\nConnection: keep-alive\r\n\r\nto the end"
    yield b"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.0 404\nContent-Length: 0\n\n"
    yield head + b"Content-Length: 1000\r\n\r\n" + b"x" * 1000 + b"HTTP"
    yield chunked + b"3e8\r\n" + b"x" * 1000 + b"\r\n1\r\n"
    yield head + b"a:b\n" * 129 + b"\n"


def cloud_push() -> Iterable[bytes]:
    token = b'{"access_token":"ya29.token","valid_to":1750003600}'
    for entry in load("push/fcm_responses.json"):
        yield b"push:token_1\0device\0" + status(entry["http_status"]) + token + b"\0" + body_of(entry)
    yield b"push\"\n\0dev\xff\0" + status(404) + token + b"\0{}"
    yield b"push\0dev\0" + status(404) + token + b"\0 <!DOCTYPE html>"
    other = b'{"error":{"details":[{"errorCode":"UNREGISTERED"},{"errorCode":"SENDER_ID_MISMATCH"}]}}'
    yield b"push\0dev\0" + status(404) + token + b"\0" + other
    yield b"push\0dev\0" + status(200) + b'{"access_token":"a\\r\\nX: y","valid_to":1e18}\0'
    yield b"\0dev\0" + status(200) + b"{}"


def change(kind: int, name: bytes, value: bytes = b"") -> bytes:
    return struct.pack("<BHI", kind, len(name), len(value)) + name + value


def with_checksum(content: bytes) -> bytes:
    return content + struct.pack("<I", zlib.crc32(content))


def nvram_file(sequence: int, boot_id: bytes, *bodies: bytes) -> bytes:
    out = with_checksum(b"velmnvr1" + struct.pack("<Q36s", sequence, boot_id))
    for body in bodies:
        out += with_checksum(struct.pack("<I", len(body))) + with_checksum(body)
    return out


SOME_CHANGES = change(1, b"lan_ipaddr", b"192.168.1.1") + change(1, b"lan_ifname", b"br0")
BOOT = b"11111111-2222-3333-4444-555555555555"


def nvram_records() -> Iterable[bytes]:
    body = SOME_CHANGES + change(2, b"lan_ifname")
    yield b"\0" + nvram_file(0, BOOT, SOME_CHANGES, body)
    yield b"\0" + nvram_file(3, b"", body)[:-3]
    yield b"\1\0" + block(SOME_CHANGES) + block(body) + block(b"")
    yield b"\1\5" + block(body) + block(change(1, b"a=b", b"c"))
    yield b"\1\0" + block(change(1, b"zelkad_pairing_0_status", b"Valid") + change(3, b"x"))


def nvram_store() -> Iterable[bytes]:
    def part(kind: int, sequence: int, content: bytes = b"") -> bytes:
        return bytes((kind, sequence)) + block(content)

    absent = part(0, 0)
    records = block(SOME_CHANGES)
    yield absent * 3
    yield part(2, 0, records) + absent * 2
    yield part(2, 0, records + block(change(2, b"lan_ifname"))) + part(2, 1, records) + part(3, 2, records)
    yield part(1, 0, nvram_file(0, BOOT, SOME_CHANGES)[:-1]) + part(2, 9, records) + part(1, 0, b"x")
    yield part(1, 0, b"damaged") + part(1, 0, b"damaged") * 2
    yield part(1, 0, nvram_file(0, b"another", SOME_CHANGES)) + part(2, 1, records) + absent


def android_token() -> Iterable[bytes]:
    token = (DATA / "play_integrity" / "token.jwe").read_bytes().strip()
    payload = (DATA / "play_integrity" / "payload.json").read_bytes().strip()
    yield b"\0" + token
    yield from (b"\0" + b".".join(token.split(b".")[:count]) for count in (3, 4))
    for header in (
        b'{"alg":"A256KW","enc":"A256GCM"}',
        b'{"alg":"A256KW","enc":"A256GCM","zip":"DEF"}',
        b'{"alg":"dir","enc":"A256GCM","crit":["x"]}',
        b'{"alg":"RSA-OAEP","enc":"A128CBC-HS256"}',
    ):
        yield b"\1" + header
    yield b"\2eyJhbGciOiJub25lIn0.e30."
    yield b"\2eyJhbGciOiJFUzI1NiJ9.e30.AAAA"
    yield b"\2eyJhbGciOiJIUzI1NiJ9.e30.AAAA=="
    yield b'\3{"alg":"ES256"}\0' + payload
    yield b'\3{"alg":"ES256","crit":["b64"],"b64":false}\0x'
    yield b'\3{"alg":"HS256"}\0x'
    header = b'{"alg":"A256KW","enc":"A256GCM"}'
    yield b"\4" + block(header) + block(bytes(40)) + block(bytes(12)) + block(b"x") + block(bytes(16))
    yield b"\4" + block(header) + block(bytes(400)) + block(bytes(12)) + block(b"x") + block(bytes(8))


def android_verdict() -> Iterable[bytes]:
    text = (DATA / "play_integrity" / "payload.json").read_text()
    yield text.encode()
    nonce = "47DEQpj8HBSa-_TImW-5JCeuQeRkm5NMpJWZG3hSuFU"
    yield text.replace(nonce, nonce + "\\\\u003d", 1).encode()
    yield text.replace(nonce, nonce + "=", 1).encode()
    yield text.replace('"nonce"', '"requestHash"').encode()
    yield text.replace("1750000000123", "1749996400000").encode()
    yield text.replace("NO_ISSUES", "HIGH_RISK").encode()
    yield text.replace('"1750000000123"', "1750000000123").encode()
    yield text.replace("MEETS_STRONG_INTEGRITY", "MEETS_WEAK_INTEGRITY").encode()
    yield b"{}"


def cloud_integrity() -> Iterable[bytes]:
    payload = (DATA / "play_integrity" / "payload.json").read_bytes().strip()
    yield b"token.of.a.phone\0" + word(0) + b'{"tokenPayloadExternal":' + payload + b"}"
    for entry in load("google/play_integrity_errors.json"):
        yield b"token\0" + status(entry["http_status"]) + body_of(entry)
    yield b"tok\xff\0" + word(0) + b"{}"
    yield b"token\0" + word(0) + b'{"tokenPayloadExternal":[]}'
    yield b"token\0" + status(429)
    yield b"token\0" + word(7)


def attribute(kind: int, content: bytes) -> bytes:
    return struct.pack("=HH", 4 + len(content), kind) + content + bytes(-len(content) % 4)


def message(kind: int, content: bytes) -> bytes:
    return struct.pack("=IHHII", 16 + len(content), kind, 0, 1, 0) + content + bytes(-len(content) % 4)


def netlink() -> Iterable[bytes]:
    new_address, deleted, new_link = 20, 21, 16
    about = struct.pack("=BBBBI", 2, 24, 128, 0, 1)
    ours = attribute(1, b"\xc0\xa8\1\1") + attribute(2, b"\xc0\xa8\1\1") + attribute(3, b"br0\0")
    yield message(new_address, about + ours)
    yield message(new_address, about + ours + attribute(2, b"\x0a\0\0\1")) + message(new_link, bytes(16))
    yield message(new_address, about + ours) + message(new_address, about + ours)[:-5]
    yield message(deleted, about + ours) + message(new_address, about + attribute(1, bytes(16)))
    yield message(new_address, about + struct.pack("=HH", 0, 2))
    yield message(new_address, b"\2")
    yield struct.pack("=IHHII", 0xFFFFFFFF, 20, 0, 0, 0)


def ssdp_search() -> Iterable[bytes]:
    for sample in sorted((DATA / "ssdp").glob("*.txt")):
        for line in sample.read_text().splitlines():
            name, _, value = line.partition(": ")
            if name in ("hex", "velmd_hex"):
                yield bytes.fromhex(value)


def control_request() -> Iterable[bytes]:
    yield b"GET /v1/status HTTP/1.1\r\nHost: localhost\r\nUser-Agent: curl/7.88.1\r\nAccept: */*\r\n\r\n"
    yield b"GET /v1/rounds?wait=60&after=12 HTTP/1.0\n\n"
    yield b"POST /v1/metrics HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc"
    yield b"GET /v1/rounds?wait=&after HTTP/1.1\r\nX:\ty\r\n"
    yield b"GET / HTTP/1.1\r\nfolded: a\r\n b\r\n\r\n"
    yield b"GET /\0 HTTP/1.1\r\r\n\r\n"


# clang-format off
TARGETS = {
    "android_token": android_token, "android_verdict": android_verdict,
    "hostname_certificate": hostname_certificate, "cloud_answer": cloud_answer, "cloud_integrity": cloud_integrity, "netlink": netlink, "ssdp_search": ssdp_search,
    "base64": base64_seeds, "cloud_push": cloud_push, "cloud_token": cloud_token,
    "config_file": config_file, "control_request": control_request, "escapes": escapes, "hostname_match": hostname_match,
    "http_head": http_head, "http_requests": http_requests, "ios_assertion": ios_assertion,
    "ios_attestation": ios_attestation, "ios_auth_data": ios_auth_data,
    "ios_certificate": ios_certificate, "ios_nonce_extension": ios_nonce_extension,
    "ios_objects": ios_objects, "ios_signature": ios_signature, "ipc_stream": ipc_stream,
    "logger_config": logger_config, "nvram_records": nvram_records, "nvram_store": nvram_store,
    "request_body": request_body,
}
# clang-format on


def main() -> None:
    folder = pathlib.Path(sys.argv[1])
    for target, seeds in TARGETS.items():
        place = folder / target
        place.mkdir(parents=True, exist_ok=True)
        for number, seed in enumerate(seeds()):
            (place / f"seed_{number:02d}").write_bytes(seed)


if __name__ == "__main__":
    main()
