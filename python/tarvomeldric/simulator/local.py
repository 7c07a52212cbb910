"""A simulator's server in a thread of this process."""

from __future__ import annotations

import asyncio
import threading
from concurrent.futures import Future
from typing import Any

from .script import Settings
from .server import Connection, Desk

_BACKLOG = 1024
_ACCEPTING_TURNS = 5


class LocalServer:
    """Runs an event loop in a daemon thread and serves on a loopback port until stopped."""

    def __init__(self, settings: Settings) -> None:
        """Start serving; OSError when the port cannot be had."""
        self._desk = Desk(settings)
        self._bound: Future[int] = Future()
        self._thread = threading.Thread(
            target=self._run, args=(settings.port,), name="provider-simulator", daemon=True
        )
        self._thread.start()
        self.port = self._bound.result()

    def ask(self, operation: str, *arguments: object) -> Any:
        """Carry out an operation of the desk and return its result."""
        return getattr(self._desk, operation)(*arguments)

    def stop(self) -> None:
        """Drop every connection and wait until the thread has ended."""
        self._loop.call_soon_threadsafe(self._stopped.set)
        self._thread.join()

    def _run(self, port: int) -> None:
        try:
            asyncio.run(self._serve(port))
        except BaseException as error:
            if self._bound.done():
                raise
            self._bound.set_exception(error)

    async def _serve(self, port: int) -> None:
        self._loop = asyncio.get_running_loop()
        self._stopped = asyncio.Event()
        connections: set[Connection] = set()
        server = await self._loop.create_server(
            lambda: Connection(self._desk, connections), "127.0.0.1", port, backlog=_BACKLOG
        )
        self._bound.set_result(server.sockets[0].getsockname()[1])
        await self._stopped.wait()
        # A connection that is being accepted while the server closes would be lost half-made, and a
        # transport that outlives its loop would warn about it.
        for listening in server.sockets:
            self._loop.remove_reader(listening.fileno())
        for _ in range(_ACCEPTING_TURNS):
            await asyncio.sleep(0)
        server.close()
        while connections:
            for connection in list(connections):
                connection.hang_up()
            await asyncio.sleep(0)
