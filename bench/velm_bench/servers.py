"""velmd's peers, each with a configuration of its own in a temporary directory."""

from __future__ import annotations

import contextlib
import ipaddress
import shutil
import subprocess
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

from cryptography import x509
from cryptography.hazmat.primitives.asymmetric import rsa
from velm_sim.access_point import PORT, AccessPoint
from velm_sim.certificates import Identity, issue, subject
from velm_sim.daemon import wait_until
from velm_sim.namespaces import Namespace, Network

from .watch import SERVER_CORE, end, pin

ADDRESS = Network.AP_ADDRESS
LAN_BRIDGE = "br0"
KINDS = ("ecdsa", "rsa")
NGINX_PORTS = {"ecdsa": 9443, "rsa": 9444}
LIGHTTPD_PORTS = {"ecdsa": 9543, "rsa": 9544}

NGINX = """
daemon off;
master_process off;
worker_processes 1;
error_log stderr crit;
pid {at}/nginx.pid;
events {{ worker_connections 256; }}
http {{
    access_log off;
    client_body_temp_path {at}/nginx; proxy_temp_path {at}/nginx; fastcgi_temp_path {at}/nginx;
    uwsgi_temp_path {at}/nginx; scgi_temp_path {at}/nginx;
    default_type application/json;
    keepalive_requests 1000000000;
    keepalive_timeout 600;
    ssl_protocols TLSv1.2 TLSv1.3;
    root {at}/www;
    {servers}
}}
"""
NGINX_SERVER = (
    "server {{ listen {address}:{port} ssl; ssl_certificate {at}/{kind}.crt; "
    "ssl_certificate_key {at}/{kind}.key; }}"
)
LIGHTTPD = """
server.modules = ( "mod_openssl" )
server.document-root = "{at}/www"
server.bind = "{address}"
server.port = {port}
server.max-keep-alive-requests = 65535
server.max-keep-alive-idle = 600
mimetype.assign = ( "" => "application/json" )
ssl.engine = "enable"
ssl.pemfile = "{at}/ecdsa.crt"
ssl.privkey = "{at}/ecdsa.key"
$SERVER["socket"] == "{address}:{rsa_port}" {{
    ssl.engine = "enable"
    ssl.pemfile = "{at}/rsa.crt"
    ssl.privkey = "{at}/rsa.key"
}}
"""
MOSQUITTO = "listener 1883 127.0.0.1\nallow_anonymous true\npersistence false\nuser root\n"


@dataclass
class Server:
    """One process that serves."""

    name: str
    pid: int
    ports: dict[str, int]


def rsa_identity(host: str) -> Identity:
    alternatives = x509.SubjectAlternativeName([x509.IPAddress(ipaddress.ip_address(host))])
    key = rsa.generate_private_key(public_exponent=65537, key_size=2048)
    return issue(subject(host), key, None, extensions=[(alternatives, False)])


class Peers:
    """nginx, lighttpd and mosquitto in one namespace."""

    def __init__(self, directory: Path, namespace: Namespace, identities: dict[str, Identity]):
        self.at, self.namespace, self.identities = directory, namespace, identities
        self._processes: list[subprocess.Popen[bytes]] = []
        (directory / "www").mkdir(parents=True)
        (directory / "nginx").mkdir()
        for kind, identity in identities.items():
            identity.write(directory / f"{kind}.crt", directory / f"{kind}.key")
        self._write_configurations()

    def _write_configurations(self) -> None:
        at = self.at
        servers = "\n    ".join(
            NGINX_SERVER.format(address=ADDRESS, port=port, at=at, kind=kind)
            for kind, port in NGINX_PORTS.items()
        )
        (at / "nginx.conf").write_text(NGINX.format(at=at, servers=servers))
        (at / "lighttpd.conf").write_text(
            LIGHTTPD.format(
                at=at, address=ADDRESS, port=LIGHTTPD_PORTS["ecdsa"], rsa_port=LIGHTTPD_PORTS["rsa"]
            )
        )
        (at / "mosquitto.conf").write_text(MOSQUITTO)

    def publish(self, name: str, content: bytes) -> None:
        """What nginx and lighttpd serve under that name."""
        (self.at / "www" / name).write_bytes(content)

    @property
    def nginx_command(self) -> list[str]:
        return [program("nginx"), "-c", f"{self.at}/nginx.conf"]

    def start_nginx(self) -> Server:
        return self._start("nginx", self.nginx_command, NGINX_PORTS)

    def start_lighttpd(self) -> Server:
        command = [program("lighttpd"), "-D", "-f", f"{self.at}/lighttpd.conf"]
        return self._start("lighttpd", command, LIGHTTPD_PORTS)

    def start_mosquitto(self) -> Server:
        command = [program("mosquitto"), "-c", f"{self.at}/mosquitto.conf"]
        return self._start("mosquitto", command, {"plain": 1883}, "127.0.0.1")

    def _start(
        self, name: str, command: list[str], ports: dict[str, int], address: str = ADDRESS
    ) -> Server:
        process = subprocess.Popen(
            self.namespace.command(*pin(SERVER_CORE), *command),
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
        )
        self._processes.append(process)

        def listens() -> bool:
            if process.poll() is not None:
                said = process.stderr.read().decode() if process.stderr else ""
                raise RuntimeError(f"{name} ended at once: {said}")
            return all(self._accepts(address, port) for port in ports.values())

        wait_until(listens, 10, f"{name} does not listen")
        return Server(name, process.pid, ports)

    def _accepts(self, address: str, port: int) -> bool:
        with self.namespace.socket() as probe:
            return probe.connect_ex((address, port)) == 0

    def close(self) -> None:
        for process in self._processes:
            end(process)
            if process.stderr:
                process.stderr.close()


def program(name: str) -> str:
    found = shutil.which(name, path="/usr/sbin:/usr/bin:/sbin:/bin")
    if found is None:
        raise RuntimeError(f"{name} is not installed")
    return found


def start_velmd(access_point: AccessPoint) -> Server:
    """As it runs on a device: the log off."""
    daemon = access_point.prepare(through=pin(SERVER_CORE))
    daemon.start()
    daemon.wait_until_serving()
    return Server("velmd", daemon.pid, {"ecdsa": PORT, "rsa": PORT})


@contextlib.contextmanager
def velmd_with(access_point: AccessPoint, identity: Identity) -> Iterator[None]:
    """The daemon serves another certificate while this lasts."""
    at = access_point.directory
    before = {name: (at / name).read_text() for name in ("server_cert.pem", "server_key.pem")}
    identity.write(at / "server_cert.pem", at / "server_key.pem")
    access_point.reload()
    try:
        yield
    finally:
        for name, text in before.items():
            (at / name).write_text(text)
        access_point.reload()


