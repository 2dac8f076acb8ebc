"""Commands that ask processes for something, and those that put all together."""

import json
import os
import re
import signal
import subprocess
import tarfile

import pytest

from conftest import OTHER_POLICY, POLICY, SOURCE, conforms, wait_until

WITHOUT_AGENT = [["metrics"], ["trace", "show"], ["trace", "set", "x"], ["trace", "tail"],
                 ["resource", "move", "counter", "1/1"]]


@pytest.mark.parametrize("words", WITHOUT_AGENT)
def test_without_an_agent_they_end_with_four(left, words):
    assert left.vorn(*words).code == 4


def test_metrics_are_printed_as_they_come(fake, dead):
    peer = fake("agent.sock", {"metrics": lambda r: {"text": f"# {r['format']}\n"}})
    assert dead.vorn("metrics").out == "# openmetrics\n"
    assert dead.vorn("metrics", "--prometheus").out == "# prometheus\n"
    assert dead.vorn.json("metrics", "metrics")["format"] == "openmetrics"
    assert len(peer.asked) == 3


def test_a_trace_filter_is_set_and_shown(fake, dead):
    peer = fake("agent.sock", {"traceFilter": lambda r: {"filter": r.get("filter", "Group*/1"),
                                                         "handles": ["GroupResolver"]}})
    assert dead.vorn("trace", "set", "Policy*/1-3").lines == ["filter: Policy*/1-3"]
    assert "GroupResolver" in dead.vorn("trace", "show").out
    dead.vorn.json("trace-filter", "trace", "show")
    assert peer.asked[0] == {"cmd": "traceFilter", "filter": "Policy*/1-3"}


def test_traces_are_shown_up_to_a_count(fake, dead):
    lines = [{"number": n, "time": 1000.5 + n, "level": 1, "handle": "Group", "text": f"step {n}"}
             for n in range(1, 6)]
    fake("agent.sock", {"traces": {"last": 5, "lost": 0, "lines": lines}})
    shown = dead.vorn("trace", "tail", "--count", 2).lines
    assert [line.split("Group ")[1] for line in shown] == ["step 4", "step 5"]
    for line in dead.vorn("trace", "tail", "--json").lines:
        conforms(json.loads(line), "trace-line")


def test_the_ring_of_a_dead_agent_is_read(dead):
    result = dead.vorn("ring", "dump")
    assert result.code == 0 and result.lines
    assert dead.vorn.json("ring-dump", "ring", "dump")["lines"] == result.lines


def test_a_ring_that_is_not_there_is_said(dead):
    result = dead.vorn("ring", "dump", "--before")
    assert result.code == 3
    assert "agent.ring.before" in result.err


def test_a_policy_is_checked_by_the_agents_program(dead, tmp_path):
    good = dead.vorn.json("policy-check", "policy", "check", dead.policy)
    assert (good["actions"], good["ipv4"], good["ipv6"]) == (3, 4, 2)
    bad = tmp_path / "bad.yaml"
    bad.write_text("actions:\n  - {nix: 1}\n", encoding="utf-8")
    result = dead.vorn("policy", "check", bad)
    assert result.code == 5
    assert "bad.yaml" in result.err
    assert dead.vorn("policy", "check", tmp_path / "missing.yaml").code == 2


def test_a_policy_is_compared_with_the_files_of_a_dead_agent(dead):
    same = dead.vorn.json("policy-diff", "policy", "diff", dead.policy)
    assert (same["source"], same["unchanged"], same["total"]) == ("files", 18, 0)
    dead.policy.write_text(OTHER_POLICY, encoding="utf-8")
    other = dead.vorn.json("policy-diff", "policy", "diff", dead.policy, code=1)
    assert {(c["name"], c["isNew"]) for c in other["write"]} == {("ssh", False), ("new", True)}
    assert {c["name"] for c in other["remove"]} == {"rest"}
    text = dead.vorn("policy", "diff", dead.policy)
    assert text.code == 1
    assert text.lines[0] == "6 to write, 4 to remove, 12 unchanged"
    assert any(line.startswith("~ v4 unit 1") for line in text.lines)


