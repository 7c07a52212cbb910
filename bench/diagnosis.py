"""Labelling real error texts, beside a walk over the same patterns with Python's `re`"""

from collections.abc import Iterator
from functools import partial
from statistics import median

from measuring import rounds_of, row, take_turns
from table import Row

from tarvomeldric import Diagnoser, _engine

TEXTS = [
    'HTTP 429: {"error": {"message": "Rate limit reached for gpt-4o in organization org-bench '
    'on requests per min (RPM): Limit 500, Used 500", "type": "requests"}}',
    'HTTP 401: {"error": {"message": "Incorrect API key provided: sk-bench.", "type": '
    '"invalid_request_error", "code": "invalid_api_key"}}',
    'HTTP 529: {"error": {"type": "overloaded_error", "message": "Overloaded"}}',
    "Timeout after 8.0s calling deepseek",
    "ConnectError: [Errno 111] Connection refused",
]
CALLS = 2_000


def measure(quick: bool) -> Iterator[Row]:
    diagnosers = [Diagnoser() for _ in rounds_of(quick)]
    for diagnoser in diagnosers:
        for text in TEXTS * CALLS:
            diagnoser.diagnose(text)
    p50, p95 = ([it.get_latency_stats()[name] for it in diagnosers] for name in ("p50", "p95"))
    yield Row("all, as it reports itself", p50, p95=median(p95), target=0.5)
    for text in TEXTS:
        diagnose = partial(Diagnoser().diagnose, text)
        rounds = take_turns(quick, CALLS, call=diagnose, walk=partial(walk, text))
        yield row(rounds, f"from Python, {text[:25]}...", beside="walk")


def walk(text: str) -> object:
    """The row of the first pattern that is found in the lower-cased text."""
    lowered = text.lower()
    return next((row for row in _engine._COMPILED if row[0].search(lowered)), None)
