"""The wires around a stand-in cloud, which each file makes as it needs it: the fixture `cloud`."""

from __future__ import annotations

from collections.abc import Iterator

import pytest
from velm_sim.cloud import Cloud
from velm_sim.lan_http import LanHost
from velm_sim.namespaces import Network, remove_stale


@pytest.fixture(scope="module")
def network() -> Iterator[Network]:
    remove_stale()
    made = Network()
    yield made
    made.close()


@pytest.fixture
def caller(network: Network, cloud: Cloud) -> LanHost:
    """Somebody in the access point's network who trusts the cloud's CA."""
    host = LanHost(
        network.ap, network.CLOUD_ADDRESS, 443, cloud.certificates.authority.pem, timeout=2
    )
    host.context().check_hostname = False
    return host
