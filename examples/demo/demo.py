#!/usr/bin/env python3
"""The whole way of a policy, shown with real processes: into the tables, to the hardware side, over
a replacement and over a kill.

Ends with "OK: ..." and status 0, or with what is not as it has to be and status 1.
"""

import argparse
import os
import shutil
import signal
import sys
import tempfile
import time

import hardware as hw
from processes import Failure, Surroundings, wait_until

UNITS = [1, 2]
EXAMPLES = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
FIRST = os.path.join(EXAMPLES, "rfc6192.yaml")
SECOND = os.path.join(EXAMPLES, "linux-switch.yaml")

# Packets, and the action that each meets, read from the policy files by hand.
PACKETS = {
    FIRST: [
        ("ping from anywhere", "icmp",
         {"src": "203.0.113.9", "dst": "192.0.2.1", "proto": "icmp", "icmp-type": 8}),
        ("BGP from a known peer", "ebgp",
         {"src": "198.51.100.25", "dst": "192.0.2.1", "proto": "tcp", "sport": 40000,
          "dport": 179}),
        ("BGP from a stranger", "other",
         {"src": "198.51.100.26", "dst": "192.0.2.1", "proto": "tcp", "sport": 40000,
          "dport": 179}),
        ("SSH from the management network", "ssh",
         {"src": "198.51.100.130", "dst": "192.0.2.1", "proto": "tcp", "sport": 50000,
          "dport": 22}),
        ("a fragment from a known peer", "fragments",
         {"src": "198.51.100.25", "dst": "192.0.2.1", "proto": "tcp", "fragment": "later"}),
        ("OSPFv3 from the link", "ospf",
         {"src": "fe80::1", "dst": "ff02::5", "proto": "ospf", "ttl": 1}),
        ("RADIUS answer over IPv6", "radius",
         {"src": "2001:db8:100::9", "dst": "2001:db8:1::1", "proto": "udp", "sport": 1812,
          "dport": 40000}),
    ],
    SECOND: [
        ("from the loopback network", "invalid-source",
         {"src": "127.0.0.1", "dst": "192.0.2.1", "proto": "udp", "sport": 1, "dport": 3784}),
        ("BFD", "bfd",
         {"src": "198.51.100.7", "dst": "198.51.100.1", "proto": "udp", "sport": 49152,
          "dport": 3784, "ttl": 255}),
        ("a BGP answer", "bgp",
         {"src": "198.51.100.7", "dst": "198.51.100.1", "proto": "tcp", "sport": 179,
          "dport": 50000}),
        ("SSH to the router itself", "router",
         {"src": "198.51.100.7", "dst": "192.0.2.1", "proto": "tcp", "sport": 50000,
          "dport": 22}),
        ("neighbour solicitation", "neighbour",
         {"src": "fe80::1", "dst": "ff02::1:ff00:1", "proto": "icmpv6", "icmp-type": 135,
          "ttl": 255}),
        ("ping over IPv6", "icmpv6",
         {"src": "2001:db8:2::9", "dst": "2001:db8::1", "proto": "icmpv6", "icmp-type": 128}),
        ("anything else", "rest",
         {"src": "203.0.113.9", "dst": "203.0.113.77", "proto": "udp", "sport": 5, "dport": 6}),
    ],
}


def say(text):
    print(f"\n== {text}", flush=True)


def counts(agent):
    """Changes written by feature code, committed at a version, acknowledged by the hardware."""
    status = agent.ask("status")
    written = sum(unit["stats"]["entryWrite"] + unit["stats"]["entryRemove"]
                  for table in status["tables"] for unit in table["units"])
    committed = sum(table["logVersion"] for table in status["tables"])
    acknowledged = sum(table["acknowledgedVersion"] for table in status["tables"])
    return status["load"], (written, committed, acknowledged)


