#!/usr/bin/env python3
"""What hardware does not have yet, and then what is done to the tables while one watches.

    PYTHONPATH=build/release/python python3 examples/python/behind.py DIR [SECONDS]

Prints each entry that is not acknowledged with the reason, and follows the changes of the table v4.
"""

from __future__ import annotations

import sys

import vorn


def print_backlog(table: vorn.Table) -> int:
    """Entries that hardware does not have as they are; how many these are."""
    behind = 0
    for entry in table:
        if not entry.acknowledged:
            behind += 1
            print(f"{entry}\n  {table.explain(entry.unit, entry.key).verdict}")
    return behind


def follow(table: vorn.Table, seconds: float) -> None:
    """What is done to the table from now on."""
    newest = table.figures().published
    for change in table.log(since=newest, follow=True, timeout=seconds):
        print(change)


def main(directory: str, seconds: float) -> int:
    with vorn.attach(directory) as system:
        behind = sum(print_backlog(table) for table in system.tables)
        print(f"{behind} entries are not in hardware yet")
        follow(system.table("v4"), seconds)
        for damage in system.damages:
            print(damage)
    return 1 if behind else 0


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1], float(sys.argv[2]) if len(sys.argv) > 2 else 0.0))
    except vorn.Error as error:
        sys.exit(f"behind: {error}")
