"""Tables and their entries: walked, found, compared, as rows and as frames."""

import os
import threading
import warnings

import pandas
import pytest

import vorn
from conftest import POLICY, FakePeer, System, wait_until


def test_entries_are_those_of_the_command_line(live, system):
    told = live.vorn.json("show-entries", "show", "entries")["entries"]
    seen = [entry for table in system.tables for entry in sorted(table)]
    assert [(e.unit, e.key, e.version, e.content) for e in seen] == \
        [(e["unit"], e["key"], e["version"], e["entry"]) for e in told]
    assert all(entry.acknowledged and not entry.in_deletion for entry in seen)


def test_a_dead_agent_leaves_the_same_entries(live, left):
    with vorn.attach(live.state) as alive, vorn.attach(left.state) as dead:
        assert (alive.source, dead.source) == ("agent", "files")
        assert (dead.agent_runs, dead.hardware_runs) == (False, False)
        for name in ("action", "v4", "v6"):
            assert sorted(alive.table(name)) == sorted(dead.table(name))


def test_nothing_in_the_directory_changes_by_being_attached(left):
    def files():
        return {path: (path.stat().st_mtime_ns, path.stat().st_size)
                for path in left.state.rglob("*") if path.is_file()}
    before = files()
    with vorn.attach(left.state) as system:
        for table in system.tables:
            assert list(table) and table.figures()
            list(table.log())
        list(system.resources())
    assert files() == before


def test_entries_are_ordered_as_hardware_tries_them(system):
    priorities = [entry.priority for entry in sorted(system.table("v4").entries(1))]
    assert priorities == [100, 100, 90, 1]


def test_entries_are_chosen_as_the_command_line_chooses_them(system):
    v4 = system.table("v4")

    def names(**choice):
        return sorted(entry.name for entry in v4.entries(1, **choice))
    assert names(match="dport=22") == ["ssh"]
    assert names(match=["proto=tcp", "src=192.0.2.7"]) == ["bgp", "bgp"]
    assert names(action="ssh") == ["ssh"]
    assert {entry.unit for entry in v4.entries(2)} == {2}


def test_an_entry_is_a_row(system):
    ssh = system.table("v4").find(1, "ssh")
    assert isinstance(ssh, vorn.MatchEntry) and isinstance(ssh, vorn.Entry)
    assert dict(ssh) == ssh.to_dict()
    assert tuple(ssh.keys()) == tuple(ssh) == system.table("v4").columns
    assert (ssh["priority"], ssh.priority, ssh.dport, ssh.src) == (90, 90, "22", None)
    assert "dport" in ssh and "nix" not in ssh and len(ssh) == len(ssh.keys())
    with pytest.raises(KeyError, match="nix"):
        ssh["nix"]
    assert repr(ssh).startswith("<vorn.MatchEntry v4 unit 1 key ") and "\n" not in repr(ssh)


def test_equal_entries_are_one_in_a_set(system):
    v4 = system.table("v4")
    assert len(set(v4) | set(v4)) == 8
    first, second = sorted(v4.entries(1))[:2]
    assert first != second and first < second and not first >= second
    assert first != "text"


def test_a_table_is_a_frame_with_its_columns_in_their_order(system):
    for table in system.tables:
        frame = pandas.DataFrame(table)
        assert list(frame.columns) == list(table.columns)
        assert len(frame) == len(table)
    frame = pandas.DataFrame(system.table("v4").entries(match="dport=22"))
    assert list(frame["unit"]) == [1, 2] and set(frame["priority"]) == {90}


def test_all_rows_are_frames(system):
    for rows in ([table.figures() for table in system.tables], system.acknowledgements(),
                 system.resources(), system.table("v4").log(since=0, follow=True, timeout=0)):
        frame = pandas.DataFrame(rows)
        assert len(frame) > 0 and list(frame.columns)[0] in ("table", "pool")


def test_find_takes_keys_and_names(system):
    v4 = system.table("v4")
    ssh = v4.find(1, "ssh")
    assert v4.find(1, ssh.key) == ssh
    assert v4.find(1, "nix") is None
    with pytest.raises(vorn.QuestionError, match="more than one"):
        v4.find(1, "bgp")


def test_the_listing_is_the_text_of_each_entry(system):
    lines = system.table("v4").getTableEntries_py(1)
    assert sorted(line.split()[2] for line in lines) == ["bgp", "bgp", "rest", "ssh"]
    assert len(system.table("v4").getTableEntries_py()) == 8


def test_wrong_questions_are_told_as_such(system, tmp_path):
    v4 = system.table("v4")
    for wrong in (lambda: system.table("v5"), lambda: v4.entries(9), lambda: v4.entries(-1),
                  lambda: v4.entries(match="nix=1"), lambda: v4.entries(action="nix"),
                  lambda: v4.find(70000, "ssh"), lambda: v4.explain(None, "ssh"),
                  lambda: v4.explain(1, "nix"), lambda: system.resources("nix"),
                  lambda: v4.log(since=1, from_=2), lambda: v4.log(timeout=-1),
                  lambda: v4.log(follow=True, interval=0)):
        with pytest.raises(vorn.QuestionError):
            wrong()
    with pytest.raises(ValueError):
        system.table("v5")
    with pytest.raises(vorn.StateDirectoryError, match="no agent has run here"):
        vorn.attach(tmp_path)
    with pytest.raises(vorn.Error):
        vorn.attach(tmp_path / "nix")


