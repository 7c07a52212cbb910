"""Reads the engine's dashboard and its own read-outs while it works."""

import json
import random
import threading
from typing import Any

from outcomes import Tally

from support import Page, get

_PATHS = ("/metrics", "/health", "/stats", "/", "/metrics?again", "/nowhere")


def scrape(
    engine: Any, server: Any, tally: Tally, chance: random.Random, over: threading.Event
) -> None:
    """Reads the pages in random order; each has to make sense, and calls never become fewer."""
    calls = 0
    while not over.wait(0.02):
        path = chance.choice(_PATHS)
        page = get(server, path)
        try:
            calls = _check(path, page, calls)
        except (AssertionError, ValueError, KeyError) as error:
            tally.note_unexpected(f"{path} made no sense ({error!r}): {page}"[:2000])
        tally.note(path)
        engine.health_check(), engine.get_mapek_stats(), engine.get_available_providers()


def _check(path: str, page: Page, calls: int) -> int:
    """The calls that the page tells of, or else those known before."""
    assert page.status == (404 if path == "/nowhere" else 200)
    now, text = calls, page.body.decode()
    if path.startswith("/metrics"):
        values = dict(line.rsplit(" ", 1) for line in text.splitlines())
        assert all(float(value) >= 0 for value in values.values())
        now = int(values.get("tm_calls_total_total", 0))
    elif path == "/stats":
        now = json.loads(text)["call_count"]
    elif path == "/health":
        assert json.loads(text)
    assert now >= calls, f"{now} calls after {calls}"
    return now
