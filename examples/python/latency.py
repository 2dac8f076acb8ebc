#!/usr/bin/env python3
"""How long hardware takes to acknowledge changes, as a picture of what an agent has recorded.

    PYTHONPATH=build/release/python python3 examples/python/latency.py RECORDING PNG

RECORDING is what `vorn-agent --record` has written, or its text. The latency of a change is the time
from its commit to its acknowledgement, to the turn of the agent's event loop.
"""

from __future__ import annotations

import math
import pathlib
import sys

import matplotlib  # type: ignore[import]

import vorn

matplotlib.use("Agg")

from matplotlib import pyplot, ticker  # type: ignore[import]  # noqa: E402

STYLES = {"action": ("#0072b2", "o"), "v4": ("#e69f00", "s"), "v6": ("#009e73", "^")}
OTHER_STYLE = ("#777777", "x")
SECONDS = ticker.EngFormatter(unit="s", places=0)


def percentile(ordered: list[float], percent: float) -> float:
    """The least value that so many percent do not exceed."""
    return ordered[math.ceil(len(ordered) * percent / 100) - 1]


def moments(changes: list[vorn.RecordedChange]) -> list[float]:
    """When each change was made, in seconds: since the first, or within its process."""
    walls = [change.wall_time for change in changes]
    known = [wall for wall in walls if wall is not None]
    if len(known) < len(walls):
        return [change.staged or change.committed or 0.0 for change in changes]
    return [(wall - min(known)).total_seconds() for wall in known]


def scatter(axes: pyplot.Axes, changes: list[vorn.RecordedChange], latencies: list[float]) -> None:
    """Each change's latency at its time, coloured by table."""
    points = list(zip(moments(changes), latencies, (change.table for change in changes)))
    for table in sorted({table for _, _, table in points}):
        times = [time for time, _, of in points if of == table]
        colour, marker = STYLES.get(table, OTHER_STYLE)
        axes.scatter(times, [latency for _, latency, of in points if of == table], s=14,
                     alpha=0.6, color=colour, marker=marker, linewidths=0,
                     label=f"{table} ({len(times):,})")
    axes.set_xlabel("time since the first change (s)")
    axes.set_ylabel("commit to acknowledgement")
    axes.yaxis.set_major_formatter(SECONDS)
    axes.legend(title="table (changes)", loc="best", framealpha=0.9)


def distribution(axes: pyplot.Axes, ordered: list[float]) -> None:
    """Which share of the changes took no longer."""
    axes.step([ordered[0], *ordered],
              [100 * rank / len(ordered) for rank in range(len(ordered) + 1)],
              where="post", color="#333333")
    for percent, colour in ((50, "#0072b2"), (99, "#d55e00")):
        value = percentile(ordered, percent)
        axes.axvline(value, color=colour, linestyle="--", linewidth=1,
                     label=f"p{percent}  {precise(value)}")
    axes.set_xlabel("commit to acknowledgement, at most")
    axes.xaxis.set_major_formatter(SECONDS)
    axes.set_ylabel("changes (%)")
    axes.set_ylim(0, 102)
    axes.legend(loc="lower right", framealpha=0.9)


def precise(seconds: float) -> str:
    """With its unit, to three digits."""
    return str(ticker.EngFormatter(unit="s", places=2).format_data(seconds))


def draw(recording: vorn.Recording, png: str) -> bool:
    """False where no change was acknowledged, and there is nothing to draw."""
    changes = recording.changes()
    done = [change for change in changes if change.acknowledgement_latency is not None]
    latencies = [change.acknowledgement_latency or 0.0 for change in done]
    if not done:
        return False
    ordered = sorted(latencies)
    figure, (left, right) = pyplot.subplots(
        1, 2, figsize=(11, 4.8), dpi=100, gridspec_kw={"width_ratios": (3, 2)},
        layout="constrained")
    scatter(left, done, latencies)
    distribution(right, ordered)
    if ordered[0] > 0:
        left.set_yscale("log")
        right.set_xscale("log")
    for axes in (left, right):
        axes.grid(True, which="major", alpha=0.3)
        axes.spines[["top", "right"]].set_visible(False)
    figure.suptitle(
        f"{pathlib.Path(recording.path).name}: {len(done):,} of {len(changes):,} changes acknowledged, "
        f"p50 {precise(percentile(ordered, 50))}, p99 {precise(percentile(ordered, 99))}")
    figure.savefig(png, format="png")
    return True


def main(words: list[str]) -> int:
    if len(words) != 2:
        print("usage: latency.py RECORDING PNG", file=sys.stderr)
        return 2
    if draw(vorn.Recording(words[0]), words[1]):
        return 0
    print(f"latency: {words[0]}: no change was acknowledged", file=sys.stderr)
    return 1


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1:]))
    except (vorn.Error, OSError) as error:
        sys.exit(f"latency: {error}")
