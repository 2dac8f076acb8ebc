"""vorn check: tables, logs, hardware content and index pools compared."""

import pytest

from conftest import OTHER_POLICY, POLICY

V4 = "PolicyCpuV4TcamEntry"
LIST = {"PolicyCpuTcamAction": "actions", V4: "v4", "PolicyCpuV6TcamEntry": "v6"}


def flip(file, needle, offset=0):
    """One bit of a stored value, found by text that it holds."""
    content = bytearray(file.read_bytes())
    at = content.index(needle)
    content[at + offset] ^= 1
    file.write_bytes(content)


def config(system, table, unit=1):
    return next(system.state.glob(f"asic/*/tableConfig/{table}/{unit}.table"))


def tcam(system):
    """What hardware would hold that has everything, by unit."""
    units = {}
    for entry in system.vorn.json("show-entries", "show", "entries")["entries"]:
        unit = units.setdefault(entry["unit"], {"unit": entry["unit"], "actions": [], "v4": [],
                                                "v6": []})
        unit[LIST[entry["table"]]].append({**entry["entry"], "version": entry["version"]})
    return units


def hardware(fake, units, **more):
    return fake("hwd.sock", {"tcam": lambda request: {"units": [units[request["unit"]]]}, **more})


def kinds(document):
    return sorted({difference["kind"] for difference in document["differences"]})


def test_a_settled_system_has_no_differences(live):
    document = live.vorn.json("check", "check")
    assert document["differences"] == [] and document["hardwareCompared"]
    assert live.vorn("check").lines[0] == "no differences"


def test_without_processes_files_are_compared_and_hardware_is_not(left):
    document = left.vorn.json("check", "check")
    assert not document["hardwareCompared"]
    assert document["differences"] == []
    assert "hardware is not compared" in left.vorn("check").out


def test_changes_under_way_are_no_differences(own):
    own.start_agent()
    document = own.vorn.json("check", "check")
    assert document["differences"] == []
    assert document["onTheirWay"] == 6 + 8 + 4


def test_a_busy_system_has_no_differences(own):
    own.start_agent().start_hardware().settle()
    for policy in (OTHER_POLICY, POLICY, OTHER_POLICY):
        own.load(policy)
        assert own.vorn.json("check", "check", "--settle", 50)["differences"] == []


def test_a_rotten_value_is_named_with_file_slot_and_key(fake, dead):
    units = tcam(dead)
    key = next(e["key"] for e in units[1]["v4"] if e["label"] == "ssh")
    flip(config(dead, V4), b"ssh\0")
    hardware(fake, units)
    document = dead.vorn.json("check", "check", code=1)
    assert [(d["kind"], d["table"], d["unit"], d["key"], d["mend"])
            for d in document["differences"]] == [
        ("value does not verify", V4, 1, key, "reload")]
    assert "slot" in document["differences"][0]["detail"]


def test_a_value_that_rots_beside_a_live_agent_is_mended_by_a_reload(own):
    own.start_agent().start_hardware().settle()
    file = config(own, V4)
    content = file.read_bytes()
    at = content.index(b"ssh\0")
    with open(file, "r+b") as stored:  # in place: the agent has the file mapped
        stored.seek(at)
        stored.write(bytes([content[at] ^ 1]))
    assert kinds(own.vorn.json("check", "check", "--settle", 1, code=1)) == [
        "value does not verify"]
    mended = own.vorn.json("check", "check", "--repair", "--yes")
    assert [repair["mend"] for repair in mended["repairs"]] == ["reload"]
    own.settle()
    assert own.vorn("explain", "v4", 1, "ssh").lines[0].startswith("in hardware since")


def test_a_rotten_value_that_nobody_knows_is_named_without_key(dead):
    flip(config(dead, V4), b"ssh\0")
    document = dead.vorn.json("check", "check", code=1)
    assert [(d["kind"], d["key"]) for d in document["differences"]] == [
        ("value does not verify", None)]
    rows = dead.vorn("show", "entries", "--table", "v4")
    assert rows.code == 1
    assert "rotten: " in rows.out and "bgp" in rows.out


