"""One exchange: sending a request, reading its answer, naming what failed."""

from __future__ import annotations

import asyncio
import functools
import json
from typing import TYPE_CHECKING, Any

from tarvomeldric._http.attempt import Abort, AttemptContext
from tarvomeldric._http.clients import own_of

if TYPE_CHECKING:
    import httpx

    from tarvomeldric._http.reading import Body


def post(
    client: Any,
    url: str,
    body: Any,
    headers: Any,
    timeout: Any,
    limit: float | None,
    report: dict[str, Any] | None,
    abort: Abort | None = None,
) -> AttemptContext:
    """Sends one request; the attempt, with status, headers and body.

    It is over within `timeout` and, where there is one, within `limit` seconds. A client that the
    caller placed in a pool is used as it is; the limit only shortens its time-out. What is received
    is told in `report`, too; `abort` ends it, on a client made here. A body that is bytes is sent
    as it is, and the answer's bytes are kept.
    """
    own = own_of(client)
    with AttemptContext(timeout, limit, report, abort) as attempt:
        if own is None:
            timeout = _shorter(timeout, limit)
            target = address(client, url)
            return _take_whole(
                attempt, client.post(target, **sent_as(body), headers=headers, timeout=timeout)
            )
        from tarvomeldric._http.reading import read

        request = _request(client, url, body, headers, timeout)
        with own.serving():
            response = client.send(request, stream=True)
            attempt.status, attempt.headers = response.status_code, response.headers
            received = read(response)
        return _take(attempt, received, body)


async def post_async(
    client: Any,
    url: str,
    body: Any,
    headers: Any,
    timeout: Any,
    limit: float | None,
    report: dict[str, Any] | None,
) -> AttemptContext:
    """The same, awaited."""
    own = own_of(client)
    with LeavingQuietly(), AttemptContext(timeout, limit, report) as attempt:
        if own is None:
            timeout = _shorter(timeout, limit)
            target = address(client, url)
            return _take_whole(
                attempt,
                await client.post(target, **sent_as(body), headers=headers, timeout=timeout),
            )
        from tarvomeldric._http.reading import read_async

        request = _request(client, url, body, headers, timeout)
        with own.serving():
            response = await client.send(request, stream=True)
            attempt.status, attempt.headers = response.status_code, response.headers
            received = await read_async(response)
        return _take(attempt, received, body)


class LeavingQuietly:
    """Lets a coroutine that is closed go, though the library cannot clean up without its loop."""

    def __enter__(self) -> None:
        pass

    def __exit__(self, _: object, error: BaseException | None, __: object) -> None:
        behind = error.__context__ if isinstance(error, Exception) else None
        while behind is not None:
            if isinstance(behind, GeneratorExit):
                raise behind from None
            behind = behind.__context__


def _request(client: Any, url: str, body: Any, headers: Any, timeout: Any) -> httpx.Request:
    """The request as a client of ours would build it, without what only other clients need."""
    import httpx

    if client.params or client.cookies:  # of the caller's own
        built: httpx.Request = client.build_request(
            "POST", _parsed(url), **sent_as(body), headers=headers, timeout=timeout
        )
        return built
    ours = {name.lower().encode() for name in headers}
    usual = [pair for pair in client.headers.raw if pair[0].lower() not in ours]
    return httpx.Request(
        "POST",
        _parsed(url),
        headers=[*usual, *headers.items()],
        content=body if isinstance(body, bytes) else _encoded(body),
        extensions={"timeout": httpx.Timeout(timeout).as_dict()},
    )


def _encoded(body: Any) -> bytes:
    text = json.dumps(body, ensure_ascii=False, separators=(",", ":"), allow_nan=False)
    return text.encode()


def sent_as(body: Any) -> dict[str, Any]:
    """The argument by which the library's clients take it."""
    return {"content" if isinstance(body, bytes) else "json": body}


def _take(attempt: AttemptContext, received: Body, sent: Any) -> AttemptContext:
    if isinstance(sent, bytes):
        attempt.content = received.content()
    attempt.body = received.told()
    return attempt


def _shorter(timeout: Any, limit: float | None) -> Any:
    if limit is None or not (timeout is None or isinstance(timeout, int | float)):
        return timeout
    return limit if timeout is None else min(timeout, limit)


def _take_whole(attempt: AttemptContext, response: Any) -> AttemptContext:
    attempt.status, attempt.headers = response.status_code, getattr(response, "headers", None)
    attempt.content = getattr(response, "content", b"")
    attempt.body = response.json() if response.status_code == 200 else response.text
    return attempt


@functools.lru_cache(maxsize=256)
def _parsed(url: str) -> httpx.URL:
    import httpx

    return httpx.URL(url)


def address(client: Any, url: str) -> Any:
    """The URL as the library's own clients take it; parsing it anew costs more than the engine does."""
    import httpx

    return _parsed(url) if isinstance(client, httpx.Client | httpx.AsyncClient) else url


def is_timeout(error: BaseException, asynchronous: bool) -> bool:
    """Whether the failure of an exchange is a time-out of the client or, when awaited, of the loop."""
    import httpx

    if isinstance(error, httpx.TimeoutException):
        return True
    return asynchronous and isinstance(error, (asyncio.TimeoutError, TimeoutError))
