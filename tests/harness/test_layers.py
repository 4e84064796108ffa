"""The other side of the wire knows nothing of the tests around it."""

from __future__ import annotations

from pathlib import Path

import velm_sim


def test_the_simulators_do_not_import_the_harness() -> None:
    files = list(Path(velm_sim.__file__).parent.rglob("*.py"))
    assert files
    assert not [file.name for file in files if "velm_harness" in file.read_text()]
