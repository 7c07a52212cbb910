"""The live probe behind the quick start, and the event loop that it runs on."""

from __future__ import annotations

import asyncio
import contextlib
import sys
import threading
from collections.abc import Iterator
from typing import Any

from tarvomeldric import _engine

_TIMEOUT = 10.0  # seconds


async def check_provider(base_url: str, api_key: str, model: str) -> bool:
    """Whether a provider answers a tiny chat request with this key; no failure is raised."""
    try:
        import httpx

        async with httpx.AsyncClient() as client:
            response = await client.post(
                base_url + "/chat/completions",
                headers={"Authorization": "Bearer " + api_key, "Content-Type": "application/json"},
                json={
                    "model": model,
                    "messages": [{"role": "user", "content": "Hi"}],
                    "max_tokens": 3,
                },
                timeout=_TIMEOUT,
            )
        return response.status_code == 200
    except Exception:
        return False


def probe(name: str, base_url: str, api_key: str) -> bool:
    """Runs the check on this thread's event loop; where there is none to run it on, the key counts as good."""
    if _is_running():
        return True
    try:
        with _loop() as loop:
            return loop.is_closed() or _run(loop, name, base_url, api_key)
    except RuntimeError:
        return True


def _run(loop: asyncio.AbstractEventLoop, name: str, base_url: str, api_key: str) -> bool:
    check = loop.create_task(_engine._check_provider(name, base_url, api_key))
    try:
        return loop.run_until_complete(check)
    except BaseException:  # an interrupt leaves the check half done
        check.cancel()
        with contextlib.suppress(asyncio.CancelledError):
            loop.run_until_complete(check)
        raise


@contextlib.contextmanager
def _loop() -> Iterator[asyncio.AbstractEventLoop]:
    """The thread's event loop, or one for the moment where the main thread never had one."""
    if not _never_had_one():
        yield asyncio.get_event_loop()
        return
    loop = asyncio.new_event_loop()
    try:
        yield loop
        loop.run_until_complete(loop.shutdown_asyncgens())
    finally:
        loop.close()


def _is_running() -> bool:
    try:
        asyncio.get_running_loop()
    except RuntimeError:
        return False
    return True


def _never_had_one() -> bool:
    """Whether the main thread asks for its first event loop.

    Asking would make one, leave it open for good, and warn on some Pythons; from 3.14 on it makes none and
    cannot tell a first time from any other.
    """
    if threading.current_thread() is not threading.main_thread():
        return False
    if sys.version_info >= (3, 14):
        try:
            asyncio.get_event_loop()
        except RuntimeError:
            return True
        return False
    kept: Any = getattr(asyncio.get_event_loop_policy(), "_local", None)
    return kept is not None and kept._loop is None and not kept._set_called
