"""A pydantic-ai agent on a bad day: it uses a tool, and gives its result as a record; then a stream."""

from __future__ import annotations

import asyncio

import httpx2
import pydantic
from bad_day import ROUTES, bad_days, tell_awaited
from pydantic_ai import Agent
from pydantic_ai.models.openai import OpenAIChatModel
from pydantic_ai.providers.openai import OpenAIProvider

from tarvomeldric import EngineView
from tarvomeldric.clients import async_transport
from tarvomeldric.simulator import Reply, ReplyLike, ToolCall

ANSWERS: dict[str, ReplyLike] = {
    "Measure": Reply(tool_calls=[ToolCall("thermometer", {"place": "Oslo"})]),
    "7 degrees": Reply(tool_calls=[ToolCall("final_result", {"place": "Oslo", "degrees": 7})]),
}


class Weather(pydantic.BaseModel):  # type: ignore[misc]
    place: str
    degrees: int


def main() -> None:
    for engine in bad_days(ANSWERS):
        asyncio.run(ask(engine))


async def ask(engine: EngineView) -> None:
    below = async_transport(engine, ROUTES, first_token_timeout=0.5)
    hooks = {"response": [tell_awaited]}
    async with httpx2.AsyncClient(transport=below, event_hooks=hooks) as http_client:
        model = OpenAIChatModel(
            "house", provider=OpenAIProvider(api_key="-", http_client=http_client)
        )
        measuring = Agent(model, output_type=Weather, tools=[thermometer])
        print("  structured:", repr((await measuring.run("Measure")).output))
        async with Agent(model).run_stream("Hello") as answer:
            print("  stream:", await answer.get_output())


def thermometer(place: str) -> str:
    return f"{place}: 7 degrees"


if __name__ == "__main__":
    main()
