"""Takes providers away for a moment, and stops and pauses the Redis."""

import random
import threading
from collections.abc import Sequence

from providers import SimulatedProvider

from support import RedisServer


def of_providers(
    providers: Sequence[SimulatedProvider], chance: random.Random, over: threading.Event
) -> None:
    while not over.wait(chance.uniform(1, 3)):
        provider = chance.choice(providers)
        provider.stop()
        over.wait(chance.uniform(0.05, 0.5))
        provider.start()


def of_redis(redis: RedisServer, chance: random.Random, over: threading.Event) -> None:
    """Starts it again, when it has forgotten everything, and pauses it, in turn."""
    while not over.wait(chance.uniform(0.5, 1.5)):
        redis.stop()
        over.wait(chance.uniform(0, 0.5))
        redis.start()
        if over.wait(chance.uniform(0.5, 2)):
            return
        redis.pause()
        over.wait(chance.uniform(0.1, 1.5))
        redis.resume()