@pytest.mark.parametrize("damage, kind", [
    (lambda v4: v4.pop(0), "missing in hardware"),
    (lambda v4: v4[0].update(priority=3), "other in hardware"),
    (lambda v4: v4[0].update(priority=3, version=0), "older in hardware"),
    (lambda v4: v4.append({**v4[0], "key": "0000002a.00000001"}), "stray in hardware"),
])
def test_hardware_that_differs_is_found_and_mended_by_a_resync(fake, dead, damage, kind):
    good, bad = tcam(dead), tcam(dead)
    damage(bad[1]["v4"])
    held = dict(bad)
    peer = hardware(fake, held, resync=lambda request: held.update(good) or {})
    document = dead.vorn.json("check", "check", "--settle", 1, code=1)
    assert kinds(document) == [kind]
    assert document["looks"] == 3
    assert not any(request["cmd"] == "resync" for request in peer.asked)
    text = dead.vorn("check", "--settle", 1).out
    assert f"{kind} (1)" in text and "resync" in text
    mended = dead.vorn.json("check", "check", "--repair", "--yes", "--settle", 1)
    assert [repair["mend"] for repair in mended["repairs"]] == ["resync"]


def test_a_difference_that_goes_away_is_none(fake, dead):
    good, bad = tcam(dead), tcam(dead)
    bad[1]["v4"].pop(0)
    looks = []

    def answer(request):
        looks.append(request["unit"])
        return {"units": [(bad if len(looks) <= 2 else good)[request["unit"]]]}
    fake("hwd.sock", {"tcam": answer})
    assert dead.vorn.json("check", "check", "--settle", 1)["differences"] == []


def test_repair_asks_somebody_or_does_nothing(fake, dead):
    units = tcam(dead)
    units[1]["v4"].pop(0)
    peer = hardware(fake, units, resync={})
    result = dead.vorn("check", "--repair", "--settle", 1, stdin="y\n")
    assert result.code == 1
    assert "--yes" in result.err
    assert not any(request["cmd"] == "resync" for request in peer.asked)


def test_a_repair_needs_who_does_it(dead):
    flip(config(dead, V4), b"ssh\0")
    result = dead.vorn("check", "--repair", "--yes")
    assert result.code == 4
    assert "the agent does not run" in result.err


def test_a_damaged_change_log_is_found(dead):
    file = next(dead.state.glob(f"asic/*/entryLog/{V4}.table"))
    content = bytearray(file.read_bytes())
    for at in (4096 + 128, 4096 + 128 + 24):
        content[at] ^= 1
    file.write_bytes(content)
    document = dead.vorn.json("check", "check", code=1)
    assert "cannot be read" in kinds(document) or "acknowledged beyond the log" in kinds(document)


def test_a_table_and_a_unit_can_be_picked(live):
    assert live.vorn.json("check", "check", "--table", "v4", "--unit", 1)["entries"] == 4


def test_an_index_that_nobody_uses_is_found(own):
    """An agent that dies before its staged action is committed leaves the index behind."""
    own.start_agent().start_hardware().settle()
    own.agent.kill()
    own.hardware.kill()
    config(own, "PolicyCpuTcamAction").unlink()
    document = own.vorn.json("check", "check", code=1)
    leaks = [d for d in document["differences"] if d["kind"] == "index without user"]
    assert len(leaks) == 3 and {d["mend"] for d in leaks} == {"sweep"}


@pytest.mark.parametrize("answer", [None, lambda request: 1 / 0])
def test_hardware_that_does_not_tell_is_noted_and_the_rest_compared(fake, dead, answer):
    fake("hwd.sock", {"tcam": answer} if answer else {})
    document = dead.vorn.json("check", "check", "--settle", 1)
    assert not document["hardwareCompared"]
    assert any("hardware is not compared from unit 1 on" in note for note in document["notes"])
    assert document["entries"] == 18
