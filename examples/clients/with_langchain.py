"""LangChain's chat model on a bad day: blocking and awaited, streams, tools and structured output."""

from __future__ import annotations

import asyncio

import httpx2
import pydantic
from bad_day import ROUTES, bad_days, tell, tell_awaited
from langchain_openai import ChatOpenAI

from tarvomeldric import EngineView
from tarvomeldric.clients import async_transport, transport
from tarvomeldric.simulator import Reply, ReplyLike, ToolCall

ANSWERS: dict[str, ReplyLike] = {
    "Look": Reply(tool_calls=[ToolCall("Look", {"place": "Oslo"})]),
    "Measure": '{"place": "Oslo", "degrees": 7}',
}


class Look(pydantic.BaseModel):  # type: ignore[misc]
    """Look at a place."""

    place: str


class Weather(pydantic.BaseModel):  # type: ignore[misc]
    place: str
    degrees: int


def main() -> None:
    for engine in bad_days(ANSWERS):
        model = chat_model(engine)
        print("  whole:", model.invoke("Hello").content)
        print("  stream:", "".join(chunk.content for chunk in model.stream("Hello")))
        print("  tool:", model.bind_tools([Look]).invoke("Look").tool_calls[0]["args"])
        print("  structured:", model.with_structured_output(Weather).invoke("Measure"))
        print("  awaited:", asyncio.run(ask_awaited(model)))


def chat_model(engine: EngineView) -> ChatOpenAI:
    blocking = transport(engine, ROUTES, first_token_timeout=0.5)
    awaited = async_transport(engine, ROUTES, first_token_timeout=0.5)
    return ChatOpenAI(
        model="house",
        api_key="-",
        http_client=httpx2.Client(transport=blocking, event_hooks={"response": [tell]}),
        http_async_client=httpx2.AsyncClient(
            transport=awaited, event_hooks={"response": [tell_awaited]}
        ),
    )


async def ask_awaited(model: ChatOpenAI) -> str:
    return "".join([chunk.content async for chunk in model.astream("Hello")])


if __name__ == "__main__":
    main()
