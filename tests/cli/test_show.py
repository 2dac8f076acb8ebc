"""vorn show: the same beside a live agent and on what a dead one left."""

import json

import pytest

from conftest import wait_until

V4 = "PolicyCpuV4TcamEntry"
FROM_FILES = ["tables", "units", "entries", "resources", "acks", "log"]
FROM_AGENT = ["handles", "stats", "alarms"]


def schema_of(name):
    return "log" if name == "log" else "show-" + name


@pytest.mark.parametrize("name", FROM_FILES)
def test_json_of_a_live_system_is_of_the_schema_and_names_the_agent(live, name):
    assert live.vorn.json(schema_of(name), "show", name)["source"] == "agent"


@pytest.mark.parametrize("name", FROM_FILES)
def test_json_of_what_a_dead_one_left_is_of_the_schema_and_names_files(left, name):
    assert left.vorn.json(schema_of(name), "show", name)["source"] == "files"


@pytest.mark.parametrize("name", FROM_FILES)
def test_a_dead_one_says_the_same_as_a_live_one(live, left, name):
    alive = live.vorn.json(schema_of(name), "show", name)
    dead = left.vorn.json(schema_of(name), "show", name)
    alive.pop("source"), dead.pop("source")
    assert alive == dead


@pytest.mark.parametrize("name", FROM_AGENT)
def test_what_only_an_agent_knows_needs_one(left, name):
    result = left.vorn("show", name)
    assert result.code == 4
    assert "the agent does not run" in result.err.splitlines()[-1]
    failed = left.vorn.json("error", "show", name, code=4)
    assert failed["exit"] == 4


def test_text_says_on_stderr_where_it_comes_from(live, left):
    assert "source: agent" in live.vorn("show", "tables").err
    assert "source: files" in left.vorn("show", "tables").err


def test_tables_count_entries_versions_and_records(live):
    tables = {t["table"]: t for t in live.vorn.json("show-tables", "show", "tables")["tables"]}
    v4 = tables[V4]
    # The port of bgp is that of the source or of the destination: an entry each.
    assert (v4["units"], v4["entries"], v4["published"], v4["acknowledged"], v4["behind"]) == (
        [1, 2], 8, 8, 8, 0)
    text = live.vorn("show", "tables", "--table", "v4").lines
    assert text[0].split() == ["TABLE", "UNITS", "ENTRIES", "REMOVING", "VERSION", "ACKED",
                               "BEHIND", "LOG"]
    assert text[1].split()[:3] == ["v4", "1,2", "8"]
    assert len(text) == 2


def test_tables_may_be_named_in_short(live):
    for name in ("v4", "ipv4", "V4", V4):
        entries = live.vorn.json("show-entries", "show", "entries", "--table", name)["entries"]
        assert {entry["table"] for entry in entries} == {V4}


def labels(system, *filters):
    found = system.vorn.json("show-entries", "show", "entries", "--unit", 1, *filters)
    return [e["entry"].get("label", e["entry"].get("name")) for e in found["entries"]]


@pytest.mark.parametrize("match, found", [
    ("dport=22", ["ssh"]),
    ("dport=100-200", ["bgp", "bgp6"]),
    ("proto=6", ["bgp", "bgp", "ssh", "bgp6", "bgp6"]),
    ("src=192.0.2.7", ["bgp", "bgp"]),
    ("src=192.0.0.0/8", ["bgp", "bgp"]),
    ("src=198.51.100.0/24", []),
    ("src=2001:db8:1::/48", ["bgp6", "bgp6"]),
    ("priority=90", ["ssh"]),
])
def test_entries_are_found_by_fields_that_overlap(live, match, found):
    assert [one.split()[0] for one in labels(live, "--match", match)] == found


def test_matches_have_all_to_be_met(live):
    assert labels(live, "--match", "proto=tcp", "--match", "dport=22") == ["ssh"]


def test_entries_are_found_by_their_action(live):
    key = live.vorn.json("show-entries", "show", "entry", "ssh", "--table", "action",
                         "--unit", 1)["entries"][0]["key"]
    assert labels(live, "--action", key) == labels(live, "--action", "ssh") == ["ssh"]


