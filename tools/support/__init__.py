"""What the tests, the soak and the measurements share.

Engines on wide-open providers, programs in interpreters of their own, a Redis, and ways to wait.
"""

from .engines import KEY, NOWHERE, Slots, engine_on, engine_with, provider, slots_of, tireless
from .memory import allocated, give_back_free, resident, use_one_arena
from .pages import Page, get
from .ports import free_port
from .programs import run_child, start_child
from .redis_server import RedisServer
from .waiting import until, worst_pause

__all__ = [
    "KEY",
    "NOWHERE",
    "Page",
    "RedisServer",
    "Slots",
    "allocated",
    "engine_on",
    "engine_with",
    "free_port",
    "get",
    "give_back_free",
    "provider",
    "resident",
    "run_child",
    "slots_of",
    "start_child",
    "tireless",
    "until",
    "use_one_arena",
    "worst_pause",
]
