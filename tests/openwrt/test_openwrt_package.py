"""Does the package's Makefile take the sources that the build needs, and install every file?"""

from __future__ import annotations

import os
import re
import stat
import subprocess
from pathlib import Path

from openwrt_router import FILES, STAND_INS
from velm_harness.version import VERSION
from velm_sim.build import Build

PACKAGE = FILES.parent
INSTALLED = {
    "usr/sbin/velmd": 0o755,
    "usr/bin/velmctl": 0o755,
    "usr/libexec/velmd/nvram": 0o755,
    "usr/libexec/rpcd/velmd": 0o755,
    "usr/share/rpcd/acl.d/velmd.json": 0o644,
    "usr/lib/velmd/configuration.sh": 0o644,
    "usr/lib/velmd/platform.sh": 0o644,
    "etc/init.d/velmd": 0o755,
    "etc/config/velmd": 0o600,
}


def run(*command: str | Path, **environment: str) -> str:
    done = subprocess.run(
        [str(word) for word in command],
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        timeout=120,
        env={**os.environ, "LC_ALL": "C", **environment},
    )
    assert done.returncode == 0, done.stdout
    return done.stdout


def make(target: str, out: Path) -> str:
    tools = STAND_INS / "make"
    return run("make", "-s", "-C", PACKAGE, f"TOPDIR={tools}", f"OUT={out}", target)


def test_it_has_the_version_of_the_daemon(tmp_path: Path) -> None:
    assert make("show-version", tmp_path).split() == [VERSION]


def test_every_file_is_installed_where_the_scripts_look_for_it(
    build: Build, tmp_path: Path
) -> None:
    run("cmake", "--install", build.directory, "--prefix", "/usr",
        DESTDIR=str(tmp_path / "installed"))  # fmt: skip
    make("install", tmp_path)
    package = tmp_path / "package"
    found = {
        str(path.relative_to(package)): stat.S_IMODE(path.stat().st_mode)
        for path in package.rglob("*")
        if path.is_file()
    }
    assert found == INSTALLED
    for folder in ("etc/afc/velmd", "etc/velmd"):
        assert stat.S_IMODE((package / folder).stat().st_mode) == 0o700
    for name in ("velmd.init", "platform.sh"):
        named = re.findall(r"\$velmd_root/(usr/[\w./-]+)", (FILES / name).read_text())
        assert named and set(named) <= set(found)


def test_what_must_survive_an_upgrade_is_named() -> None:
    text = (PACKAGE / "Makefile").read_text()
    kept = re.search(r"define Package/velmd/conffiles\n(.*?)\nendef", text, re.DOTALL)
    assert kept
    assert kept.group(1).split() == ["/etc/config/velmd", "/etc/afc/velmd/", "/etc/velmd/"]


def test_the_sources_that_are_taken_are_enough_to_configure(tmp_path: Path) -> None:
    """Also where nobody describes libcrypt, as with musl."""
    make("prepare", tmp_path)
    described = tmp_path / "pkgconfig"
    described.mkdir()
    folders = run("pkg-config", "--variable", "pc_path", "pkg-config").strip().split(":")
    for path in (path for folder in folders for path in Path(folder).glob("*.pc")):
        if path.name not in ("libcrypt.pc", "libxcrypt.pc"):
            (described / path.name).symlink_to(path)
    options = make("show-options", tmp_path).split()
    run("cmake", "-S", tmp_path / "build", "-B", tmp_path / "cmake", *options,
        "-DCMAKE_BUILD_TYPE=Release", PKG_CONFIG_LIBDIR=str(described))  # fmt: skip
    cache = (tmp_path / "cmake" / "CMakeCache.txt").read_text()
    assert re.search(r"^CRYPT_LIBRARY:FILEPATH=\S*libcrypt", cache, re.MULTILINE)