def test_an_agent_without_dry_runs_is_not_asked_for_one(fake, dead):
    peer = fake("agent.sock", {"status": {"pid": 1, "tables": []}, "reload": {}})
    assert dead.vorn("policy", "diff", dead.policy).code == 5
    assert [request["cmd"] for request in peer.asked] == ["status"]


def policy_agent(fake, ended=None):
    diff = {"unchanged": 17, "total": 1, "remove": [],
            "write": [{"table": "PolicyCpuV4TcamEntry", "unit": 1, "key": "0000002a.00000001",
                       "name": "ssh", "isNew": False}]}
    load = {"number": 2, "policy": "p", "written": 1, "removed": 0, "unchanged": 17, "complete": 0,
            "failed": 0, "inProgress": 1, "firstFailure": "", "waiting": ""}
    return fake("agent.sock", {
        "status": {"pid": 1, "tables": [], "startTime": 1.0,
                   "load": {**load, "inProgress": 0, **(ended or {})}},
        "reload": lambda r: diff if r.get("dryRun") else {"load": load}})


def test_a_policy_is_applied_only_when_that_is_wanted(fake, dead):
    peer = policy_agent(fake)
    refused = dead.vorn("policy", "apply", dead.policy)
    assert refused.code == 1 and "nothing was changed" in refused.out
    assert all(r.get("dryRun") for r in peer.asked if r["cmd"] == "reload")
    done = dead.vorn("policy", "apply", dead.policy, "--yes")
    assert done.code == 0 and "1 to write" in done.lines[0]
    assert done.lines[-1] == "applied: 1 written, 0 removed, 17 unchanged, 0 failed, 0 in progress"
    assert {"cmd": "reload", "policy": str(dead.policy)} in peer.asked
    dead.vorn.json("policy-apply", "policy", "apply", dead.policy, "--yes")


def test_a_load_that_does_not_end_is_waited_for_only_so_long(fake, dead):
    policy_agent(fake, {"inProgress": 1})
    late = dead.vorn("policy", "apply", dead.policy, "--yes", "--wait", 0.1)
    assert late.code == 1 and late.lines[-1].endswith("0 failed, 1 in progress")
    assert dead.vorn("policy", "apply", dead.policy, "--yes", "--no-wait").code == 0


def test_a_load_of_which_changes_failed_says_so(fake, dead):
    policy_agent(fake, {"failed": 2, "firstFailure": "action 1.0: no policer is left"})
    result = dead.vorn("policy", "apply", dead.policy, "--yes")
    assert result.code == 1
    assert result.lines[-1] == "failed: action 1.0: no policer is left"


def test_a_policy_cannot_be_applied_without_an_agent(dead):
    assert dead.vorn("policy", "apply", dead.policy, "--yes").code == 4


def test_a_real_agent_tells_and_loads_the_difference(own):
    own.start_agent().start_hardware().settle()
    other = own.directory / "other.yaml"
    other.write_text(OTHER_POLICY, encoding="utf-8")
    told = own.vorn.json("policy-diff", "policy", "diff", other, code=1)
    assert told["source"] == "agent"
    assert (told["unchanged"], len(told["write"]), len(told["remove"])) == (12, 6, 4)
    applied = own.vorn.json("policy-apply", "policy", "apply", other, "--yes")
    assert (applied["load"]["inProgress"], applied["load"]["failed"]) == (0, 0)
    assert own.vorn("policy", "apply", own.policy, "--yes").lines[-1] == (
        "applied: 6 written, 4 removed, 12 unchanged, 0 failed, 0 in progress")
    own.vorn("policy", "apply", other, "--yes")
    assert own.vorn.json("policy-diff", "policy", "diff", other)["total"] == 0


