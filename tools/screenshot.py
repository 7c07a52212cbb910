"""Makes docs/dashboard.png: the page in a real browser, after a day on which not all went well.

With `--live` it makes docs/live.png instead, of a quarter of an hour of `tarvomeldric serve`.
"""

from __future__ import annotations

import argparse
import subprocess
import sys
import tempfile
import time
from collections.abc import Iterator
from contextlib import ExitStack, contextmanager, suppress
from pathlib import Path
from unittest import mock

from browser import Browser

from tarvomeldric import APIError, ProviderConfig, SelfHealingEngine, serve_dashboard
from tarvomeldric.simulator import ProviderSimulator, Reply, ReplyLike, rehearsal

ROOT = Path(__file__).resolve().parent.parent
QUARTER = 15 * 60  # seconds
HEALED = "at('state').textContent == 'live' && document.querySelector('li:nth-child(-n + 4) > * > .healed')"
MODELS = ["gpt-4o", "claude-sonnet-4-20250514", "gpt-4o-mini", "gemini-1.5-pro", None]
# How long an answer takes (in seconds), how often a provider fails, and in which ways.
PROVIDERS: dict[str, tuple[float, float, list[ReplyLike]]] = {
    "openai": (0.03, 0.05, [429]),
    "anthropic": (0.05, 0.25, [500, 404, 429]),
    "google": (0.03, 1.0, [503]),
    "deepseek": (0.03, 0.0, [503]),
}


def main() -> None:
    parser = argparse.ArgumentParser(description="Make a picture for the README.")
    parser.add_argument(
        "--live", action="store_true", help="of the live page: a quarter of an hour"
    )
    if parser.parse_args().live:
        picture_of_the_live_page()
    else:
        picture_of_the_dashboard()


def picture_of_the_dashboard() -> None:
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
        with opened(f"http://127.0.0.1:{server.server_port}/", 960, 400) as browser:
            wait_for(browser, "document.readyState == 'complete' && document.links.length")
            keep("dashboard.png", browser.screenshot())


def picture_of_the_live_page() -> None:
    command = [sys.executable, "-m", "tarvomeldric", "serve", "--port", "0"]
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as program:
        assert program.stdout
        address = next(line.split()[-1] for line in program.stdout if "/live" in line)
        try:
            time.sleep(QUARTER)
            with opened(address, 1280, 800) as browser:
                wait_for(browser, HEALED)
                keep("live.png", browser.screenshot(820))
        finally:
            program.terminate()
            program.communicate()


@contextmanager
def opened(address: str, width: int, height: int) -> Iterator[Browser]:
    with (
        tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as profile,
        Browser(Path(profile), width, height) as browser,
    ):
        browser.open(address)
        yield browser


def wait_for(browser: Browser, condition: str) -> None:
    while not browser.evaluate(condition):
        time.sleep(0.05)


def keep(name: str, picture: bytes) -> None:
    path = ROOT / "docs" / name
    path.write_bytes(picture)
    print(f"{path.relative_to(ROOT)}: {len(picture) / 1000:.0f} kB")


if __name__ == "__main__":
    main()