def test_match_entries_come_in_the_order_of_hardware(live):
    entries = live.vorn.json("show-entries", "show", "entries", "--table", "v4", "--unit", 1)
    priorities = [entry["entry"]["priority"] for entry in entries["entries"]]
    assert priorities == sorted(priorities, reverse=True)


def test_text_in_a_pipe_is_whole_and_without_colours(live):
    out = live.vorn("show", "entries", environment={"COLUMNS": "20"}).out
    assert "src 192.0.2.0/24 proto tcp" in out
    assert "…" not in out and "\x1b" not in out


def test_colours_come_when_they_are_asked_for(live):
    assert "\x1b[1m" in live.vorn("show", "tables", "--color", "always").out


def test_an_entry_is_shown_in_full_by_key_and_by_name(live):
    by_name = live.vorn("show", "entry", "rest", "--table", "v4", "--unit", 1)
    assert by_name.code == 0
    key = by_name.lines[0].split()[-1]
    assert live.vorn("show", "entry", key, "--table", "v4", "--unit", 1).out == by_name.out
    assert any(line.split() == ["priority", "1"] for line in by_name.lines)


def test_resources_name_who_uses_them(live):
    rows = live.vorn.json("show-resources", "show", "resources")["resources"]
    assert {(r["pool"], tuple(r["users"])) for r in rows} == {
        ("counter", ("bgp",)), ("counter", ("ssh",)), ("policer", ("bgp",))}


@pytest.mark.parametrize("words", [
    ["show", "entries", "--table", "v5"],
    ["show", "entries", "--match", "dport"],
    ["show", "entries", "--match", "dport=x"],
    ["show", "entries", "--match", "nix=1"],
    ["show", "entries", "--action", "nix"],
    ["show", "entry", "nix"],
    ["show"],
    ["show", "nix"],
    ["nix"],
    ["show", "tables", "--nix"],
])
def test_wrong_use_is_said_in_one_line(live, words):
    result = live.vorn(*words)
    assert result.code == 2
    assert result.out == ""
    assert result.err.splitlines()[-1].startswith("vorn: ")


def test_a_state_directory_has_to_be_given(live):
    result = live.vorn("show", "tables", environment={"VORN_STATE_DIR": ""})
    assert result.code == 2
    assert "--state-dir" in result.err


def test_the_option_counts_more_than_the_environment(live, left):
    out = live.vorn.json("show-tables", "show", "tables", "--state-dir", left.state)
    assert out["source"] == "files"


@pytest.mark.parametrize("words", [["show", "tables"], ["show", "entries"], ["check"], ["log"],
                                   ["explain", "v4", "1", "1.1"], ["state", "--at", "1"],
                                   ["watch", "--count", "1"], ["support-bundle"]])
def test_a_directory_without_tables_is_refused(live, tmp_path, words):
    for state in (tmp_path, tmp_path / "missing"):
        result = live.vorn(*words, state=str(state))
        assert result.code == 3
        assert str(state) in result.err


@pytest.mark.parametrize("words", [["show", "tables"], ["show", "entries"], ["check"], ["log"],
                                   ["explain", "v4", "1", "1.1"], ["state", "--at", "1"]])
def test_tables_of_another_layout_are_refused_with_what_is_other(dead, words):
    for file in dead.state.glob("asic/**/*.table"):
        content = bytearray(file.read_bytes())
        content[8] += 1  # the layout's version
        file.write_bytes(content)
    result = dead.vorn(*words)
    assert result.code == 3
    assert "layout version" in result.err.splitlines()[-1]


def test_one_damaged_file_is_a_row_and_the_rest_is_shown(dead):
    file = next(dead.state.glob("asic/*/entryLog/" + V4 + ".table"))
    content = bytearray(file.read_bytes())
    content[100] ^= 1
    file.write_bytes(content)
    result = dead.vorn("show", "tables")
    assert result.code == 1
    assert f"unreadable: {file}" in result.out
    assert any(line.startswith("v6") for line in result.lines)
    document = dead.vorn.json("show-tables", "show", "tables", code=1)
    assert [damage["kind"] for damage in document["damages"]] == ["unreadable"]


