"""vorn explain: the verdict first, then how it came to that."""

import json
import threading

from conftest import OTHER_POLICY, POLICY, wait_until

V4 = "PolicyCpuV4TcamEntry"
KEY = "0000002a.00000001"


def key_of(system, name, table="v4", unit=1):
    found = system.vorn.json("show-entries", "show", "entry", name, "--table", table,
                             "--unit", unit)
    return found["entries"][0]["key"]


def change(key, waits=None, state="staged", **members):
    return {"table": V4, "unit": 1, "key": key, "operation": "write", "entryVersion": "3.1",
            "state": state, "age_s": 12.5, "logVersion": None, "waitsFor": waits, **members}


def explanation(*chain, root=None, cycle=False, changes=None):
    return {"table": V4, "unit": 1, "key": KEY, "changes": changes or [chain[0]],
            "chain": list(chain), "root": root, "cycle": cycle, "published": 8,
            "acknowledged": 8, "stages": [{"stage": "staged", "seconds": 12.5}]}


def test_an_entry_that_is_there_is_in_hardware_since_its_version(live):
    key = key_of(live, "ssh")
    story = live.vorn.json("explain", "explain", "v4", 1, key)
    version = story["committed"]["version"]
    assert story["standing"] == "inHardware"
    assert story["verdict"] == f"in hardware since version {version}"
    assert live.vorn("explain", "v4", 1, key).lines[0] == story["verdict"]


def test_a_name_will_do_where_it_is_unique(live):
    assert live.vorn("explain", "action", 2, "ssh").code == 0


def test_a_name_of_several_entries_lists_their_keys(live):
    labels = [e["entry"]["label"] for e in live.vorn.json(
        "show-entries", "show", "entries", "--table", "v4", "--unit", 1)["entries"]]
    twice = next((label for label in labels if labels.count(label) > 1), None)
    assert twice is not None
    result = live.vorn("explain", "v4", 1, twice)
    assert result.code == 2
    assert "is the name of 2 entries on unit 1" in result.err


def test_an_unknown_name_is_wrong_use(live):
    assert live.vorn("explain", "v4", 1, "nix").code == 2
    assert live.vorn("explain", "v5", 1, "ssh").code == 2
    assert live.vorn("explain", "v4", 1).code == 2


def test_an_entry_that_never_was_is_absent(live):
    result = live.vorn("explain", "v4", 1, KEY)
    assert result.code == 1
    assert result.lines[0].startswith("there is no such entry")


def test_without_a_hardware_side_the_change_is_committed_and_not_acknowledged(own):
    own.start_agent()
    result = own.vorn("explain", "v4", 1, "ssh")
    assert result.code == 1
    assert "not acknowledged yet: the hardware side does not run" in result.lines[0]
    assert own.vorn.json("explain", "explain", "v4", 1, "ssh", code=1)["standing"] == "underWay"


def test_after_both_have_died_files_tell_what_they_can(left):
    story = left.vorn.json("explain", "explain", "v4", 1, key_of(left, "ssh"), code=1)
    assert story["source"] == "files"
    assert story["standing"] == "unconfirmed"
    text = left.vorn("explain", "v4", 1, "ssh").out
    assert "what was staged went with the agent" in text
    assert "the hardware side does not run" in text


def test_an_action_in_hardware_is_explained_like_a_match(live):
    assert live.vorn("explain", "action", 1, "bgp").lines[0].startswith("in hardware since")


def test_a_staged_change_waits_for_the_root_of_its_chain(fake, dead):
    pool = {"cause": "resource", "text": "policer 0000002a/1, which is pending",
            "pool": "policer", "key": "0000002a/1", "state": "pending"}
    first = change(KEY, {"cause": "dependency", "text": "action 00000007.0, which is staged"})
    behind = change("00000007.0", pool, table="PolicyCpuTcamAction")
    fake("agent.sock", {"explain": explanation(first, behind, root=pool["text"])})
    result = dead.vorn("explain", "v4", 1, KEY)
    assert result.code == 1
    assert result.lines[0] == "waits for: policer 0000002a/1, which is pending"
    assert "write action unit 1 key 00000007.0 (staged, 12 s), waits for policer" in result.out
    story = dead.vorn.json("explain", "explain", "v4", 1, KEY, code=1)
    assert story["standing"] == "waits" and len(story["chain"]) == 2


