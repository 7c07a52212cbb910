"""What the soak prints: a line for each shift, and the table at the end."""

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
    print(f"\nresident while at work, after the first third: {slope(whole.resident):+.2f} MiB/min")


def _section(title: str, counts: dict[str, int]) -> None:
    print(f"\n{title}")
    for name, count in counts.items():
        print(f"  {name:<45}{count:>10,}")


def _quiet_moments(start: quiet.Moment, moments: list[quiet.Moment]) -> None:
    columns = {"start": start, "first shift": moments[0], "last shift": moments[-1]}
    print("\nin quiet moments" + "".join(f"{name:>14}" for name in columns).rjust(73 - 16))
    kinds = sorted({kind for moment in columns.values() for kind in moment.descriptors})
    rows: dict[str, Any] = {
        f"descriptors: {kind}": lambda m, k=kind: m.descriptors[k] for kind in kinds
    }
    rows |= {
        "threads": lambda m: m.threads,
        **{name: lambda m, k=kind: m.objects[k] for name, kind in quiet.HELD.items()},
        "blocks of Python's memory": lambda m: m.blocks,
        "KiB allocated by C and C++": lambda m: m.allocated // 1024,
        "KiB resident": lambda m: m.resident // 1024,
    }
    for name, value in rows.items():
        print(f"  {name:<29}" + "".join(f"{value(moment):>14,}" for moment in columns.values()))


def slope(samples: list[tuple[float, int]]) -> float:
    """The line through the samples after the first third, in MiB a minute."""
    steady = samples[len(samples) // 3 :]
    at = sum(time for time, _ in steady) / len(steady)
    level = sum(size for _, size in steady) / len(steady)
    spread = sum((time - at) ** 2 for time, _ in steady) or 1.0
    return sum((time - at) * (size - level) for time, size in steady) / spread * 60 / _MIB
