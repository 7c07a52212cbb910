"""The parts of a call, each alone"""

import time
from collections.abc import Iterator
from functools import partial

from measuring import row, take_turns
from table import Row

from tarvomeldric import Bulkhead, CircuitBreaker, FlywheelLearner, LearnedRule, RateLimiter

CALLS = 20_000


def measure(quick: bool) -> Iterator[Row]:
    breaker, bulkhead = CircuitBreaker(), Bulkhead()
    limiter = RateLimiter(max_tokens=10**9, refill_rate=1e9, _tokens=1e9)
    record = partial(FlywheelLearner().record, "success", "direct:openai", True, 8.0)
    for what, call, calls, target in (
        ("breaker: is_available", breaker.is_available, CALLS, None),
        ("breaker: record_success", breaker.record_success, CALLS, None),
        ("limiter: acquire", limiter.acquire, CALLS, None),
        ("bulkhead: a slot", lambda: (bulkhead.acquire(), bulkhead.release()), CALLS, None),
        ("learner: match, 84 rules", matching(84), CALLS, 0.5),
        ("learner: match, 10,000 rules", matching(10_000), CALLS // 10, 30.0),
        ("learner: record", record, CALLS, None),
    ):
        rounds = take_turns(quick, calls, call=call)
        yield row(rounds, what, target)
        if call is record:
            yield row(rounds, "learner: record, mean", figure="mean")
    learner, without_file = filled(100), filled(100)
    without_file._persist_path = "/dev/null/rules.json"  # no such file can be made
    rivals = {"call": learner._persist, "text": without_file._persist}
    rounds = take_turns(quick, CALLS // 20, **rivals)
    yield row(rounds, "learner: 100 rules to the rules file", 150.0)
    yield row(rounds, "of it the file", less="text")
    yield row([{"call": one["text"]} for one in rounds], "of it the text")


def filled(rules: int) -> FlywheelLearner:
    """A learner whose table is filled up with rules that nobody asks for."""
    learner = FlywheelLearner()
    for number in range(rules - len(learner._rules)):
        pattern, action = f"server_error:provider_{number}", "failover:openai"
        rule = LearnedRule(pattern, action, 9, 1, 0.9, time.time())
        learner._rules[f"{pattern}:{action}"] = rule
    return learner


def matching(rules: int) -> "partial[LearnedRule | None]":
    return partial(filled(rules).match, "timeout:azure")
