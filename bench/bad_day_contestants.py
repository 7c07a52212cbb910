"""Who lives through the bad day: this engine, and what engineers would write instead of using it."""

import asyncio
import json
import time
from collections.abc import Sequence
from pkgutil import resolve_name
from typing import Any

import httpx
from bad_day_scenes import Endpoint, Scene

from tarvomeldric import Contract, ProviderConfig, SelfHealingEngine

KEY = "sk-0123456789abcdef"
ENOUGH_S = 8.0  # for a request of the openai client; for all that tenacity asks one provider


class Contestant:
    """A way to call several providers, the first of which is preferred.

    It is made and used inside one event loop, and lives through the whole day, which its process
    does not outlive.
    """

    title = ""
    made_with = ""  # a module, or a name in one after a colon

    def __init__(self, endpoints: Sequence[Endpoint]) -> None:
        self.endpoints = endpoints
        self.tool: Any = resolve_name(self.made_with)

    async def ask(self, prompt: str, scene: Scene) -> str:
        """Return what the caller then takes for the answer, or raise whatever there is to raise."""
        raise NotImplementedError

    def let_hours_pass(self) -> None:
        """Forget what would be over before the next scene."""


class Engine(Contestant):
    title = "TarvoMeldric, `call`"
    made_with = "tarvomeldric"

    def __init__(self, endpoints: Sequence[Endpoint]) -> None:
        super().__init__(endpoints)
        self.engine: Any = SelfHealingEngine({})
        self.caller = self.engine

    async def ask(self, prompt: str, scene: Scene) -> str:
        more: dict[str, Any] = {}
        if scene.required:
            contract = Contract(output_schema={"required": list(scene.required)})
            more = {"task_type": "extraction", "contract": contract}
        result = await self.caller.call(prompt, model=self.endpoints[0].model, **more)
        return str(result.text)

    def let_hours_pass(self) -> None:
        """Breakers are closed again and limits full; clients and what was learned stay."""
        for it in self.endpoints:
            self.engine.add_provider(ProviderConfig(it.name, it.base_url, KEY))


class Interactive(Engine):
    title = "TarvoMeldric, `CallPolicy.interactive()`"
    made_with = "tarvomeldric:CallPolicy"

    def __init__(self, endpoints: Sequence[Endpoint]) -> None:
        super().__init__(endpoints)
        self.caller = self.engine.with_policy(self.tool.interactive())


class Hedged(Interactive):
    title = '`interactive()`, and `hedge_after="p95"`'

    def __init__(self, endpoints: Sequence[Endpoint]) -> None:
        super().__init__(endpoints)
        self.caller = self.engine.with_policy(self.tool.interactive().replace(hedge_after="p95"))

    def let_hours_pass(self) -> None:
        """Nor is anybody put aside any more for having been slow, which lasts 10 s."""
        super().let_hours_pass()
        time.sleep(10.0)


class Tenacity(Contestant):
    """Three attempts at each provider, and eight seconds in all; every answer is looked at."""

    title = "tenacity over httpx, answers checked, 8 s a provider"
    made_with = "tenacity"

    def __init__(self, endpoints: Sequence[Endpoint]) -> None:
        super().__init__(endpoints)
        self.client = httpx.AsyncClient(headers={"Authorization": f"Bearer {KEY}"}, timeout=None)
        self.backoff = self.tool.wait_random_exponential(multiplier=0.5, max=4)
        self.retrying = self.tool.AsyncRetrying(
            stop=self.tool.stop_after_attempt(3),
            wait=self.wait,
            retry=self.tool.retry_if_exception(self.is_transient),
            reraise=True,
        )

    async def ask(self, prompt: str, scene: Scene) -> str:
        failure: Exception | None = None
        for endpoint in self.endpoints:
            work = self.retrying.copy()(self.post, endpoint, prompt, scene)
            try:
                return str(await asyncio.wait_for(work, ENOUGH_S))
            except (httpx.HTTPError, ValueError, asyncio.TimeoutError) as error:
                failure = error
        raise failure or ValueError("no providers")

    async def post(self, endpoint: Endpoint, prompt: str, scene: Scene) -> str:
        body = {"model": endpoint.model, "messages": [{"role": "user", "content": prompt}]}
        response = await self.client.post(f"{endpoint.base_url}/chat/completions", json=body)
        response.raise_for_status()
        try:
            text = str(response.json()["choices"][0]["message"]["content"] or "")
            members = set(json.loads(text)) if scene.required else set()
        except (LookupError, TypeError) as error:
            raise ValueError(f"not the answer that was asked for: {response.text[:80]}") from error
        if not text.strip() or not {*scene.required} <= members:
            raise ValueError(f"empty or incomplete: {text[:80]}")
        return text

    def wait(self, state: Any) -> float:
        response = getattr(state.outcome.exception(), "response", None)
        after = response.headers.get("Retry-After", "") if response is not None else ""
        return max(float(self.backoff(state)), float(after) if after.isdecimal() else 0.0)

    @staticmethod
    def is_transient(error: BaseException) -> bool:
        if isinstance(error, httpx.HTTPStatusError):
            return error.response.status_code in (408, 429, 500, 502, 503, 504)
        return isinstance(error, httpx.TransportError)


class OpenAIClient(Contestant):
    title = "openai client, tuned, the others as fallback"
    made_with = "openai"

    def __init__(self, endpoints: Sequence[Endpoint]) -> None:
        super().__init__(endpoints)
        tuned = {"api_key": KEY, "max_retries": 2, "timeout": ENOUGH_S}
        self.clients = [self.tool.AsyncOpenAI(base_url=it.base_url, **tuned) for it in endpoints]

    async def ask(self, prompt: str, scene: Scene) -> str:
        question: dict[str, Any] = {"messages": [{"role": "user", "content": prompt}]}
        if scene.required:
            question["response_format"] = {"type": "json_object"}
        failure = None
        for client, endpoint in zip(self.clients, self.endpoints, strict=True):
            try:
                answer = await client.chat.completions.create(model=endpoint.model, **question)
                return str(answer.choices[0].message.content)
            except self.tool.OpenAIError as error:
                failure = error
        raise failure or ValueError("no providers")


CONTESTANTS: dict[str, type[Contestant]] = {
    "engine": Engine,
    "interactive": Interactive,
    "hedged": Hedged,
    "tenacity": Tenacity,
    "openai": OpenAIClient,
}
