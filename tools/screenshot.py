"""Makes docs/dashboard.png: the page in a real browser, after a day on which not all went well."""

from __future__ import annotations

import tempfile
import time
from contextlib import ExitStack, suppress
from pathlib import Path
from unittest import mock

from browser import Browser

from tarvomeldric import APIError, ProviderConfig, SelfHealingEngine, serve_dashboard
from tarvomeldric.simulator import ProviderSimulator, Reply, ReplyLike, rehearsal

ROOT = Path(__file__).resolve().parent.parent
PICTURE = ROOT / "docs" / "dashboard.png"
MODELS = ["gpt-4o", "claude-sonnet-4-20250514", "gpt-4o-mini", "gemini-1.5-pro", None]
# How long an answer takes (in seconds), how often a provider fails, and in which ways.
PROVIDERS: dict[str, tuple[float, float, list[ReplyLike]]] = {
    "openai": (0.03, 0.05, [429]),
    "anthropic": (0.05, 0.25, [500, 404, 429]),
    "google": (0.03, 1.0, [503]),
    "deepseek": (0.03, 0.0, [503]),
}


def main() -> None:
    with ExitStack() as stack:
        stack.enter_context(rehearsal())
        engine = stack.enter_context(SelfHealingEngine({}))
        for name, (delay, rate, faults) in PROVIDERS.items():
            simulator = ProviderSimulator(
                default=Reply("All is well.", delay=delay), fault_rate=rate, faults=faults, seed=4
            )
            address = stack.enter_context(simulator).base_url
            engine.add_provider(ProviderConfig(name, address, "any-key"))
        engine._providers["deepseek"].healthy = False  # taken out of service
        with mock.patch("time.sleep"):
            for number in range(120):
                with suppress(APIError, RuntimeError):
                    engine.call_sync("Hello", MODELS[number % len(MODELS)])

        server = stack.enter_context(serve_dashboard(engine, "127.0.0.1", 0))
        profile = stack.enter_context(tempfile.TemporaryDirectory(ignore_cleanup_errors=True))
        browser = stack.enter_context(Browser(Path(profile), width=960, height=400))
        browser.open(f"http://127.0.0.1:{server.server_port}/")
        while not browser.evaluate("document.readyState == 'complete' && document.links.length"):
            time.sleep(0.05)
        PICTURE.write_bytes(browser.screenshot())
        print(f"{PICTURE.relative_to(ROOT)}: {PICTURE.stat().st_size / 1000:.0f} kB")


if __name__ == "__main__":
    main()
