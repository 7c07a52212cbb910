"""The HTTP server behind `serve_dashboard`: routes, replies, and patience with clients."""

from __future__ import annotations

import contextlib
import io
import json
import re
import selectors
import socket
import socketserver
import threading
import time
from collections.abc import Sequence
from http.server import BaseHTTPRequestHandler, HTTPServer
from typing import Any

from tarvomeldric import _fork
from tarvomeldric._engine import _build_dashboard
from tarvomeldric._host_names import HostNames, is_loopback, require_names
from tarvomeldric._live import Live, live_page

_PATIENCE_S = 3.0  # seconds that a client may take for the head of its request, and for the reply
_LONGEST = 65536  # bytes of a head; the library's own bound for its first line
_ROOM = 100  # connections that wait at a time: the application's descriptors are not ours to use up

# A request's target: what stands before the path (a proxy's client names the server), and the path.
_TARGET = re.compile("(?:https?://([^/?#]*))?([^?#]*)")


def serve(
    engine: Any,
    host: str,
    port: int,
    with_prometheus: bool,
    with_health: bool,
    with_dashboard: bool,
    allowed_hosts: Sequence[str] | None,
    live: bool,
) -> HTTPServer:
    """Starts a server for one engine on a daemon thread and prints where it is."""
    allowed = None if allowed_hosts is None else require_names(allowed_hosts, "allowed_hosts")

    class _Handler(_PromptHandler):
        def log_message(self, format: str, *args: Any) -> None:
            pass

        def _send_json(self, data: Any, status: int = 200) -> None:
            self._send(status, "application/json", json.dumps(data, indent=2))

        def _send_html(self, html: str) -> None:
            self._send(200, "text/html; charset=utf-8", html)

        def _send_text(self, text: str, content_type: str = "text/plain") -> None:
            self._send(200, content_type, text)

        def do_GET(self) -> None:
            authority, path = _TARGET.findall(self.path)[0]
            if server.names and (refusal := self._refusal(authority, server.names)):
                self.send_error(*refusal)
            elif path == "/metrics" and with_prometheus:
                self._send_text(engine.get_metrics().prometheus_format())
            elif path == "/health" and with_health:
                self._send_json(engine.get_metrics().health_endpoint())
            elif path == "/stats":
                self._send_json(engine.get_stats())
            elif path == "/" and with_dashboard:
                self._send_html(_build_dashboard(engine))
            elif path == "/live" and server.live:
                self._send_whole(200, *live_page())
            elif path == "/live.json" and server.live:
                self._send_whole(200, *server.live.figures())
            else:
                self.send_error(404)

    pages = {
        "Dashboard": with_dashboard and "/",
        "Prometheus": with_prometheus and "/metrics",
        "Health": with_health and "/health",
        "Live": live and "/live",
    }
    shown = f"[{host}]" if ":" in host else host
    server = _Server((host, port), _Handler)
    if allowed is not None or is_loopback(server.server_name):
        server.names = HostNames(host, allowed or ())
    try:
        if live:
            server.live = Live(engine)
        server.start()
        for label, path in pages.items():
            if path:
                print(f"  {label}: http://{shown}:{server.server_port}{path}")
    except BaseException:
        server.server_close()
        raise
    _fork.watch(server)
    return server


class _PromptHandler(BaseHTTPRequestHandler):
    """Reads a request that is all there, and sends the reply in one go."""

    def setup(self) -> None:
        self.connection = self.request.connection
        self.rfile = io.BytesIO(self.request.head)
        self.wfile = self._reply = io.BytesIO()

    def finish(self) -> None:
        with contextlib.suppress(OSError):  # a client that goes away is nobody's error
            self.connection.settimeout(_PATIENCE_S)  # for all of it
            self.connection.sendall(self._reply.getvalue())

    def _refusal(self, authority: str, names: HostNames) -> tuple[int, str] | None:
        """Why a request that names another server, not just none, is not answered."""
        hosts = self.headers.get_all("Host", [])
        if len(hosts) > 1:
            return 400, "Several Host headers"
        if all(name in names for name in ([authority] if authority else hosts)):
            return None
        return 421, "Not a name of this server: see allowed_hosts of serve_dashboard"

    def _send(self, status: int, content_type: str, text: str) -> None:
        body = text.encode("utf-8", "replace")  # names are free text, half characters included
        self._send_whole(status, {"Content-Type": content_type}, body)

    def _send_whole(self, status: int, headers: dict[str, str], body: bytes) -> None:
        self.send_response(status)
        for name, value in headers.items():
            self.send_header(name, value)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)


