"""What is promised about keys, prompts, and those who are not trusted."""

from __future__ import annotations

import asyncio
import json
from pathlib import Path
from typing import Any

import pytest
from dashboards import served

from support import KEY, engine_on, engine_with, get, provider
from tarvomeldric import APIError, SelfHealingEngine
from tarvomeldric._engine import _check_provider
from tarvomeldric.simulator import ProviderSimulator, Reply

PROMPT, ANSWER = "the secret prompt", "the secret answer"
SCRIPT = "<script>alert(1)</script>"
PAGES = ("/", "/metrics", "/health", "/stats", "/live", "/live.json")


def test_a_redirect_takes_no_key_elsewhere() -> None:
    async def ask(engine: SelfHealingEngine, record: Any) -> None:
        with pytest.raises(APIError, match="HTTP 307"):
            await engine._execute(record, "Hi", "m")
        [item] = [item async for item in engine._execute_stream(record, "Hi", "m")]
        assert item["error"] == "stream_error: APIError"
        assert not await _check_provider("mine", record.base_url, KEY)
        await engine.close()

    with ProviderSimulator() as stranger:
        moved = Reply(status=307, headers={"Location": stranger.base_url + "/chat/completions"})
        with ProviderSimulator(default=moved) as simulator, engine_on(simulator) as engine:
            [record] = engine._providers.values()
            with pytest.raises(APIError, match="HTTP 307"):
                engine._execute_sync(record, "Hi", "m")
            asyncio.run(ask(engine, record))
            assert simulator.request_count == 4
        assert stranger.request_count == 0


def test_keys_and_what_was_said_are_told_to_nobody(home: Path, monkeypatch: Any) -> None:
    """A day of successes, heals and refusals; then everything that can be read is looked through."""
    monkeypatch.setattr("time.sleep", lambda seconds: None)
    refusal = Reply(status=401, body=SCRIPT)
    with (
        ProviderSimulator(ANSWER, 429, ANSWER, 404, ANSWER, refusal) as one,
        ProviderSimulator(default=ANSWER) as other,
        engine_with(
            provider(one.base_url, "openai"), provider(other.base_url, "anthropic")
        ) as engine,
        served(engine, live=True) as server,
    ):
        results = [engine.call_sync(PROMPT, "gpt-4o") for _ in range(4)]
        levels = [result.heal_level for result in results]
        assert levels == ["", "l1_retry", "l2_downgrade", "l3_failover"]
        engine._learner._persist()
        before = engine.get_stats()
        pages = [get(server, path).body.decode() for path in PAGES]
        assert engine.get_stats() == before
        [rules] = home.rglob("*.json")
        told = [engine, engine._providers, engine._get_telemetry(), vars(engine._get_telemetry())]
        told += [engine.get_mapek_stats(), engine.health_check(), rules.read_text(), *pages]
        told += [result.mapek_trace for result in results] + [result.fault for result in results]
    for each in told:
        assert not any(secret in repr(each) for secret in (KEY, PROMPT, ANSWER))
    assert SCRIPT not in pages[0]
    assert SCRIPT in json.loads(pages[3])["providers"]["openai"]["last_error"]
