"""The body of an answer: how much of it is read, and how it is decoded."""

from __future__ import annotations

import contextlib
import json
import re
import zlib
from typing import Any

import httpx

_ANSWER_BYTES = 256 * 1024 * 1024
_REFUSAL_BYTES = 64 * 1024

# Charsets whose decoders are done in time proportional to the text, and keep no state that one body
# could leave behind for itself. Python knows many more, some of them quadratic.
_CHARSET = re.compile(r"charset\s*=\s*[\"']?([\w.:-]{1,40})", re.IGNORECASE | re.ASCII)
_LINEAR = re.compile(
    r"utf-?(8|16|32)(-?[bl]e)?|(us-?)?ascii|latin-?\d\d?|iso-?8859-\d\d?|(windows-|cp-?)\d{3,5}"
    r"|koi8-[rut]|gbk|gb-?(2312|18030)|big5|euc-(jp|kr)|(shift-|s)jis"
)
_CODINGS = ("gzip", "x-gzip", "deflate", "br", "zstd")


class Body:
    """What has been read of one answer, its content encoding undone.

    An answer with status 200 is whole or a failure. Of any other, a refusal, the beginning is
    enough, and nothing that is wrong with its body is worth losing the status for.
    """

    def __init__(self, response: httpx.Response) -> None:
        self._refusal = response.status_code != 200
        self._most = _REFUSAL_BYTES if self._refusal else _ANSWER_BYTES
        self._content_type = response.headers.get("content-type", "")[:500]
        self._parts: list[bytes] = []
        self._size = 0
        self._inflating: Any = None
        named = response.headers.get("content-encoding", "").lower().split(",")
        self._codings = [coding for name in named if (coding := name.strip()) in _CODINGS]

    def add(self, piece: bytes) -> bool:
        """Takes a piece as it came; whether the next one is wanted."""
        try:
            self._add(self._decoded(piece))
        except httpx.DecodingError:
            if not self._refusal:
                raise
            return False
        return self._size < self._most or not self._refusal

    def add_decoded(self, piece: bytes) -> None:
        """Takes a whole body that another part of the library has decoded."""
        self._add(piece)

    def _add(self, piece: bytes) -> None:
        self._size += len(piece)
        if self._size > self._most and not self._refusal:
            raise httpx.DecodingError("the answer is larger than 256 MiB")
        self._parts.append(piece)

    def _decoded(self, piece: bytes) -> bytes:
        if not self._codings:
            return piece
        if self._codings not in (["gzip"], ["x-gzip"], ["deflate"]):
            told = ", ".join(self._codings[:3])
            raise httpx.DecodingError(f"content encoding not asked for: {told}")
        room = self._most - self._size + 1
        try:
            if self._inflating is None:
                self._inflating = _inflater(self._codings[0], piece)
            return bytes(self._inflating.decompress(piece, room))
        except zlib.error as error:
            raise httpx.DecodingError(str(error)) from error

    def content(self) -> bytes:
        return b"".join(self._parts)[: self._most]

    def told(self) -> Any:
        """The decoded JSON of an answer, or the text of a refusal."""
        return self._text() if self._refusal else json.loads(self.content())

    def _text(self) -> str:
        charset = _CHARSET.search(self._content_type)
        name = charset[1].lower().replace("_", "-") if charset else ""
        if _LINEAR.fullmatch(name):
            with contextlib.suppress(LookupError, ValueError):
                return self.content().decode(name, "replace")
        return self.content().decode("utf-8", "replace")


def _inflater(coding: str, beginning: bytes) -> Any:
    """What undoes a content encoding. Some servers send "deflate" without the header that belongs to it."""
    if coding != "deflate":
        return zlib.decompressobj(zlib.MAX_WBITS | 16)
    with_header = beginning[0] & 0x0F == zlib.DEFLATED
    return zlib.decompressobj(zlib.MAX_WBITS if with_header else -zlib.MAX_WBITS)


def read(response: httpx.Response) -> Body:
    """Reads as much of an answer as is wanted, and closes it."""
    body = Body(response)
    try:
        if response.is_stream_consumed:  # by who put this answer in the place of a real one
            body.add_decoded(response.content)
        else:
            for piece in response.iter_raw():
                if not body.add(piece):
                    break
    finally:
        response.close()
    return body


async def read_async(response: httpx.Response) -> Body:
    """The same, awaited."""
    body = Body(response)
    if response.is_stream_consumed:
        body.add_decoded(response.content)
        return body
    pieces = response.aiter_raw()
    try:
        async for piece in pieces:
            if not body.add(piece):
                break
    finally:
        await response.aclose()
        # The library's generators end now that nothing more comes. One that was dropped half-way
        # would be left to its loop, which may be gone by then.
        with contextlib.suppress(Exception):
            async for _ in pieces:
                pass
    return body
