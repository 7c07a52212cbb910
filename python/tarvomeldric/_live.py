"""The live page: its figures, and the headers that a browser is to hold it to."""

from __future__ import annotations

import json
import math
import re
from base64 import b64encode
from hashlib import sha256
from importlib.resources import files
from time import time
from typing import Any

from tarvomeldric._engine import __version__, _live_figures, _RecentCalls

_Answer = tuple[dict[str, str], bytes]


def live_page() -> _Answer:
    """The page, and that nothing runs in it, styles it or is asked by it but what is its own."""
    html = files("tarvomeldric").joinpath("live.html").read_bytes()
    [style], [script] = (
        re.findall(rb"<%b>(.*?)</%b>" % (tag, tag), html, re.DOTALL)
        for tag in (b"style", b"script")
    )
    policy = [
        "default-src 'none'",
        f"script-src {_hash_of(script)}",
        f"style-src {_hash_of(style)}",
        "connect-src 'self'",
        "img-src data:",
        "base-uri 'none'",
        "form-action 'none'",
        "frame-ancestors 'none'",
    ]
    headers = {
        "Content-Type": "text/html; charset=utf-8",
        "Content-Security-Policy": "; ".join(policy),
        "X-Content-Type-Options": "nosniff",
        "Referrer-Policy": "no-referrer",
        "Cache-Control": "no-store",
    }
    return headers, html


def _hash_of(content: bytes) -> str:
    return f"'sha256-{b64encode(sha256(content).digest()).decode()}'"


class Live:
    """Records the calls of an engine, from when it is made until it is closed or dropped."""

    def __init__(self, engine: Any) -> None:
        self._engine = engine
        self._recent = _RecentCalls()
        self._since = time()
        self._observation = engine.observe(self._recent)

    def figures(self) -> _Answer:
        """What the page reads again and again."""
        recent, engine = self._recent, self._engine
        told = {
            "version": __version__,
            "since": self._since,
            "age": recent.age(),
            "counters": engine._read_counters(),
            "providers": _live_figures(engine._providers),
            "step": recent.STEP,
            "history": recent.history(),
            "calls": recent.calls(),
        }
        headers = {"Content-Type": "application/json", "Cache-Control": "no-store"}
        return headers, json.dumps(_finite(told)).encode()

    def close(self) -> None:
        """Records no more. May be called twice."""
        self._observation.close()

    def __del__(self) -> None:
        if hasattr(self, "_observation"):
            self.close()


def _finite(value: Any) -> Any:
    """What JSON has a form for, with no more digits than are shown."""
    if isinstance(value, dict):
        return {name: _finite(held) for name, held in value.items()}
    if isinstance(value, list):
        return [_finite(held) for held in value]
    if isinstance(value, float):
        return round(value, 4) if math.isfinite(value) else None
    return value
