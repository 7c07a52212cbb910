"""The HTTP clients of one engine: which one serves a provider, and how each of them ends.

Nothing here waits for a lock. A signal handler may close the engine while its own thread is in the
middle of any of this, so whatever others can see changes by one operation of a dictionary or a set.
"""

from __future__ import annotations

import asyncio
import contextlib
import threading
import weakref
from collections import deque
from collections.abc import AsyncGenerator, Callable, Coroutine, Iterator
from typing import TYPE_CHECKING, Any

from tarvomeldric._http.shutdown import gate

if TYPE_CHECKING:
    import ssl

    import httpx

# Every client that was made here, for as long as somebody holds it.
_made: weakref.WeakSet[Any] = weakref.WeakSet()

# Those of them that are not closed, by their identity.
_owns: weakref.WeakValueDictionary[int, Own] = weakref.WeakValueDictionary()


def own_of(client: Any) -> Own | None:
    """What is known about a client that was made here; None for one that the caller placed in a pool."""
    own = _owns.get(id(client))
    return own if own is not None and own.client is client else None


class Own:
    """A blocking client that was made here, and the exchanges that are under way on it.

    One whose library was left by anything but a failure of its own is unfit: it may hold locks that
    nobody gives back. Nothing new is sent through it, what is under way on it ends, and its
    connections are closed with that.
    """

    def __init__(self, client: Any, siblings: set[Own], pool: dict[str, Any] | None = None) -> None:
        from tarvomeldric._http import internals

        self.client = client
        self.fit = True
        self.under_way: set[object] = set()
        self._siblings = siblings  # the clients of the same engine that are still open
        self._pool = pool  # where only a client that is fit may stay
        self._internals = internals
        _owns[id(client)] = self
        siblings.add(self)

    def serving(self) -> _Serving:
        return _Serving(self)

    def judge(self, error: BaseException) -> None:
        """Takes the client out of use when the library was left by this error and may not be in order."""
        if _is_safe(error):
            return
        self.fit = False
        for name, client in list((self._pool or {}).items()):
            if client is self.client and self._pool:
                self._pool.pop(name, None)
        self._internals.retire(self.client)

    def end_if_unused(self) -> None:
        """Closes what an unfit client still has open, once nothing is under way on it any more.

        The client itself stays open: another thread may have got it a moment before it was spoilt.
        """
        if not self.fit and not self.under_way and self._internals.close_idle(self.client):
            self._taken()

    def end(self) -> None:
        """Closes the client, once."""
        if self._taken():
            with contextlib.suppress(Exception):
                self.client.close()

    def _taken(self) -> bool:
        try:
            self._siblings.remove(self)
        except KeyError:
            return False
        return True


class _Serving:
    """One exchange on a client."""

    __slots__ = ("_own",)

    def __init__(self, own: Own) -> None:
        self._own = own

    def __enter__(self) -> None:
        self._own.under_way.add(self)

    def __exit__(self, _: object, error: BaseException | None, __: object) -> None:
        if error is not None:
            self._own.judge(error)
        self._own.under_way.discard(self)
        self._own.end_if_unused()


def _is_safe(error: BaseException) -> bool:
    """Whether the library is in order after this error: one of its own, or one that it looks out for."""
    import httpx

    its_own = (httpx.HTTPError, httpx.InvalidURL, httpx.StreamError)
    return isinstance(error, (*its_own, asyncio.CancelledError))


