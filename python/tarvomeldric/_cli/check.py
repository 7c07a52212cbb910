"""``check``: what a gateway would serve by a file, and what is wrong with it."""

from __future__ import annotations

import argparse
from collections.abc import Iterator
from typing import TYPE_CHECKING

from tarvomeldric import RetryBudget

from .configuration import complain, missing, read
from .terminal import tame

if TYPE_CHECKING:
    from tarvomeldric.gateway.config import Config


def main(options: argparse.Namespace) -> int:
    """Print it and return 0, or what is wrong and return 1. No key is needed to be valid, or shown."""
    from tarvomeldric.gateway.config import ConfigError

    try:
        with read(options.file) as config:
            for label, told in _story(config):
                print(f"  {label:<12}{tame(told)}")
    except ConfigError as error:
        return complain(error)
    except ImportError as error:
        return missing(error)
    return 0


def _story(config: Config) -> Iterator[tuple[str, str]]:
    server = config.server
    host = f"[{server.host}]" if ":" in server.host else server.host
    tokens = len(server.tokens)
    needed = f"a token is needed ({tokens} known)" if tokens else "no token is needed"
    yield "address", f"http://{host}:{server.port}/v1, {needed}"
    named = {table.route.name: dict(table.route.providers) for table in config.routes}
    listed: dict[str, dict[str, str]] = {}
    for name, provider in config.providers.items():
        for model in provider.record(name).models:
            if model not in named:
                listed.setdefault(model, {})[name] = model
    for label, served in ("route", named), ("model", listed):
        for asked, by in served.items():
            order = ", ".join(f"{name}:{model}" for name, model in by.items())
            yield label, f"{asked} -> {order}"
    changes = [f"{name} = {_told(value)}" for name, value in config.policy.changes().items()]
    yield "policy", ", ".join([config.policy.base, *changes])
    if config.passthrough is not None:
        yield "passthrough", config.passthrough


def _told(value: object) -> str:
    if not isinstance(value, RetryBudget):
        return repr(value)
    figures = ("ratio", "min_retries_per_second", "burst")
    return ", ".join(f"{name} {getattr(value, name):g}" for name in figures)
