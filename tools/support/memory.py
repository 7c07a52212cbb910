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


_mallinfo2 = ctypes.CDLL(None).mallinfo2
_mallinfo2.restype = _Mallinfo2


def resident() -> int:
    """Bytes of memory that are resident."""
    return int(Path("/proc/self/statm").read_text().split()[1]) * resource.getpagesize()


def allocated() -> int:
    """Bytes that `malloc` has handed out."""
    info = _mallinfo2()
    return int(info.uordblks + info.hblkhd)