def follow(agent):
    """Shows the counts as they move, until the load is complete; the load's figures."""
    shown, shown_at = None, 0.0

    def done():
        nonlocal shown, shown_at
        load, now = counts(agent)
        at = time.monotonic()
        if now != shown and (at > shown_at + 0.1 or load["inProgress"] == 0):
            shown, shown_at = now, at
            print(f"  written {now[0]:>6}   committed to version {now[1]:>6}   acknowledged "
                  f"{now[2]:>6}", flush=True)
        if load["failed"]:
            raise Failure(f"{load['failed']} changes failed, first {load['firstFailure']}")
        return load if load["inProgress"] == 0 else None

    return wait_until(done, "the load to complete")


def classify(hardware, policy):
    """Sends the packets of a policy through the hardware of every unit; returns how many."""
    for name, expected, packet in PACKETS[policy]:
        for unit in UNITS:
            answer = hardware.ask("classify", unit=unit, packet=packet)
            match = answer["match"]
            action = match["action"] if match else None
            met = action["name"] if action else "nothing"
            if met != expected:
                raise Failure(f"{name} ({answer['packet']}) meets {met}, not {expected}")
        print(f"  {name:<32} -> {met:<16} {hw.rate_text(action)}")
    return len(PACKETS[policy]) * len(UNITS)


def large_policy(directory):
    """The second example with thousands of entries more, so that a reload has a middle."""
    path = os.path.join(directory, "large.yaml")
    with open(SECOND, encoding="utf-8") as source:
        text = source.read()
    ports = ", ".join(str(port) for port in range(10000, 22000))
    extra = ("ipv4:\n  - {name: many, priority: 500, action: rest, protocol: udp, "
             f"destination-port: [{ports}]}}\n")
    with open(path, "w", encoding="utf-8") as target:
        target.write(text.replace("ipv4:\n", extra, 1))
    return path


def pause(agent, hardware):
    hardware.ask("pause")
    wait_until(lambda: agent.ask("status")["suspended"], "the agent to pause")


def stop_in_the_middle(agent, hardware, large, changes):
    """Starts a reload and pauses when some of its changes are committed, but not all; how many."""
    for _ in range(5):
        pause(agent, hardware)
        start = counts(agent)[1][1]
        agent.ask("reload", policy=large)
        pause_after = 0.0005
        while (committed := counts(agent)[1][1] - start) == 0:
            hardware.ask("resume")
            time.sleep(pause_after)
            pause(agent, hardware)
            pause_after *= 1.5
        if committed < changes:
            wait_until(lambda: counts(agent)[1][2] == counts(agent)[1][1], "acknowledgements")
            return committed
        # This process did not get its turn in time: back, and once more.
        hardware.ask("resume")
        agent.ask("reload", policy=SECOND)
        follow(agent)
    raise Failure("the reload was over each time before it could be stopped in its middle")


def first_policy(place):
    say(f"the agent loads {os.path.basename(FIRST)} for units {UNITS}; no hardware side yet")
    agent = place.agent(FIRST)
    wait_until(lambda: counts(agent)[1][0] == counts(agent)[1][1], "all changes to be committed")
    _, (written, committed, acknowledged) = counts(agent)
    print(f"  written {written:>6}   committed to version {committed:>6}   acknowledged "
          f"{acknowledged:>6}")
    say("the hardware side starts, programs and acknowledges")
    hardware = place.hardware()
    follow(agent)
    held = hw.programmed(hardware)
    entries = hw.compare_with_policy(held, place.compiled(FIRST), UNITS)
    print(f"  the hardware holds the {entries} entries of the policy")
    for table, name in (("v4", "IPv4"), ("v6", "IPv6")):
        say(f"{name} of unit {UNITS[0]}, as programmed")
        hw.show_table(held, UNITS[0], table)
    say("packets, and what each meets")
    return agent, hardware, classify(hardware, FIRST)


