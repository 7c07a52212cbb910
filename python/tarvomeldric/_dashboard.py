"""The HTTP server behind `serve_dashboard`: routes, replies, and patience with clients."""

from __future__ import annotations

import io
import json
import re
import selectors
import socket
import socketserver
import sys
import threading
import time
from contextlib import ExitStack
from http.server import BaseHTTPRequestHandler, HTTPServer
from typing import Any

from tarvomeldric import _fork
from tarvomeldric._engine import _build_dashboard

# Seconds that a client may take for its first byte, for the whole head of its request, and for
# taking in the reply.
_PATIENCE = 3.0


def serve(
    engine: Any,
    host: str,
    port: int,
    with_prometheus: bool,
    with_health: bool,
    with_dashboard: bool,
) -> HTTPServer:
    """Starts a server for one engine on a daemon thread and prints where it is."""

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
            path = re.split("[?#]", self.path, maxsplit=1)[0]
            if path == "/metrics" and with_prometheus:
                self._send_text(engine.get_metrics().prometheus_format())
            elif path == "/health" and with_health:
                self._send_json(engine.get_metrics().health_endpoint())
            elif path == "/stats":
                self._send_json(engine.get_stats())
            elif path == "/" and with_dashboard:
                self._send_html(_build_dashboard(engine))
            else:
                self.send_error(404)

    pages = {
        "Dashboard": with_dashboard and "/",
        "Prometheus": with_prometheus and "/metrics",
        "Health": with_health and "/health",
    }
    with ExitStack() as undo:
        server = _Server((host, port), _Handler)
        undo.callback(server.server_close)
        threading.Thread(
            target=server.serve_forever, name="tarvomeldric-dashboard", daemon=True
        ).start()
        undo.callback(server.shutdown)
        for label, path in pages.items():
            if path:
                print(f"  {label}: http://{host}:{server.server_port}{path}")
        undo.pop_all()
    _fork.watch(server)
    return server


class _PromptHandler(BaseHTTPRequestHandler):
    """Waits a few seconds for a request and no longer, and sends each reply in one go."""

    def setup(self) -> None:
        self.connection = self.request
        self.rfile = io.BufferedReader(_Head(self.connection))
        self.wfile = self._reply = io.BytesIO()

    def finish(self) -> None:
        self.connection.settimeout(_PATIENCE)  # for all of it
        self.connection.sendall(self._reply.getvalue())

    def _send(self, status: int, content_type: str, text: str) -> None:
        body = text.encode("utf-8")
        self.send_response(status)
        self.send_header("Content-Type", content_type)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)


class _Head(io.RawIOBase):
    """What a connection delivers in time, however small its pieces are."""

    def __init__(self, connection: socket.socket) -> None:
        self._connection = connection
        self._deadline = time.monotonic() + _PATIENCE

    def readable(self) -> bool:
        return True

    def readinto(self, buffer: Any) -> int:
        left = self._deadline - time.monotonic()
        if left <= 0:
            raise TimeoutError("the request did not arrive in time")
        self._connection.settimeout(left)
        return self._connection.recv_into(buffer)


class _Server(HTTPServer):
    """Serves one request at a time. A connection has its turn once it has sent something.

    Browsers open connections in advance and leave them silent; each would hold up everybody else.
    """

    def __init__(self, address: tuple[str, int], handler: type[BaseHTTPRequestHandler]) -> None:
        if ":" in address[0]:
            self.address_family = socket.AF_INET6
        self._arrivals = selectors.DefaultSelector()
        super().__init__(address, handler)
        self._arrivals.register(self.socket, selectors.EVENT_READ)

    def server_bind(self) -> None:
        socketserver.TCPServer.server_bind(self)  # the library's next base asks for the host's name
        self.server_name, self.server_port = self.server_address[:2]  # type: ignore[assignment]

    def fileno(self) -> int:
        """What the serving loop waits for: somebody new, or something new from those who are here."""
        return self._arrivals.fileno()

    def get_request(self) -> tuple[socket.socket, Any]:
        """The connection whose turn it is; OSError when there is none yet."""
        arrived = [key for key, _ in self._arrivals.select(timeout=0)]
        for key in sorted(arrived, key=lambda key: key.fileobj is self.socket):
            if key.fileobj is self.socket:
                connection, address = self.socket.accept()
                latest = time.monotonic() + _PATIENCE
                self._arrivals.register(connection, selectors.EVENT_READ, (address, latest))
            else:
                self._arrivals.unregister(key.fileobj)
                return key.fileobj, key.data[0]  # type: ignore[return-value]
        raise BlockingIOError("nobody has sent anything")

    def service_actions(self) -> None:
        now = time.monotonic()
        for key in list(self._arrivals.get_map().values()):
            if key.data and key.data[1] < now:
                self._arrivals.unregister(key.fileobj)
                self.shutdown_request(key.fileobj)  # type: ignore[arg-type]

    def handle_error(self, request: Any, client_address: Any) -> None:
        # A client that goes away is nobody's error.
        if not isinstance(sys.exc_info()[1], ConnectionError | TimeoutError):
            super().handle_error(request, client_address)

    def server_close(self) -> None:
        for key in (self._arrivals.get_map() or {}).values():
            key.fileobj.close()  # type: ignore[union-attr]
        self._arrivals.close()
        super().server_close()

    def _after_fork(self) -> None:
        # The parent serves; a child that kept the port would keep it from being bound again.
        self.server_close()
