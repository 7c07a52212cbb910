"""What a simulator received."""

from __future__ import annotations

import json
import re
import time
from collections.abc import Mapping
from dataclasses import dataclass, field
from typing import Any

_CLOSE = re.compile(rb"\r\nconnection:[ \t]*close", re.IGNORECASE)


@dataclass(frozen=True)
class ReceivedRequest:
    """One request as it arrived.

    Attributes:
        method: "POST", "GET", ...
        path: The target as sent, query included ("/v1/chat/completions").
        headers: Name and value of each header, in the order and the letter case received.
        body: The decoded JSON, or the body as text when it is not JSON.
        disconnected: The client had gone before its answer was complete.
        arrived: When all of it was there, by `time.monotonic()`.
    """

    method: str
    path: str
    headers: tuple[tuple[str, str], ...]
    body: Any
    disconnected: bool
    arrived: float = field(compare=False)

    def header(self, name: str) -> str | None:
        """Return the value of the first header ``name`` in any letter case, else None."""
        wanted = name.lower()
        return next((value for key, value in self.headers if key.lower() == wanted), None)


class Exchange:
    """A request inside the server.

    Only what the answer depends on is read at once; the rest is kept as bytes and read when
    somebody asks, since a load test asks for none of its many thousand requests.
    """

    __slots__ = ("arrived", "body", "disconnected", "head", "keep_alive", "method", "path")

    def __init__(self, head: bytes, body: bytes) -> None:
        """Take a request apart; ValueError when the first line of ``head`` is not one."""
        method, path, version = head.partition(b"\r\n")[0].decode("latin-1").split(" ")
        if version not in ("HTTP/1.1", "HTTP/1.0"):
            raise ValueError(f"unknown protocol {version}")
        self.method = method
        self.path = path
        self.head = head
        self.body = body
        self.keep_alive = version == "HTTP/1.1" and not _CLOSE.search(head)
        self.disconnected = False
        self.arrived = time.monotonic()

    def members(self) -> Mapping[str, Any]:
        """Return the members of the JSON body, none when it is something else."""
        try:
            body = json.loads(self.body)
        except (ValueError, RecursionError):
            return {}
        return body if isinstance(body, dict) else {}

    def received(self) -> ReceivedRequest:
        """Return the request as a test wants to see it."""
        lines = self.head.decode("latin-1").split("\r\n")[1:]
        pairs = [line.partition(":") for line in lines]
        headers = tuple((name, value.strip()) for name, _, value in pairs)
        return ReceivedRequest(
            self.method, self.path, headers, self._decoded(), self.disconnected, self.arrived
        )

    def _decoded(self) -> Any:
        try:
            return json.loads(self.body)
        except (ValueError, RecursionError):
            return self.body.decode("utf-8", "replace")
