"""What phones do while the LAN bounces: whatever is answered must be answered rightly."""

from __future__ import annotations

import contextlib
import http.client
import random
import threading
from collections.abc import Callable, Iterator
from dataclasses import replace

from velm_sim.lan_http import LanHost
from velm_sim.ssdp import Searcher, search_message

from .log import require
from .world import World

ASKING_HOST, SEARCHING_HOST, LEAVING_HOST = 6, 7, 8  # by the number of their address
PATIENCE = 0.5


class Traffic:
    """Phones that ask, search and leave, each on a thread of its own, until `stop`."""

    def __init__(self, world: World, addresses: set[str]) -> None:
        self._world, self._addresses = world, sorted(addresses)
        self._ending = threading.Event()
        self.statuses: set[int] = set()
        self.locations: set[str] = set()
        works = (self._ask, self._search, self._leave)
        self._threads = [threading.Thread(target=self._run, args=(work,)) for work in works]
        for thread in self._threads:
            thread.start()

    def stop(self) -> None:
        self._ending.set()
        for thread in self._threads:
            thread.join()

    def judge(self) -> None:
        """What was answered is what was true at some moment of the event."""
        port = self._world.access_point.port
        right = {f"https://{address}:{port}/info" for address in self._world.bridge.seen}
        require(self.statuses <= {200}, f"/info is answered with 200, not {self.statuses}")
        require(self.locations <= right, f"searches find {right}, not {self.locations}")

    def _run(self, work: Callable[[random.Random], None]) -> None:
        dice = random.Random(0)
        while not self._ending.wait(0.02):
            # An address that is not there, or goes, is what this is about.
            with contextlib.suppress(OSError, http.client.HTTPException):
                work(dice)

    def _host(self, number: int, dice: random.Random) -> LanHost:
        host = self._world.access_point.lan_host(number, PATIENCE)
        server = dice.choice(self._addresses)
        return replace(host, server=server, certificate_pem=self._world.server_identity.pem)

    def _ask(self, dice: random.Random) -> None:
        self.statuses.add(self._host(ASKING_HOST, dice).request("/info").status)

    def _leave(self, dice: random.Random) -> None:
        with self._host(LEAVING_HOST, dice).connect_tls() as connection:
            connection.sendall(b"POST /location HTTP/1.1\r\nContent-Le")

    def _search(self, dice: random.Random) -> None:
        network = self._world.network
        with Searcher(network.phone, network.PHONE_ADDRESSES[SEARCHING_HOST]) as searcher:
            searcher.send(search_message())
            searcher.send(search_message(), dice.choice(self._addresses))
            while (answer := searcher.receive(0.05)) is not None:
                self.locations.add(answer.location)


@contextlib.contextmanager
def traffic(world: World, wanted: bool, addresses: set[str]) -> Iterator[None]:
    if not wanted:
        yield
        return
    phones = Traffic(world, addresses)
    try:
        yield
    finally:
        phones.stop()
    phones.judge()
