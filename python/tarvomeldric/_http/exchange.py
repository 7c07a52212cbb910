"""One exchange: sending a request, reading its answer, naming what failed."""

from __future__ import annotations

import asyncio
import functools
from typing import TYPE_CHECKING, Any

from tarvomeldric._http.clients import spoil

if TYPE_CHECKING:
    import httpx


def _read(response: httpx.Response) -> tuple[int, Any]:
    if response.status_code != 200:
        return response.status_code, response.text
    return 200, response.json()


@functools.lru_cache(maxsize=256)
def _parsed(url: str) -> httpx.URL:
    import httpx

    return httpx.URL(url)


def address(client: Any, url: str) -> Any:
    """The URL as the library's own clients take it; parsing it anew costs more than the engine does."""
    import httpx

    return _parsed(url) if isinstance(client, httpx.Client | httpx.AsyncClient) else url


def post(client: Any, url: str, body: Any, headers: Any, timeout: Any) -> tuple[int, Any]:
    """Sends one request: the status with the decoded body, or with the body's text when it is not 200."""
    return _read(client.post(address(client, url), json=body, headers=headers, timeout=timeout))


async def post_async(
    client: Any, url: str, body: Any, headers: Any, timeout: Any
) -> tuple[int, Any]:
    """The same, awaited."""
    target = address(client, url)
    try:
        return _read(await client.post(target, json=body, headers=headers, timeout=timeout))
    except GeneratorExit:
        spoil(client)
        raise


def is_timeout(error: BaseException, asynchronous: bool) -> bool:
    """Whether the failure of an exchange is a time-out of the client or, when awaited, of the host."""
    import httpx

    if isinstance(error, httpx.TimeoutException):
        return True
    return asynchronous and isinstance(error, (asyncio.TimeoutError, TimeoutError))
