"""The table: a line for each thing that was measured."""

from collections.abc import Sequence
from dataclasses import dataclass
from statistics import median

_LINE = "  {:<42}{:>10} {:>9} {:<8}{:>22} {:>7} {:<10} {}"


@dataclass(frozen=True)
class Row:
    """One measured thing: what each round gave, and how that compares."""

    what: str
    rounds: Sequence[float]
    unit: str = "us"
    p95: float | None = None
    target: float | None = None  # the most that is all right
    ratio: float | None = None
    beside: str = ""  # what the ratio is to


def print_heading(title: str) -> None:
    columns = ("", "p50/figure", "p95", "", "range", "target", "", "ratio")
    print(f"\n{title}\n{_LINE.format(*columns)}")


def print_row(row: Row) -> dict[str, object]:
    """Prints the line and returns the row as it goes into a file."""
    figure, low, high = median(row.rounds), min(row.rounds), max(row.rounds)
    p95 = "" if row.p95 is None else f"{row.p95:,.2f}"
    ratio = "" if row.ratio is None else f"{row.ratio:.3f} of {row.beside}"
    excess = figure / row.target if row.target else 0.0
    verdict = f"miss {excess:.2f}x" if excess > 1 else "ok" if row.target else ""
    columns = (p95, row.unit, f"{low:,.2f} .. {high:,.2f}", row.target or "", verdict, ratio)
    print(_LINE.format(row.what, f"{figure:,.2f}", *columns).rstrip(), flush=True)
    return {**vars(row), "figure": figure, "verdict": verdict}
