"""Prints a line for each round, and the table at the end."""

from collections.abc import Iterator
from typing import Any

from growth import HELD, Snapshot
from invariants import COUNTERS
from outcomes import CALLS, KINDS, TIMES, Tally

_MIB = 2**20


def progress(number: int, count: int, now: Snapshot, tally: Tally) -> None:
    seen = sum(1 for name in CALLS if tally.counts[name])
    print(
        f"round {number}/{count}: {now.calls:,} calls, {seen} of {len(CALLS)} outcomes; then"
        f" {now.threads} threads, {sum(now.descriptors.values())} files, {now.blocks:,} blocks,"
        f" {now.allocated / _MIB:.2f} MiB allocated, {now.resident / _MIB:.2f} MiB resident",
        flush=True,
    )


def table(engine: Any, tally: Tally, snapshots: list[Snapshot]) -> None:
    metric = engine.get_metrics().get_counter
    for title, names in KINDS.items():
        _section(title, {name: tally.counts[name] for name in names})
    _section("bounded in time", {name: tally.counts[name] for name in TIMES})
    pages = {name: tally.counts[name] for name in sorted(tally.counts) if name.startswith("/")}
    _section("pages read", pages)
    _section("counted by the engine", {name: metric(name) for name in COUNTERS})
    print("\nheld while nobody calls")
    for name, numbers in _held(snapshots):
        print(f"  {name:<29}" + "".join(f"{number:>14,}" for number in numbers))


def _section(title: str, counts: dict[str, int]) -> None:
    print(f"\n{title}: {sum(counts.values()):,}")
    for name, count in counts.items():
        print(f"  {name:<45}{count:>10,}")


def _held(snapshots: list[Snapshot]) -> Iterator[tuple[str, list[int]]]:
    yield "after so many calls", [each.calls for each in snapshots]
    for kind in sorted({kind for each in snapshots for kind in each.descriptors}):
        yield f"descriptors: {kind}", [each.descriptors[kind] for each in snapshots]
    yield "threads", [each.threads for each in snapshots]
    for name, kind in HELD.items():
        yield name, [each.objects[kind] for each in snapshots]
    yield "blocks of Python's memory", [each.blocks for each in snapshots]
    yield "KiB allocated by C and C++", [each.allocated // 1024 for each in snapshots]
    yield "KiB resident, free given back", [each.resident // 1024 for each in snapshots]
