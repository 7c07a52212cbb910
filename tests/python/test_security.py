"""What is promised about keys, prompts, and those who are not trusted."""

from __future__ import annotations

import asyncio
import json
import ssl
import urllib.error
import urllib.request
from pathlib import Path
from typing import Any

import pytest
from helpers import KEY, engine_on, engine_with, provider

import tarvomeldric as t
from tarvomeldric._engine import _check_provider
from tarvomeldric.simulator import ProviderSimulator, Reply

PROMPT, ANSWER = "the secret prompt", "the secret answer"
SCRIPT = "<script>alert(1)</script>"


@pytest.mark.parametrize("status", [301, 302, 307, 308])
def test_a_redirect_takes_no_key_elsewhere(status: int) -> None:
    async def ask(engine: t.SelfHealingEngine, record: Any) -> None:
        with pytest.raises(t.APIError, match=f"HTTP {status}"):
            await engine._execute(record, "Hi", "m")
        [item] = [item async for item in engine._execute_stream(record, "Hi", "m")]
        assert item["error"] == "stream_error: APIError"
        assert not await _check_provider("mine", record.base_url, KEY)
        await engine.close()

    with ProviderSimulator() as stranger:
        moved = Reply(status=status, headers={"Location": stranger.base_url + "/chat/completions"})
        with ProviderSimulator(default=moved) as simulator, engine_on(simulator) as engine:
            [record] = engine._providers.values()
            with pytest.raises(t.APIError, match=f"HTTP {status}"):
                engine._execute_sync(record, "Hi", "m")
            asyncio.run(ask(engine, record))
            assert simulator.request_count == 4
        assert stranger.request_count == 0


def test_certificates_are_checked() -> None:
    async def context(engine: t.SelfHealingEngine) -> ssl.SSLContext:
        return (await engine._get_session("mine"))._transport._pool._ssl_context

    with engine_with() as engine:
        pool = engine._get_sync_client("mine")._transport._pool
        for tls in (pool._ssl_context, asyncio.run(context(engine))):
            assert (tls.verify_mode, tls.check_hostname) == (ssl.CERT_REQUIRED, True)


def get(server: Any, path: str) -> str:
    with urllib.request.urlopen(f"http://127.0.0.1:{server.server_port}{path}", timeout=10) as page:
        return str(page.read().decode())


def test_keys_and_what_was_said_are_told_to_nobody(home: Path) -> None:
    """A day of successes, heals and refusals; then everything that can be read is looked through."""
    refusal = Reply(status=401, body=SCRIPT)
    replies = [ANSWER, 429, ANSWER, 404, ANSWER, refusal]
    told: list[Any] = []
    with ProviderSimulator(*replies) as one, ProviderSimulator(default=ANSWER) as other:
        engine = engine_with(
            provider(one.base_url, "openai"),
            provider(other.base_url, "anthropic"),
        )
        server = t.serve_dashboard(engine, "127.0.0.1", 0)
        with engine, pytest.MonkeyPatch.context() as patch:
            patch.setattr("time.sleep", lambda seconds: None)
            results = [engine.call_sync(PROMPT, "gpt-4o") for _ in range(4)]
            assert [r.heal_level for r in results] == [
                "",
                "l1_retry",
                "l2_downgrade",
                "l3_failover",
            ]
            told += [r.mapek_trace for r in results] + [r.fault for r in results]
            engine._learner._persist()
            told += [path.read_text() for path in home.rglob("*.json")]
            before = engine.get_stats()
            pages = [get(server, path) for path in ("/", "/metrics", "/health", "/stats")]
            assert engine.get_stats() == before
            told += [*pages, engine._get_telemetry(), vars(engine._get_telemetry()), engine]
            told += [engine.get_mapek_stats(), engine.health_check(), engine._providers]
        server.shutdown()
        server.server_close()
    assert len(told) > 15
    for each in told:
        assert not any(secret in repr(each) for secret in (KEY, PROMPT, ANSWER))
    assert SCRIPT not in pages[0]
    assert SCRIPT in json.loads(pages[3])["providers"]["openai"]["last_error"]


def test_a_rule_names_no_new_provider(home: Path) -> None:
    rules = home / ".tarvomeldric" / "flywheel_rules.json"
    rules.parent.mkdir()
    actions = ["failover:stranger", "failover:http://127.0.0.1:9/v1", "failover:"]
    rule = {"pattern": "model_request:openai", "success_count": 99, "fail_count": 0}
    rules.write_text(
        json.dumps(
            {f"k{at}": {**rule, "action": a, "confidence": 1.0} for at, a in enumerate(actions)}
        )
    )
    with ProviderSimulator() as simulator, engine_on(simulator) as engine:
        assert {rule.action for rule in engine._learner.get_rules()} == set(actions)
        assert engine.call_sync("Hi", "gpt-4o").provider == "mine"
        assert list(engine._providers) == ["mine"]
