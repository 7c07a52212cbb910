"""Streams of 1,000 events, beside the bare client's lines of the same streams through `json.loads`"""

import asyncio
import json
from collections.abc import Iterator
from functools import partial
from statistics import median
from time import perf_counter_ns
from typing import Any

import httpx
from calls import PROVIDER
from measuring import Call, rounds_of, row, take_turns
from table import Row

from support import engine_on
from tarvomeldric import SelfHealingEngine
from tarvomeldric.simulator import ProviderSimulator, Raw, Reply

EVENTS = 1_000
STREAMS = 20  # a round
OPENINGS = 40  # a round
MOST = 1.3  # times what the bare client takes
LATER = 200.0  # microseconds more to the first event
WORD = {"choices": [{"index": 0, "delta": {"content": "word "}, "finish_reason": None}]}
EVENT = f"data: {json.dumps({'id': 'x', 'object': 'chat.completion.chunk', **WORD})}\n\n"
BARE: dict[str, Any] = {"json": {"model": "gpt-4o-mini", "stream": True}, "timeout": 8.0}


def measure(quick: bool) -> Iterator[Row]:
    loop = asyncio.new_event_loop()
    for how, pieces in ("in one piece", [EVENT * EVENTS]), ("piece by piece", [EVENT] * EVENTS):
        stream = Reply(stream=[Raw(piece) for piece in pieces])
        with ProviderSimulator(default=stream, process=True) as provider:
            url = provider.base_url + "/chat/completions"
            engine = engine_on(provider, name=PROVIDER)
            client = loop.run_until_complete(engine._get_session("bare"))
            beside = partial(bare, client, url)
            for name, call in ("_execute_stream", raw), ("stream", healed):
                rounds = take_turns(quick, STREAMS, loop, call=partial(call, engine), bare=beside)
                yield row(rounds, f"{name}, {how}", beside="bare")
                yield in_times_of_bare([(it["call"]["p50"], it["bare"]["p50"]) for it in rounds])
            ways: dict[str, Call] = {
                "call": partial(healed_blocking, engine),
                "bare": partial(bare_blocking, engine._get_sync_client("bare"), url),
            }
            rounds = take_turns(quick, STREAMS, **ways)
            yield row(rounds, f"stream_sync, {how}", beside="bare")
            yield in_times_of_bare([(it["call"]["p50"], it["bare"]["p50"]) for it in rounds])
            provider.script(default=Reply(stream=[Raw(EVENT)]))
            if len(pieces) > 1:
                own = partial(first, engine)
                yield from openings(quick, loop, own, partial(bare_first, client, url))
            loop.run_until_complete(engine.close())
    loop.close()


def in_times_of_bare(pairs: list[tuple[float, float]]) -> Row:
    ratios = [own / beside for own, beside in pairs]
    return Row("the same, in times of bare", ratios, "times", target=MOST)


def openings(
    quick: bool, loop: asyncio.AbstractEventLoop, own: Call, beside: Call
) -> Iterator[Row]:
    """From the request to the first event; what comes after it is not in the time."""
    rounds = []
    for _ in (None, *rounds_of(quick)):
        pairs = [[loop.run_until_complete(way()) for way in (own, beside)] for _ in range(OPENINGS)]
        rounds.append([median(times) / 1000 for times in zip(*pairs, strict=True)])
    ratio = median(own / beside for own, beside in rounds[1:])
    yield Row(
        "stream, to its first event",
        [own for own, _ in rounds[1:]],
        "us",
        None,
        None,
        ratio,
        "bare",
    )
    yield Row(
        "the same, more than bare", [own - beside for own, beside in rounds[1:]], target=LATER
    )


async def raw(engine: SelfHealingEngine) -> None:
    provider = engine._providers[PROVIDER]
    events = [event async for event in engine._execute_stream(provider, "Hi", "gpt-4o-mini")]
    assert len(events) == EVENTS


async def healed(engine: SelfHealingEngine) -> None:
    async with engine.stream("Hi", "gpt-4o-mini") as stream:
        assert len([event async for event in stream]) == EVENTS


def healed_blocking(engine: SelfHealingEngine) -> None:
    with engine.stream_sync("Hi", "gpt-4o-mini") as stream:
        assert len(list(stream)) == EVENTS


async def bare(client: httpx.AsyncClient, url: str) -> None:
    async with client.stream("POST", url, **BARE) as response:
        events = [json.loads(line[6:]) async for line in response.aiter_lines() if is_event(line)]
    assert len(events) == EVENTS


def bare_blocking(client: httpx.Client, url: str) -> None:
    with client.stream("POST", url, **BARE) as response:
        events = [json.loads(line[6:]) for line in response.iter_lines() if is_event(line)]
    assert len(events) == EVENTS


def is_event(line: str) -> bool:
    return line.startswith("data: ") and line != "data: [DONE]"


async def first(engine: SelfHealingEngine) -> int:
    start = perf_counter_ns()
    async with engine.stream("Hi", "gpt-4o-mini") as stream:
        await anext(stream)
        took = perf_counter_ns() - start
        async for _ in stream:
            pass
    return took


async def bare_first(client: httpx.AsyncClient, url: str) -> int:
    start, took = perf_counter_ns(), 0
    async with client.stream("POST", url, **BARE) as response:
        async for line in response.aiter_lines():
            if not took and is_event(line):
                json.loads(line[6:])
                took = perf_counter_ns() - start
    return took
