"""Streams of 1,000 events, beside the bare client's lines of the same streams through `json.loads`"""

import asyncio
import json
from collections.abc import Iterator
from functools import partial

import httpx
from calls import PROVIDER
from measuring import row, take_turns
from table import Row

from support import engine_on
from tarvomeldric import SelfHealingEngine
from tarvomeldric.simulator import ProviderSimulator, Raw, Reply

EVENTS = 1_000
STREAMS = 20  # a round
MOST = 1.3  # times what the bare client takes
WORD = {"choices": [{"index": 0, "delta": {"content": "word "}, "finish_reason": None}]}
EVENT = f"data: {json.dumps({'id': 'x', 'object': 'chat.completion.chunk', **WORD})}\n\n"


def measure(quick: bool) -> Iterator[Row]:
    loop = asyncio.new_event_loop()
    for how, pieces in ("in one piece", [EVENT * EVENTS]), ("piece by piece", [EVENT] * EVENTS):
        stream = Reply(stream=[Raw(piece) for piece in pieces])
        with ProviderSimulator(default=stream, process=True) as provider:
            engine = engine_on(provider, name=PROVIDER)
            client = loop.run_until_complete(engine._get_session(PROVIDER))
            url = provider.base_url + "/chat/completions"
            rivals = {"call": partial(own, engine), "bare": partial(bare, client, url)}
            rounds = take_turns(quick, STREAMS, loop, **rivals)
            yield row(rounds, f"events {how}", beside="bare")
            ratios = [one["call"]["p50"] / one["bare"]["p50"] for one in rounds]
            yield Row("the same, in times of bare", ratios, "times", target=MOST)
            loop.run_until_complete(engine.close())
    loop.close()


async def own(engine: SelfHealingEngine) -> None:
    provider = engine._providers[PROVIDER]
    events = [event async for event in engine._execute_stream(provider, "Hi", "gpt-4o-mini")]
    assert len(events) == EVENTS


async def bare(client: httpx.AsyncClient, url: str) -> None:
    body = {"model": "gpt-4o-mini", "stream": True}
    events = []
    async with client.stream("POST", url, json=body, timeout=8.0) as response:
        async for line in response.aiter_lines():
            if line.startswith("data: ") and line != "data: [DONE]":
                events.append(json.loads(line[6:]))
    assert len(events) == EVENTS
