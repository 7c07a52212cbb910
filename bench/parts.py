"""The parts of a call, each alone"""

import time
from collections.abc import Iterator
from functools import partial
from time import perf_counter

from measuring import rounds_of, row, take_turns
from table import Row

from tarvomeldric import Bulkhead, CircuitBreaker, FlywheelLearner, LearnedRule, RateLimiter

CALLS = 20_000
MOMENT = 0.2  # seconds


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
    learner = filled(100_000)
    loops = [milliseconds_of_gets(learner) for _ in rounds_of(quick)]
    yield Row("learner: get each of 100,000 rules", loops, "ms")
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


def milliseconds_of_gets(learner: FlywheelLearner) -> float:
    """What a look at every rule by its key takes, judged by as many as fit into a moment."""
    keys, done, start = list(learner._rules), 0, perf_counter()
    while done < len(keys) and perf_counter() - start < MOMENT:
        for key in keys[done : done + 10]:
            assert learner._rules.get(key)
        done += 10
    return (perf_counter() - start) * 1e3 * len(keys) / done


def matching(rules: int) -> "partial[LearnedRule | None]":
    return partial(filled(rules).match, "timeout:azure")
