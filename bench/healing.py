"""What a call costs that another provider heals, and the check of an answer by its contract"""

from collections.abc import Iterator
from functools import partial

from calls import PROVIDER, REQUEST, StubbedEngine
from measuring import row, take_turns
from table import Row

from support import provider, tireless
from tarvomeldric import APIError, Contract

CALLS = 5_000
ANSWER = 'The capital is Paris, in France: {"city": "Paris", "country": "France"}'
CONTRACTS = {
    "schema": Contract(output_schema={"required": ["city", "country"]}),
    "determinism": Contract(determinism_hash="0123456789abcdef"),
    "similarity": Contract(similarity_threshold=0.5, reference_text=ANSWER),
    "entities": Contract(required_entities=["Paris", "France"]),
    "forbidden": Contract(forbidden_patterns=["as an ai", r"i (can not|cannot)\s+answer"]),
}


def measure(quick: bool) -> Iterator[Row]:
    if not hasattr(Contract, "validate"):
        return
    refusing, answering = tireless(name="refusing"), provider(name="answering")
    engine = StubbedEngine({PROVIDER: refusing, "answering": answering})

    call = partial(engine.call_sync, **REQUEST)

    def stubs() -> None:
        try:
            engine._execute_sync(refusing, **REQUEST, api_type="chat")
        except APIError:
            engine._execute_sync(answering, **REQUEST, api_type="chat")

    assert call().heal_level == "l3_failover"
    rounds = take_turns(quick, CALLS, call=call, stubs=stubs)
    yield row(rounds, "call_sync healed by failover, less stubs", less="stubs")
    for strategy, contract in CONTRACTS.items():
        rounds = take_turns(quick, CALLS, call=partial(contract.validate, ANSWER))
        yield row(rounds, f"validate: {strategy}")
