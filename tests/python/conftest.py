"""Keeps every test session away from the user's home, keys, proxies and Redis."""

from __future__ import annotations

import os
import signal
import tempfile
import threading
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest

pytest.register_assert_rewrite("support")

# Before the package is imported: the engine looks at these when it is made.
_home = tempfile.TemporaryDirectory(prefix="tarvomeldric-tests-")
os.environ["HOME"] = _home.name

for name in list(os.environ):
    if name.startswith("TARVOMELDRIC_") or name.upper().endswith(("_API_KEY", "_PROXY")):
        del os.environ[name]


# A shell lets what it starts in the background ignore Ctrl-C, which tests send to themselves.
signal.signal(signal.SIGINT, signal.default_int_handler)


def pytest_unconfigure() -> None:
    _home.cleanup()


@pytest.fixture(autouse=True)
def home(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """A home of its own for every test: what one engine learned must not steer the next one."""
    home = tmp_path / "home"
    home.mkdir()
    monkeypatch.setenv("HOME", str(home))
    return home


@pytest.fixture
def server(monkeypatch: pytest.MonkeyPatch) -> Iterator[Any]:
    """A Redis of its own, which engines and limiters find by the environment."""
    from support import RedisServer

    with RedisServer() as server:
        monkeypatch.setenv("TARVOMELDRIC_REDIS_URL", server.url)
        yield server


@pytest.fixture
def silent(capfd: pytest.CaptureFixture[str]) -> Iterator[pytest.CaptureFixture[str]]:
    """Nothing is said on stderr, unless the test takes it away, and no dashboard is left."""
    yield capfd
    assert capfd.readouterr().err == ""
    for thread in threading.enumerate():
        if "dashboard" in thread.name:
            thread.join(10)
            assert not thread.is_alive()
