"""Does the bill of materials name what the daemon really consists of?"""

from __future__ import annotations

import hashlib
import json
import re
import subprocess
import sys
import uuid
from pathlib import Path
from typing import Any

import pytest
from velm_harness.packaged import REPOSITORY
from velm_harness.version import VERSION
from velm_sim.access_point import AccessPoint
from velm_sim.build import Build


@pytest.fixture(scope="module")
def document(build: Build, tmp_path_factory: pytest.TempPathFactory) -> dict[str, Any]:
    """What the target sbom writes; the program is there already."""
    output = tmp_path_factory.mktemp("sbom") / "velmd.cdx.json"
    subprocess.run(
        [
            sys.executable, str(REPOSITORY / "scripts/sbom.py"), str(build.program("velmd")),
            str(build.directory / "velmd.map"), "velmd", VERSION, str(output),
        ],
        check=True,
        timeout=60,
    )  # fmt: skip
    read: dict[str, Any] = json.loads(output.read_text())
    return read


def files(document: dict[str, Any], linkage: str) -> set[str]:
    return {
        entry["value"]
        for component in document["components"]
        for entry in component["properties"]
        if entry["name"] == "velm:file" and component["bom-ref"].startswith(f"{linkage}:")
    }


def mapped(pid: int) -> set[str]:
    """The files that a process may execute from."""
    lines = Path(f"/proc/{pid}/maps").read_text().splitlines()
    return {line.split()[-1] for line in lines if re.search(r" r.xp .*/", line)}


def test_its_shared_libraries_are_those_that_the_loader_maps(
    document: dict[str, Any], access_point: AccessPoint, build: Build
) -> None:
    program = str(build.program("velmd"))
    running = mapped(access_point.daemon.pid) - {program}
    running -= {str(library) for library in build.preload()}
    assert files(document, "dynamic") == running
    assert any("libevhtp" in file for file in running)


def test_what_a_login_loads_besides_belongs_to_the_machines_accounts(
    document: dict[str, Any], access_point: AccessPoint, build: Build
) -> None:
    assert access_point.phone().challenge().status == 200
    more = mapped(access_point.daemon.pid) - files(document, "dynamic")
    more -= {str(build.program("velmd")), *map(str, build.preload())}
    assert [file for file in more if not Path(file).name.startswith("libnss_")] == []


def test_it_names_what_was_linked_into_the_program(
    document: dict[str, Any], build: Build
) -> None:
    cache = (build.directory / "CMakeCache.txt").read_text()
    if "CMAKE_BUILD_TYPE:STRING=Release" not in cache:
        pytest.skip("only the release build ships; others are linked by a linker with another map")
    static = files(document, "static")
    assert {"crti.o", "crtn.o", "libstdc++.a"} <= {Path(file).name for file in static}
    assert not [file for file in static if file.startswith(str(build.directory))]


def test_each_part_has_a_version_a_licence_and_a_package(document: dict[str, Any]) -> None:
    for component in document["components"]:
        assert component["version"] != "unknown", component
        assert component["licenses"] and component["licenses"][0]["license"]["name"]
        assert re.fullmatch(r"pkg:deb/debian/[^@/]+@[\w.%~-]+\?arch=\w+", component["purl"])


def test_it_is_of_this_very_program(document: dict[str, Any], build: Build) -> None:
    described = document["metadata"]["component"]
    digest = hashlib.sha256(build.program("velmd").read_bytes()).hexdigest()
    assert described["hashes"] == [{"alg": "SHA-256", "content": digest}]
    assert (described["name"], described["version"]) == ("velmd", VERSION)


def test_it_has_the_form_of_cyclonedx(document: dict[str, Any]) -> None:
    assert (document["bomFormat"], document["specVersion"]) == ("CycloneDX", "1.5")
    assert uuid.UUID(document["serialNumber"].removeprefix("urn:uuid:"))
    references = [component["bom-ref"] for component in document["components"]]
    assert len(set(references)) == len(references)
    known = {*references, document["metadata"]["component"]["bom-ref"]}
    for entry in document["dependencies"]:
        assert {entry["ref"], *entry["dependsOn"]} <= known
    reached: set[str] = set()
    waiting = ["velmd"]
    uses = {entry["ref"]: entry["dependsOn"] for entry in document["dependencies"]}
    while waiting:
        one = waiting.pop()
        if one not in reached:
            reached.add(one)
            waiting += uses[one]
    assert reached == known, "every part is there because the daemon, or a part, needs it"
