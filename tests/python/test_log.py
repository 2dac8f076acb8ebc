"""The change log: what it keeps, and what is done while one looks."""

import signal
import subprocess
import sys
import threading
import time

import pytest

import vorn
from conftest import OTHER_POLICY, POLICY, FakePeer, wait_until


def load(own, policy):
    own.load(policy)
    wait_until(lambda: own.agent.ask("status")["queued"] == 0, "changes to be committed")


def test_changes_are_those_of_the_command_line(own):
    own.start_agent()
    load(own, OTHER_POLICY)
    told = own.vorn.json("log", "log", "--table", "v4")["changes"]
    with vorn.attach(own.state) as system:
        seen = list(system.table("v4").log())
        assert [(c.version, c.unit, c.operation, c.key, c.entry, c.superseded_by) for c in seen] == \
            [(c["version"], c["unit"], c["operation"], c["key"], c["entry"], c["supersededBy"])
             for c in told]
        assert [c.version for c in system.table("v4").log(from_=3, to=4)] == [3, 4]
        assert [c.version for c in system.table("v4").log(since=2, to=4)] == [3, 4]
        assert {c.unit for c in system.table("v4").log(2)} == {2}
        assert sorted(seen, reverse=True)[0].version == told[-1]["version"]
        assert repr(seen[0]).startswith("<vorn.Change v4 version 1 write unit 1 key ")
        assert dict(seen[0])["what"] in str(seen[0])


def test_where_all_is_acknowledged_no_records_are_kept(system):
    assert list(system.table("v4").log()) == []


def test_differences_to_what_hardware_holds_are_told_where_asked_for(own):
    own.start_agent().start_hardware().settle()
    held = own.hardware.ask("tcam")
    own.hardware.kill()
    load(own, POLICY.replace("priority: 90", "priority: 95"))
    (own.state / "hwd.sock").unlink()
    peer = FakePeer(own.state / "hwd.sock", {"tcam": lambda request: {
        "units": [unit for unit in held["units"] if unit["unit"] == request["unit"]]}})
    with vorn.attach(own.state) as system:
        (change,) = system.table("v4").log(1, compare=True)
        assert change.differences == ["priority 90 -> 95"] == [change.what]
        assert change.before["priority"] == 90
        (change,) = system.table("v4").log(1)
        assert change.differences == [] and change.before is None
    peer.end()


def test_following_tells_what_is_kept_and_then_what_is_done(own):
    own.start_agent()
    with vorn.attach(own.state) as system:
        walk = system.table("v4").log(follow=True, timeout=60, interval=0.01)
        assert [next(walk).version for _ in range(8)] == list(range(1, 9))
        writer = threading.Timer(0.1, load, (own, POLICY.replace("priority: 90", "priority: 95")))
        writer.start()
        changes = [next(walk), next(walk)]
        writer.join()
        assert [(c.version, c.operation, c.entry["priority"]) for c in changes] == [
            (9, "write", 95), (10, "write", 95)]


def test_no_version_is_missed_where_hardware_is_faster(own):
    own.start_agent().start_hardware().settle()
    with vorn.attach(own.state) as system:
        newest = system.table("v4").figures().published
        walk = system.table("v4").log(since=newest, follow=True, timeout=60, interval=0.01)
        for policy in (OTHER_POLICY, POLICY, OTHER_POLICY):
            own.load(policy)
            own.settle()
        published = system.table("v4").figures().published
        changes = []
        for change in walk:
            changes.append(change)
            if change.version == published:
                break
        assert [change.version for change in changes] == list(range(newest + 1, published + 1))
        assert list(system.table("v4").log()) == []  # no record is kept of any of these
        lost = [change for change in changes if change.operation == "lost"]
        told = [change for change in changes if change.operation == "write"]
        assert lost and all(c.unit is None and c.key is None and c.entry is None for c in lost)
        assert {c.name for c in told} == {"ssh", "new"} and all(c.entry for c in told)


def test_following_ends_at_its_time_and_at_its_version(own):
    own.start_agent()
    with vorn.attach(own.state) as system:
        v4 = system.table("v4")
        began = time.monotonic()
        assert [c.version for c in v4.log(follow=True, timeout=0.3, interval=60)] == \
            list(range(1, 9))
        assert 0.3 <= time.monotonic() - began < 10
        assert [c.version for c in v4.log(follow=True, timeout=60, to=5)] == [1, 2, 3, 4, 5]
        assert [c.version for c in v4.log(since=8, follow=True, timeout=60, to=5)] == []


def test_other_threads_run_while_one_follows(left):
    with vorn.attach(left.state) as system:
        ticks = []
        follower = threading.Thread(
            target=lambda: list(system.table("v4").log(follow=True, timeout=1)))
        follower.start()
        while follower.is_alive():
            ticks.append(time.monotonic())
            follower.join(0.001)
        assert len(ticks) > 5


SCRIPT = """
import sys, vorn
with vorn.attach(sys.argv[1]) as system:
    walk = system.table("v4").log(follow=True, interval=600)
    try:
        print("following", flush=True)
        list(walk)
    except KeyboardInterrupt:
        print("interrupted")
"""


def test_ctrl_c_ends_following(left, environment):
    with subprocess.Popen([sys.executable, "-c", SCRIPT, left.state], env=environment, text=True,
                          stdout=subprocess.PIPE) as script:
        assert script.stdout.readline() == "following\n"
        script.send_signal(signal.SIGINT)
        assert script.communicate(timeout=20)[0] == "interrupted\n"


def test_following_goes_on_over_the_death_of_the_agent(own):
    own.start_agent()
    with vorn.attach(own.state) as system:
        walk = system.table("v4").log(since=8, follow=True, timeout=60, interval=0.01)
        own.agent.kill()
        own.start_agent()
        load(own, POLICY.replace("priority: 90", "priority: 95"))
        assert [next(walk).version, next(walk).version] == [9, 10]
        assert system.agent_runs


def test_another_log_in_its_place_is_told(own):
    own.start_agent()
    file = next(own.state.glob("asic/*/entryLog/PolicyCpuV4TcamEntry.table"))
    early = file.read_bytes()
    load(own, OTHER_POLICY)
    own.agent.kill()
    with vorn.attach(own.state) as system:
        walk = system.table("v4").log(since=8, follow=True, timeout=60, interval=0.01)
        assert next(walk).version == 9
        for _ in range(system.table("v4").figures().published - 9):
            next(walk)
        file.unlink()
        file.write_bytes(early)
        file.chmod(0o640)
        with pytest.warns(vorn.DamageWarning, match="another log has taken its place"):
            assert next(walk).version == 1
