"""What the README and the pages behind it show, as it stands there, in order, against a provider that answers."""

from __future__ import annotations

import ast
import asyncio
import functools
import inspect
import re
from pathlib import Path
from typing import Any

import pytest
from helpers import providers_at

import tarvomeldric
from support import KEY
from tarvomeldric.simulator import ProviderSimulator

ROOT = Path(__file__).parents[2]
BEHIND = ["clients", "policies", "production", "streaming", "watching"]
PAGES = ["README.md", *(f"docs/{name}.md" for name in BEHIND)]


def blocks(page: Path) -> list[tuple[str, int]]:
    """The page's Python, each piece with the number of its first line."""
    text = page.read_text()
    found = re.finditer(r"^```python\n(.*?)^```", text, re.MULTILINE | re.DOTALL)
    return [(each[1], text.count("\n", 0, each.start(1))) for each in found]


async def run(page: Path, names: dict[str, Any]) -> None:
    for source, above in blocks(page):
        # Its errors then name the page's lines.
        code = compile(
            "\n" * above + source, str(page), "exec", ast.PyCF_ALLOW_TOP_LEVEL_AWAIT, True
        )
        outcome = eval(code, names)
        if inspect.isawaitable(outcome):
            await outcome
    for name in names.values():
        if isinstance(name, tarvomeldric.SelfHealingEngine):
            await name.close()
    if "server" in names:
        names["server"].server_close()


@pytest.mark.parametrize("page", PAGES)
def test_what_a_page_shows_can_be_run(page: str, monkeypatch: Any, silent: Any) -> None:
    free_port = functools.partial(tarvomeldric.serve_dashboard, port=0)
    monkeypatch.setattr(tarvomeldric, "serve_dashboard", free_port)
    monkeypatch.setenv("OPENAI_API_KEY", KEY)
    assert blocks(ROOT / page)
    main = tarvomeldric.ProviderConfig("main", "http://main.example/v1", KEY)
    with (
        ProviderSimulator() as provider,
        providers_at(provider.base_url),
        tarvomeldric.SelfHealingEngine({"main": main}) as engine,
    ):
        names = {"engine": engine, "key": KEY, "prompt": "Who?", "tools": []}
        asyncio.run(run(ROOT / page, names))
        # A strict server would refuse it: the client that a page shows takes it out.
        assert [each for each in provider.requests if "timeout" in each.body] == []
