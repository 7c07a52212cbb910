"""The bad day: twelve scenes at three providers, each with its trouble at the first of them.

What a provider says, and how long it takes for that, depends on the question alone and not on the
order in which requests come: everybody meets the same day.
"""

import json
import math
import random
from collections.abc import Callable, Iterator, Sequence
from contextlib import ExitStack, contextmanager
from dataclasses import dataclass, replace
from typing import Any

from tarvomeldric.simulator import Fault, ProviderSimulator, Raw, Reply

LATENCY_S, SPREAD = 0.06, 0.3  # the median of a log-normal distribution, and its sigma
DRIP_S = 10.0  # how long a body takes that comes drop by drop
PAGE = "<html><body><h1>We will be right back</h1></body></html>"
TOTAL = ("invoice", "total")  # what an answer in JSON must have


@dataclass(frozen=True)
class Endpoint:
    """A provider as its clients know it."""

    name: str
    model: str
    port: int

    @property
    def base_url(self) -> str:
        return f"http://127.0.0.1:{self.port}/v1"


@dataclass(frozen=True)
class Question:
    number: int
    prompt: str
    answer: str  # the only good one


def well(question: Question) -> Reply:
    return Reply(question.answer)


def always(reply: Reply) -> Callable[[Question], Reply]:
    return lambda question: reply


def now_and_then(reply: Reply) -> Callable[[Question], Reply]:
    """The same questions are always unlucky."""
    return lambda question: well(question) if question.number % 4 else reply


def broken(question: Question) -> Reply:
    html = Reply(body=PAGE, headers={"Content-Type": "text/html"})
    return html if question.number % 2 else Reply(question.answer, fault=Fault.TRUNCATED)


def dripping(question: Question) -> Reply:
    """White space, which JSON allows, before an answer that is all right in the end."""
    message = {"role": "assistant", "content": question.answer}
    body = {"choices": [{"index": 0, "message": message, "finish_reason": "stop"}]}
    drops: Sequence[Any] = [Raw(" "), 0.2] * round(DRIP_S / 0.2)
    headers = {"Content-Type": "application/json"}
    return Reply(stream=[*drops, Raw(json.dumps(body))], headers=headers, done=False)


@dataclass(frozen=True)
class Scene:
    """What is wrong with the primary. Who makes the calls knows `required`, and nothing else of it."""

    name: str
    trouble: str
    primary: Callable[[Question], Reply] = well
    dead: bool = False  # no request to it is of any use while this lasts
    listens: bool = True
    first: tuple[Reply, ...] = ()  # what its first requests get
    limit: tuple[float, int] | None = None  # requests a second, and the burst before
    gone: str = ""  # a model that it does not have any more
    required: tuple[str, ...] = ()  # the members of the JSON that is asked for

    def questions(self, calls: int) -> list[Question]:
        form = '{"invoice": %d, "total": 12.5}' if self.required else f"Number %d of {self.name}."
        return [
            Question(it, f"What is the total of invoice {it}?", form % it) for it in range(calls)
        ]


PROSE = Reply("The total of that invoice is not hard to find: it is 12.50.")

# fmt: off
SCENES = [
    Scene("quiet", "all is well"),
    Scene("503", "the primary answers 503 for good", always(Reply(status=503)), dead=True),
    Scene("refused", "nobody listens at the primary's port", dead=True, listens=False),
    Scene("silent", "the primary never answers", always(Reply(fault=Fault.STALL)), dead=True),
    Scene("drip", f"the primary's answers drip in, {DRIP_S:g} s each", dripping),
    Scene("burst", "the primary's first eight requests are answered with 500",
          first=(Reply(status=500, delay=LATENCY_S),) * 8),
    Scene("limited", "the primary takes ten requests, then ten a second; else 429, Retry-After: 1",
          limit=(10.0, 10)),
    Scene("key", "the primary refuses the key: 401", always(Reply(status=401)), dead=True),
    Scene("model", "the primary has the model no more, 404, but a cheaper one", gone="gpt-4o"),
    Scene("empty", "to every fourth question the primary says nothing: 200 and an empty text",
          now_and_then(Reply(""))),
    Scene("broken", "by turns the primary sends 200 with a page of HTML, and half an answer",
          broken, dead=True),
    Scene("prose", "JSON is asked for, and the primary answers every fourth question in prose",
          now_and_then(PROSE), required=TOTAL),
]
# fmt: on


@contextmanager
def providers(scene: Scene, endpoints: Sequence[Endpoint], calls: int) -> Iterator[list[Any]]:
    """Simulators at the endpoints, the first of them in trouble: None where nobody listens."""
    with ExitStack() as running:
        yield [
            running.enter_context(_simulator(scene, endpoint, calls, primary=place == 0))
            if scene.listens or place > 0
            else None
            for place, endpoint in enumerate(endpoints)
        ]


def _simulator(scene: Scene, endpoint: Endpoint, calls: int, primary: bool) -> ProviderSimulator:
    chance = random.Random(f"{scene.name} at {endpoint.name}")
    rules = {scene.gone: Reply(status=404, delay=LATENCY_S)} if primary and scene.gone else {}
    for question in scene.questions(calls):
        reply = scene.primary(question) if primary else well(question)
        latency = chance.lognormvariate(math.log(LATENCY_S), SPREAD)
        rules[question.prompt] = replace(reply, delay=latency)
    per_second, burst = (scene.limit if primary else None) or (None, 1)
    return ProviderSimulator(
        *(scene.first if primary else ()),
        rules=rules,
        port=endpoint.port,
        per_second=per_second,
        burst=burst,
        process=True,
        keep=0,
    )
