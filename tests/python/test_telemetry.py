"""The log of what happens in calls."""

from __future__ import annotations

import logging
import re

import pytest

from support import KEY, engine_with, provider
from tarvomeldric import CallPolicy, CallRefused, CircuitBreaker, RateLimiter
from tarvomeldric.simulator import Fault, ProviderSimulator
from tarvomeldric.telemetry import log_to

PROMPT, ANSWER = "my secret question", "its secret answer"
LOGGED = """\
WARNING a�b first/m failed after # s: connection_error
WARNING a�b breaker of first was closed, is open
WARNING a�b diagnosed first: connection_error (connection_error)
DEBUG a�b waits # s: retry
WARNING a�b first/m failed after # s: server_error, status 503
WARNING a�b diagnosed first: server_error (server_error)
DEBUG a�b second/m answered in # s
DEBUG a�b healed of server_error by l3_failover: second/m
DEBUG a�b answered after # s
WARNING bad second is not asked: admission
WARNING bad failed after # s"""


def test_a_log_tells_each_step_in_a_line_and_nothing_confidential(
    caplog: pytest.LogCaptureFixture,
) -> None:
    caplog.set_level(logging.DEBUG, "tarvomeldric")
    one_token = RateLimiter(1, refill_rate=0.0, _tokens=1.0)
    with ProviderSimulator(Fault.RESET, 503, default=ANSWER) as simulator:
        engine = engine_with(
            provider(simulator.base_url, "first", circuit_breaker=CircuitBreaker(1)),
            provider(simulator.base_url, "second", rate_limiter=one_token),
        )
        quick = engine.with_policy(CallPolicy(max_retries=1, initial_backoff=0.01))
        with engine, log_to(engine, level=logging.DEBUG):
            assert quick.call_sync(PROMPT, "m", request_id="a\nb").text == ANSWER
            with pytest.raises(CallRefused):
                quick.call_sync(PROMPT, "m", request_id="bad")
        with pytest.raises(CallRefused):
            quick.call_sync(PROMPT, "m")  # nobody listens any more
    lines = [
        f"{record.levelname} {record.getMessage()}"
        for record in caplog.records
        if record.name == "tarvomeldric"
    ]
    assert re.sub(r"\d+\.\d{3} s", "# s", "\n".join(lines)) == LOGGED
    for secret in (PROMPT, ANSWER, KEY):
        assert secret not in caplog.text
