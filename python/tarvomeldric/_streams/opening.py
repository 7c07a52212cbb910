"""Opening a streamed answer and reading on in it, blocking and awaited."""

from __future__ import annotations

import asyncio
import codecs
import contextlib
import math
from collections.abc import AsyncGenerator, Generator
from dataclasses import dataclass, field
from time import monotonic
from typing import Any

import httpx

from tarvomeldric._engine import APIError
from tarvomeldric._http.attempt import Abort, AttemptContext
from tarvomeldric._http.clients import Own, own_of
from tarvomeldric._http.exchange import LeavingQuietly, address, sent_as
from tarvomeldric._http.reading import Body, read, read_async
from tarvomeldric._streams.reader import WHOLE_BYTES, EarlyEndError, RawReader, Reader

_LATE = "The whole answer took too long"
_LAST_WORDS_S = 0.02  # for what follows the end of an answer, so that its connection serves again


@dataclass
class Settings:
    """What a stream was asked to keep, for every attempt at it; times in seconds."""

    first_token_timeout: float
    idle_timeout: float
    require_end: bool
    choices: int = 1  # that are asked for
    raw: bool = False  # whether the pieces are wanted as they came, in the place of events
    end: float = math.inf  # of the whole, on the monotonic clock
    begun: bool = False
    newest: Any = field(default=None, repr=False)  # the connection of the latest attempt


class _Connection:
    """One exchange whose answer is streamed, in what both ways of waiting share."""

    def __init__(self, client: Any, settings: Settings, limit: float | None) -> None:
        self.client = client
        self.settings = settings
        self.own: Own | None = own_of(client)
        self.attempt = AttemptContext(settings.first_token_timeout, limit)
        # Of the attempt, whether it takes an answer's first output or the whole.
        self.until = min(settings.end, math.inf if limit is None else monotonic() + limit)
        self.attempt.end = min(self.attempt.end, self.until)
        self.decoder = codecs.getincrementaldecoder("utf-8")()
        self.reader = (RawReader if settings.raw else Reader)(
            settings.require_end, settings.choices
        )
        self.response: httpx.Response | None = None
        self.pieces: Any = None
        self.closed = False
        settings.newest = self
        if self.own:
            self.own.under_way.add(self)

    @property
    def text(self) -> str:
        return self.reader.text

    def request(self, url: str, body: Any, headers: Any) -> httpx.Request:
        # On clients of ours each step is bounded by what the attempt has left.
        longest = max(self.settings.first_token_timeout, self.settings.idle_timeout)
        timeout = None if self.own else longest
        target = address(self.client, url)
        built: httpx.Request = self.client.build_request(
            "POST", target, **sent_as(body), headers=headers, timeout=timeout
        )
        return built

    def take_head(self, response: httpx.Response) -> bool:
        """Whether it is an answer."""
        self.response = response
        self.attempt.status, self.attempt.headers = response.status_code, response.headers
        return response.status_code == 200

    def take_refusal(self, received: Body) -> None:
        self.attempt.body, self.attempt.content = received.told(), received.content()

    def is_enough(self, whole: bool) -> bool:
        """Whether the attempt is over: its answer has begun, or is all there where that is wanted."""
        if not whole:
            return self.reader.is_open
        if self.reader.size > WHOLE_BYTES:
            raise APIError("The answer is larger than 10 MiB, too large to be checked")
        return self.reader.is_over

    def take(self, piece: bytes | None) -> None:
        """Takes what arrived, None for the end. Pings and comments are no sign of life."""
        try:
            if piece is None:
                self.reader.feed(self.decoder.decode(b"", True))
                self.reader.end()
            elif self.reader.feed(self.decoder.decode(piece)):
                self.wait_for_next()
            if self.reader.is_done and not self.own:  # no last words: nothing bounds the wait
                self.reader.is_over = True
        except (APIError, ValueError):
            self.forgive_if_whole()
        if not self.reader.is_over and monotonic() > self.attempt.end:  # of any client
            raise httpx.ReadTimeout("timed out")

    def forgive_if_whole(self) -> None:
        """While a failure is handled: passes it on, unless the answer is whole already."""
        if not self.reader.is_whole:
            raise
        self.reader.is_over = True

    def wait_for_next(self) -> None:
        if self.reader.is_open:
            wait = _LAST_WORDS_S if self.reader.is_done else self.settings.idle_timeout
            self.attempt.end = min(monotonic() + wait, self.until)

    def left_by(self, error: BaseException) -> None:
        if self.own:
            self.own.judge(error)

    def done(self) -> None:
        if self.own:
            self.own.under_way.discard(self)
            self.own.end_if_unused()

    def broken(self, error: Exception) -> Exception:
        """What a failure comes to once the answer has begun."""
        if isinstance(error, httpx.TimeoutException):
            return APIError(_LATE if self.is_late() else "The answer fell silent", 408)
        return error

    def is_late(self) -> bool:
        return monotonic() >= self.settings.end

    def is_failure(self, error: Exception) -> bool:
        """Whether the exchange failed, and not the reader's own code."""
        return isinstance(error, httpx.HTTPError | APIError | EarlyEndError | ValueError)

    def is_providers_fault(self) -> bool:
        """Whether nobody here ended what failed, by closing the client or by the time for the whole."""
        return not self.client.is_closed and not self.is_late()