def test_an_entry_whose_value_has_rotted_is_found_by_the_name_that_hardware_knows(fake, dead):
    held = dead.vorn.json("show-entries", "show", "entry", "ssh", "--table", "v4",
                          "--unit", 1)["entries"][0]["entry"]
    file = next(dead.state.glob(f"asic/*/tableConfig/{V4}/1.table"))
    content = bytearray(file.read_bytes())
    content[content.index(b"ssh\0")] ^= 1
    file.write_bytes(content)
    fake("hwd.sock", {"entry": {"entry": held, "version": 2},
                      "tcam": {"units": [{"unit": 1, "actions": [], "v6": [],
                                          "v4": [{**held, "version": 2}]}]}})
    result = dead.vorn("explain", "v4", 1, "ssh")
    assert result.code == 1
    assert result.lines[0].startswith("its committed value cannot be read")
    assert "holds version 2" in result.out


def test_a_cycle_is_named_as_such(fake, dead):
    waits = {"cause": "cycle", "text": "write v4 0000002b.00000001, which waits for it"}
    fake("agent.sock", {"explain": explanation(
        change(KEY, waits), change("0000002b.00000001", waits), root=waits["text"], cycle=True)})
    result = dead.vorn("explain", "v4", 1, KEY)
    assert result.lines[0].startswith("waits for itself, in a cycle")
    assert "none can go on" in result.out


def test_a_staged_entry_is_found_by_its_label(fake, dead):
    staged = {"operation": "write", "entryVersion": "3.1", "failed": False,
              "entry": {"key": KEY, "label": "fresh", "priority": 5, "action": "00000007.0",
                        "fields": {"dport": "80"}}}
    told = explanation(change(KEY, {"cause": "turn", "text": "its turn"}))
    fake("agent.sock", {"changes": {"total": 1, "changes": [change(KEY)]},
                        "explain": {**told, "staged": staged}})
    result = dead.vorn("explain", "v4", 1, "fresh")
    assert result.lines[0] == "waits for: its turn"
    assert "fresh priority 5: dport 80" in result.out


def test_a_real_pause_is_the_root_of_what_waits(own):
    own.start_agent().start_hardware().settle()
    own.hardware.ask("pause")
    wait_until(lambda: own.agent.ask("status")["suspended"], "the pause to be known")
    own.load(OTHER_POLICY)
    story = own.vorn.json("explain", "explain", "v4", 1, "new", code=1)
    assert story["standing"] == "waits" and not story["cycle"]
    assert [c["waitsFor"]["cause"] for c in story["chain"]] == ["dependency", "pause"]
    assert story["verdict"] == "waits for: " + story["root"]
    assert own.vorn.json("show-handles", "show", "handles")["total"] > 0
    own.hardware.ask("resume")
    own.settle()
    assert own.vorn("explain", "v4", 1, "new").code == 0


def test_hardware_that_lacks_an_acknowledged_entry_is_missing_it(fake, dead):
    fake("hwd.sock", {"entry": {"entry": None, "version": None}})
    result = dead.vorn("explain", "v4", 1, "ssh")
    assert result.code == 1
    assert result.lines[0].startswith("missing in hardware although version")


def test_hardware_with_another_entry_is_told_with_what_it_has(fake, dead):
    held = dead.vorn.json("show-entries", "show", "entry", "ssh", "--table", "v4",
                          "--unit", 1)["entries"][0]["entry"]
    held["priority"] = 7
    fake("hwd.sock", {"entry": {"entry": held, "version": 1}})
    result = dead.vorn("explain", "v4", 1, "ssh")
    assert result.lines[0].startswith("hardware holds another entry (version 1)")
    assert "ssh priority 7" in result.out


def test_an_agent_that_ends_in_between_is_as_if_it_did_not_run(fake, dead):
    peer = fake("agent.sock", {"explain": lambda request: 1 / 0})
    result = dead.vorn("explain", "action", 1, "ssh")
    assert result.code == 1
    assert "does not answer" in result.out
    assert peer.asked


def test_a_failed_change_is_told_with_its_reason(fake, dead):
    staged = {"operation": "write", "entryVersion": "3.1", "failed": True, "reason": "no room",
              "entry": None}
    told = {**explanation(change(KEY)), "changes": [], "chain": [], "staged": staged}
    fake("agent.sock", {"explain": told})
    result = dead.vorn("explain", "v4", 1, KEY)
    assert result.code == 1
    assert result.lines[0] == "failed: no room, the next reload tries again"
    key = key_of(dead, "ssh")
    story = dead.vorn.json("explain", "explain", "v4", 1, key, code=1)
    assert story["standing"] == "failed" and story["committed"]
    assert story["verdict"].endswith("stays committed")


