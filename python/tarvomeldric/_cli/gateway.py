"""``gateway``: an OpenAI-compatible server that heals the calls of its clients."""

from __future__ import annotations

import argparse
import contextlib
import json
from collections.abc import Iterator
from dataclasses import replace
from typing import TYPE_CHECKING, Any

from tarvomeldric.simulator import Fault, ProviderSimulator, Reply, rehearsal

from .configuration import complain, missing, read

if TYPE_CHECKING:
    from tarvomeldric.gateway.config import Config

# Who answers in a rehearsal; the first choice is in trouble now and then.
_SIMULATED: dict[str, dict[str, Any]] = {
    "first": {"fault_rate": 0.3, "faults": (503, 429, Fault.RESET)},
    "second": {"default": Reply(delay=0.05)},
    "third": {"default": Reply(delay=0.2)},
}
_ROUTE = "fast"
_WIDE = {"slots": 1000, "burst": 10_000, "requests_per_second": 10_000.0}


def main(options: argparse.Namespace) -> int:
    """Serve until Ctrl-C or a request to terminate, which let running calls end."""
    try:
        from tarvomeldric.gateway import config as settings
        from tarvomeldric.gateway import server
    except ImportError as error:
        return missing(error)
    try:
        with _rehearsed() if options.rehearse else read(options.config) as given:
            config = replace(given, server=given.server.at(options.host, options.port))
            with config.engine() as engine:
                return server.run(config, engine, _lesson if options.rehearse else _announce)
    except settings.ConfigError as error:
        return complain(error)


@contextlib.contextmanager
def _rehearsed() -> Iterator[Config]:
    """A configuration of simulators, each in a process of its own."""
    from tarvomeldric.gateway.config import config_of

    with rehearsal(), contextlib.ExitStack() as stack:
        providers = {}
        for name, behaviour in _SIMULATED.items():
            simulator = ProviderSimulator(process=True, keep=0, **behaviour)
            providers[name] = {"base_url": stack.enter_context(simulator).base_url, **_WIDE}
        route = {"name": _ROUTE, "providers": {name: f"{name}-model" for name in providers}}
        yield config_of({"providers": providers, "routes": [route]})


def _announce(url: str) -> None:
    print(f"  Gateway: {url}/v1", flush=True)


def _lesson(url: str) -> None:
    _announce(url)
    asked: dict[str, Any] = {"model": _ROUTE, "messages": [{"role": "user", "content": "Hello"}]}
    for title, options, more in (
        (
            "One of three simulated providers fails now and then. Ask them, and see who answered:",
            "-i",
            {},
        ),
        ("Or as a stream:", "-N", {"stream": True}),
    ):
        body = json.dumps({**asked, **more})
        to = f"{url}/v1/chat/completions -H 'content-type: application/json'"
        print(f"\n  {title}\n\n  curl {options} {to} -d '{body}'", flush=True)
    print("\n  What it counted: " + f"{url}/metrics; Ctrl-C ends it.", flush=True)
