"""What the phones and the cloud are willing to negotiate: the library's defaults, or very little.

The strict policies speak one version of TLS and offer what an endpoint in FIPS mode would: AES-GCM,
the curves P-256 and P-384, signatures by ECDSA or RSA-PSS over SHA-256 and longer.
"""

from __future__ import annotations

import ctypes
import re
import ssl
from dataclasses import dataclass
from functools import cache
from pathlib import Path

CIPHERS = ":".join(
    f"ECDHE-{key}-{cipher}"
    for key in ("ECDSA", "RSA")
    for cipher in ("AES256-GCM-SHA384", "AES128-GCM-SHA256")
)
CIPHER_SUITES = "TLS_AES_256_GCM_SHA384:TLS_AES_128_GCM_SHA256"  # of TLS 1.3
GROUPS = "P-256:P-384"
SIGNATURES = ":".join(
    f"{key}+SHA{bits}" for key in ("ECDSA", "RSA-PSS") for bits in (256, 384, 512)
)
SSL_CTRL_SET_GROUPS_LIST = 92
SSL_CTRL_SET_SIGALGS_LIST = 98


@dataclass(frozen=True)
class TlsPolicy:
    """`version` None leaves everything to the library."""

    name: str
    version: ssl.TLSVersion | None = None

    def apply(self, context: ssl.SSLContext) -> None:
        """Makes a context, of either side, hold to the policy."""
        if self.version is None:
            return
        context.minimum_version = self.version
        context.maximum_version = self.version
        context.set_ciphers(CIPHERS)
        native = native_context(context)
        _check(libssl().SSL_CTX_set_ciphersuites(native, CIPHER_SUITES.encode()), CIPHER_SUITES)
        for command, names in (
            (SSL_CTRL_SET_GROUPS_LIST, GROUPS),
            (SSL_CTRL_SET_SIGALGS_LIST, SIGNATURES),
        ):
            _check(libssl().SSL_CTX_ctrl(native, command, 0, names.encode()), names)

    def allows(self, negotiated: tuple[str, str]) -> bool:
        """Whether a version and cipher may come of it, as `negotiated` names them."""
        if self.version is None:
            return negotiated[0] in ("TLSv1.2", "TLSv1.3")
        return negotiated[0] == self.version.name.replace("v1_", "v1.") and negotiated[1] in (
            CIPHER_SUITES if self.version == ssl.TLSVersion.TLSv1_3 else CIPHERS
        ).split(":")


DEFAULT = TlsPolicy("default")
POLICIES = {
    policy.name: policy
    for policy in (
        DEFAULT,
        TlsPolicy("1.2", ssl.TLSVersion.TLSv1_2),
        TlsPolicy("1.3", ssl.TLSVersion.TLSv1_3),
    )
}


def negotiated(connection: ssl.SSLSocket) -> tuple[str, str]:
    """Version and cipher of a connection after its handshake."""
    cipher = connection.cipher()
    return str(connection.version()), cipher[0] if cipher else ""


# Python's module has no call for the suites of TLS 1.3, for groups and for signatures.


class _SslContextObject(ctypes.Structure):
    """The start of what Python keeps of a context, in every version since 3.6."""

    _fields_ = [
        ("ob_refcnt", ctypes.c_ssize_t),
        ("ob_type", ctypes.c_void_p),
        ("ctx", ctypes.c_void_p),
    ]


def native_context(context: ssl.SSLContext) -> ctypes.c_void_p:
    return ctypes.c_void_p(_SslContextObject.from_address(id(context)).ctx)


@cache
def libssl() -> ctypes.CDLL:
    """The very library that Python's contexts are made by."""
    found = re.search(r"/\S*/libssl\.so\S*", Path("/proc/self/maps").read_text())
    if found is None:
        raise RuntimeError("Python's ssl module has its TLS library built in")
    library = ctypes.CDLL(found.group())
    library.SSL_CTX_set_ciphersuites.argtypes = [ctypes.c_void_p, ctypes.c_char_p]
    library.SSL_CTX_ctrl.argtypes = [
        ctypes.c_void_p,
        ctypes.c_int,
        ctypes.c_long,
        ctypes.c_char_p,
    ]
    library.SSL_CTX_ctrl.restype = ctypes.c_long
    return library


def _check(result: int, names: str) -> None:
    if result != 1:
        raise RuntimeError(f"the TLS library does not take {names}")
