"""A build of the daemon: where its programs are and what its sanitizers need."""

from __future__ import annotations

import functools
import os
import subprocess
import sysconfig
from pathlib import Path

PROGRAMS = ("velmd", "nvram", "velmctl")
QUARANTINE_KIB = 320 * 1024


class BuildError(RuntimeError):
    """The build is not there or lacks something."""


class Build:
    """A CMake build directory, such as build/release; the ones named asan and coverage
    are instrumented."""

    def __init__(self, directory: Path | str) -> None:
        self.directory = Path(directory).resolve()
        self.is_asan = "asan" in self.directory.name
        self.is_coverage = "coverage" in self.directory.name
        missing = [name for name in PROGRAMS if not self.program(name).is_file()]
        if missing:
            raise BuildError(f"{self.directory} lacks {', '.join(missing)}: build it first")

    def program(self, name: str) -> Path:
        return self.directory / "bin" / name

    @functools.cached_property
    def leak_probe(self) -> Path:
        """A library that makes an instrumented daemon look for leaks when told to."""
        return self._probe("leak_probe")

    @functools.cached_property
    def coverage_probe(self) -> Path:
        """A library that makes a daemon with coverage counters write them when it is ended."""
        return self._probe("coverage_probe")

    @functools.cached_property
    def allocation_fault(self) -> Path:
        """A library that fails allocations of the daemon when told to."""
        return self._probe("allocation_fault")

    @functools.cached_property
    def call_fault(self) -> Path:
        """A library that fails system calls of the program that preloads it."""
        return self._probe("call_fault")

    @functools.cached_property
    def event_probe(self) -> Path:
        """A library that makes a daemon write down how many events its loop holds."""
        return self._probe("event_probe")

    @functools.cached_property
    def libevent_voice(self) -> Path:
        """A library that makes libevent warn, or say that it is broken."""
        return self._probe("libevent_voice")

    def _probe(self, name: str) -> Path:
        source = Path(__file__).with_name(f"{name}.c")
        library = self.directory / f"{name}.so"
        if not library.exists() or library.stat().st_mtime < source.stat().st_mtime:
            # Under another name first: other test processes look for it at this moment.
            made = library.with_suffix(f".{os.getpid()}")
            command = ["cc", "-shared", "-fPIC", "-O1", "-Wall", "-Werror", "-o", made, source]
            subprocess.run(command, check=True)
            made.replace(library)
        return library

    def memory_limit_kib(self, limit: int) -> int:
        """What a run may grow by: instrumented, freed memory is held back in a quarantine."""
        return limit + (QUARANTINE_KIB if self.is_asan else 0)

    def sanitizer_environment(self, log: Path) -> dict[str, str]:
        """Reports go to `log`.PID; leaks are looked for on request only."""
        common = f"log_path={log}:halt_on_error=1:abort_on_error=0:exitcode=99"
        return {
            # A preloaded clock or probe may stand before the runtime: nothing they define matters.
            "ASAN_OPTIONS": f"{common}:verify_asan_link_order=0:detect_leaks=1"
            ":leak_check_at_exit=0:detect_stack_use_after_return=1:strict_string_checks=1",
            "UBSAN_OPTIONS": f"{common}:print_stacktrace=1",
        }


def faketime_library() -> Path:
    """The library that moves the clock of the program that preloads it."""
    triplet = sysconfig.get_config_var("MULTIARCH") or "*"
    found = sorted(Path("/usr/lib").glob(f"{triplet}/faketime/libfaketime.so.1"))
    if not found:
        raise BuildError("libfaketime is not installed")
    return found[0]
