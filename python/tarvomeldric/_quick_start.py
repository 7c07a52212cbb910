"""The quick start: an engine from the keys at hand, each tried by a live probe."""

from __future__ import annotations

import asyncio
import contextlib
import signal
import sys
import threading
from collections.abc import Iterator
from typing import TYPE_CHECKING, Any

from tarvomeldric import _engine

if TYPE_CHECKING:
    import httpx

_ANY_MODEL = "deepseek-chat"  # where no preset model is known
_TIMEOUT_S = 10.0
_INSISTING_S = 0.05  # seconds between two cancellations of a check
_TIDYING_S = 1.0  # at most, for a check that is given up


def quick_start(api_keys: dict[str, str], verbose: bool) -> Any:
    """An engine with every provider for which there is a key; says what it found when ``verbose``."""
    engine = _engine.SelfHealingEngine()
    found = 0
    for name, base_url in _engine._ENV_MAP.values():
        record = _engine._preset_record(name, base_url, api_keys)
        if not record.api_key:
            continue
        record.healthy = probe(name, base_url, record.api_key)
        engine.add_provider(record)
        found += 1
        if verbose:
            state = "OK" if record.healthy else "DOWN"
            print(f"  [{state}] {name}: {base_url} (models: {len(record.models)})")
    if verbose:
        _print_banner(engine, found)
    return engine


def _print_banner(engine: Any, found: int) -> None:
    healthy = len(engine.get_available_providers())
    rules = engine._learner.get_stats()["total_rules"]
    print(f"\n  TarvoMeldric v{_engine.__version__} | {found} provider(s) | {healthy} healthy")
    print("  MAPE-K: Monitor->Analyze->Plan->Execute->Knowledge")
    print("  HA: CircuitBreaker + RateLimiter + Bulkhead per provider")
    print("  Semantic: Strong/Tau/OOB three-domain topology")
    print(f"  Flywheel: {rules} rules loaded")
    print("\n  Async:  engine.call('Hello')")
    print("  Sync:   engine.call_sync('Hello')")
    print("  Model:  engine.call('Hello', model='gpt-4o')")
    print("  Task:   engine.call('Hello', task_type='classification')")


async def check_provider(name: str, base_url: str, api_key: str) -> bool:
    """Whether a provider answers a tiny chat request with this key; no failure is raised."""
    model = _engine._DEFAULT_MODELS.get(name) or _ANY_MODEL
    try:
        async with await asyncio.to_thread(_new_client) as client:
            response = await client.post(
                base_url + "/chat/completions",
                headers={"Authorization": "Bearer " + api_key, "Content-Type": "application/json"},
                json={
                    "model": model,
                    "messages": [{"role": "user", "content": "Hi"}],
                    "max_tokens": 3,
                },
                timeout=_TIMEOUT_S,
            )
        return response.status_code == 200
    except Exception:
        return False


def _new_client() -> httpx.AsyncClient:
    """Takes so long that a loop would stand still for it: loads the HTTP library and the certificates."""
    import httpx

    return httpx.AsyncClient()


def probe(name: str, base_url: str, api_key: str) -> bool:
    """Runs the check on this thread's event loop; where there is none to run it on, the key counts as good."""
    if _is_running():
        return True
    try:
        with _loop() as loop:
            return loop.is_closed() or loop.is_running() or _run(loop, name, base_url, api_key)
    except RuntimeError:
        return True


def _run(loop: asyncio.AbstractEventLoop, name: str, base_url: str, api_key: str) -> bool:
    check = loop.create_task(_engine._check_provider(name, base_url, api_key))
    try:
        with _interrupts_cancel(check, loop):
            return loop.run_until_complete(check)
    except BaseException:  # the check may be half done
        check.cancel()
        loop.run_until_complete(asyncio.wait({check}, timeout=_TIDYING_S))
        raise


@contextlib.contextmanager
def _interrupts_cancel(
    check: asyncio.Task[bool], loop: asyncio.AbstractEventLoop
) -> Iterator[None]:
    """Has Ctrl-C cancel the check, and raises KeyboardInterrupt once that is done.

    Raised in the midst of the loop's work it could cost the check its wake-up; and one that comes just
    before the loop waits would not be noticed before the provider answers.
    """
    ours = threading.current_thread() is threading.main_thread()
    if not ours or signal.getsignal(signal.SIGINT) is not signal.default_int_handler:
        yield
        return
    pressed = False

    def interrupt() -> None:
        nonlocal pressed
        pressed = True
        # While it connects, the libraries may take a cancellation for one of their own.
        if check.cancel():
            loop.call_later(_INSISTING_S, interrupt)

    loop.add_signal_handler(signal.SIGINT, interrupt)
    try:
        yield
    except asyncio.CancelledError:
        if not pressed:
            raise
    finally:
        loop.remove_signal_handler(signal.SIGINT)
    if pressed:
        raise KeyboardInterrupt


@contextlib.contextmanager
def _loop() -> Iterator[asyncio.AbstractEventLoop]:
    """The thread's event loop, or one for the moment where the main thread never had one."""
    if not _never_had_one():
        yield asyncio.get_event_loop()
        return
    loop = asyncio.new_event_loop()
    try:
        yield loop
        loop.run_until_complete(loop.shutdown_asyncgens())
    finally:
        loop.run_until_complete(loop.shutdown_default_executor())
        loop.close()


def _is_running() -> bool:
    try:
        asyncio.get_running_loop()
    except RuntimeError:
        return False
    return True


def _never_had_one() -> bool:
    """Whether the main thread asks for its first event loop.

    Asking would make one, leave it open for good, and warn on some Pythons; from 3.14 on it makes none and
    cannot tell a first time from any other.
    """
    if threading.current_thread() is not threading.main_thread():
        return False
    if sys.version_info >= (3, 14):
        try:
            asyncio.get_event_loop()
        except RuntimeError:
            return True
        return False
    kept: Any = getattr(asyncio.get_event_loop_policy(), "_local", None)
    return kept is not None and kept._loop is None and not kept._set_called