def test_help_reads_as_a_page_with_groups_examples_and_exit_status(live):
    page = live.vorn("--help").out
    for part in ("Looking", "Checking", "Changing", "Tracing", "Examples:", "Exit status:",
                 "VORN_STATE_DIR"):
        assert part in page
    assert "__complete" not in page


def test_version_is_said(live):
    assert live.vorn("--version").out.startswith("vorn ")


def test_figures_and_alarms_of_an_agent_are_of_the_schema(live):
    live.vorn.json("show-stats", "show", "stats")
    live.vorn.json("show-handles", "show", "handles")
    live.vorn.json("show-alarms", "show", "alarms")
    assert "WRITES" in live.vorn("show", "stats").out


def test_a_raised_alarm_is_seen_in_the_exit_status(fake, dead):
    alarm = {"name": "log-fill", "subject": V4, "raised": True, "sinceTime": 1.0, "value": 0.95,
             "limit": 0.9, "clear": 0.7, "unit": "ratio", "text": "log of v4 is 95 % full"}
    fake("agent.sock", {"alarms": {"alarms": [alarm]}})
    result = dead.vorn("show", "alarms")
    assert result.code == 1
    assert result.lines[1].split()[:4] == ["log-fill", "v4", "raised", "95.0"]
    dead.vorn.json("show-alarms", "show", "alarms", code=1)


def test_changes_under_way_are_listed_with_what_they_wait_for(fake, dead):
    change = {"table": V4, "unit": 1, "key": "0000002a.00000001", "operation": "write",
              "entryVersion": "1.0", "state": "staged", "age_s": 63.0, "logVersion": None,
              "waitsFor": {"cause": "resource", "text": "policer 0000002a/1, which is pending"}}
    peer = fake("agent.sock", {"changes": {"total": 3, "changes": [change]}})
    result = dead.vorn("show", "handles", "--table", "v4", "--unit", 1)
    assert result.lines[0] == "3 not finished"
    assert "policer 0000002a/1, which is pending" in result.lines[2]
    assert peer.asked == [{"cmd": "changes", "table": V4, "unit": 1}]
    dead.vorn.json("show-handles", "show", "handles")


def test_a_refusal_is_said_with_its_reason(fake, dead):
    fake("agent.sock", {})
    result = dead.vorn("show", "alarms")
    assert result.code == 5
    assert "there is no such command" in result.err
    assert json.loads(dead.vorn("show", "alarms", "--json").out)["exit"] == 5


def test_an_alarm_that_a_real_agent_raises_is_shown(own):
    own.start_agent("--alarm-unacknowledged", "0.05")
    wait_until(lambda: any(alarm["raised"] for alarm in own.agent.ask("alarms")["alarms"]),
               "an alarm to be raised")
    document = own.vorn.json("show-alarms", "show", "alarms", code=1)
    raised = [alarm for alarm in document["alarms"] if alarm["raised"]]
    assert {alarm["name"] for alarm in raised} == {"unacknowledged"}
    text = own.vorn("show", "alarms")
    assert text.code == 1
    assert text.lines[1].split()[0] == "unacknowledged" and "raised" in text.lines[1]


def test_stats_acks_and_resources_can_be_picked(live):
    status = live.vorn.json("show-stats", "show", "stats", "--table", "v4", "--unit", 2)["status"]
    assert [table["table"] for table in status["tables"]] == [V4]
    assert [unit["unit"] for unit in status["tables"][0]["units"]] == [2]
    acks = live.vorn.json("show-acks", "show", "acks", "--table", "v4")["acknowledgements"]
    assert [row["table"] for row in acks] == ["v4"]
    every = live.vorn.json("show-resources", "show", "resources")["resources"]
    one = live.vorn.json("show-resources", "show", "resources", "--unit", 1)["resources"]
    assert 0 < len(one) < len(every) or {len(row["users"]) for row in every} == {2}


def test_a_wrong_use_is_a_document_too(live):
    for words in (["show", "entries", "--nix"], ["explain", "v4"], ["show", "entry", "nix"]):
        assert live.vorn.json("error", *words, code=2)["exit"] == 2
