"""Do the files of the packages agree with the sources that they speak of?"""

from __future__ import annotations

import re

from velm_harness.packaged import REPOSITORY, packaged_configuration

PACKAGING = REPOSITORY / "packaging"
UNIT = (PACKAGING / "systemd/velmd.service").read_text()
SAMPLE = (REPOSITORY / "etc/velmd.conf").read_text()
PACKAGED = packaged_configuration()

# Where a machine under systemd wants things: the only values that differ from the defaults.
OF_THE_PACKAGE = ("/etc/velmd/", "/run/velmd/", "/var/lib/velmd/", "/etc/ssl/certs/")


def settings(text: str) -> dict[str, str]:
    """Those that are commented out too, in their order."""
    pairs = re.findall(r"^#?([a-z]\S*?)=(.*)$", text, re.MULTILINE)
    assert len(dict(pairs)) == len(pairs)
    return dict(pairs)


def test_the_packaged_configuration_is_small_enough_to_be_read() -> None:
    assert list(settings(PACKAGED)) == list(settings(SAMPLE))
    assert len(PACKAGED) < 4096


def test_the_packaged_configuration_differs_in_places_only() -> None:
    sample = settings(SAMPLE)
    changed = {key: value for key, value in settings(PACKAGED).items() if value != sample[key]}
    assert changed.pop("process.daemonize") == "no"
    assert changed.pop("accounts.shadow") == "yes"
    assert [value for value in changed.values() if not value.startswith(OF_THE_PACKAGE)] == []
    assert {"process.pidfile", "http.server.key.path", "location.policy.ipc.sock"} <= set(changed)
    assert not [value for value in settings(PACKAGED).values() if "/afc/" in value]


def test_unit_user_and_directories_are_those_that_the_other_files_make() -> None:
    assert "User=velmd\n" in UNIT
    assert re.search(r"^u velmd ", (PACKAGING / "systemd/velmd.sysusers").read_text(), re.MULTILINE)
    (store,) = re.findall(r"VELM_NVRAM=(\S+)", UNIT)
    tmpfiles = (PACKAGING / "systemd/velmd.tmpfiles").read_text()
    assert re.search(rf"^d {store} 0700 velmd velmd$", tmpfiles, re.MULTILINE)
    assert store.removeprefix("/var/lib/") in UNIT.partition("StateDirectory=")[2].splitlines()[0].split()


def test_the_build_needs_what_the_build_of_the_sources_needs() -> None:
    script = (REPOSITORY / "scripts/install-dependencies.sh").read_text()
    control = (PACKAGING / "debian/control").read_text()
    build_depends = control.partition("Build-Depends:")[2].partition("\n\n")[0]
    needed = re.findall(r"\b(lib(?!gtest|gmock|benchmark)\w+-dev)\b", script)
    assert len(needed) > 5
    assert [name for name in needed if name not in build_depends] == []
