"""All that the demo runs: the wires, the cloud, the access point and two phones."""

from __future__ import annotations

import contextlib
import time
from collections.abc import Iterator
from dataclasses import dataclass

from .access_point import BSSIDS, AccessPoint, Credentials
from .android_phone import AndroidPhone
from .build import Build
from .cloud import Cloud
from .daemon import Daemon
from .namespaces import Network, remove_stale
from .phone import Phone


@dataclass
class Scene:
    """Everything up. The phones are on different radios and not paired yet."""

    network: Network
    cloud: Cloud
    access_point: AccessPoint
    daemon: Daemon
    iphone: Phone
    android: AndroidPhone
    started_in: float

    @property
    def phones(self) -> tuple[Phone, AndroidPhone]:
        return self.iphone, self.android


@contextlib.contextmanager
def scene(build: Build) -> Iterator[Scene]:
    """Everything up; everything gone afterwards, whatever happened."""
    with contextlib.ExitStack() as cleanup:
        remove_stale()
        credentials = Credentials()
        network = Network()
        cleanup.callback(network.close)
        cloud = Cloud(
            network.cloud,
            network.CLOUD_ADDRESS,
            credentials.cloud,
            credentials.account,
            integrity_keys=credentials.integrity,
        )
        cloud.start()
        cleanup.callback(cloud.stop)
        access_point = AccessPoint(build, network, credentials)
        cleanup.callback(access_point.close)
        start = time.monotonic()
        daemon = access_point.start()
        started_in = time.monotonic() - start
        iphone, android = access_point.phone(0), access_point.android_phone(1)
        android.bssid = BSSIDS[1]
        yield Scene(network, cloud, access_point, daemon, iphone, android, started_in)
