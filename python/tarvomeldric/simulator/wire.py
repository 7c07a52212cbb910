"""Requests and replies as bytes on an HTTP/1.1 connection."""

from __future__ import annotations

import json
import re
from collections.abc import Mapping
from http import HTTPStatus
from typing import Any

from .answers import answer_body, error_body, models_body, null_body, request_kind
from .received import Exchange
from .replies import Fault, Reply

_LENGTH = re.compile(rb"\r\ncontent-length:[ \t]*(\d+)", re.IGNORECASE)
_CHUNKED = re.compile(rb"\r\ntransfer-encoding:", re.IGNORECASE)
_EXPECT = re.compile(rb"\r\nexpect:[ \t]*100-continue", re.IGNORECASE)
_REASONS = {status.value: status.phrase for status in HTTPStatus}

_JSON = "application/json"
_GARBAGE = b'{"choices": [{"message": <!-- gateway restarted -->'
_WRONG_SHAPE = b'{"outcome": "fine", "data": {}}'

CONTINUE = b"HTTP/1.1 100 Continue\r\n\r\n"
STREAM_DONE = b"data: [DONE]\n\n"
LAST_CHUNK = b"0\r\n\r\n"


def take_request(buffer: bytearray) -> Exchange | None:
    """Remove the first request from ``buffer``, or return None while it is incomplete.

    Raises:
        ValueError: This is not a request that the simulator understands.
    """
    end_of_head = buffer.find(b"\r\n\r\n")
    if end_of_head < 0:
        return None
    head = bytes(buffer[:end_of_head])
    if _CHUNKED.search(head):
        raise ValueError("send a Content-Length, a chunked request is not understood")
    length = _LENGTH.search(head)
    start = end_of_head + 4
    end = start + (int(length[1]) if length else 0)
    if len(buffer) < end:
        return None
    body = bytes(buffer[start:end])
    del buffer[:end]
    return Exchange(head, body)


def awaits_permission(buffer: bytearray) -> bool:
    """Return whether a client has sent a head and waits to be told to send the body."""
    return buffer.endswith(b"\r\n\r\n") and _EXPECT.search(buffer) is not None


def response(reply: Reply, exchange: Exchange, request: Mapping[str, Any]) -> bytes:
    """Return a whole response; the promised length is right even when the body is then cut."""
    kind = request_kind(exchange.path, request)
    status, content_type, body = _content(reply, exchange.method, kind, request)
    headers = {"Content-Type": content_type, "Content-Length": str(len(body)), **reply.headers}
    if reply.fault is Fault.TRUNCATED:
        body = body[: len(body) // 2]
    return _head(status, headers) + body


def stream_head(reply: Reply) -> bytes:
    """Return the head of a response whose body is a stream of events."""
    own = {"Content-Type": "text/event-stream", "Transfer-Encoding": "chunked"}
    return _head(reply.status, {**own, **reply.headers})


def chunk(piece: bytes) -> bytes:
    """Return ``piece`` as a chunk of a body; an empty one would end the body, so it is none."""
    return b"%x\r\n%b\r\n" % (len(piece), piece) if piece else b""


def refusal(reason: str) -> bytes:
    """Return the response to something that is not a request."""
    body = error_body(400, reason)
    headers = {"Content-Type": _JSON, "Content-Length": str(len(body)), "Connection": "close"}
    return _head(400, headers) + body


def _head(status: int, headers: Mapping[str, str]) -> bytes:
    lines = "".join(f"{name}: {value}\r\n" for name, value in headers.items())
    return f"HTTP/1.1 {status} {_REASONS.get(status, '')}\r\n{lines}\r\n".encode("latin-1")


def _content(
    reply: Reply, method: str, kind: str | None, request: Mapping[str, Any]
) -> tuple[int, str, bytes]:
    """Return status, content type and body of a reply."""
    if reply.fault is Fault.GARBAGE:
        return reply.status, _JSON, _GARBAGE
    if reply.fault is Fault.WRONG_SHAPE:
        return reply.status, _JSON, _WRONG_SHAPE
    if reply.fault is Fault.NULL:
        return reply.status, _JSON, null_body(kind or "chat", request)
    if reply.body is not None:
        return reply.status, *_given_body(reply.body)
    if reply.status != 200:
        message = reply.answer if isinstance(reply.answer, str) else None
        return reply.status, _JSON, error_body(reply.status, message)
    if kind is not None:
        return 200, _JSON, answer_body(kind, request, reply)
    if method == "GET":
        return 200, _JSON, models_body()
    return 404, _JSON, error_body(404, "There is no such endpoint.")


def _given_body(body: Any) -> tuple[str, bytes]:
    if isinstance(body, bytes):
        return "application/octet-stream", body
    if isinstance(body, str):
        return "text/plain; charset=utf-8", body.encode()
    return _JSON, json.dumps(body).encode()
