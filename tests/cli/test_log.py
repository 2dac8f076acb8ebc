"""vorn log and vorn state: what was done, and what was."""

from conftest import OTHER_POLICY, POLICY, FakePeer, wait_until

V4 = "PolicyCpuV4TcamEntry"
ACTION = "PolicyCpuTcamAction"


def changed_without_hardware(own):
    """Everything is in hardware, then changes that it does not get."""
    own.start_agent().start_hardware().settle()
    own.hardware.kill()
    load(own, OTHER_POLICY)
    return own


def load(own, policy):
    """Waits until all that needs no hardware is committed."""
    own.load(policy)
    wait_until(lambda: own.agent.ask("status")["queued"] == 0, "changes to be committed")


def test_where_all_is_acknowledged_no_records_are_kept(live):
    document = live.vorn.json("log", "log")
    assert document["changes"] == []
    assert "no records are kept" in live.vorn("log", "--table", "v4").out


def test_records_are_decoded_with_the_entry_that_they_wrote(own):
    own.start_agent()
    document = own.vorn.json("log", "log", "--table", "v4")
    assert [change["version"] for change in document["changes"]] == list(range(1, 9))
    assert all(change["operation"] == "write" for change in document["changes"])
    assert "bgp" in {change["entry"]["label"].split()[0] for change in document["changes"]}
    picked = own.vorn.json("log", "log", "--table", "v4", "--from", 3, "--to", 4)
    assert [change["version"] for change in picked["changes"]] == [3, 4]
    assert own.vorn.json("log", "show", "log", "--table", "v4") == document


def test_removals_and_replaced_values_are_told(own):
    changed_without_hardware(own)
    load(own, OTHER_POLICY.replace("priority: 95", "priority: 96"))
    changes = own.vorn.json("log", "log", "--table", "v4", "--unit", 1)["changes"]
    assert {change["operation"] for change in changes} >= {"write", "remove"}
    replaced = [change for change in changes if change["supersededBy"]]
    assert replaced and replaced[0]["entry"] is None
    assert replaced[0]["supersededBy"] > replaced[0]["version"]
    assert "superseded by" in own.vorn("log", "--table", "v4").out


def test_the_difference_to_what_hardware_holds_is_told(own):
    own.start_agent().start_hardware().settle()
    held = own.hardware.ask("tcam")
    own.hardware.kill()
    load(own, POLICY.replace("priority: 90", "priority: 95"))
    # A hardware side that has stopped to follow still tells what it holds.
    (own.state / "hwd.sock").unlink()
    peer = FakePeer(own.state / "hwd.sock", {"tcam": lambda request: {
        "units": [unit for unit in held["units"] if unit["unit"] == request["unit"]]}})
    document = own.vorn.json("log", "log", "--table", "v4", "--unit", 1)
    assert [change["differences"] for change in document["changes"]] == [["priority 90 -> 95"]]
    past = own.vorn.json("state", "state", "--at", 8, "--table", "v4", "--unit", 1)["tables"][0]
    ssh = [entry for entry in past["entries"] if entry["entry"]["label"] == "ssh"]
    assert ssh[0]["fromHardware"] and ssh[0]["entry"]["priority"] == 90
    assert past["notKept"] == [] and past["whole"]
    peer.end()


def test_a_state_lists_what_is_not_kept(own):
    changed_without_hardware(own)
    own.agent.kill()
    past = own.vorn.json("state", "state", "--at", 8, "--table", "v4")["tables"][0]
    assert past["whole"] and past["keptFrom"] == 9
    assert len(past["notKept"]) >= 4  # ssh and rest, and what is new, of both units
    text = own.vorn("state", "--at", 8, "--table", "v4").out
    assert "not kept any more" in text


def test_a_state_of_the_newest_version_is_the_table(live):
    past = live.vorn.json("state", "state", "--at", 8, "--table", "v4")["tables"][0]
    assert len(past["entries"]) == 8 and past["notKept"] == [] and past["whole"]


def test_a_state_says_from_where_on_records_are_kept(live):
    past = live.vorn.json("state", "state", "--at", 2, "--table", "v4")["tables"][0]
    assert not past["whole"] and past["keptFrom"] == 9
    assert "records are kept from version 9 on" in live.vorn("state", "--at", 2).out


def test_a_version_has_to_be_given(live):
    assert live.vorn("state").code == 2
    assert live.vorn("log", "--from", "x").code == 2


def test_a_rotten_record_is_a_row_and_the_others_are_shown(own):
    own.start_agent()
    own.agent.kill()
    file = next(own.state.glob(f"asic/*/entryLog/{V4}.table"))
    content = bytearray(file.read_bytes())
    slots = 1024
    record = 3 * 4096 + 8 * slots + 3 * 32
    assert content[record] == 3  # the version's lowest byte
    content[record + 24] ^= 1
    file.write_bytes(content)
    document = own.vorn.json("log", "log", "--table", "v4", code=1)
    assert [change["version"] for change in document["changes"]] == [1, 2, 4, 5, 6, 7, 8]
    assert document["damages"][0]["kind"] == "rotten"


def test_a_version_that_is_not_there_yet_is_wrong_use(live):
    for at in (9, 18446744073709551615):
        result = live.vorn("state", "--at", at, "--table", "v4")
        assert result.code == 2 and result.out == ""
        assert f"table v4 has no version {at} yet: 8 is the newest" in result.err


def test_where_all_records_are_kept_what_came_later_was_not_there(own):
    own.start_agent()
    load(own, OTHER_POLICY)
    past = own.vorn.json("state", "state", "--at", 8, "--table", "v4")["tables"][0]
    assert past["whole"] and past["keptFrom"] == 1
    new = {e["key"] for e in own.vorn.json("show-entries", "show", "entry", "new", "--table",
                                           "v4")["entries"]}
    assert new and not new & {entry["key"] for entry in past["notKept"]}
    assert len(past["entries"]) + len(past["notKept"]) == 8


def test_a_log_with_rotten_records_does_not_tell_the_whole(own):
    own.start_agent()
    own.agent.kill()
    file = next(own.state.glob(f"asic/*/entryLog/{V4}.table"))
    content = bytearray(file.read_bytes())
    record = 3 * 4096 + 8 * 1024 + 3 * 32
    content[record + 24] ^= 1
    file.write_bytes(content)
    past = own.vorn.json("state", "state", "--at", 8, "--table", "v4", code=1)["tables"][0]
    assert not past["whole"]
