#!/usr/bin/env python3
"""Kills a working agent, its hardware side, or both at random moments, again and again.

Policies take each other's place while the processes die. Each time what was acknowledged before
has to be there after, and when all has settled the hardware holds what the policy says, with no
counter and no policer lost. The seed that is printed makes the same run once more, as far as
processes can be made to do the same.
"""

import argparse
import os
import random
import shutil
import signal
import sys
import tempfile
import time

SOURCE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
sys.path.insert(0, os.path.join(SOURCE, "examples", "demo"))

import hardware as hw  # noqa: E402
from processes import Failure, Process, Surroundings, wait_until  # noqa: E402

UNITS = (1, 2)
SLICE, FULL = 10, 1000
DEADLINE_S = 60


def policies(directory):
    """Files of policies that differ in much and share something."""
    def content(name):
        with open(os.path.join(SOURCE, "examples", name + ".yaml"), encoding="utf-8") as file:
            return file.read()

    def with_ports(name, first, count):
        ports = ",".join(str(port) for port in range(first, first + count))
        return content(name).replace(
            "ipv4:\n", "ipv4:\n  - {name: many, priority: 500, action: rest, protocol: udp, "
            f"source-port: [{ports}]}}\n", 1)

    texts = [content("rfc6192"), content("linux-switch"), with_ports("linux-switch", 20000, 600),
             with_ports("linux-switch", 20300, 600)]
    paths = []
    for number, text in enumerate(texts):
        paths.append(os.path.join(directory, f"policy-{number}.yaml"))
        with open(paths[-1], "w", encoding="utf-8") as file:
            file.write(text)
    return paths


class System(Surroundings):
    """The two processes on one state directory; either may be dead."""

    def __init__(self, build, directory):
        super().__init__(build, directory, UNITS)
        self.policy = os.path.join(directory, "policy.yaml")
        self.sides = {"agent": None, "hardware": None}

    def _start(self, name, command, short):
        process = Process(name, command, os.path.join(self.state, short + ".sock"),
                          os.path.join(self.logs, short + ".log"))
        self.started = [p for p in self.started if p.process.poll() is None] + [process]
        return process

    def start(self, side):
        """Starts a side without waiting for it."""
        self.sides[side] = (self.agent(self.policy, capacity=8192) if side == "agent"
                            else self.hardware())

    def served(self, side):
        process = self.sides[side]
        if process.stream is None:
            process.wait_served(seconds=DEADLINE_S)
        return process

    def ask(self, side, command, **members):
        return self.served(side).ask(command, **members)

    def policy_is(self, path):
        """In one step: an agent that reads the file finds one policy or the other."""
        shutil.copyfile(path, self.policy + ".new")
        os.rename(self.policy + ".new", self.policy)

    def reload(self):
        self.sides["agent"].process.send_signal(signal.SIGHUP)

    def held(self):
        self.ask("hardware", "status")
        return hw.programmed(self.sides["hardware"])

    def acknowledged(self):
        return self.ask("hardware", "status")["acknowledged"]


