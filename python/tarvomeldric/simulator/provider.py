"""The simulator as tests and demos use it."""

from __future__ import annotations

from collections.abc import Mapping, Sequence
from math import inf
from types import TracebackType

from .local import LocalServer
from .received import ReceivedRequest
from .remote import RemoteServer
from .replies import Reply, ReplyLike, as_reply
from .script import TYPICAL_FAULTS, Settings

_HELPFUL = Reply()


class ProviderSimulator:
    """A provider on a loopback port that speaks the OpenAI-compatible dialect.

    It answers every request helpfully until it is told otherwise:

    >>> with ProviderSimulator(429, Fault.RESET, "All well.") as provider:
    ...     engine.add_provider(ProviderConfig("mine", provider.base_url, "any-key"))
    ...     engine.call_sync("How are you?")
    ...     provider.requests[0].header("Authorization")

    The reply to a request is the next one of the script; when none is left, the first of the
    ``rules`` that applies; else, with probability ``fault_rate``, one of ``faults``; else
    ``default``. Everywhere a text, a status or a :class:`Fault` is short for a :class:`Reply`.

    Args:
        script: Replies to use one after the other.
        default: The reply once the script is used up. It repeats for ever.
        rules: Replies by model name or by a text that the prompt contains, tried in order.
        fault_rate: Probability, 0.0 to 1.0, of a random fault.
        faults: What a random fault is; by default 429, 500, 503, a stall, a reset or garbage.
        seed: The same seed gives the same faults for the same order of requests.
        port: Port to serve on; 0 takes a free one.
        process: Serve in a process of its own instead of a thread. Timings then do not depend
            on how busy this interpreter is.
        keep: How many requests are kept in ``requests``; the oldest are dropped.
        per_second: How many requests a second are taken after a first ``burst``; those above are
            answered with 429 and a ``Retry-After``, and use up nothing of the script. None takes all.
        burst: How many are taken at once, once enough time has passed.

    All operations may be used from any thread while the simulator runs; before and after, they
    raise RuntimeError. Entering raises OSError when the port is taken.
    """

    def __init__(
        self,
        *script: ReplyLike,
        default: ReplyLike = _HELPFUL,
        rules: Mapping[str, ReplyLike] | None = None,
        fault_rate: float = 0.0,
        faults: Sequence[ReplyLike] = TYPICAL_FAULTS,
        seed: int = 0,
        port: int = 0,
        process: bool = False,
        keep: int = 10_000,
        per_second: float | None = None,
        burst: int = 1,
    ) -> None:
        if not 0.0 <= fault_rate <= 1.0:
            raise ValueError(f"fault_rate must be within 0 and 1, not {fault_rate}")
        if (per_second is not None and not 0.0 < per_second < inf) or burst < 1:
            raise ValueError(f"there is no limit of {per_second} a second and {burst} at once")
        self._settings = Settings(
            replies=_replies(script),
            default=as_reply(default),
            rules=_rules(rules or {}),
            fault_rate=fault_rate,
            faults=_replies(faults),
            seed=seed,
            port=port,
            keep=keep,
            per_second=per_second,
            burst=burst,
        )
        self._process = process
        self._server: LocalServer | RemoteServer | None = None

    def __enter__(self) -> ProviderSimulator:
        if self._server is not None:
            raise RuntimeError("the simulator is running already")
        start = RemoteServer if self._process else LocalServer
        self._server = start(self._settings)
        return self

    def __exit__(
        self,
        exc_type: type[BaseException] | None,
        exc: BaseException | None,
        traceback: TracebackType | None,
    ) -> None:
        server, self._server = self._running(), None
        server.stop()

    @property
    def port(self) -> int:
        """The port that is served."""
        return self._running().port

    @property
    def base_url(self) -> str:
        """What a ``ProviderConfig`` wants as its base URL: ``http://127.0.0.1:PORT/v1``."""
        return f"http://127.0.0.1:{self.port}/v1"

    @property
    def requests(self) -> list[ReceivedRequest]:
        """The requests received, oldest first: a fresh list.

        A request is in it before its client sees an answer.
        """
        return list(self._running().ask("requests"))

    @property
    def request_count(self) -> int:
        """How many requests were received, those no longer kept in ``requests`` included."""
        return int(self._running().ask("count"))

    def clear(self) -> None:
        """Forget the requests received, and count from 0 again. The script goes on."""
        self._running().ask("clear")

    def script(
        self,
        *replies: ReplyLike,
        default: ReplyLike | None = None,
        rules: Mapping[str, ReplyLike] | None = None,
    ) -> None:
        """Replace the replies still to come by ``replies``, from the next request on.

        ``default`` and ``rules`` stay as they are unless given.
        """
        self._running().ask(
            "rescript",
            _replies(replies),
            None if default is None else as_reply(default),
            None if rules is None else _rules(rules),
        )

    def _running(self) -> LocalServer | RemoteServer:
        if self._server is None:
            raise RuntimeError("the simulator is not running; use it in a with statement")
        return self._server


def _replies(values: Sequence[ReplyLike]) -> tuple[Reply, ...]:
    return tuple(as_reply(value) for value in values)


def _rules(rules: Mapping[str, ReplyLike]) -> dict[str, Reply]:
    return {key: as_reply(value) for key, value in rules.items()}
