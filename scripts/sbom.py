#!/usr/bin/env python3
"""Writes what a linked program is made of, as a CycloneDX document in JSON.

The dynamic loader says which shared libraries it maps, the linker's map which archives and start-up
objects of the machine went into the program, and dpkg which package each file is of, its version and its
licences. The map is that of GNU ld. The same program on the same machine gives the same bytes.

usage: sbom.py PROGRAM LINKER_MAP NAME VERSION OUTPUT
"""

from __future__ import annotations

import functools
import hashlib
import json
import re
import subprocess
import sys
import uuid
from dataclasses import dataclass, field
from pathlib import Path
from urllib.parse import quote

Json = dict[str, object]


@dataclass
class Component:
    """A shared library, or all that a package has given to the program itself."""

    name: str
    linkage: str
    files: list[Path]
    package: str = ""
    needs: list[str] = field(default_factory=list)

    @property
    def reference(self) -> str:
        return f"{self.linkage}:{self.name}"


def output_of(*command: str | Path) -> str:
    """Empty when the command fails."""
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True)
    return done.stdout if done.returncode == 0 else ""


def package_of(file: Path) -> str:
    """"name:architecture", empty for a file of no package."""
    return _owners().get(file, "")


@functools.cache
def _owners() -> dict[Path, str]:
    """Of every file of the machine, since asking once for all is the quickest way to ask."""
    owners: dict[Path, str] = {}
    for listing in Path("/var/lib/dpkg/info").glob("*.list"):
        for line in listing.read_text(errors="replace").splitlines():
            if re.search(r"/ld-|\.so|\.[ao]$", line):
                # "/lib" may be a link to "/usr/lib": dpkg knows the one, the loader the other.
                owners[Path(line)] = owners[Path("/usr") / line[1:]] = listing.stem
    return owners


def shared_libraries(program: Path) -> dict[str, Path]:
    """By the name that the loader looks for."""
    lines = output_of("ldd", program).splitlines()
    found = [re.match(r"\s*(?:(\S+) => )?(/\S+) \(0x", line) for line in lines]
    libraries = {
        Path(match[1] or match[2]).name: Path(match[2]).resolve() for match in found if match
    }
    if not libraries:
        sys.exit(f"sbom: the loader of this machine cannot load {program}")
    return libraries


def needed(file: Path) -> list[str]:
    return re.findall(r"\(NEEDED\).*\[(.*)\]", output_of("readelf", "--wide", "--dynamic", file))


def linked_files(linker_map: Path) -> list[Path]:
    """Archives of which a member is in the program, and objects, that the build has not made."""
    text = linker_map.read_text()
    members = text.partition("\nMemory Configuration")[0]  # which member satisfies whose reference
    archives = set(re.findall(r"^(/\S+\.a)\(", members, re.MULTILINE))
    objects = set(re.findall(r"^LOAD (/\S+\.o)$", text, re.MULTILINE))
    return sorted({Path(name).resolve() for name in archives | objects})


def components(program: Path, linker_map: Path) -> list[Component]:
    dynamic = [
        Component(name, "dynamic", [file], package_of(file), needed(file))
        for name, file in sorted(shared_libraries(program).items())
    ]
    static: dict[str, Component] = {}
    for file in linked_files(linker_map):
        package = package_of(file)
        name = package.partition(":")[0] or file.name
        static.setdefault(name, Component(name, "static", [], package)).files.append(file)
    return dynamic + [static[name] for name in sorted(static)]


def licences(package: str) -> list[str]:
    """The short names in the package's own file about them."""
    file = Path("/usr/share/doc") / package.partition(":")[0] / "copyright"
    if not file.is_file():
        return []
    text = file.read_text(errors="replace")
    names = re.findall(r"^Licen[cs]e: *(\S.*)$", text, re.MULTILINE)
    return sorted(set(map(str.strip, names))) or [f"see {file}"]


def sha256(file: Path) -> list[Json]:
    return [{"alg": "SHA-256", "content": hashlib.sha256(file.read_bytes()).hexdigest()}]


def described(component: Component) -> Json:
    """The form that CycloneDX wants."""
    made: Json = {
        "type": "library",
        "bom-ref": component.reference,
        "name": component.name,
        "version": "unknown",
        "properties": [{"name": "velm:linkage", "value": component.linkage}]
        + [{"name": "velm:file", "value": str(file)} for file in component.files],
    }
    if component.linkage == "dynamic":
        made["hashes"] = sha256(component.files[0])
    if component.package:
        fields = output_of("dpkg-query", "-W", "-f", "${Version} ${Architecture}", component.package)
        version, architecture = fields.split()
        name = component.package.partition(":")[0]
        made["version"] = version
        made["purl"] = f"pkg:deb/debian/{name}@{quote(version)}?arch={architecture}"
        made["licenses"] = [{"license": {"name": name}} for name in licences(component.package)]
    return made


def document(program: Path, linker_map: Path, name: str, version: str) -> Json:
    parts = components(program, linker_map)
    dynamic = {part.name: part.reference for part in parts if part.linkage == "dynamic"}
    digest = sha256(program)
    of_program = [dynamic[soname] for soname in needed(program) if soname in dynamic]
    of_program += [part.reference for part in parts if part.linkage == "static"]
    return {
        "bomFormat": "CycloneDX",
        "specVersion": "1.5",
        "serialNumber": f"urn:uuid:{uuid.uuid5(uuid.NAMESPACE_OID, str(digest[0]['content']))}",
        "version": 1,
        "metadata": {
            "component": {
                "type": "application", "bom-ref": name, "name": name, "version": version,
                "hashes": digest,
            }
        },
        "components": [described(part) for part in parts],
        "dependencies": [{"ref": name, "dependsOn": of_program}]
        + [
            {"ref": part.reference, "dependsOn": [dynamic[n] for n in part.needs if n in dynamic]}
            for part in parts
        ],
    }  # fmt: skip


def main() -> None:
    program, linker_map, name, version, output = sys.argv[1:]
    made = document(Path(program), Path(linker_map), name, version)
    Path(output).write_text(json.dumps(made, indent=2) + "\n")


if __name__ == "__main__":
    main()
