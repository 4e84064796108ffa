"""Whether everybody is served: phones, local clients, the cloud, and who searches."""

from __future__ import annotations

import http.client

from velm_sim.access_point import AccessPoint
from velm_sim.ipc_client import IpcClient
from velm_sim.namespaces import Network
from velm_sim.phone import Phone
from velm_sim.ssdp import Searcher, search_message

# How a phone or a client meets with a connection or a daemon that has ended.
CUT_OFF = (OSError, RuntimeError, ValueError, http.client.HTTPException)


def use_everything(access_point: AccessPoint, phone: Phone) -> None:
    """A pairing, a request of a local client with a push, the location and its report."""
    assert phone.pair().status == 200
    mark = access_point.daemon.log_mark()
    with IpcClient(access_point.socket_path) as ipc:
        # Who comes while a listener rests, waits.
        access_point.daemon.wait_log("Connection accepted", start=mark, timeout=3)
        ipc.request()
        phone.host.request("/info")
        assert phone.location().status == 200
        assert ipc.receive_report(timeout=3).valid == 1


def unpair_all(access_point: AccessPoint) -> None:
    """Room for the next phones."""
    listed = access_point.phone().pairings()
    for pairing in listed.json()["pairings"]:
        # A setting that could not be written may have left half a pairing.
        assert access_point.phone().unpair(pairing["deviceId"]).status in (200, 400, 404)


def is_discovered(access_point: AccessPoint, timeout: float) -> bool:
    """A search is answered."""
    with Searcher(access_point.network.phone, Network.PHONE_ADDRESSES[0]) as searcher:
        searcher.send(search_message())
        return searcher.receive(timeout) is not None