class OwnAwaited(Own):
    """An asynchronous client that was made here: it belongs to a loop, and is closed with it."""

    def __init__(self, client: httpx.AsyncClient, siblings: set[Own]) -> None:
        super().__init__(client, siblings)
        self.loop = asyncio.get_running_loop()
        self.keeper = _keep_until_shutdown(client)
        self._thread = threading.get_ident()
        self._closing: asyncio.Task[None] | None = None
        self._transports: list[Any] = []

    def end_if_unused(self) -> None:
        """The same, when the loop runs again: this may be in the midst of a coroutine's end."""
        if not self.fit and not self.under_way:
            with contextlib.suppress(RuntimeError):
                self.loop.call_soon_threadsafe(self._start_closing)

    async def aclose(self) -> None:
        await self.client.aclose()
        self._siblings.discard(self)
        with contextlib.suppress(RuntimeError):  # the loop, shutting down, may be at it too
            await self.keeper.aclose()

    def end(self) -> None:
        """Closes it on its loop, now or when that runs again.

        A loop of another thread may run, stop or end at any moment, and is for that thread alone to run.
        """
        with contextlib.suppress(Exception):
            if self._thread != threading.get_ident() or self.loop.is_running():
                self.loop.call_soon_threadsafe(self._start_closing)
            elif not self.loop.is_closed():
                _run(self.loop, self.aclose())

    def _start_closing(self) -> None:
        if self._closing is None:
            # A client that is closing forgets them.
            self._transports = self._internals.open_transports(self.client)
            self._closing = self.loop.create_task(self._aclose_quietly())

    async def _aclose_quietly(self) -> None:
        with contextlib.suppress(Exception):
            await self.aclose()

    def abandon(self) -> None:
        """Closes what the loop, gone already, left open, without a word from tasks and transports."""
        if self._closing is not None and not self._closing.done():
            with contextlib.suppress(Exception):
                self._internals.drop_task(self._closing)
        for transport in self._transports + self._internals.open_transports(self.client):
            self._internals.drop(transport)
        self._siblings.discard(self)


async def _keep_until_shutdown(client: httpx.AsyncClient) -> AsyncGenerator[None, None]:
    """Closes the client when its loop shuts its asynchronous generators down, as `asyncio.run` does."""
    try:
        yield
    finally:
        await client.aclose()


def is_placed(pool: dict[str, Any], name: str) -> bool:
    """Whether the client of this name was put into the pool by the caller."""
    client = pool.get(name)
    return client is not None and client not in _made


