"""Running the application: an address, a loop, and an end that lets running calls finish."""

from __future__ import annotations

import asyncio
import contextlib
import math
import resource
import socket
from collections.abc import Callable
from types import FrameType

import uvicorn
import uvloop

from tarvomeldric import SelfHealingEngine
from tarvomeldric.gateway import config as settings
from tarvomeldric.gateway.app import Gateway
from tarvomeldric.gateway.protocol import PatientProtocol

_BACKLOG = 2048
_GRACE_S = 30.0  # for running calls at the end, where no policy bounds them
_TIDYING_S = 2.0  # for calls that are cancelled


def run(config: settings.Config, engine: SelfHealingEngine, announce: Callable[[str], None]) -> int:
    """Serves until a signal, then lets running calls end; a second signal ends at once.

    `announce` is told the address. The exit status: 0, or that of a program that the second signal ended.

    Raises:
        OSError: The address cannot be had.
    """
    _allow_many_connections()
    with _listener(config.server) as listener:
        return uvloop.run(_serve(config, engine, listener, announce))


async def _serve(
    config: settings.Config,
    engine: SelfHealingEngine,
    listener: socket.socket,
    announce: Callable[[str], None],
) -> int:
    grace = config.policy.calls.deadline or _GRACE_S
    protocol = type("Protocol", (PatientProtocol,), {"body_timeout": config.server.body_timeout})
    server = Server(
        announce,
        uvicorn.Config(
            Gateway(config, engine),
            http=protocol,
            ws="none",
            lifespan="off",
            log_config=None,
            log_level="error",
            access_log=False,
            server_header=False,
            proxy_headers=False,
            backlog=_BACKLOG,
            timeout_keep_alive=config.server.keep_alive,
            timeout_graceful_shutdown=math.ceil(grace),
        ),
    )
    for name in config.providers:  # a client takes long to make, and nobody waits yet
        await engine._get_session(name)
    await server.serve([listener])
    if tasks := list(server.server_state.tasks):  # they are cancelled
        await asyncio.wait(tasks, timeout=_TIDYING_S)
    with contextlib.suppress(Exception):
        await engine.close()
    return server.status


class Server(uvicorn.Server):
    """One that a second signal of any kind ends at once.

    Attributes:
        status: The exit status that its end comes to.
    """

    status = 0

    def __init__(self, announce: Callable[[str], None], config: uvicorn.Config) -> None:
        super().__init__(config)
        self._announce = announce

    async def startup(self, sockets: list[socket.socket] | None = None) -> None:
        await super().startup(sockets)
        for listener in sockets or ():  # signals are heard from here on
            self._announce(_url(listener))

    def handle_exit(self, sig: int, frame: FrameType | None) -> None:
        if self.should_exit:
            self.force_exit = True
            self.status = 128 + sig
            for task in list(self.server_state.tasks):
                task.get_loop().call_soon_threadsafe(task.cancel)
        self.should_exit = True


def _listener(server: settings.Server) -> socket.socket:
    family = socket.AF_INET6 if ":" in server.host else socket.AF_INET
    return socket.create_server((server.host, server.port), family=family, backlog=_BACKLOG)


def _url(listener: socket.socket) -> str:
    host, port = listener.getsockname()[:2]
    return f"http://[{host}]:{port}" if ":" in host else f"http://{host}:{port}"


def _allow_many_connections() -> None:
    """Shells allow few open files to begin with, and idle connections are such."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if soft != hard:
        resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