def test_the_directory_may_come_from_the_environment(left, monkeypatch):
    monkeypatch.setenv("VORN_STATE_DIR", str(left.state))
    assert vorn.attach().path == str(left.state)
    monkeypatch.delenv("VORN_STATE_DIR")
    with pytest.raises(vorn.QuestionError, match="VORN_STATE_DIR"):
        vorn.attach()


def test_what_is_closed_says_so_and_what_was_read_stays(left):
    with vorn.attach(left.state) as system:
        v4 = system.table("v4")
        walk = iter(v4)
        entry = next(walk)
    assert system.closed and entry.version > 0
    for use in (lambda: next(walk), lambda: list(v4), lambda: v4.explain(1, "ssh"),
                lambda: system.units, lambda: system.tables, system.resources):
        with pytest.raises(vorn.QuestionError, match="was closed"):
            use()


def test_what_only_an_agent_knows_needs_one(left, system):
    assert system.staged() == []
    with vorn.attach(left.state) as dead, pytest.raises(vorn.NotRunningError):
        dead.staged()


def test_what_a_process_refuses_is_told(dead):
    peer = FakePeer(dead.state / "agent.sock", {})
    with vorn.attach(dead.state) as system, pytest.raises(vorn.RefusedError, match="no such command"):
        system.staged()
    peer.end()


def test_what_makes_no_sense_at_a_socket_is_an_error_too(dead):
    peer = FakePeer(dead.state / "hwd.sock", {"entry": {"entry": 5, "version": []}})
    with vorn.attach(dead.state) as system, pytest.raises(vorn.Error, match="as expected"):
        system.table("v4").explain(1, "ssh")
    peer.end()


def rot(system, name):
    """Spoils the v4 entry of that name on unit 1."""
    file = next(system.state.glob("asic/*/tableConfig/PolicyCpuV4TcamEntry/1.table"))
    content = bytearray(file.read_bytes())
    content[content.index(name.encode() + b"\0")] ^= 1
    file.write_bytes(content)


def test_a_walk_warns_of_what_is_rotten_and_tells_the_rest(dead):
    with vorn.attach(dead.state) as system:
        key = system.table("v4").find(1, "ssh").key
        rot(dead, "ssh")
        with pytest.warns(vorn.DamageWarning, match="rotten: .*1.table") as warned:
            names = sorted(entry.name for entry in system.table("v4").entries(1))
        assert names == ["bgp", "bgp", "rest"] and len(warned) == 1
        with pytest.raises(vorn.DamageError, match="does not verify"):
            system.table("v4").find(1, key)
        (damage,) = system.damages
        assert damage.kind == "rotten" and "1.table" in damage.what
        assert str(damage) == f"rotten: {damage.what}"


def test_damages_may_be_errors(dead):
    rot(dead, "ssh")
    with vorn.attach(dead.state) as system, pytest.warns(vorn.DamageWarning):
        list(system.table("v4"))
    with warnings.catch_warnings():
        warnings.simplefilter("error", vorn.DamageWarning)
        with vorn.attach(dead.state) as system, pytest.raises(vorn.DamageWarning):
            list(system.table("v4"))


def test_a_file_that_cannot_be_opened_is_warned_of(dead):
    file = next(dead.state.glob("asic/*/tableConfig/PolicyCpuV4TcamEntry/1.table"))
    os.truncate(file, 100)
    with vorn.attach(dead.state) as system:
        with pytest.warns(vorn.DamageWarning, match="unreadable"):
            assert {entry.unit for entry in system.table("v4")} == {2}


def test_entries_are_read_as_a_walk_comes_to_them(dead):
    with vorn.attach(dead.state) as system:
        *_, last = system.table("v4").entries(1)
        walk = system.table("v4").entries(1)
        assert next(walk) != last
        rot(dead, last.name)
        with pytest.warns(vorn.DamageWarning):
            assert last not in list(walk)


MANY = "".join(f"  - {{name: e{i}, action: ssh, priority: {i + 2}, protocol: udp, "
               f"destination-port: {i + 1}}}\n" for i in range(2000))


@pytest.fixture
def many(build, tmp_path):
    """Thousands of entries that hardware does not have."""
    system = System(build, tmp_path)
    system.policy.write_text(POLICY.replace("ipv6:\n", MANY + "ipv6:\n"), encoding="utf-8")
    system.agent = system.surroundings.agent(str(system.policy))
    wait_until(lambda: system.agent.ask("status")["queued"] == 0, "changes to be committed")
    yield system
    system.end()


def test_threads_may_walk_one_system(many):
    with vorn.attach(many.state) as system:
        counts = []

        def count():
            counts.append(sum(1 for _ in system.table("v4")))
            system.table("v4").explain(1, "e1")
        threads = [threading.Thread(target=count) for _ in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        assert counts == [2 * 2004] * 4