def test_a_resource_is_moved_failed_and_restored(own):
    own.start_agent().start_hardware().settle()

    def rows():
        return own.vorn.json("show-resources", "show", "resources")["resources"]

    def counter():
        return next(r for r in rows() if r["request"] == request and r["state"] != "returning")
    request = next(r["request"] for r in rows() if r["users"] == ["ssh"])
    before = counter()["index"]
    own.vorn.json("resource", "resource", "move", "counter", request)
    own.settle()
    assert counter()["index"] != before
    assert own.vorn("resource", "fail", "counter", request).code == 0
    wait_until(lambda: counter()["state"] == "failed", "the failure to be known")
    assert own.vorn("resource", "restore", "counter", request).code == 0
    assert own.vorn("resource", "move", "counter", "ffffffff/9").code == 5
    assert own.vorn("resource", "move", "nix", request).code == 2
    assert own.vorn("resource", "move", "counter", "nix").code == 2


def test_real_traces_and_metrics_are_of_the_schema(own):
    own.start_agent()
    own.vorn.json("trace-filter", "trace", "set", "*/1-3")
    own.vorn.json("trace-filter", "trace", "show")
    own.load(POLICY.replace("priority: 90", "priority: 95"))
    result = own.vorn("trace", "tail", "--json")
    assert result.code == 0 and result.lines
    for line in result.lines:
        conforms(json.loads(line), "trace-line")
    assert own.vorn.json("metrics", "metrics")["text"].rstrip().endswith("# EOF")


def test_the_newest_traces_are_shown_of_more_than_a_thousand(own):
    own.start_agent().start_hardware().settle()
    own.vorn("trace", "set", "*/0-9")
    while own.agent.ask("traces", newest=1)["last"] < 2500:
        own.load(OTHER_POLICY)
        own.settle()
        own.load(POLICY)
        own.settle()
    own.vorn("trace", "set", "")
    last = own.agent.ask("traces", newest=1)["last"]
    numbers = [json.loads(line)["number"]
               for line in own.vorn("trace", "tail", "--count", 1200, "--json").lines]
    assert numbers == list(range(last - 1199, last + 1))


def test_rules_of_a_filter_are_separated_by_semicolons(fake, dead):
    peer = fake("agent.sock", {"traceFilter": lambda r: {"filter": r["filter"], "handles": []}})
    wrong = dead.vorn("trace", "set", "Group*/1-3,Policy*/1")
    assert wrong.code == 2 and "separate rules by ';'" in wrong.err
    assert peer.asked == []
    assert dead.vorn("trace", "set", "Group*/1-3,8;Policy*/1").code == 0


def test_watch_prints_a_block_a_look(live, left):
    looks = live.vorn("watch", "--count", 2, "--interval", 0.05, "--json").lines
    assert len(looks) == 2
    for look in looks:
        conforms(json.loads(look), "watch")
    text = live.vorn("watch", "--count", 1, "--interval", 0.05).out
    assert "\x1b" not in text and "COMMITS/s" in text
    dead = left.vorn("watch", "--count", 1, "--interval", 0.05)
    assert dead.code == 0 and "the agent does not run" in dead.out
    assert live.vorn("watch", "--interval", 0).code == 2


@pytest.mark.parametrize("kind", ["live", "left"])
def test_a_bundle_holds_what_could_be_had_and_lists_the_rest(request, kind, tmp_path):
    system = request.getfixturevalue(kind)
    file = tmp_path / "bundle.tar.gz"
    document = system.vorn.json("support-bundle", "support-bundle", "-o", file)
    had = {part["file"] for part in document["parts"] if part["had"]}
    missing = {part["file"]: part["reason"] for part in document["parts"] if not part["had"]}
    with tarfile.open(file) as tar:
        names = {name.split("/", 1)[1] for name in tar.getnames() if "/" in name}
        index = json.load(tar.extractfile("vorn-support/index.json"))
    assert names == had | {"index.json"}
    assert {"entries.json", "entries.txt", "check.json", "ring.txt", "agent.ring"} <= had
    assert {program["program"] for program in index["programs"]} >= {"vorn", "vorn-agent"}
    assert "agent.ring.before" in missing
    if kind == "left":
        assert "the agent does not run" in missing["stats.json"]


def complete(system, *words):
    return system.vorn("__complete", *words).lines


