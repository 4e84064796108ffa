"""What is negotiated on both sides of the daemon is what the option --tls allows."""

from __future__ import annotations

import pytest
from velm_sim.cloud import Cloud
from velm_sim.ipc_client import IpcClient
from velm_sim.phone import Phone
from velm_sim.tls_policy import DEFAULT, TlsPolicy, negotiated


def expected_version(policy: TlsPolicy) -> str:
    return "TLSv1.3" if policy == DEFAULT else f"TLSv{policy.name}"


@pytest.mark.each_machine
@pytest.mark.each_tls
def test_a_phone_gets_the_version_and_cipher_that_it_allows(
    phone: Phone, tls_policy: TlsPolicy
) -> None:
    with phone.host.connect_tls() as connection:
        agreed = negotiated(connection)
    assert agreed[0] == expected_version(tls_policy)
    assert tls_policy.allows(agreed)


@pytest.mark.each_machine
@pytest.mark.each_tls
def test_the_daemon_takes_the_version_and_cipher_that_the_cloud_allows(
    cloud: Cloud, paired_phone: Phone, ipc: IpcClient, tls_policy: TlsPolicy
) -> None:
    ipc.request()
    (push,) = cloud.fcm.wait()
    assert push.json()["message"]["token"] == paired_phone.profile.push_token
    assert len(cloud.negotiated) == 2  # one for the token, one for the push
    for agreed in cloud.negotiated:
        assert agreed[0] == expected_version(tls_policy)
        assert tls_policy.allows(agreed)
