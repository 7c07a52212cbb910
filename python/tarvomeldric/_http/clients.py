"""The HTTP clients of one engine: which one serves a provider, and which loop it belongs to."""

from __future__ import annotations

import asyncio
import contextlib
import threading
import weakref
from collections.abc import AsyncGenerator, Callable, Coroutine
from typing import TYPE_CHECKING, Any

from tarvomeldric._http import shutdown

if TYPE_CHECKING:
    import ssl

    import httpx

_SYNC_LIMITS: dict[str, Any] = {
    "max_connections": 50,
    "max_keepalive_connections": 10,
    "keepalive_expiry": 30.0,
}
_ASYNC_LIMITS: dict[str, Any] = {
    "max_connections": 100,
    "max_keepalive_connections": 20,
    "keepalive_expiry": 30.0,
}


def spoil(client: Any) -> None:
    """Sends nothing more through a client of ours, one exchange of which was closed by hand.

    The library's locks let go when an exchange is cancelled, not when it is closed: a later request
    might wait for one of them without end.
    """
    bound = _bounds.get(id(client))
    if bound is not None and bound.client is client:
        bound.spoilt = True


async def _keep_until_shutdown(client: httpx.AsyncClient) -> AsyncGenerator[None, None]:
    """Closes the client when its loop shuts its asynchronous generators down, as `asyncio.run` does."""
    try:
        yield
    finally:
        await client.aclose()


class _Bound:
    """An asynchronous client, the loop that it belongs to, and what closes it with that loop."""

    def __init__(self, client: httpx.AsyncClient) -> None:
        self.client = client
        self.loop = asyncio.get_running_loop()
        self.thread = threading.get_ident()
        self.keeper = _keep_until_shutdown(client)
        self.closing: asyncio.Task[None] | None = None
        self.transports: list[Any] = []
        self.spoilt = False  # holds locks that nobody gives back
        _bounds[id(client)] = self

    def start_closing(self, closed: Callable[[_Bound], None]) -> None:
        """Closes the client while its loop goes on; tells of it, unless the loop ends before that."""

        def tell(closing: asyncio.Task[None]) -> None:
            if not closing.cancelled() and closing.exception() is None:
                closed(self)

        # A client that is closing forgets them.
        self.transports = shutdown.open_transports(self.client)
        self.closing = self.loop.create_task(self.aclose())
        self.closing.add_done_callback(tell)

    async def aclose(self) -> None:
        await self.client.aclose()
        with contextlib.suppress(RuntimeError):  # the loop, shutting down, may be at it too
            await self.keeper.aclose()

    def abandon(self) -> None:
        """Closes what the loop, gone already, left open, without a word from tasks and transports."""
        if self.closing is not None and not self.closing.done():
            self.closing._log_destroy_pending = False  # type: ignore[attr-defined]
            with contextlib.suppress(Exception):
                self.closing.get_coro().close()
        for transport in self.transports + shutdown.open_transports(self.client):
            sock, transport._sock = transport._sock, None
            if sock is not None:
                sock.close()


# By the client's identity.
_bounds: weakref.WeakValueDictionary[int, _Bound] = weakref.WeakValueDictionary()


