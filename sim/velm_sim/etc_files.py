"""The access point's /etc: accounts, names and resolvers, seen by its processes only."""

from __future__ import annotations

import warnings
from collections.abc import Iterable, Mapping, Sequence
from pathlib import Path

from .phone import Login

with warnings.catch_warnings():
    # Goes away with Python 3.13; on this one it is the way to libcrypt.
    warnings.simplefilter("ignore", DeprecationWarning)
    import crypt

ADMIN = Login("admin", "correct horse battery staple")
ROOT = Login("root", "the right password of root")
SECOND = Login("second", "another right password")
# Accounts that must never let anybody in: libcrypt can hash nothing by such a field.
ODD_ACCOUNTS = {"starred": "*", "locked": "!", "shadowed": "x"}
# An account that takes any password: its field is empty.
OPEN_ACCOUNT = "empty"


def hashed(password: str, method: str = "$6$") -> str:
    """A password hash with few rounds, since tests log in often."""
    salt = f"{method}rounds=1000$velmsalt$" if method in ("$5$", "$6$") else f"{method}velmsalt$"
    return crypt.crypt(password, salt)


class EtcFiles:
    """Files of a directory that are bound over those of /etc, and change under a running daemon."""

    NAMES = ("passwd", "shadow", "hosts", "resolv.conf")

    def __init__(self, directory: Path) -> None:
        self.directory = directory
        directory.mkdir(parents=True, exist_ok=True)
        self.set_accounts([ADMIN, ROOT], {**ODD_ACCOUNTS, OPEN_ACCOUNT: ""})
        self.set_shadow({})
        self.set_hosts({})
        self.set_resolvers([])

    def _write(self, name: str, text: str) -> None:
        # In place: a bind mount holds on to the file, not to its name.
        with open(self.directory / name, "w", encoding="utf-8") as file:
            file.write(text)

    def set_accounts(
        self, logins: Iterable[Login], fields: Mapping[str, str] | None = None
    ) -> None:
        """Accounts by password, and accounts by what stands in their password field."""
        accounts = {login.username: hashed(login.password) for login in logins}
        accounts.update(fields or {})
        lines = [
            f"{name}:{field}:{0 if name == 'root' else 1000 + number}:"
            f"{0 if name == 'root' else 1000 + number}::/:/bin/false"
            for number, (name, field) in enumerate(accounts.items())
        ]
        self._write("passwd", "\n".join(lines) + "\n")

    def set_shadow(self, entries: Mapping[str, str]) -> None:
        """By account what stands behind its name: the password field alone, or more fields after it."""
        lines = [
            f"{name}:{entry}{':' * (7 - entry.count(':'))}\n" for name, entry in entries.items()
        ]
        self._write("shadow", "".join(lines))

    def set_hosts(self, addresses: Mapping[str, str | Sequence[str]]) -> None:
        """A name may have several addresses, in that order."""
        lines = ["127.0.0.1 localhost"]
        for name, of_name in addresses.items():
            several = [of_name] if isinstance(of_name, str) else of_name
            lines += [f"{ip} {name}" for ip in several]
        self._write("hosts", "\n".join(lines) + "\n")

    def set_resolvers(self, servers: Iterable[str]) -> None:
        """No server leaves the file empty."""
        self._write("resolv.conf", "".join(f"nameserver {server}\n" for server in servers))

    def mount_script(self) -> str:
        """Shell commands that bind the files, for a mount namespace of one's own."""
        return "".join(
            f"mount --bind '{self.directory / name}' /etc/{name} || exit 125\n"
            for name in self.NAMES
        )


