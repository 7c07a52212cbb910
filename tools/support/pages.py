"""Pages of a dashboard, asked for as a plain HTTP client does."""

from __future__ import annotations

import contextlib
from http.client import HTTPConnection
from typing import Any, NamedTuple


class Page(NamedTuple):
    status: int
    headers: list[tuple[str, str]]
    body: bytes


def get(server: Any, path: str, method: str = "GET", body: bytes | None = None) -> Page:
    connection = HTTPConnection("127.0.0.1", server.server_port, timeout=20)
    with contextlib.closing(connection):
        connection.request(method, path, body)
        response = connection.getresponse()
        return Page(response.status, response.getheaders(), response.read())
