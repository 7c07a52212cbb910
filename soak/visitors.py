"""Those who look at the engine while it works: a scraper of its dashboard, and its own read-outs."""

import contextlib
import http.client
import io
import json
import random
import threading
from collections.abc import Iterator
from contextlib import contextmanager
from typing import Any

from endings import Tally

from tarvomeldric import SelfHealingEngine, serve_dashboard

_PATHS = ("/metrics", "/health", "/stats", "/", "/metrics?again", "/nowhere")


@contextmanager
def dashboard(engine: SelfHealingEngine) -> Iterator[int]:
    """The port of the engine's dashboard, which is taken down at the end."""
    with contextlib.redirect_stdout(io.StringIO()):
        server = serve_dashboard(engine, host="127.0.0.1", port=0)
    try:
        yield server.server_port
    finally:
        server.shutdown()
        server.server_close()


def scrape(
    engine: Any, port: int, tally: Tally, chance: random.Random, over: threading.Event
) -> None:
    """Reads the pages in random order; each has to make sense, and calls never become fewer."""
    calls = 0
    while not over.wait(0.02):
        path = chance.choice(_PATHS)
        status, body = _get(port, path)
        try:
            calls = _check(path, status, body, calls)
        except (AssertionError, ValueError, KeyError) as error:
            tally.surprise(f"{path} made no sense ({error!r}): {status} {body[:2000]}")
        tally.note(f"page {path}")
        engine.health_check(), engine.get_mapek_stats(), engine.get_available_providers()


def _get(port: int, path: str) -> tuple[int, str]:
    client = http.client.HTTPConnection("127.0.0.1", port, timeout=30)
    with contextlib.closing(client):
        client.request("GET", path)
        reply = client.getresponse()
        return reply.status, reply.read().decode()


def _check(path: str, status: int, body: str, calls: int) -> int:
    """The calls that the page tells of, or else those known before."""
    assert status == (404 if path == "/nowhere" else 200), status
    now = calls
    if path.startswith("/metrics"):
        values = dict(line.rsplit(" ", 1) for line in body.splitlines())
        assert all(float(value) >= 0 for value in values.values())
        now = int(values.get("tm_calls_total_total", 0))
    elif path == "/stats":
        now = json.loads(body)["call_count"]
    elif path == "/health":
        assert json.loads(body)
    assert now >= calls, f"{now} calls after {calls}"
    return now
