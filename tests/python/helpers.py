"""What the engine's tests share beside the support package: requests led elsewhere, driven coroutines."""

from __future__ import annotations

import os
import shutil
import subprocess
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any
from unittest import mock


@contextmanager
def providers_at(base_url: str) -> Iterator[None]:
    """Every request that would leave the machine goes to this simulator; "Host" still tells where to."""
    import httpx

    port = httpx.URL(base_url).port
    blocking = httpx.HTTPTransport.handle_request
    awaited = httpx.AsyncHTTPTransport.handle_async_request

    def moved(request: httpx.Request) -> httpx.Request:
        if request.url.host == "127.0.0.1":
            return request
        request.url = request.url.copy_with(scheme="http", host="127.0.0.1", port=port)
        return request

    with (
        mock.patch.object(
            httpx.HTTPTransport, "handle_request", lambda way, it: blocking(way, moved(it))
        ),
        mock.patch.object(
            httpx.AsyncHTTPTransport,
            "handle_async_request",
            lambda way, it: awaited(way, moved(it)),
        ),
    ):
        yield


def promtool(*arguments: Any, **more: Any) -> subprocess.CompletedProcess[bytes]:
    path = f"{os.environ['PATH']}:{Path(__file__).parents[2]}/build/tools"
    tool = shutil.which("promtool", path=path) or "promtool"
    return subprocess.run([tool, *arguments], capture_output=True, env={}, **more)  # no sanitizer's


def complaints_of_promtool(metrics: bytes) -> list[str]:
    checked = promtool("check", "metrics", input=metrics + b"\n")  # scrapers add it, too
    return checked.stderr.decode().splitlines()


def drive(coroutine: Any) -> Any:
    """Runs a coroutine whose every wait is over at once, without an event loop around it."""
    try:
        while True:
            coroutine.send(None)
    except StopIteration as done:
        return done.value