class HttpClients:
    """Makes the clients of one engine and knows which loop each asynchronous one belongs to.

    The pools themselves are the engine's dictionaries, and so are the locks that guard them against
    others. A client that the caller put there is used as it is; one that was made here is used on its
    own loop alone.
    """

    def __init__(self) -> None:
        self._tls: ssl.SSLContext | None = None
        self._open: set[Own] = set()  # not known to be closed
        self._on_loop: dict[tuple[int, str], OwnAwaited] = {}
        self._preparing = False
        self._waiting: deque[asyncio.Future[None]] = deque()

    def prepare(self) -> ssl.SSLContext:
        """Loads the HTTP library and makes the TLS context that all clients share."""
        if self._tls is None:
            import httpx

            from tarvomeldric._http import internals, reading  # noqa: F401

            with gate.passed():
                tls = httpx.create_ssl_context()
            if self._tls is None:  # another thread may have been faster
                self._tls = tls
        return self._tls

    def blocking(self, pool: dict[str, Any], _lock: Any, name: str) -> Any:
        """The pooled blocking client, made when there is none that is fit for use."""
        pooled = pool.get(name)
        own = own_of(pooled)
        if pooled is not None and (own.fit if own else pooled not in _made):
            return pooled
        made = Own(self._make(awaited=False), self._open, pool)
        if pooled is not None and pool.get(name) is pooled:
            pool.pop(name, None)
        client = pool.setdefault(name, made.client)
        if client is not made.client:  # another thread was faster
            made.end()
        return client

    def find(self, pool: dict[str, Any], name: str) -> Any:
        """The client for the running loop, or None when one has to be made."""
        pooled = pool.get(name)
        if pooled is None or pooled not in _made:
            return pooled
        loop = asyncio.get_running_loop()
        own = self._on_loop.get((id(loop), name))
        if own is None or own.loop is not loop or not own.fit or own.client.is_closed:
            return None
        return own.client

    async def session(self, pool: dict[str, Any], _lock: Any, name: str) -> Any:
        """The client for the running loop, made when there is none."""
        if self._tls is None:
            await self._prepared()
        client = self.find(pool, name)
        if client is not None:
            return client
        self._drop_closed_loops()
        own = OwnAwaited(self._make(awaited=True), self._open)
        self._on_loop[id(own.loop), name] = own
        pool[name] = own.client
        await own.keeper.__anext__()
        return own.client

    async def _prepared(self) -> None:
        """Prepares on a daemon thread, one for all who wait: should it never end, everything else can."""
        done: asyncio.Future[None] = asyncio.get_running_loop().create_future()
        self._waiting.append(done)
        if not self._preparing:
            self._preparing = True
            threading.Thread(target=self._prepare_for_all, name="http", daemon=True).start()
        await done

    def _prepare_for_all(self) -> None:
        failure = None
        try:
            self.prepare()
        except BaseException as error:
            failure = error
        self._preparing = False  # before the last look at who waits
        while self._waiting:
            # Another thread was faster, or the loop is closed.
            with contextlib.suppress(IndexError, RuntimeError):
                done = self._waiting.popleft()
                done.get_loop().call_soon_threadsafe(_conclude, done, failure)

    def _make(self, awaited: bool) -> Any:
        import httpx

        from tarvomeldric._http import internals

        most, most_idle = (100, 20) if awaited else (50, 10)
        limits = httpx.Limits(
            max_connections=most, max_keepalive_connections=most_idle, keepalive_expiry=30.0
        )
        kind = httpx.AsyncClient if awaited else httpx.Client
        lead_nowhere = _lead_nowhere_async if awaited else _lead_nowhere
        client = kind(
            verify=self.prepare(),
            limits=limits,
            timeout=httpx.Timeout(60.0, connect=10.0, read=30.0),
            headers={"Accept-Encoding": "gzip, deflate"},
            cookies=internals.NoCookies(),
            event_hooks={"response": [lead_nowhere]},
        )
        internals.fit(client)
        _made.add(client)
        return client

    def _drop_closed_loops(self) -> None:
        for key, own in list(self._on_loop.items()):
            if own.loop.is_closed():
                self._on_loop.pop(key, None)
        for each in list(self._open):
            if isinstance(each, OwnAwaited) and each.loop.is_closed():
                each.abandon()

    def __del__(self) -> None:
        self._drop_closed_loops()

    async def close(
        self, pool: dict[str, Any], _lock: Any, close_blocking_clients: Callable[[], None]
    ) -> None:
        """Closes every client, the asynchronous ones first; the failure of one keeps no other one open."""
        here = asyncio.get_running_loop()
        for client in _placed(pool):
            with contextlib.suppress(Exception):
                await client.aclose()
        for own in self._take_awaited():
            if own.loop is here:
                with contextlib.suppress(Exception):
                    await own.aclose()
            else:
                own.end()
        self._drop_closed_loops()
        close_blocking_clients()

    def close_blocking(self, pool: dict[str, Any], _lock: Any) -> None:
        """The same from a thread without a loop: each client is closed on a loop that can run it."""
        for client in _placed(pool):
            with contextlib.suppress(Exception):
                _run_on_private_loop(client)
        for own in self._take_awaited():
            own.end()
        self._drop_closed_loops()

    def close_blocking_clients(self, pool: dict[str, Any], _lock: Any) -> None:
        """Closes the blocking clients; the failure of one keeps no other one open."""
        for client in _placed(pool):
            with contextlib.suppress(Exception):
                client.close()
        for own in list(self._open):
            if not isinstance(own, OwnAwaited):
                own.end()

    def _take_awaited(self) -> list[OwnAwaited]:
        self._on_loop.clear()
        return [own for own in list(self._open) if isinstance(own, OwnAwaited)]


def _conclude(done: asyncio.Future[None], failure: BaseException | None) -> None:
    if not done.done():
        done.set_exception(failure) if failure else done.set_result(None)


def _lead_nowhere(response: httpx.Response) -> None:
    """Nobody follows redirections, but the library fails when one of them leads nowhere."""
    place = response.headers.pop("location", None)
    if place is not None:
        response.extensions["location"] = place


async def _lead_nowhere_async(response: httpx.Response) -> None:
    _lead_nowhere(response)


def _placed(pool: dict[str, Any]) -> Iterator[Any]:
    """Empties a pool; those of its clients that the caller put there, one by one."""
    for name in list(pool):
        client = pool.pop(name, None)
        if client is not None and client not in _made:
            yield client


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
