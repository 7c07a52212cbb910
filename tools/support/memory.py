"""The memory of this process."""

from __future__ import annotations

import ctypes
import resource
from pathlib import Path


class _Mallinfo2(ctypes.Structure):
    _fields_ = tuple(
        (name, ctypes.c_size_t)
        for name in (
            *("arena", "ordblks", "smblks", "hblks", "hblkhd"),
            *("usmblks", "fsmblks", "uordblks", "fordblks", "keepcost"),
        )
    )
    hblkhd: int
    uordblks: int


_libc = ctypes.CDLL(None)
_mallinfo2 = _libc.mallinfo2
_mallinfo2.restype = _Mallinfo2
_M_ARENA_MAX = -8  # as <malloc.h> has it


def resident() -> int:
    """Bytes of memory that are resident."""
    return int(Path("/proc/self/statm").read_text().split()[1]) * resource.getpagesize()


def allocated() -> int:
    """Bytes that `malloc` has handed out."""
    info = _mallinfo2()
    return int(info.uordblks + info.hblkhd)


def use_one_arena() -> None:
    """Has all threads, none of which has started yet, allocate from one arena.

    By itself `malloc` opens up to eight a processor. Each keeps what was free at its end, which
    `malloc_trim` gives back of the first one only: what is resident then tells how many threads
    were at work at a time, not what is held.
    """
    sanitized = hasattr(_libc, "__asan_init") or hasattr(_libc, "__tsan_init")  # without arenas
    if not _libc.mallopt(_M_ARENA_MAX, 1) and not sanitized:
        raise OSError("malloc takes no limit on its arenas")


def give_back_free() -> None:
    """Gives pages back to the system that hold nothing, as far as `malloc` can."""
    _libc.malloc_trim(0)