class HttpClients:
    """Makes the clients of one engine and knows which loop each asynchronous one belongs to.

    The pools themselves are the engine's dictionaries. A client that the host put there is used as it
    is; one that was made here is used on its own loop alone.
    """

    def __init__(self) -> None:
        self._tls: ssl.SSLContext | None = None
        self._bound: dict[tuple[int, str], _Bound] = {}
        self._left: set[_Bound] = set()  # not known to be closed before their loops are
        self._made: weakref.WeakSet[Any] = weakref.WeakSet()

    def prepare(self) -> None:
        """Loads the HTTP library and makes the TLS context that all clients share."""
        import httpx

        with shutdown.preparing:
            if self._tls is None:
                self._tls = httpx.create_ssl_context()

    def blocking(self, pool: dict[str, Any], lock: Any, name: str) -> Any:
        """The pooled blocking client, made when there is none. No lock is held while it is made."""
        import httpx

        self.prepare()
        assert self._tls is not None
        made = httpx.Client(
            verify=self._tls,
            limits=httpx.Limits(**_SYNC_LIMITS),
            timeout=httpx.Timeout(60.0, connect=10.0, read=30.0),
        )
        with lock:
            client = pool.setdefault(name, made)
        if client is not made:
            made.close()
        return client

    def close_blocking_clients(self, pool: dict[str, Any], lock: Any) -> None:
        """Closes the pooled blocking clients; the failure of one keeps no other one open."""
        with lock:
            clients = list(pool.values())
            pool.clear()
        for client in clients:
            with contextlib.suppress(Exception):
                client.close()

    def find(self, pool: dict[str, Any], name: str) -> Any:
        """The client for the running loop, or None when one has to be made."""
        pooled = pool.get(name)
        if pooled is None:
            return None
        if pooled not in self._made:
            return pooled
        loop = asyncio.get_running_loop()
        bound = self._bound.get((id(loop), name))
        if bound is None or bound.loop is not loop or bound.spoilt or bound.client.is_closed:
            return None
        return bound.client

    async def session(self, pool: dict[str, Any], lock: Any, name: str) -> Any:
        """The client for the running loop, made when there is none."""
        client = self.find(pool, name)
        if client is not None:
            return client
        if self._tls is None:
            await asyncio.get_running_loop().run_in_executor(None, self.prepare)
        with lock:
            client = self.find(pool, name)
            if client is not None:
                return client
            bound = self._make(pool, name)
        await bound.keeper.__anext__()
        return bound.client

    def _make(self, pool: dict[str, Any], name: str) -> _Bound:
        import httpx

        self._drop_closed_loops()
        assert self._tls is not None
        bound = _Bound(
            httpx.AsyncClient(
                verify=self._tls,
                limits=httpx.Limits(**_ASYNC_LIMITS),
                timeout=httpx.Timeout(60.0, connect=10.0, read=30.0),
            )
        )
        self._made.add(bound.client)
        key = (id(bound.loop), name)
        if key in self._bound:
            self._left.add(self._bound[key])  # calls in flight may still use it
        self._bound[key] = bound
        pool[name] = bound.client
        return bound

    def _drop_closed_loops(self) -> None:
        for key, bound in list(self._bound.items()):
            if bound.loop.is_closed():
                self._left.add(self._bound.pop(key, bound))
        for bound in list(self._left):
            if bound.loop.is_closed():
                bound.abandon()
                self._left.discard(bound)

    def __del__(self) -> None:
        self._drop_closed_loops()

    def _take_out(self, pool: dict[str, Any], lock: Any) -> tuple[list[Any], list[_Bound]]:
        """Empties the pool: the clients that the host put there, and all that were made here."""
        with lock:
            placed = [client for client in pool.values() if client not in self._made]
            bound = list(self._bound.values())
            pool.clear()
            self._bound.clear()
        return placed, bound

    async def close(
        self, pool: dict[str, Any], lock: Any, close_blocking_clients: Callable[[], None]
    ) -> None:
        """Closes every client, the asynchronous ones first; the failure of one keeps no other one open."""
        placed, bound = self._take_out(pool, lock)
        here = asyncio.get_running_loop()
        for client in placed:
            with contextlib.suppress(Exception):
                await client.aclose()
        for entry in bound:
            if entry.loop is here:
                with contextlib.suppress(Exception):
                    await entry.aclose()
            else:
                self._close_elsewhere(entry)
        close_blocking_clients()

    def close_blocking(self, pool: dict[str, Any], lock: Any) -> None:
        """The same from a thread without a loop: each client is closed on a loop that can run it."""
        placed, bound = self._take_out(pool, lock)
        for client in placed:
            with contextlib.suppress(Exception):
                _run_on_private_loop(client)
        for entry in bound:
            self._close_elsewhere(entry)

    def _close_elsewhere(self, entry: _Bound) -> None:
        """Closes a client whose loop is not the running one: on its loop, now or when that runs again.

        A loop of another thread may run, stop or end at any moment, and is for that thread alone to run.
        """
        self._left.add(entry)
        with contextlib.suppress(Exception):
            if entry.thread != threading.get_ident() or entry.loop.is_running():
                entry.loop.call_soon_threadsafe(entry.start_closing, self._left.discard)
            elif not entry.loop.is_closed():
                _run(entry.loop, entry.aclose())
                self._left.discard(entry)
        self._drop_closed_loops()


def _run(loop: asyncio.AbstractEventLoop, closing: Coroutine[Any, Any, None]) -> None:
    try:
        loop.run_until_complete(closing)
    finally:
        closing.close()  # where the loop did not take it


def _run_on_private_loop(client: Any) -> None:
    loop = asyncio.new_event_loop()
    try:
        _run(loop, client.aclose())
    finally:
        loop.close()


async def ready(engine: Any) -> Any:
    """What entering an engine asynchronously awaits: nothing, for there is nothing to wait for."""
    return engine
