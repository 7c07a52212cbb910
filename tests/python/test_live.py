"""The live page: what it tells of a bad day, what strangers' texts do on it, and what it leaves behind."""

from __future__ import annotations

import gc
import json
import weakref
from pathlib import Path
from typing import Any
from unittest.mock import patch

import pytest
from browser import Browser
from dashboards import served

from support import engine_with, get, provider, run_child, until
from tarvomeldric import APIError, CallPolicy, CallRefused, CircuitBreaker, RateLimiter
from tarvomeldric._live import Live
from tarvomeldric.simulator import Fault, ProviderSimulator, Reply

pytestmark = pytest.mark.usefixtures("silent")


def figures(server: Any) -> Any:
    page = get(server, "/live.json")
    assert (page.status, dict(page.headers)["Content-Type"]) == (200, "application/json")
    return json.loads(page.body, parse_constant=pytest.fail)  # browsers know no Infinity


def sums(history: Any) -> dict[str, int]:
    return {
        name: sum(step[name] for step in history)
        for name in ("calls", "healed", "failed", "faults")
    }


# The calls of a day, in their order: who may be asked, how it ends, and through which steps.
DAY = {
    "one": ("first second", "answered l1_retry server_error",
            "failed first server_error; wait  retry; answered first "),
    "two": ("second", "answered  ", "answered second "),
    "three": ("first second", "failed  rate_limit",
              "failed first connection_error; wait  retry; failed first rate_limit; refused second admission"),
}  # fmt: skip


def test_the_figures_of_a_bad_day() -> None:
    limited = Reply(status=429, headers={"Retry-After": "60"})
    with (
        ProviderSimulator(503, "Healed.", Fault.RESET, default=limited) as first,
        ProviderSimulator() as second,
        engine_with(
            provider(first.base_url, "first", circuit_breaker=CircuitBreaker(2)),
            provider(second.base_url, "second", rate_limiter=RateLimiter(1, 0.0, _tokens=1.0)),
        ) as engine,
        served(engine, live=True) as server,
    ):
        policy = CallPolicy(max_retries=1, initial_backoff=0.05, retry_after=True)
        for name, (asked, outcome, _) in DAY.items():
            view = engine.with_policy(policy.replace(providers=asked.split()))
            try:
                view.call_sync("Hi", "m", request_id=name)
            except (APIError, CallRefused):
                assert outcome.startswith("failed")
        engine._providers["second"].circuit_breaker.cooldown_seconds = float("inf")
        engine._providers["second"].circuit_breaker._trip()
        told = figures(server)
        until(
            lambda: (
                sums(figures(server)["history"])
                == {"calls": 3, "healed": 1, "failed": 1, "faults": 3}
            )
        )
    seen = {}
    for call in reversed(told["calls"]):
        steps = "; ".join(f"{it['kind']} {it['provider']} {it['reason']}" for it in call["steps"])
        ends = " ".join(call[each] for each in ("outcome", "heal_level", "fault"))
        seen[call["id"]] = (DAY[call["id"]][0], ends, steps)
    assert list(seen.items()) == list(DAY.items())
    first_card, second_card = told["providers"].values()
    assert (first_card["circuit"], first_card["success"], first_card["fail"]) == ("open", 1, 3)
    assert 10 < first_card["cooldown_left"] <= 20
    assert 50 < first_card["left_alone"] <= 60
    assert first_card["slots"] == {"used": 0, "of": 10}
    assert second_card["tokens"] == {"left": 0.0, "of": 1}
    assert second_card["cooldown_left"] is None
    assert second_card["latency_ms"]["p50"] > 0


def test_there_is_no_live_page_unless_asked_for() -> None:
    with engine_with() as engine, served(engine) as server:
        assert get(server, "/live").status == get(server, "/live.json").status == 404
    with engine_with() as engine, served(engine, live=True, with_dashboard=False) as server:
        headers = dict(get(server, "/live").headers)
        assert "default-src 'none'; script-src 'sha256-" in headers["Content-Security-Policy"]
        assert get(server, "/").status == 404


def test_an_engine_is_let_go() -> None:
    engine = engine_with()
    recorded = Live(engine)._recent  # and the page is dropped
    with (
        served(engine, live=True) as server,
        patch.object(engine, "_execute_sync", lambda *_, **__: ""),
    ):
        kept = server.live._recent
        engine.call_sync("Hi", "m")
        assert (len(recorded.calls()), len(kept.calls())) == (0, 1)
    server.server_close()
    gone = weakref.ref(engine)
    del engine, server
    gc.collect()
    assert gone() is None


FORKING = """
import os, warnings
from support import engine_with
from tarvomeldric import serve_dashboard
warnings.simplefilter("ignore")  # newer Pythons warn of a fork beside threads
engine = engine_with()
engine._execute_sync = lambda *_, **__: "answered"
server = serve_dashboard(engine, "127.0.0.1", 0, False, False, False, live=True)
child = os.fork()
engine.call_sync("Hi", "m")
recorded = len(server.live._recent.calls())
if child == 0:
    os._exit(recorded)
print(recorded, os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))
"""


def test_a_forked_child_records_nothing() -> None:
    assert run_child(FORKING, strict=False).splitlines()[1:] == ["1 0"]


HIT = "<img src=x onerror=window.hit=1>"
NAMES = [
    HIT,
    "\u202eright to left",
    "<script>window.hit=1</script>",
    "x" * 10_000,
    "\ud800",
    "__proto__",
]
ERROR = f"\u2028\"'</script>{HIT}" + "e" * 10_000


@pytest.mark.once
@pytest.mark.uninstrumented  # a browser would be, too
def test_texts_of_strangers_stay_texts(tmp_path: Path) -> None:
    def shown(selector: str) -> Any:
        return browser.evaluate(f"document.querySelector({selector!r}).textContent")

    engine = engine_with(*(provider(name=name) for name in NAMES))
    with (
        engine,
        patch.object(engine, "_execute_sync", side_effect=APIError(ERROR, 401)),
        served(engine, live=True) as server,
        Browser(tmp_path / "profile") as browser,
    ):
        for name in NAMES:
            with pytest.raises((APIError, RuntimeError)):
                engine.call_sync("Hi", model=HIT, request_id=name)
        size = {"width": 390, "height": 800, "deviceScaleFactor": 1, "mobile": True}
        browser.command("Emulation.setDeviceMetricsOverride", **size)
        browser.open(f"http://127.0.0.1:{server.server_port}/live")
        until(
            lambda: (
                browser.evaluate("document.querySelectorAll('#calls > li').length") == len(NAMES)
            ),
            30,
        )
        browser.evaluate("document.querySelectorAll('details').forEach((one) => one.open = true)")
        for name in NAMES[:3]:
            assert name in shown("#providers")
            assert name in shown("#calls")
        assert len(shown("#providers")) < 3000
        assert HIT in shown("summary .model")
        assert browser.evaluate("document.querySelectorAll('main img, main script').length") == 0
        assert browser.evaluate("document.documentElement.scrollWidth <= innerWidth")
        assert browser.evaluate("window.hit") is None
        assert browser.errors == []
        injected = "document.body.append(Object.assign(document.createElement('script'), {text: 'hit = 1'}))"
        browser.evaluate(injected)
        assert browser.evaluate("window.hit") is None
        server.server_close()
        until(lambda: shown("#state") == "no answer", 30)
