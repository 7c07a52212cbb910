"""The pytest plugin of `make judge`: puts our transport below the clients that openai's tests make."""

from __future__ import annotations

import functools
import json
import os
import tempfile
from collections.abc import Mapping
from typing import Any

import openai
import pytest

from support import provider, tireless
from tarvomeldric import CallPolicy, EngineView, SelfHealingEngine
from tarvomeldric.clients import async_transport, transport

SETTING: dict[str, Any] = json.loads(os.environ["JUDGE"])


@pytest.hookimpl(tryfirst=True)
def pytest_load_initial_conftests() -> None:
    # Their conftest imports these names.
    if "providers" in SETTING:
        view = engine(SETTING["providers"], SETTING["models"], SETTING["store"])
        put_below("DefaultHttpx2Client", transport(view, passthrough="store"))
        put_below("DefaultAsyncHttpx2Client", async_transport(view, passthrough="store"))


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    excepted: Mapping[str, str] = SETTING["excepted"]
    for item in items:
        for name, reason in excepted.items():
            if name in item.nodeid:
                item.add_marker(pytest.mark.skip(reason=reason))


def engine(urls: list[str], models: list[str], store: str) -> EngineView:
    os.environ["HOME"] = tempfile.mkdtemp()
    engine = SelfHealingEngine({})
    engine.add_provider(provider(store, name="store"))
    for at, url in enumerate(urls):
        engine.add_provider(tireless(base_url=url, name=f"provider {at}", models=models))
    return engine.with_policy(CallPolicy.interactive())


def put_below(name: str, ours: Any) -> None:
    setattr(openai, name, functools.partial(getattr(openai, name), transport=ours))
