"""Providers in processes of their own that fail in every way, and now and then are not there."""

import random
import socket
import threading
from typing import Any

from asking import TOO_MANY

from tarvomeldric import Bulkhead, ProviderConfig, RateLimiter
from tarvomeldric.simulator import Fault, ProviderSimulator, Raw, Reply, ReplyLike

FAULTS: list[ReplyLike] = [429, 500, 503, 401, 401, 402, 403, 404, 404, 404, 400, 400, *Fault]
FAULTS += ["some junk"] * 10  # well-formed, but no contract holds
FAULTS += [
    Reply('{"x": 1}', delay=0.15),
    Reply('{"x": 1}', headers={"Connection": "close"}),
    Reply(status=429, headers={"Retry-After": "3"}),
    Reply(status=503, delay=0.1),
    Reply(body=b"\xff\xfe\x00"),
    Reply(status=500, body="<h1>It broke. \U0001f4a5</h1>" * 100),
]
STREAMS: dict[str, ReplyLike] = {
    "Stream to the end.": Reply(
        stream=["a", "b", Raw(": still here\n\n"), Raw("data: {\n\n"), "c"]
    ),
    "Stream and break off.": Reply(stream=["a", "b", Fault.TRUNCATED]),
    "Stream and reset.": Reply(stream=["a", "b", Fault.RESET]),
    "Stream and fall silent.": Reply(stream=["a", "b", Fault.STALL]),
    "Stream slowly.": Reply(stream=["a", 0.05, "b", 0.05, "c"], done=False),
}
SLOTS = 8
_MANY = 1_000_000
_LOWEST_PORT, _HIGHEST_PORT = 20_000, 30_000  # below those that clients get


class UnrulyProvider:
    """One provider, on a port that stays its own while it is away."""

    def __init__(self, name: str, chance: random.Random) -> None:
        self.name = name
        self._port = _free_port(chance)
        self._rules: dict[str, ReplyLike] = {TOO_MANY: 429, **STREAMS}
        self._seed = chance.randrange(_MANY)
        self._simulator: ProviderSimulator | None = None

    def start(self) -> None:
        self._simulator = ProviderSimulator(
            default='{"x": 1}',
            rules=self._rules,
            fault_rate=0.7,
            faults=FAULTS,
            seed=self._seed,
            port=self._port,
            process=True,
            keep=0,
        )
        self._simulator.__enter__()
        self._seed += 1

    def stop(self) -> None:
        assert self._simulator is not None
        self._simulator.__exit__(None, None, None)

    def record(self, **fields: Any) -> ProviderConfig:
        """What an engine needs to know of it; there is no limit on its rate unless given."""
        wide = RateLimiter(max_tokens=_MANY, refill_rate=1000.0, _tokens=_MANY)
        fields = {"rate_limiter": wide, "bulkhead": Bulkhead(SLOTS), **fields}
        return ProviderConfig(self.name, f"http://127.0.0.1:{self._port}/v1", "soak-key", **fields)


def outages(providers: list[UnrulyProvider], chance: random.Random, over: threading.Event) -> None:
    """Takes one provider after the other away for a moment."""
    while not over.wait(chance.uniform(1, 3)):
        provider = chance.choice(providers)
        provider.stop()
        over.wait(chance.uniform(0.05, 0.5))
        provider.start()


def _free_port(chance: random.Random) -> int:
    # One that clients get could be taken by a client while its provider is away.
    while True:
        port = chance.randrange(_LOWEST_PORT, _HIGHEST_PORT)
        try:
            socket.create_server(("127.0.0.1", port)).close()
        except OSError:
            continue
        return port
