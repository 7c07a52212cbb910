"""The dashboard in a real browser."""

from __future__ import annotations

import time
from pathlib import Path

import pytest
from browser import Browser

from support import engine_with, provider, until
from tarvomeldric import APIError, serve_dashboard
from tarvomeldric.simulator import ProviderSimulator

TEXT = "document.readyState == 'complete' && document.body.innerText"
PATH = "document.readyState == 'complete' && location.pathname"
CLICK = "[...document.links].find(link => link.innerText == '%s').click()"
# Every provider's card: the colour of its dot, its first and its last line.
CARDS = """[...document.querySelectorAll("span[style*='font-size:20px']")].map(dot => {
    const lines = dot.parentElement.innerText.split("\\n");
    return [getComputedStyle(dot).color, lines[0], lines[2]]; })"""
GREEN, RED = "rgb(76, 175, 80)", "rgb(244, 67, 54)"


@pytest.mark.once
@pytest.mark.uninstrumented
def test_what_an_operator_sees(tmp_path: Path) -> None:
    def shows(*texts: str) -> None:
        deadline, page = time.monotonic() + 30, ""
        while missing := [text for text in texts if text not in page]:
            assert time.monotonic() < deadline, (missing, page)
            time.sleep(0.05)
            page = browser.evaluate(TEXT) or ""

    with (
        ProviderSimulator(default=401) as bad,
        engine_with(provider(bad.base_url, "broken")) as engine,
        serve_dashboard(engine, "127.0.0.1", 0) as server,
        Browser(tmp_path / "browser") as browser,
    ):
        home = f"http://127.0.0.1:{server.server_port}"
        browser.open(home)
        shows("TarvoMeldric v", "Calls: 0", "Healed: 0 (0.0%)", "84 rules", "No faults yet")

        engine.add_provider(provider(name="off", healthy=False))
        for _ in range(5):
            with pytest.raises((APIError, RuntimeError)):
                engine.call_sync("Hi")
        # The page looks again by itself.
        shows("Calls: 5", "calls_total: 5", "fault_auth_error: 5", "auth_error:10")
        cards = [
            [GREEN, "● broken", "✓0 ✗5 circuit:open"],
            [RED, "● off", "✓0 ✗0 circuit:closed"],
        ]
        until(lambda: browser.evaluate(CARDS) == cards)

        links = {"Prometheus": "/metrics", "Health": "/health", "Stats JSON": "/stats"}
        for label, path in links.items():
            browser.evaluate(CLICK % label)
            until(lambda path=path: browser.evaluate(PATH) == path)
            browser.open(home)
            shows("Calls: 5")
    assert all("favicon.ico" in error for error in browser.errors), browser.errors
