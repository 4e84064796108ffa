"""What all Python tests share: which build they look at."""

from __future__ import annotations

from pathlib import Path

import pytest
from _pytest.terminal import TerminalReporter
from velm_harness.sample import seed_of_the_day
from velm_sim.build import is_foreign
from velm_sim.ipc_client import follow_device

REPOSITORY = Path(__file__).resolve().parents[1]


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption(
        "--build",
        default=str(REPOSITORY / "build" / "release"),
        help="build directory of the daemon under test; its name says whether it is instrumented",
    )
    parser.addoption(
        "--every-fault",
        action="store_true",
        help="injects each fault there is, not a sample: some minutes instead of seconds",
    )
    parser.addoption(
        "--seed",
        type=int,
        default=seed_of_the_day(),
        help="draws that sample; the day's unless given, and printed at the end",
    )
    parser.addoption(
        "--tls",
        choices=["default", "1.2", "1.3"],
        default="default",
        help="what the phones and the cloud are willing to negotiate: what their TLS library does "
        "by itself, or that version alone with FIPS-like ciphers, curves and signatures",
    )


def _daemon(config: pytest.Config) -> Path:
    return Path(config.getoption("--build"), "bin", "velmd")


def pytest_configure(config: pytest.Config) -> None:
    if _daemon(config).exists():  # not every test needs it
        follow_device(_daemon(config))


def pytest_collection_modifyitems(config: pytest.Config, items: list[pytest.Item]) -> None:
    """An emulated daemon is spared what the emulator cannot do; the marker says what."""
    if not _daemon(config).exists() or not is_foreign(_daemon(config)):
        return
    for item in items:
        for marker in item.iter_markers("not_emulated"):
            item.add_marker(pytest.mark.skip(reason=f"emulated: {marker.args[0]}"))


def pytest_terminal_summary(terminalreporter: TerminalReporter, config: pytest.Config) -> None:
    reports = [*terminalreporter.getreports("passed"), *terminalreporter.getreports("failed")]
    if any("test_faults_" in report.nodeid for report in reports):
        terminalreporter.write_line(f"faults were drawn from --seed={config.getoption('--seed')}")