class BlockingConnection(_Connection):
    def read_on(self) -> None:
        """Takes what arrives next, or the end of it."""
        assert self.response is not None
        try:
            with self.attempt:
                if self.pieces is None:
                    self.pieces = self.response.iter_bytes()
                piece = next(self.pieces, None)
        except BaseException as error:
            self.left_by(error)
            if not isinstance(error, httpx.HTTPError):
                raise
            self.forgive_if_whole()
            return
        self.take(piece)

    def events(self) -> Generator[Any, None, None]:
        """The events that are there, and those that come; closes the connection in the end.

        The first item is None: a generator that has begun is closed when it is dropped.
        """
        reader = self.reader
        failure: Exception | None = None
        self.until = self.settings.end
        try:
            yield None
            while True:
                while reader.events:  # what came before a failure, too
                    yield reader.events.popleft()
                if failure is not None:
                    raise failure
                if reader.is_over:
                    return
                try:
                    self.wait_for_next()
                    while not reader.events and not reader.is_over:
                        self.read_on()
                except Exception as error:
                    failure = self.broken(error)
        finally:
            self.close()

    def close(self) -> None:
        if self.closed:
            return
        self.closed = True
        try:
            if self.response is not None:
                if self.reader.is_over and self.pieces is not None:
                    self.attempt.end = monotonic() + _LAST_WORDS_S
                    with contextlib.suppress(Exception), self.attempt:
                        while next(self.pieces, None) is not None:
                            pass
                self.response.close()
        finally:
            self.done()


def open_blocking(
    client: Any,
    url: str,
    body: Any,
    headers: Any,
    settings: Settings,
    limit: float | None,
    whole: bool,
    abort: Abort | None = None,
) -> AttemptContext:
    """Sends a request and reads its answer as far as the first output, or to its end.

    The attempt, with status and headers; in `stream` the connection, or in `body` a refusal.
    """
    if settings.newest is not None:
        settings.newest.close()
    connection = BlockingConnection(client, settings, limit)
    attempt = connection.attempt
    attempt.abort = abort
    try:
        with attempt:
            try:
                request = connection.request(url, body, headers)
                if not connection.take_head(client.send(request, stream=True)):
                    assert connection.response is not None
                    connection.take_refusal(read(connection.response))
                    connection.close()
                    return attempt
            except BaseException as error:
                connection.left_by(error)
                raise
        while not connection.is_enough(whole) and not connection.reader.is_over:
            connection.read_on()
    except BaseException:
        connection.close()
        raise
    attempt.abort = None
    attempt.stream = connection
    return attempt


class AwaitedConnection(_Connection):
    async def read_on(self) -> None:
        assert self.response is not None
        try:
            with self.attempt:
                if self.pieces is None:
                    self.pieces = self.response.aiter_bytes()
                piece = await anext(self.pieces, None)
        except BaseException as error:
            self.left_by(error)
            if not isinstance(error, httpx.HTTPError):
                raise
            self.forgive_if_whole()
            return
        self.take(piece)

    async def events(self) -> AsyncGenerator[Any, None]:
        reader = self.reader
        failure: Exception | None = None
        self.until = self.settings.end
        try:
            yield None
            while True:
                while reader.events:  # what came before a failure, too
                    yield reader.events.popleft()
                if failure is not None:
                    raise failure
                if reader.is_over:
                    return
                try:
                    self.wait_for_next()
                    while not reader.events and not reader.is_over:
                        await self.read_on()
                except Exception as error:
                    failure = self.broken(error)
        finally:
            await self.aclose()

    async def aclose(self) -> None:
        if self.closed:
            return
        self.closed = True
        try:
            if self.response is not None:
                if self.reader.is_over and self.pieces is not None:
                    self.attempt.end = monotonic() + _LAST_WORDS_S
                    with contextlib.suppress(Exception), self.attempt:
                        while await anext(self.pieces, None) is not None:
                            pass
                await self.response.aclose()
                if self.pieces is not None:
                    # The library's generators end now that nothing more comes; one that is closed
                    # half-way leaves those below it to the loop.
                    with contextlib.suppress(Exception):
                        async for _ in self.pieces:
                            pass
        finally:
            self.done()


async def open_awaited(
    client: Any,
    url: str,
    body: Any,
    headers: Any,
    settings: Settings,
    limit: float | None,
    whole: bool,
) -> AttemptContext:
    """The same, awaited."""
    if settings.newest is not None:
        await settings.newest.aclose()
    connection = AwaitedConnection(client, settings, limit)
    attempt = connection.attempt
    with LeavingQuietly():
        try:
            with attempt:
                try:
                    request = connection.request(url, body, headers)
                    if not connection.take_head(await client.send(request, stream=True)):
                        assert connection.response is not None
                        connection.take_refusal(await read_async(connection.response))
                        await connection.aclose()
                        return attempt
                except BaseException as error:
                    connection.left_by(error)
                    raise
            while not connection.is_enough(whole) and not connection.reader.is_over:
                await connection.read_on()
        except BaseException:
            await connection.aclose()
            raise
    attempt.stream = connection
    return attempt


def discard(settings: Settings) -> None:
    """Closes an answer that has begun and is not wanted, an awaited one as soon as its loop can."""
    unwanted = settings.newest
    if isinstance(unwanted, BlockingConnection):
        unwanted.close()
    elif unwanted is not None:
        closing = asyncio.ensure_future(unwanted.aclose())
        _closing.add(closing)
        closing.add_done_callback(_closing.discard)


_closing: set[asyncio.Future[None]] = set()
