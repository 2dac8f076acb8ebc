#!/usr/bin/env python3
"""Counts the instructions of changes under callgrind and holds them to bench/budget.json.

instructions.py PROGRAM [--write]

Counts are steady where times are not. A count above its budget fails; one that has become lower is
the occasion to lower the budget (--write), so that it stays so.
"""

import argparse
import json
import pathlib
import re
import subprocess
import sys
import tempfile

BUDGET = pathlib.Path(__file__).with_name("budget.json")
# What the compiler and the libraries of a machine may add.
SLACK = 1.03


def instructions_of(program, row):
    """Instructions a change."""
    with tempfile.TemporaryDirectory() as folder:
        out = pathlib.Path(folder, "callgrind.out")
        run = subprocess.run(
            ["valgrind", "--tool=callgrind", "--collect-atstart=no", "-q",
             f"--callgrind-out-file={out}", program, row],
            env={"PATH": "/usr/bin:/bin", "VORN_TRACE": ""}, text=True, capture_output=True)
        if run.returncode != 0:
            sys.exit(f"{row} ended with status {run.returncode}:\n{run.stderr}")
        changes = int(re.search(r"^changes (\d+)$", run.stdout, re.MULTILINE)[1])
        total = int(re.search(r"^(?:summary|totals): (\d+)", out.read_text(), re.MULTILINE)[1])
        return total / changes


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("program")
    parser.add_argument("--write", action="store_true", help="make what is counted the budget")
    options = parser.parse_args()
    budgets = json.loads(BUDGET.read_text()) if BUDGET.exists() else {}
    rows = ["entryIs", "wholeChange", "recordedChange", "wholeActionChange", "entryRead",
            "writeWhileOthersWait"]
    counts = {row: round(instructions_of(options.program, row)) for row in rows}
    if options.write:
        BUDGET.write_text(json.dumps(counts, indent=1) + "\n")
        budgets = counts
    above = []
    for row, count in counts.items():
        budget = budgets[row]
        print(f"{row:<24} {count:>7} instructions a change, budget {budget:>7}")
        if count > budget * SLACK:
            above.append(row)
        elif count * SLACK < budget:
            print("  lower its budget: ./dev instructions --write")
    if above:
        sys.exit(f"above their budget: {', '.join(above)}")


main()
