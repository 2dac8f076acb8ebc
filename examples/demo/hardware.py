"""What the hardware holds: compared with a policy, compared with what it held before, shown."""

from processes import Failure


def programmed(hardware):
    """{(unit, table, key): entry} of everything that the hardware side has programmed."""
    entries = {}
    for unit in hardware.ask("tcam")["units"]:
        for table in ("actions", "v4", "v6"):
            for entry in unit[table]:
                entries[unit["unit"], table, entry["key"]] = entry
    return entries


def content(entry):
    """An entry without the version of the change that it came with."""
    return {name: value for name, value in entry.items() if name != "version"}


def _wanted_action(action):
    return {"key": action["key"], "name": action["name"][:18],
            "disposition": action["disposition"], "rate": action["rate"],
            "burst": action["burst"], "mode": action["mode"],
            "counted": action["counted"], "policed": action["policed"]}


def _held_action(action):
    held = content(action)
    held["counted"] = held.pop("counter") is not None
    held["policed"] = held.pop("policer") is not None
    return held


def bare(key, entry):
    """What of a programmed entry the policy decides."""
    return _held_action(entry) if key[1] == "actions" else content(entry)


def wanted_of(policy, units):
    """{(unit, table, key): entry} of everything that a policy stands for."""
    wanted = {}
    for unit in units:
        for action in policy["actions"]:
            wanted[unit, "actions", action["key"]] = _wanted_action(action)
        for table, name in (("v4", "ipv4"), ("v6", "ipv6")):
            for entry in policy[name]:
                named = {k: v for k, v in entry.items() if k != "name"}
                wanted[unit, table, entry["key"]] = named
    return wanted


def compare_with_policy(held, policy, units):
    """Every entry of the policy is there as it should be, and nothing else. Returns how many."""
    wanted = wanted_of(policy, units)
    found = {key: bare(key, entry) for key, entry in held.items()}
    differences = [key for key in wanted.keys() | found.keys()
                   if wanted.get(key) != found.get(key)]
    if differences:
        first = min(differences)
        raise Failure(f"hardware and policy differ in {len(differences)} entries, first {first}: "
                      f"policy {wanted.get(first)}, hardware {found.get(first)}")
    return len(wanted)


def difference(before, after):
    """How many entries are new, changed and gone, and how many were touched without need."""
    new = sum(key not in before for key in after)
    gone = sum(key not in after for key in before)
    kept = [key for key in after if key in before]
    changed = sum(content(before[key]) != content(after[key]) for key in kept)
    touched = sum(content(before[key]) == content(after[key]) and
                  before[key]["version"] != after[key]["version"] for key in kept)
    return new, changed, gone, touched


def touches(hardware):
    """How often the hardware was programmed or freed since its process began."""
    tables = hardware.ask("status")["tables"].values()
    return (sum(table["added"] + table["changed"] for table in tables),
            sum(table["removed"] for table in tables))


def rate_text(action):
    if action["disposition"] == "drop":
        return "drop"
    if action["mode"] == "none":
        return "permit"
    unit = {"pps": "packets", "bps": "bit"}[action["mode"]]
    return f"{action['rate']} {unit}/s, burst {action['burst']}"


def show_table(held, unit, table, limit=60):
    """The match entries of a unit in the order in which the hardware tries them."""
    actions = {key[2]: entry for key, entry in held.items() if key[:2] == (unit, "actions")}
    rows = sorted((entry for key, entry in held.items() if key[:2] == (unit, table)),
                  key=lambda entry: (-entry["priority"], entry["label"], entry["key"]))
    print(f"  {'prio':>5} {'entry':<16} {'match':<58} {'action':<16} {'does'}")
    for row in rows[:limit]:
        fields = " ".join(f"{name} {value}" for name, value in row["fields"].items()) or "any"
        action = actions[row["action"]]
        print(f"  {row['priority']:>5} {row['label']:<16} {fields:<58} {action['name']:<16} "
              f"{rate_text(action)}")
    if len(rows) > limit:
        print(f"  ... and {len(rows) - limit} more")
