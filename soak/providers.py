"""The simulated providers, in processes of their own, and the faults that they have."""

import random
from contextlib import ExitStack
from typing import Any

from support import free_port, provider
from tarvomeldric.simulator import Fault, ProviderSimulator, Raw, Reply, ReplyLike

SLOTS = 8
RATE_LIMITED = "Too many requests."  # a prompt that contains this is answered with 429
_WELL, _JUNK = '{"x": 1}', "some junk"
ANSWERS = [_WELL, _JUNK]

_FAULTS: list[ReplyLike] = [429, 500, 503, 401, 401, 402, 403, 404, 404, 404, 400, 400, *Fault]
_FAULTS += [_JUNK] * 10  # well-formed, but no contract holds
_FAULTS += [
    Reply(_WELL, delay=0.15),
    Reply(_WELL, headers={"Connection": "close"}),
    Reply(status=429, headers={"Retry-After": "3"}),
    Reply(status=503, delay=0.1),
    Reply(body=b"\xff\xfe\x00"),
    Reply(status=500, body="<h1>It broke. \U0001f4a5</h1>" * 100),
]
STREAMS = {
    "Stream well.": Reply(stream=["a", " b", " c"]),
    "Stream to the end.": Reply(
        stream=["a", "b", Raw(": still here\n\n"), Raw("data: {\n\n"), "c"]
    ),
    "Stream and break off.": Reply(stream=["a", "b", Fault.TRUNCATED]),
    "Stream and reset.": Reply(stream=["a", "b", Fault.RESET]),
    "Stream and fall silent.": Reply(stream=["a", "b", Fault.STALL]),
    "Stream slowly.": Reply(stream=["a", 0.05, "b", 0.05, "c"], done=False),
}


class SimulatedProvider:
    """A provider that fails in every way. It keeps its port when it is started again."""

    def __init__(self, name: str, chance: random.Random) -> None:
        self.name = name
        self._chance = chance
        self._port = free_port()
        self._running = ExitStack()

    def start(self) -> None:
        simulator = ProviderSimulator(
            default=_WELL,
            rules={RATE_LIMITED: 429, **STREAMS},
            fault_rate=0.7,
            faults=_FAULTS,
            seed=self._chance.randrange(1_000_000),
            port=self._port,
            process=True,
            keep=0,
        )
        self._running.enter_context(simulator)

    def stop(self) -> None:
        self._running.close()

    def record(self, **fields: Any) -> Any:
        """What an engine needs to know of it; there is no limit on its rate unless given."""
        return provider(f"http://127.0.0.1:{self._port}/v1", self.name, SLOTS, **fields)