class _Client:
    """A connection, and what it has sent so far."""

    def __init__(self, connection: socket.socket, address: Any) -> None:
        connection.setblocking(False)
        self.connection = connection
        self.address = address
        self.head = b""
        self.deadline = time.monotonic() + _PATIENCE_S

    def has_asked(self) -> bool:
        """Takes in what arrived: whether the head of the request is there, or no more will come."""
        try:
            piece = self.connection.recv(_LONGEST)
        except BlockingIOError:
            return False
        except OSError:
            piece = b""
        self.head += piece
        return not piece or len(self.head) > _LONGEST or bool(re.search(b"\n\r?\n", self.head))


class _Server(HTTPServer):
    """Serves one request at a time. A client has its turn once the head of its request is there.

    Browsers open connections in advance and leave them silent, and some clients are slow; each
    would hold up everybody else.
    """

    request_queue_size = _ROOM
    names: HostNames | None = None  # None: whatever a request calls us
    live: Live | None = None
    _serving = False

    def __init__(self, address: tuple[str, int], handler: type[BaseHTTPRequestHandler]) -> None:
        if ":" in address[0]:
            self.address_family = socket.AF_INET6
        self._arrivals = selectors.DefaultSelector()
        super().__init__(address, handler)
        self._arrivals.register(self.socket, selectors.EVENT_READ)

    def start(self) -> None:
        threading.Thread(
            target=self.serve_forever, name="tarvomeldric-dashboard", daemon=True
        ).start()
        self._serving = True

    def server_bind(self) -> None:
        socketserver.TCPServer.server_bind(self)  # the library's next base asks for the host's name
        self.server_name, self.server_port = self.server_address[:2]  # type: ignore[assignment]

    def fileno(self) -> int:
        """What the serving loop waits for: somebody new, or something new from those who are here."""
        return self._arrivals.fileno()

    def get_request(self) -> tuple[Any, Any]:
        """The client whose turn it is, and its address; OSError when there is none yet."""
        for key, _ in self._arrivals.select(timeout=0):
            if key.fileobj is self.socket:
                self._let_in()
            elif key.data.has_asked():
                self._arrivals.unregister(key.fileobj)
                return key.data, key.data.address
        raise BlockingIOError("nobody has asked")

    def _let_in(self) -> None:
        try:
            client = _Client(*self.socket.accept())
        except OSError:
            time.sleep(0.1)  # no descriptor is left; trying again at once would only burn
        else:
            self._arrivals.register(client.connection, selectors.EVENT_READ, client)

    def _waiting(self) -> list[_Client]:
        """Those who are still asking, in the order in which they came."""
        return [key.data for key in (self._arrivals.get_map() or {}).values() if key.data]

    def service_actions(self) -> None:
        now, waiting = time.monotonic(), self._waiting()
        # A client that has sent something while we were busy is not late.
        heard = {key.fileobj for key, _ in self._arrivals.select(timeout=0)}
        for ahead, client in enumerate(waiting):
            late = client.deadline < now or ahead < len(waiting) - _ROOM
            if late and client.connection not in heard:
                self._arrivals.unregister(client.connection)
                self.shutdown_request(client)

    def shutdown_request(self, request: Any) -> None:
        super().shutdown_request(request.connection)

    def shutdown(self) -> None:
        if self._serving:
            super().shutdown()

    def server_close(self) -> None:
        self.shutdown()
        for client in self._waiting():
            client.connection.close()
        self._arrivals.close()
        super().server_close()
        if self.live is not None:
            self.live.close()

    def _after_fork(self) -> None:
        # The parent serves; a child that kept the port would keep it from being bound again.
        self._serving = False
        self.server_close()
