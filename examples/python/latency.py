#!/usr/bin/env python3
"""How long hardware takes to acknowledge changes, as a picture of what an agent has recorded.

    PYTHONPATH=build/release/python python3 examples/python/latency.py RECORDING PNG

RECORDING is what `vorn-agent --record` has written, or its text. The latency of a change is the
time from its commit to its acknowledgement. Times are those of turns of the agent's event loop:
0 s is within one turn.
"""

from __future__ import annotations

import math
import pathlib
import sys
from collections.abc import Callable

import matplotlib  # type: ignore[import]

import vorn

matplotlib.use("Agg")

from matplotlib import pyplot, ticker  # noqa: E402

STYLES = {"action": ("#0072b2", "o"), "v4": ("#d55e00", "s"), "v6": ("#009e73", "^")}
OTHER_STYLE = ("#777777", "D")


def percentile(ordered: list[float], percent: int) -> float:
    """The least value that so many percent do not exceed."""
    return ordered[math.ceil(len(ordered) * percent / 100) - 1]


def precise(seconds: float) -> str:
    """With its unit, to three digits: "239 µs", "8.63 ms"."""
    whole = len(str(int(ticker.EngFormatter(places=0)(seconds).split()[0])))
    return str(ticker.EngFormatter(unit="s", places=max(0, 3 - whole))(seconds))


def moments(changes: list[vorn.RecordedChange]) -> list[float]:
    """When each change was made, in seconds: since the first, or since its process began."""
    walls = [change.wall_time for change in changes if change.wall_time is not None]
    if len(walls) < len(changes):
        return [change.staged or change.committed or 0.0 for change in changes]
    return [(wall - min(walls)).total_seconds() for wall in walls]


def decades(axis: matplotlib.axis.Axis, set_scale: Callable[..., None],
            latencies: list[float]) -> None:
    """From the shortest that took any time; below, linear down to those that took none."""
    shortest = min((latency for latency in latencies if latency > 0), default=1.0)
    least = 10 ** math.floor(math.log10(shortest))
    set_scale("symlog", linthresh=least, linscale=0.4)
    axis.set_major_formatter(ticker.EngFormatter(unit="s"))
    axis.set_minor_locator(
        ticker.SymmetricalLogLocator(base=10, linthresh=least, subs=range(2, 10)))


def scatter(axes: pyplot.Axes, changes: list[vorn.RecordedChange], latencies: list[float]) -> None:
    """Each change's latency at its time, by table."""
    points = list(zip((change.table for change in changes), moments(changes), latencies))
    for table in sorted({table for table, _, _ in points}):
        colour, marker = STYLES.get(table, OTHER_STYLE)
        own = [(time, latency) for of, time, latency in points if of == table]
        axes.scatter(*zip(*own), s=22, alpha=0.7, facecolors="none", edgecolors=colour,
                     marker=marker, linewidths=0.8, label=f"{table}: {len(own):,}")
    decades(axes.yaxis, axes.set_yscale, latencies)
    axes.set_xlabel("time since the first change (s)")
    axes.set_ylabel("from commit to acknowledgement")
    axes.legend(title="changes by table", framealpha=0.9)


def distribution(axes: pyplot.Axes, latencies: list[float]) -> None:
    """Which share of the changes took no longer."""
    ordered = sorted(latencies)
    shares = [100 * rank / len(ordered) for rank in range(len(ordered) + 1)]
    axes.step([ordered[0], *ordered], shares, where="post", color="#333333")
    for percent, colour in ((50, "#0072b2"), (99, "#d55e00")):
        value = percentile(ordered, percent)
        axes.axvline(value, color=colour, linestyle="--", linewidth=1,
                     label=f"p{percent}: {precise(value)}")
    decades(axes.xaxis, axes.set_xscale, latencies)
    axes.set_ylim(0, 102)
    axes.set_xlabel("from commit to acknowledgement, at most")
    axes.set_ylabel("acknowledged changes (%)")
    axes.legend(framealpha=0.9)


def draw(recording: vorn.Recording, png: str) -> bool:
    """False where no change was acknowledged, and there is nothing to draw."""
    changes = recording.changes()
    done = [change for change in changes if change.acknowledgement_latency is not None]
    latencies = [change.acknowledgement_latency or 0.0 for change in done]
    if not done:
        return False
    figure, (left, right) = pyplot.subplots(
        1, 2, figsize=(11, 4.8), dpi=100, gridspec_kw={"width_ratios": (3, 2)},
        layout="constrained")
    scatter(left, done, latencies)
    distribution(right, latencies)
    for axes in (left, right):
        axes.grid(True, alpha=0.5)
        axes.grid(True, which="minor", alpha=0.15)
        axes.spines[["top", "right"]].set_visible(False)
    half, most = (precise(percentile(sorted(latencies), percent)) for percent in (50, 99))
    figure.suptitle(f"{pathlib.Path(recording.path).name}: {len(done):,} of {len(changes):,} "
                    f"changes acknowledged, p50 {half}, p99 {most}")
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