def test_completion_knows_commands_tables_units_and_keys(left):
    assert "explain" in complete(left, "ex") and "__complete" not in complete(left, "")
    assert complete(left, "explain", "") == ["action", "v4", "v6"]
    assert complete(left, "explain", "v4", "") == ["1", "2"]
    assert "ssh" in complete(left, "explain", "action", "1", "s")
    assert complete(left, "show", "en") == ["entries", "entry"]
    assert complete(left, "show", "entries", "--ta") == ["--table"]
    assert complete(left, "show", "entries", "--table", "v") == ["v4", "v6"]
    assert complete(left, "resource", "move", "") == ["counter", "policer"]
    assert all("/" in key for key in complete(left, "resource", "move", "counter", ""))
    assert complete(left, "--state-dir", "/nowhere", "explain", "") == ["action", "v4", "v6"]


@pytest.mark.parametrize("shell, word", [("bash", "complete -o default"), ("zsh", "#compdef")])
def test_completion_scripts_are_printed(left, shell, word):
    assert word in left.vorn("completion", shell).out
    assert left.vorn("completion", "fish").code == 2


def test_bash_completes_names_that_need_quotes(left):
    script = left.vorn("completion", "bash").out
    asked = """
COMP_WORDS=(vorn explain v4 1 'bgp'); COMP_CWORD=4; _vorn; printf '%s\\n' "${COMPREPLY[@]}"
COMP_WORDS=(vorn show entries --table = v); COMP_CWORD=5; _vorn; printf '%s\\n' "${COMPREPLY[@]}"
"""
    path = os.path.dirname(left.vorn.program) + ":" + os.environ["PATH"]
    done = subprocess.run(["bash", "-c", script + asked], capture_output=True, text=True,
                          check=True, timeout=60,
                          env={**os.environ, "PATH": path, "VORN_STATE_DIR": str(left.state)})
    lines = done.stdout.splitlines()
    assert lines[-2:] == ["v4", "v6"]
    assert lines[:-2] and all(line.startswith("bgp") for line in lines[:-2])
    assert complete(left, "show", "entries", "--table=v") == ["--table=v4", "--table=v6"]
    assert complete(left, f"--state-dir={left.state}", "explain", "v4", "") == ["1", "2"]


def test_help_and_manual_tell_the_same_exit_codes(left):
    told = left.vorn("--help").out.split("Exit status:")[1]
    manual = (SOURCE / "docs" / "man" / "vorn.1").read_text(encoding="utf-8")
    section = manual.split(".SH EXIT STATUS")[1].split(".SH ")[0]
    codes = dict(re.findall(r"\.TP\n\.B (\d)\n(.*?)(?=\.TP|\Z)", section, re.DOTALL))
    for code, text in re.findall(r"^  (\d)  (.*?)(?=^  \d  |\Z)", told, re.DOTALL | re.MULTILINE):
        def plain(words):
            words = re.sub(r"^\.\w+ ?", "", words, flags=re.MULTILINE).lower()
            return re.findall(r"[a-z]+", words)
        assert plain(text) == plain(codes[code]), code


def test_an_interrupted_bundle_leaves_no_folder(live, tmp_path):
    process = subprocess.Popen([live.vorn.program, "--state-dir", str(live.state),
                                "support-bundle", "-o", str(tmp_path / "x.tar.gz")],
                               env={**os.environ, "TMPDIR": str(tmp_path)},
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    wait_until(lambda: list(tmp_path.glob("vorn-bundle-*")), "the folder to be there")
    process.send_signal(signal.SIGINT)
    assert process.wait(timeout=30) == 6
    assert list(tmp_path.iterdir()) == []


def test_watch_ends_at_once_when_interrupted(live):
    process = subprocess.Popen([live.vorn.program, "--state-dir", str(live.state), "watch",
                                "--interval", "60"], stderr=subprocess.PIPE)
    process.stderr.readline()  # the source, which is told when the signal is caught already
    process.send_signal(signal.SIGINT)
    assert process.wait(timeout=5) == 0
    process.stderr.close()
