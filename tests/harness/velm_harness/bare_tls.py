"""A phone's TLS whose records wait until the test takes them."""

from __future__ import annotations

import socket
import ssl

from velm_sim.lan_http import LanHost


def shaken_hands(host: LanHost) -> tuple[socket.socket, ssl.SSLObject, ssl.MemoryBIO]:
    """The client's last words of the handshake wait too, for what is taken and sent next."""
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    client = host.context().wrap_bio(incoming, outgoing, server_hostname=host.server)
    raw = host.connect_tcp()
    while True:
        try:
            client.do_handshake()
            return raw, client, outgoing
        except ssl.SSLWantReadError:
            raw.sendall(outgoing.read())
            incoming.write(raw.recv(65536))