def test_an_action_for_which_no_policer_is_left_has_failed(own):
    """Two policed actions and one policer."""
    policed = POLICY.replace("{name: ssh, counter: yes}",
                             "{name: ssh, policer: {rate: 100pps, burst: 10}}")
    own.policy.write_text(policed, encoding="utf-8")
    own.start_agent("--policers", 1).start_hardware()
    wait_until(lambda: own.agent.ask("status")["load"]["failed"] > 0, "a change to fail")
    wait_until(lambda: own.agent.ask("status")["load"]["inProgress"] == 0, "the load to end")
    actions = [action for action in own.surroundings.compiled(str(own.policy))["actions"]
               if action["name"] in ("bgp", "ssh")]
    stories = [own.vorn("explain", "action", 1, action["key"]) for action in actions]
    failed = [story for story in stories if story.code == 1]
    assert len(failed) >= 1, [story.out for story in stories]
    assert all(story.lines[0].startswith("failed: ") for story in failed)
    assert all("the next reload tries again" in story.lines[0] for story in failed)


def test_an_entry_that_changes_is_never_a_fault(own):
    own.start_agent().start_hardware().settle()
    key = key_of(own, "ssh")
    is_done = threading.Event()

    def change_it():
        priority = 90
        while not is_done.is_set():
            priority = 90 if priority == 95 else 95
            own.load(POLICY.replace("priority: 90", f"priority: {priority}"))
    changer = threading.Thread(target=change_it)
    changer.start()
    try:
        standings = [json.loads(own.vorn("explain", "v4", 1, key, "--json").out)["standing"]
                     for _ in range(60)]
    finally:
        is_done.set()
        changer.join()
    assert "missing" not in standings


def test_a_real_chain_of_three_is_told_to_its_root(own):
    own.start_agent().start_hardware().settle()
    own.hardware.ask("pause")
    wait_until(lambda: own.agent.ask("status")["suspended"], "the pause to be known")
    changed = POLICY.replace("{name: ssh, counter: yes}", "{name: ssh, disposition: drop}")
    with_new = changed + ("  - {name: fresh, action: ssh, priority: 50, protocol: tcp, "
                          "destination-port: 2222}\n")
    own.load(with_new)
    own.load(with_new.replace("priority: 50", "priority: 51"))
    story = own.vorn.json("explain", "explain", "v6", 1, "fresh", code=1)
    assert story["standing"] == "waits"
    causes = [link["waitsFor"]["cause"] for link in story["chain"]]
    assert causes == ["earlierChange", "dependency", "pause"], causes
    text = own.vorn("explain", "v6", 1, "fresh")
    assert text.lines[0] == "waits for: " + story["root"]
    own.hardware.ask("resume")
    own.settle()
    assert own.vorn("explain", "v6", 1, "fresh").code == 0


def test_a_name_longer_than_its_field_is_found(own):
    own.policy.write_text(POLICY.replace("name: ssh", "name: a-name-that-is-too-long")
                          .replace("action: ssh", "action: a-name-that-is-too-long"),
                          encoding="utf-8")
    own.start_agent().start_hardware().settle()
    name = "a-name-that-is-too-long"
    assert own.vorn("explain", "v4", 1, name).code == 0
    assert own.vorn("explain", "action", 1, name).code == 0
    assert own.vorn("show", "entry", name).code == 0
    assert own.vorn.json("show-entries", "show", "entries", "--action", name)["entries"]
    assert own.vorn.json("show-entries", "show", "entries", "--match", f"label={name}")["entries"]


def test_a_unit_that_is_nowhere_is_wrong_use(live):
    for words in (["explain", "v4", 99, "ssh"], ["show", "entries", "--unit", 99],
                  ["show", "resources", "--unit", 99], ["log", "--unit", 99],
                  ["check", "--unit", 99]):
        result = live.vorn(*words)
        assert result.code == 2, words
        assert "there is no unit 99 here; units are 1, 2" in result.err


def test_control_characters_never_reach_who_reads(fake, dead):
    staged = {"operation": "write", "entryVersion": "3.1", "failed": True,
              "reason": "\x1b]0;evil\x07\x9b2J", "entry": None}
    fake("agent.sock", {"explain": {**explanation(change(KEY)), "changes": [], "chain": [],
                                    "staged": staged}})
    for colour in ("always", "never"):
        out = dead.vorn("explain", "v4", 1, KEY, "--color", colour).out
        assert "?]0;evil??2J" in out
        assert "\x07" not in out and "\x9b" not in out and "\x1b]" not in out
