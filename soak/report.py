"""What the soak prints: a line for each shift, and the table at the end."""

from __future__ import annotations

from array import array
from collections.abc import Iterator
from statistics import fmean
from typing import Any

import quiet
from endings import CALLS, NO_CALLS, STREAMS, Tally
from sums import BESIDES, HAPPENINGS

_MIB = 2**20


def progress(number: int, count: int, moment: quiet.Moment, together: Tally) -> None:
    seen = sum(1 for name in CALLS if together[name])
    files = sum(moment.descriptors.values())
    print(
        f"shift {number}/{count}: {moment.calls:,} calls, {seen} of {len(CALLS)} endings; then"
        f" {moment.threads} threads, {files} files, {moment.blocks:,} blocks,"
        f" {moment.allocated / _MIB:.2f} MiB allocated, {moment.resident / _MIB:.1f} MiB resident",
        flush=True,
    )


def table(whole: Any, start: quiet.Moment) -> None:
    together = whole.together()
    for title, names in (
        (f"{together.calls:,} calls ended", CALLS),
        ("not counted as calls", NO_CALLS),
        ("streams", STREAMS),
        ("besides", BESIDES),
        ("pages read", [name for name in sorted(together.counts) if name.startswith("page")]),
    ):
        _section(title, {name: together[name] for name in names})
    metric = whole.engine.get_metrics().get_counter
    _section("counted by the engine", {name: metric(name) for name in HAPPENINGS})
    _quiet_moments(start, whole.moments)
    growth = _slope(whole.times, whole.resident)
    print(f"\nresident while at work, after the first third: {growth:+.2f} MiB/min")


def _section(title: str, counts: dict[str, int]) -> None:
    print(f"\n{title}")
    for name, count in counts.items():
        print(f"  {name:<45}{count:>10,}")


def _quiet_moments(start: quiet.Moment, moments: list[quiet.Moment]) -> None:
    columns = {"start": start, "first shift": moments[0], "last shift": moments[-1]}
    print("\nin quiet moments" + "".join(f"{name:>14}" for name in columns).rjust(73 - 16))
    for name, numbers in _rows(list(columns.values())):
        print(f"  {name:<29}" + "".join(f"{number:>14,}" for number in numbers))


def _rows(moments: list[quiet.Moment]) -> Iterator[tuple[str, list[int]]]:
    for kind in sorted({kind for moment in moments for kind in moment.descriptors}):
        yield f"descriptors: {kind}", [moment.descriptors[kind] for moment in moments]
    yield "threads", [moment.threads for moment in moments]
    for name, kind in quiet.HELD.items():
        yield name, [moment.objects[kind] for moment in moments]
    yield "blocks of Python's memory", [moment.blocks for moment in moments]
    yield "KiB allocated by C and C++", [moment.allocated // 1024 for moment in moments]
    yield "KiB resident", [moment.resident // 1024 for moment in moments]


def _slope(times: array[float], sizes: array[float]) -> float:
    """The line through the samples after the first third, in MiB a minute."""
    first = len(times) // 3
    at, level = fmean(times[first:]), fmean(sizes[first:])
    spread = sum((time - at) ** 2 for time in times[first:]) or 1.0
    together = sum(
        (t - at) * (s - level) for t, s in zip(times[first:], sizes[first:], strict=True)
    )
    return together / spread * 60 / _MIB
