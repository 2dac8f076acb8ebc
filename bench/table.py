#!/usr/bin/env python3
"""One table of what was measured: table.py [--json FILE] [--chart FILE] RESULT.json...

Each row is ours beside a floor or a peer of the same run, as medians of the repetitions, and their
ratio. Times vary by machine, ratios hardly.
"""

import argparse
import json

UNITS_NS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}

# What has to be reached: at most so many times the other's, or at least so many times as fast.
MOST, FASTER, MORE = "<=", ">=", "+"

# number, what, ours, beside it, which way the ratio goes, the ratio to reach
ROWS = [
    ("1", "crash-safe write (entryIs) / floor", "entryIs", "floorOfEntryIs", MOST, 1.5),
    ("2", "whole change of a match / floor", "wholeChange", "floorOfChange", MOST, 4),
    ("3", "whole change of an action / 2", "wholeActionChange", "wholeChange", MOST, 1.6),
    ("4", "crash-safe write, LMDB", "entryIs", "lmdb", FASTER, 8),
    ("4", "crash-safe write, LMDB by 64", "entryIs", "lmdbBy64", FASTER, 5),
    ("5", "crash-safe write, SQLite", "entryIs", "sqlite", FASTER, 50),
    ("6", "whole change, Redis", "wholeChange", "redis", FASTER, 40),
    ("6", "whole change, Redis by 128", "wholeChange", "redisBy128", FASTER, 10),
    ("7", "two processes, rate / 2", "changesThroughTwoProcesses", "wholeChange", FASTER, 0.8),
    ("8", "seen, spinning / half a ping-pong", "latencySpinning: seen p50",
     "sharedMemoryPingPong: p50 / 2", MOST, 1.3),
    ("8", "answered, spinning / ping-pong", "latencySpinning: answered p50",
     "sharedMemoryPingPong: p50", MOST, 1.3),
    ("8", "seen, sleeping / half a ping-pong", "latencySleeping: seen p50",
     "datagramPingPong: p50 / 2", MOST, 1.3),
    ("8", "answered, sleeping / ping-pong", "latencySleeping: answered p50",
     "datagramPingPong: p50", MOST, 1.3),
    ("9", "read of a key / flat_hash_map", "entryRead", "hashMapRead", MOST, 2),
    ("10", "iteration, an entry / floor", "iteration", "floorOfIteration", MOST, 3),
    ("11", "restore, an action / floor", "restore", "floorOfRestore", MOST, 15),
    ("12", "mount, a value / floor", "mount", "floorOfIteration", MOST, 3),
    ("13", "resource move, a user / 1", "resourceMove", "entryIs", MOST, 2),
    ("14", "write while 10,000 wait / none", "writeWhileOthersWait/10000",
     "writeWhileOthersWait/0", MOST, 1.1),
    ("15", "65,000 keys / 1,000", "writeOfKeys/65000", "writeOfKeys/1000", MOST, 2),
    ("15", "16 units / 1", "writeOfUnits/16", "writeOfUnits/1", MOST, 1.2),
    ("15", "log 99 % full / 1 %", "writeIntoLog/99", "writeIntoLog/1", MOST, 1.1),
    ("16", "disabled trace / empty loop", "disabledTrace", "emptyIteration", MORE, 1),
    ("17", "shared memory of a value / payload", "sharedMemoryOfValue: bytes",
     "sharedMemoryOfValue: payload", MOST, 1.4),
    ("17", "shared memory of a record / payload", "sharedMemoryOfRecord: bytes",
     "sharedMemoryOfRecord: payload", MOST, 1.4),
    ("17", "process memory of a match", "memoryOfMatch: bytes", None, MORE, 0.5),
    ("17", "process memory of an action", "memoryOfAction: bytes", None, MORE, 64),
    ("18", "whole change, recorded / 2", "recordedChange", "wholeChange", MOST, 1.15),
    ("18", "the same without a rest / 2", "recordedWithoutRest", "wholeChange", MOST, 1.15),
]

# Beside the median of a latency; nothing has to be reached there.
RARE = ("p99", "p99.9")

GROWTH = [
    ("keys", ["writeOfKeys/1000", "writeOfKeys/8000", "writeOfKeys/65000"]),
    ("units", ["writeOfUnits/1", "writeOfUnits/4", "writeOfUnits/16"]),
    ("% of the log", ["writeIntoLog/1", "writeIntoLog/50", "writeIntoLog/99"]),
]


