#!/usr/bin/env python3
"""One table of what was measured: table.py RESULT.json...

Each row is ours beside a floor or a peer of the same run, as medians of the repetitions, and their
ratio. Times vary by machine, ratios hardly.
"""

import json
import sys

# number, what, ours, beside it, the ratio to reach
ROWS = [
    (1, "crash-safe write (entryIs)", "entryIs", "floorOfEntryIs", 1.5),
]


def medians(paths):
    """Nanoseconds a change, by name of the measurement."""
    found = {}
    for path in paths:
        with open(path, encoding="utf-8") as file:
            for each in json.load(file)["benchmarks"]:
                if each.get("aggregate_name") == "median":
                    name = each["run_name"].split("/")[0]
                    found[name] = each["real_time"] / each["changes"]
    return found


def main():
    found = medians(sys.argv[1:])
    print(f"{'':>3} {'what':<32} {'ours':>9} {'beside':>9} {'ratio':>6}  reach")
    for number, what, ours, beside, reach in ROWS:
        a, b = found[ours], found[beside]
        print(f"{number:>3} {what:<32} {a:>6.0f} ns {b:>6.0f} ns {a / b:>6.2f}  {reach:.2f}")


main()
