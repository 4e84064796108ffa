"""velm-https-load repeats requests until it is ended, and times programs."""

from __future__ import annotations

import http.server
import json
import ssl
import subprocess
import threading
from collections.abc import Iterator
from pathlib import Path

import pytest
from velm_bench.servers import rsa_identity
from velm_sim.daemon import wait_until

HOST = "127.0.0.1"


class Server(http.server.ThreadingHTTPServer):
    asked: int = 0


class Answer(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server: Server

    def do_GET(self) -> None:
        self.server.asked += 1
        self.send_response(200)
        self.send_header("Content-Length", "0")
        self.end_headers()

    def log_message(self, *_: object) -> None:
        pass


@pytest.fixture(scope="session")
def load(pytestconfig: pytest.Config) -> str:
    found = Path(pytestconfig.getoption("--build")).absolute() / "bin" / "velm-https-load"
    if not found.exists():
        pytest.exit(f"{found} is not built", returncode=2)
    return str(found)


@pytest.fixture
def server(tmp_path: Path) -> Iterator[Server]:
    rsa_identity(HOST).write(tmp_path / "cert.pem", tmp_path / "key.pem")
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(tmp_path / "cert.pem", tmp_path / "key.pem")
    with Server((HOST, 0), Answer) as made:
        made.daemon_threads = True
        made.socket = context.wrap_socket(made.socket, server_side=True)
        thread = threading.Thread(target=made.serve_forever)
        thread.start()
        yield made
        made.shutdown()
        thread.join()


def kept(load: str, server: Server, at: Path, *options: str) -> list[str]:
    request = b"GET /one HTTP/1.1\r\nHost: velm\r\n\r\n"
    (at / "requests").write_bytes(b"%d\n%s" % (len(request), request))
    return [
        load, "kept", "--server", f"{HOST}:{server.server_port}", "--ca", str(at / "cert.pem"),
        "--requests", str(at / "requests"), *options,
    ]  # fmt: skip


def test_sends_each_request_once(load: str, server: Server, tmp_path: Path) -> None:
    done = subprocess.run(
        kept(load, server, tmp_path, "--seconds", "60"), capture_output=True, timeout=30
    )
    assert json.loads(done.stdout)["statuses"] == {"200": 1}


def test_repeats_until_it_is_ended(load: str, server: Server, tmp_path: Path) -> None:
    command = kept(load, server, tmp_path, "--seconds", "60", "--repeat")
    with subprocess.Popen(command, stdout=subprocess.PIPE) as process:
        try:
            wait_until(lambda: server.asked >= 3, 20, "the request is not repeated")
        finally:
            process.terminate()
        said = json.loads(process.communicate(timeout=20)[0])
    assert process.returncode == 0
    assert said["statuses"] == {"200": server.asked}
    assert said["failures"] == 0


def test_times_a_program_until_its_end(load: str) -> None:
    done = subprocess.run([load, "ended", "--", "sh", "-c", "exit 0"], capture_output=True)
    assert done.returncode == 0
    assert 0 < json.loads(done.stdout)["ended_s"] < 10
    assert subprocess.run([load, "ended", "--", "false"], capture_output=True).returncode == 1