def second_policy(place, agent, hardware):
    say(f"{os.path.basename(SECOND)} takes its place")
    before, touched_before = hw.programmed(hardware), hw.touches(hardware)
    agent.ask("reload", policy=SECOND)
    load = follow(agent)
    after, touched_after = hw.programmed(hardware), hw.touches(hardware)
    hw.compare_with_policy(after, place.compiled(SECOND), UNITS)
    new, changed, gone, touched = hw.difference(before, after)
    print(f"  {load['written']} written, {load['removed']} removed, {load['unchanged']} unchanged; "
          f"hardware: {new} new, {changed} changed, {gone} gone")
    expected = (new + changed, gone)
    programmed = tuple(b - a for a, b in zip(touched_before, touched_after))
    if touched or programmed != expected or (load["written"], load["removed"]) != expected:
        raise Failure(f"programmed and removed {programmed}, needed {expected}; {touched} "
                      f"entries touched without need")
    say("packets, and what each meets now")
    return load, classify(hardware, SECOND)


def kill_in_a_reload(place, agent, hardware, directory):
    large = large_policy(directory)
    wanted = place.compiled(large)
    total = sum(len(wanted[name]) for name in ("actions", "ipv4", "ipv6")) * len(UNITS)
    changes = total - len(hw.programmed(hardware))
    say(f"a reload with {changes} new entries; the agent is killed in its middle")
    committed = stop_in_the_middle(agent, hardware, large, changes)
    before, touched_before = hw.programmed(hardware), hw.touches(hardware)
    agent.kill()
    print(f"  killed with {committed} of {changes} changes committed")
    say("the agent starts again")
    hardware.ask("resume")
    agent = place.agent(large)
    follow(agent)
    after, touched_after = hw.programmed(hardware), hw.touches(hardware)
    entries = hw.compare_with_policy(after, wanted, UNITS)
    new, changed, gone, touched = hw.difference(before, after)
    programmed = touched_after[0] - touched_before[0]
    print(f"  {programmed} entries programmed, {len(before)} were there; the hardware holds the "
          f"{entries} of the policy")
    if touched or changed or gone or programmed != new or new != total - len(before):
        raise Failure(f"{programmed} programmed where {total - len(before)} were missing; "
                      f"{touched} entries touched without need, {changed} changed, {gone} gone")
    return agent, committed, programmed


def story(place, directory):
    started = time.monotonic()
    agent, hardware, first_packets = first_policy(place)
    load, second_packets = second_policy(place, agent, hardware)
    agent, committed, programmed = kill_in_a_reload(place, agent, hardware, directory)
    statuses = [agent.end(), hardware.end()]
    if statuses != [0, 0]:
        raise Failure(f"the processes ended with {statuses}")
    print(f"\nOK: {first_packets + second_packets} packets classified; replacement: "
          f"{load['written']} written, {load['removed']} removed, {load['unchanged']} unchanged; "
          f"kill after {committed} changes: {programmed} programmed, 0 again; "
          f"{time.monotonic() - started:.1f} s")


def roomy_directory():
    """In memory where there is room for the tables, else where temporary files go."""
    memory = "/dev/shm"
    try:
        free = shutil.disk_usage(memory).free
    except OSError:
        free = 0
    return tempfile.mkdtemp(prefix="vorn-demo-", dir=memory if free > 600 << 20 else None)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", maxsplit=1)[0])
    parser.add_argument("--build", default="build/release", help="folder with the programs")
    arguments = parser.parse_args()
    sys.stdout.reconfigure(line_buffering=True)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # what is started is ended all the same
    directory = roomy_directory()
    place = Surroundings(arguments.build, directory, UNITS)
    try:
        story(place, directory)
        return 0
    except Failure as failure:
        print(f"\nFAILED: {failure}", file=sys.stderr)
        for name in ("agent.log", "hwd.log"):
            path = os.path.join(directory, name)
            if os.path.exists(path):
                with open(path, encoding="utf-8", errors="replace") as log:
                    print(f"-- {name}\n{log.read()[-2000:]}", file=sys.stderr)
        return 1
    finally:
        place.end()
        shutil.rmtree(directory, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
