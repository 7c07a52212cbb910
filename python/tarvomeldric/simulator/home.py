"""Surroundings in which simulated faults leave no traces."""

from __future__ import annotations

import os
from collections.abc import Iterator
from contextlib import ExitStack, contextmanager
from pathlib import Path
from tempfile import TemporaryDirectory

from tarvomeldric import _engine

_HOME_VARIABLES = ("HOME", "USERPROFILE")
_REMOVED_VARIABLES = (
    "TARVOMELDRIC_REDIS_URL",
    *_engine._ENV_KEY_MAP.values(),
    # A proxy is no way to a simulator on this machine.
    "HTTP_PROXY",
    "HTTPS_PROXY",
    "ALL_PROXY",
    "http_proxy",
    "https_proxy",
    "all_proxy",
)
_CHANGED_VARIABLES = _HOME_VARIABLES + _REMOVED_VARIABLES


@contextmanager
def rehearsal(home: str | os.PathLike[str] | None = None) -> Iterator[Path]:
    """Keep engines made inside away from the user's learned rules, fleet and API keys.

    Inside, the home directory is a temporary one, and neither the Redis variable nor a
    provider's key nor a proxy is set. At the end the environment is as before and the directory is removed.
    The environment belongs to the whole process: enter and leave on one thread. Rehearsals can
    be nested.

    Args:
        home: A directory to use as the home instead. It is made when missing, and stays.

    Returns:
        The home directory, from the ``with`` statement.

    Raises:
        OSError: The directory cannot be made.
    """
    with ExitStack() as cleanup:
        if home is None:
            # A program's background threads may still be writing there while it is removed.
            temporary = TemporaryDirectory(
                prefix="tarvomeldric-rehearsal-", ignore_cleanup_errors=True
            )
            home = cleanup.enter_context(temporary)
        path = Path(home).absolute()
        path.mkdir(parents=True, exist_ok=True)
        cleanup.callback(_restore, {name: os.environ.get(name) for name in _CHANGED_VARIABLES})
        for name in _HOME_VARIABLES:
            os.environ[name] = str(path)
        for name in _REMOVED_VARIABLES:
            os.environ.pop(name, None)
        yield path


def _restore(variables: dict[str, str | None]) -> None:
    for name, value in variables.items():
        if value is None:
            os.environ.pop(name, None)
        else:
            os.environ[name] = value
