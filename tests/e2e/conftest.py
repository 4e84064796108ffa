"""An access point with the built daemon, a cloud, phones and local clients, as fixtures.

Namespaces and certificates are made once and shared; the daemon, its nvram and the phones are
fresh for every test. At the end of each test the sanitizers' verdict is part of the result.
"""

from __future__ import annotations

from collections.abc import Callable, Iterator

import pytest
from velm_harness.instrumented import InstrumentedBuild
from velm_harness.sample import Sample
from velm_sim.access_point import AccessPoint, Credentials
from velm_sim.build import Build, BuildError
from velm_sim.cloud import Cloud, CloudCertificates
from velm_sim.ipc_client import IpcClient
from velm_sim.namespaces import Network, remove_stale
from velm_sim.phone import Phone, Profile
from velm_sim.tls_policy import POLICIES, TlsPolicy


def pytest_report_header(config: pytest.Config) -> str:
    tls = config.getoption("--tls")
    return f"daemon under test: {config.getoption('--build')}, TLS of the others: {tls}"


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item: pytest.Item) -> Iterator[None]:
    """A failure shows the end of the daemon's log, and what the cloud met with."""
    outcome = yield
    report = outcome.get_result()
    if not report.failed:
        return
    used = getattr(item, "funcargs", {})
    access_points = [(k, v) for k, v in used.items() if isinstance(v, AccessPoint) and v.started]
    for name, access_point in access_points[:1]:
        report.sections.append((f"velmd of {name}", access_point.daemon.tail()))
    for name, cloud in used.items():
        if isinstance(cloud, Cloud) and cloud.broken:
            report.sections.append((f"broken connections of {name}", "\n".join(cloud.broken)))


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    """What takes long must not come last: other processes test meanwhile."""
    items.sort(key=lambda item: item.get_closest_marker("begun_first") is None)


@pytest.fixture(scope="session")
def build(pytestconfig: pytest.Config) -> Build:
    try:
        return InstrumentedBuild(pytestconfig.getoption("--build"))
    except BuildError as problem:
        pytest.exit(str(problem), returncode=2)


@pytest.fixture(scope="session")
def sample(pytestconfig: pytest.Config) -> Sample:
    """Which faults to try."""
    return Sample(pytestconfig.getoption("--seed"), pytestconfig.getoption("--every-fault"))


@pytest.fixture(scope="session")
def tls_policy(pytestconfig: pytest.Config) -> TlsPolicy:
    return POLICIES[pytestconfig.getoption("--tls")]


@pytest.fixture(scope="session")
def credentials(tls_policy: TlsPolicy) -> Credentials:
    return Credentials(cloud=CloudCertificates(tls_policy), tls=tls_policy)


@pytest.fixture(scope="session")
def network() -> Iterator[Network]:
    remove_stale()
    made = Network()
    yield made
    made.close()


@pytest.fixture(scope="session")
def running_cloud(network: Network, credentials: Credentials) -> Iterator[Cloud]:
    made = Cloud(
        network.cloud,
        network.CLOUD_ADDRESS,
        credentials.cloud,
        credentials.account,
        integrity_keys=credentials.integrity,
    )
    made.start()
    yield made
    made.stop()


@pytest.fixture
def cloud(running_cloud: Cloud) -> Iterator[Cloud]:
    """The cloud: answers rightly until told otherwise, and remembers this test's requests only."""
    running_cloud.reset()
    yield running_cloud
    running_cloud.drop_connections()


@pytest.fixture
def cold_access_point(
    build: Build, network: Network, credentials: Credentials, cloud: Cloud
) -> Iterator[AccessPoint]:
    """An access point whose daemon the test starts itself."""
    made = AccessPoint(build, network, credentials)
    try:
        yield made
        made.stop()
    finally:
        made.close()


@pytest.fixture
def access_point(cold_access_point: AccessPoint, request: pytest.FixtureRequest) -> AccessPoint:
    """An access point whose daemon serves."""
    cold_access_point.start(clock=request.node.get_closest_marker("movable_clock") is not None)
    return cold_access_point


@pytest.fixture
def phone(access_point: AccessPoint) -> Phone:
    return access_point.phone()


@pytest.fixture
def paired_phone(phone: Phone) -> Phone:
    assert phone.pair().status == 200
    return phone


@pytest.fixture
def pair_phones(access_point: AccessPoint) -> Callable[[int], list[Phone]]:
    """Pairs that many phones, each with an address of its own."""

    def pair(count: int) -> list[Phone]:
        phones = [
            access_point.phone(number, Profile(name=f"Phone {number}")) for number in range(count)
        ]
        for one in phones:
            assert one.pair().status == 200
        return phones

    return pair


@pytest.fixture
def connect_ipc(access_point: AccessPoint) -> Iterator[Callable[[], IpcClient]]:
    """Opens local clients, as many as a test asks for."""
    opened: list[IpcClient] = []

    def connect() -> IpcClient:
        opened.append(IpcClient(access_point.socket_path))
        return opened[-1]

    yield connect
    for client in opened:
        client.close()


@pytest.fixture
def ipc(connect_ipc: Callable[[], IpcClient]) -> IpcClient:
    return connect_ipc()
