"""One request of a client: what it brings, and the way of the answer back to it."""

from __future__ import annotations

from typing import Any

from starlette.datastructures import Headers
from starlette.requests import Request
from starlette.responses import Response
from starlette.types import Receive, Scope, Send

from tarvomeldric.clients.relay import Streamed
from tarvomeldric.clients.replies import Reply, error_body, raw_of, refusal
from tarvomeldric.clients.requests import Incoming
from tarvomeldric.gateway.waiting import Limit, Presence

_STOPPED = error_body("the gateway is being stopped", "gateway_stopped")


class Visit:
    """A client's request.

    Attributes:
        headers: Those of the request.
        route: What it is counted as.
        status: That of the answer, 0 as long as there is none.
    """

    def __init__(self, scope: Scope, receive: Receive, send: Send) -> None:
        self._scope = scope
        self._receive = receive
        self._send = send
        self._handed_on: Any = None
        self.headers = Headers(scope=scope)
        self.route = "other"
        self.status = 0

    def incoming(self, content: bytes = b"") -> Incoming:
        scope = self._scope
        path = scope["raw_path"].decode("ascii")
        headers = dict(self.headers.items())
        return Incoming(scope["method"], path, scope["query_string"], headers, content)

    async def body(self, longest: int, seconds: float) -> bytes | Reply:
        """What the client sends, or why it is not taken; ClientDisconnect when it leaves meanwhile."""
        if int(self.headers.get("content-length", 0)) > longest:
            return _too_long(longest)
        pieces: list[bytes] = []
        length = 0
        try:
            with Limit(seconds):
                async for piece in Request(self._scope, self._receive).stream():
                    length += len(piece)
                    if length > longest:
                        return _too_long(longest)
                    pieces.append(piece)
        except TimeoutError:
            return refusal(408, f"the body took longer than {seconds:g} s", "body_too_late")
        return b"".join(pieces)

    async def answer(self, reply: Reply) -> None:
        self.status = reply.status
        response = Response(reply.content, reply.status, reply.headers)
        await response(self._scope, self._receive, self._send)

    async def hand_on(self, answer: Any) -> None:
        """Sends the pieces of an answer, all but its end, as they come."""
        self._handed_on = answer
        self.status = answer.status if answer.status <= 599 else 502  # there are none above
        headers = raw_of(answer.headers)
        await self._send({"type": "http.response.start", "status": self.status, "headers": headers})
        async for piece in answer.apieces():
            await self._send({"type": "http.response.body", "body": piece, "more_body": True})

    async def end(self, piece: bytes = b"") -> None:
        await self._send({"type": "http.response.body", "body": piece})

    async def cut_off(self) -> None:
        """Tells a client that its answer is not waited for any longer; what is passed on just ends."""
        if isinstance(self._handed_on, Streamed):
            await self.end(b"\n\ndata: " + _STOPPED + b"\n\n")
        elif not self.status:
            await self.answer(Reply(503, {"content-type": "application/json"}, _STOPPED))

    def presence(self) -> Presence:
        return Presence(self._receive)


def _too_long(longest: int) -> Reply:
    return refusal(413, f"the body is longer than {longest} bytes", "body_too_long")