def medians(paths):
    """By name: nanoseconds a change, and what else was counted."""
    found = {}
    for path in paths:
        with open(path, encoding="utf-8") as file:
            results = json.load(file)["benchmarks"]
        for each in results:
            if each.get("aggregate_name", "median") != "median":
                continue
            name = each["run_name"].split("/manual_time")[0].split("/iterations")[0]
            time_ns = each["real_time"] * UNITS_NS[each["time_unit"]]
            found[name] = time_ns / each.get("changes", 1)
            for key, value in each.items():
                if key in ("bytes", "payload") or key.split(" ")[-1].startswith("p"):
                    found[f"{name}: {key}"] = value
    return found


def value_of(found, name):
    """`name / 2` is half of it; 0 without a name."""
    if name is None:
        return 0.0
    base, _, divisor = name.partition(" / ")
    return found[base] / float(divisor or 1)


def rows_of(found):
    for number, what, ours, beside, way, reach in ROWS:
        if ours not in found:
            continue
        a, b = value_of(found, ours), value_of(found, beside)
        ratio = a - b if way == MORE else b / a if way == FASTER else a / b
        is_reached = ratio >= reach if way == FASTER else ratio <= reach
        row = {"row": number, "what": what, "ours": a, "beside": b, "way": way,
               "ratio": ratio, "reach": reach, "reached": is_reached}
        if "p50" in ours:
            row["rare"] = {p: (value_of(found, ours.replace("p50", p)),
                               value_of(found, beside.replace("p50", p))) for p in RARE}
        yield row


def print_table(rows):
    print(f"{'#':>3} {'what':<37} {'ours':>10} {'beside':>10} {'ratio':>8}  to reach")
    for row in rows:
        way = "at most" if row["way"] != FASTER else "at least"
        kind = "more" if row["way"] == MORE else ""
        print(f"{row['row']:>3} {row['what']:<37} {row['ours']:>10.1f} {row['beside']:>10.1f} "
              f"{row['ratio']:>8.2f}  {way} {row['reach']:g} {kind}"
              f"{'' if row['reached'] else '  MISSED'}")
        for percentile, (ours, beside) in row.get("rare", {}).items():
            print(f"{'':>3} {'    ' + percentile:<37} {ours:>10.1f} {beside:>10.1f} "
                  f"{ours / beside:>8.2f}")


def chart_of(found):
    """Bars of each series of growth, the first of it being 1."""
    width, height, left, bottom = 660, 260, 40, 40
    bars = []
    x = left + 20
    top = max(found[name] / found[names[0]] for _, names in GROWTH for name in names)
    scale = (height - bottom - 30) / top
    for title, names in GROWTH:
        start = x
        for name in names:
            ratio = found[name] / found[names[0]]
            size = ratio * scale
            y = height - bottom - size
            bars.append(f'<rect x="{x}" y="{y:.1f}" width="40" height="{size:.1f}" fill="#4a78a8"/>')
            bars.append(f'<text x="{x + 20}" y="{y - 4:.1f}">{ratio:.2f}</text>')
            bars.append(f'<text x="{x + 20}" y="{height - bottom + 14}">'
                        f'{int(name.split("/")[1]):,}</text>')
            x += 50
        bars.append(f'<text x="{(start + x - 10) / 2}" y="{height - bottom + 30}">{title}</text>')
        x += 50
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
            'font-family="sans-serif" font-size="11" text-anchor="middle">\n'
            '<title>Cost of a crash-safe write as the table grows</title>\n'
            f'<rect width="{width}" height="{height}" fill="white"/>\n'
            + "\n".join(bars) + "\n</svg>\n")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("results", nargs="+")
    parser.add_argument("--json", help="write the rows to this file as well")
    parser.add_argument("--chart", help="write a chart (SVG) of how the cost grows to this file")
    options = parser.parse_args()
    found = medians(options.results)
    rows = list(rows_of(found))
    print_table(rows)
    if options.json:
        with open(options.json, "w", encoding="utf-8") as file:
            json.dump(rows, file, indent=1)
    if options.chart:
        with open(options.chart, "w", encoding="utf-8") as file:
            file.write(chart_of(found))


main()
