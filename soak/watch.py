"""What a process holds: memory, descriptors, threads and objects."""

import ctypes
import gc
import os
import resource
import threading
import time
from collections import Counter
from collections.abc import Callable
from pathlib import Path

from naps import sleep

_PATIENCE = 20.0  # seconds
_OWN = ("tarvomeldric", "asking", "httpx", "httpcore", "redis", "asyncio", "_asyncio", "uvloop")


class _Allocated(ctypes.Structure):
    """glibc's `mallinfo2`; of its ten sizes these are used."""

    _fields_ = [(f"_{number}", ctypes.c_size_t) for number in range(10)]
    mapped = property(lambda self: int(self._4))
    in_use = property(lambda self: int(self._7))


_libc = ctypes.CDLL(None)
_libc.mallinfo2.restype = _Allocated


def resident() -> int:
    """Bytes of memory that are resident."""
    return int(Path("/proc/self/statm").read_text().split()[1]) * resource.getpagesize()


def allocated() -> int:
    """Bytes that `malloc` has handed out."""
    info = _libc.mallinfo2()
    return int(info.in_use + info.mapped)


def descriptors() -> Counter[str]:
    """The open files by kind."""
    kinds: Counter[str] = Counter()
    for link in Path("/proc/self/fd").iterdir():
        try:
            kinds[os.readlink(link).partition(":")[0]] += 1
        except OSError:  # the one that listed the folder
            continue
    return kinds


def objects() -> Counter[str]:
    """The objects by type that the garbage collector knows, of those types that matter here."""
    types = Counter(type(one) for one in gc.get_objects())
    return Counter(
        {
            f"{kind.__module__}.{kind.__qualname__}": count
            for kind, count in types.items()
            if str(kind.__module__).partition(".")[0] in _OWN
        }
    )


def until(condition: Callable[[], bool]) -> bool:
    """Waits for it; whether it came true."""
    deadline = time.monotonic() + _PATIENCE
    while not condition():
        if time.monotonic() > deadline:
            return False
        sleep(0.01)
    return True


def settle(threads: int) -> None:
    """Waits for threads that are on their way out, and collects what nobody holds."""
    for _ in range(3):
        gc.collect()
    until(lambda: threading.active_count() <= threads)
    gc.collect()
    _libc.malloc_trim(0)