class Torture:
    """The run: rounds of a reload, a kill and the checks."""

    def __init__(self, system, paths, seed):
        self.system = system
        self.paths = paths
        self.random = random.Random(seed)
        self.wanted = {path: system.compiled(path) for path in paths}
        self.used = {}
        self.current = paths[0]
        self.settled_s = 0.1
        self.kills = {"agent": 0, "hardware": 0, "both": 0}

    def begin(self):
        self.system.policy_is(self.current)
        self.system.start("agent")
        self.system.start("hardware")
        for path in self.paths:  # what each needs of the pools, and how long a reload takes
            self.system.served("agent")
            started = time.monotonic()
            self.load(path)
            self.settle()
            self.settled_s = max(self.settled_s, time.monotonic() - started)

    def load(self, path):
        before = self.system.ask("agent", "status")["load"]["number"]
        self.current = path
        self.system.policy_is(path)
        self.system.reload()
        wait_until(lambda: self.system.ask("agent", "status")["load"]["number"] > before,
                   "the reload", DEADLINE_S)

    def settle(self):
        """Waits until everything is acknowledged, and checks what there is then."""
        system = self.system

        def done():
            status = system.ask("agent", "status")
            load = status["load"]
            return (load["policy"] == system.policy and load["inProgress"] == 0 and
                    status["queued"] == 0 and
                    all(t["logVersion"] == t["acknowledgedVersion"] for t in status["tables"]))

        wait_until(done, "the load to be acknowledged", DEADLINE_S)
        hw.compare_with_policy(system.held(), self.wanted[self.current], UNITS)
        self.check_pools()
        status = system.ask("hardware", "status")
        if status["rotten"] or status["withoutAction"]:
            raise Failure(f"the hardware side reports {status}")

    def check_pools(self):
        """Nothing that only earlier policies needed stays in use, nothing is given out twice."""
        def settled():
            pools = self.system.ask("agent", "resources")
            return pools if all(pools[p]["returning"] == 0 for p in pools if p != "ok") else None

        pools = wait_until(settled, "indexes to return to their pools", DEADLINE_S)
        used = {}
        for name in ("counter", "policer"):
            indexes = [key["index"] for key in pools[name]["keys"]]
            used[name] = pools[name]["used"]
            if len(set(indexes)) != len(indexes) or len(indexes) != used[name]:
                raise Failure(f"{name}: {used[name]} used, indexes {sorted(indexes)}")
        if self.used.setdefault(self.current, used) != used:
            raise Failure(f"{self.current}: {used} in use, {self.used[self.current]} before")

    def round(self):
        """Loads another policy, or several, kills in between, and brings all back."""
        system, chance = self.system, self.random
        loads = chance.choice((1, 1, 1, 2, 3))
        for _ in range(loads):
            self.current = chance.choice([p for p in self.paths if p != self.current])
            system.policy_is(self.current)
            system.reload()
            time.sleep(chance.uniform(0, 1.2 * self.settled_s))
        acknowledged, held = system.acknowledged(), system.held()
        victims = chance.choice((("agent",), ("hardware",), ("agent", "hardware")))
        self.kill(victims)
        self.come_back(victims)
        self.check_acknowledged(acknowledged)
        if loads == 1:
            self.check_held(held)
        self.settle()

    def kill(self, victims):
        order = self.random.sample(victims, len(victims))
        for side in order:
            self.system.sides[side].process.send_signal(signal.SIGKILL)
        for side in order:
            self.system.sides[side].process.wait()
        self.kills["both" if len(victims) == 2 else victims[0]] += 1

    def come_back(self, victims):
        """Starts what was killed; sometimes it is killed in its start, too."""
        for side in self.random.sample(victims, len(victims)):
            self.system.start(side)
        if self.random.random() < 0.25:
            time.sleep(self.random.uniform(0, 0.05))
            self.kill(victims)
            for side in victims:
                self.system.start(side)

    def check_acknowledged(self, before):
        """No acknowledgement is taken back, and the agent knows the changes that it was for."""
        after = self.system.acknowledged()
        versions = {t["id"]: t["logVersion"] for t in self.system.ask("agent", "status")["tables"]}
        for table, version in before.items():
            if after.get(table, 0) < version:
                raise Failure(f"{table}: version {version} was acknowledged, now {after}")
            if versions.get(table, version) < version:
                raise Failure(f"{table}: version {version} was acknowledged, the agent has "
                              f"{versions[table]}")

    def check_held(self, before):
        """An entry that was as the policy wants it stays: nobody has a reason to touch it."""
        wait_until(lambda: self.system.ask("hardware", "status")["follows"], "the hardware side "
                   "to follow", DEADLINE_S)
        after = self.system.held()
        wanted = hw.wanted_of(self.wanted[self.current], UNITS)
        for key, entry in before.items():
            right = hw.bare(key, entry) == wanted.get(key)
            if right and (key not in after or hw.bare(key, after[key]) != wanted[key]):
                raise Failure(f"{key} was programmed and acknowledged as {entry}, after the kill "
                              f"there is {after.get(key)}")


def kills_wanted(argument):
    if argument is not None:
        return argument
    return FULL if os.environ.get("VORN_TORTURE") == "full" else SLICE


def show_logs(directory):
    for name in ("agent.log", "hwd.log"):
        path = os.path.join(directory, name)
        if os.path.exists(path):
            with open(path, encoding="utf-8", errors="replace") as log:
                print(f"-- {name}\n{log.read()[-3000:]}", file=sys.stderr)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", maxsplit=1)[0])
    parser.add_argument("--build", default="build/release", help="folder with the programs")
    parser.add_argument("--kills", type=int, help=f"how many; {SLICE} by default, {FULL} with "
                        "VORN_TORTURE=full")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1 << 31))
    arguments = parser.parse_args()
    sys.stdout.reconfigure(line_buffering=True)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # what is started is ended all the same
    memory = "/dev/shm" if os.path.isdir("/dev/shm") else None
    directory = tempfile.mkdtemp(prefix="vorn-kills-", dir=memory)
    wanted = kills_wanted(arguments.kills)
    print(f"seed {arguments.seed}, {wanted} kills")
    started = time.monotonic()
    system = System(arguments.build, directory)
    torture = Torture(system, policies(directory), arguments.seed)
    try:
        torture.begin()
        while sum(torture.kills.values()) < wanted:
            torture.round()
            done = sum(torture.kills.values())
            if done % 100 < 2:
                print(f"  {done} kills, {time.monotonic() - started:.0f} s")
        print(f"OK: kills {torture.kills}, seed {arguments.seed}, "
              f"{time.monotonic() - started:.0f} s")
        return 0
    except (Failure, OSError) as failure:
        print(f"FAILED after kills {torture.kills}, seed {arguments.seed}: {failure}",
              file=sys.stderr)
        show_logs(directory)
        return 1
    finally:
        system.end()
        shutil.rmtree(directory, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
