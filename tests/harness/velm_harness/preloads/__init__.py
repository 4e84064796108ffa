"""Libraries in C that a daemon under test is started with; each is built when it is first used."""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

from velm_sim.build import Build


def library(build: Build, name: str) -> Path:
    """The library made from `name`.c, in the build's directory."""
    source = Path(__file__).with_name(f"{name}.c")
    made = build.directory / f"{name}.so"
    newest = max(file.stat().st_mtime for file in (source, source.with_name("control.h")))
    if not made.exists() or made.stat().st_mtime < newest:
        # Under another name first: other test processes look for it at this moment.
        fresh = made.with_suffix(f".{os.getpid()}")
        command = ["cc", "-shared", "-fPIC", "-O1", "-Wall", "-Werror", "-o", fresh, source]
        subprocess.run(command, check=True)
        fresh.replace(made)
    return made
