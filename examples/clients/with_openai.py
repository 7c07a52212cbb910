"""The openai client on a bad day: whole answers, streams, tools and structured output."""

from __future__ import annotations

import asyncio
from typing import Any

import httpx2
import openai
import pydantic
from bad_day import ROUTES, bad_days, tell, tell_awaited

from tarvomeldric import EngineView
from tarvomeldric.clients import async_transport, transport
from tarvomeldric.simulator import Reply, ReplyLike, ToolCall

LOOK = {"type": "function", "function": {"name": "look", "parameters": {"type": "object"}}}
ANSWERS: dict[str, ReplyLike] = {
    "Look": Reply(tool_calls=[ToolCall("look", {"place": "Oslo"})]),
    "Measure": '{"place": "Oslo", "degrees": 7}',
}


class Weather(pydantic.BaseModel):  # type: ignore[misc]
    place: str
    degrees: int


def main() -> None:
    for engine in bad_days(ANSWERS):
        below = transport(engine, ROUTES, first_token_timeout=0.5)
        http_client = httpx2.Client(transport=below, event_hooks={"response": [tell]})
        with openai.OpenAI(api_key="-", http_client=http_client) as client:
            print("  whole:", ask(client))
            print("  stream:", stream(client))
            print("  tool:", *look(client))
            print("  structured:", measure(client))
        print("  awaited:", *asyncio.run(ask_awaited(engine)))


def ask(client: openai.OpenAI) -> Any:
    messages = [{"role": "user", "content": "Hello"}]
    answer = client.chat.completions.create(model="house", messages=messages)
    return answer.choices[0].message.content


def stream(client: openai.OpenAI) -> str:
    messages = [{"role": "user", "content": "Hello"}]
    with client.chat.completions.create(model="house", messages=messages, stream=True) as chunks:
        return "".join(chunk.choices[0].delta.content or "" for chunk in chunks)


def look(client: openai.OpenAI) -> list[str]:
    messages = [{"role": "user", "content": "Look"}]
    answer = client.chat.completions.create(model="house", messages=messages, tools=[LOOK])
    return [call.function.arguments for call in answer.choices[0].message.tool_calls]


def measure(client: openai.OpenAI) -> Any:
    messages = [{"role": "user", "content": "Measure"}]
    answer = client.chat.completions.parse(
        model="house", messages=messages, response_format=Weather
    )
    return answer.choices[0].message.parsed


async def ask_awaited(engine: EngineView) -> tuple[str | None, str]:
    """A whole answer and a stream at the same time."""
    messages = [{"role": "user", "content": "Hello"}]
    below = async_transport(engine, ROUTES, first_token_timeout=0.5)
    http_client = httpx2.AsyncClient(transport=below, event_hooks={"response": [tell_awaited]})
    async with openai.AsyncOpenAI(api_key="-", http_client=http_client) as client:

        async def stream() -> str:
            create = client.chat.completions.create
            chunks = await create(model="house", messages=messages, stream=True)
            return "".join([chunk.choices[0].delta.content or "" async for chunk in chunks])

        whole = client.chat.completions.create(model="house", messages=messages)
        answer, words = await asyncio.gather(whole, stream())
        return answer.choices[0].message.content, words


if __name__ == "__main__":
    main()
