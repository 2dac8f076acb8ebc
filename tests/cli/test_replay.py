"""What an agent records, and `vorn replay` of it."""

import itertools
import json
import os
import re
import resource
import shutil
import signal
import subprocess

import pytest

from conftest import OTHER_POLICY, POLICY, SOURCE, conforms, wait_until

SCENARIOS = sorted((SOURCE / "tests" / "scenarios").glob("*.scn"))

WRITE = """# One entry.
start units=1 counters=2 policers=2 capacity=16
= mounted action=0 v4=0 v6=0
write #1 v4 1 1.1 label=one priority=1 action=1.0 handler
turn
= #1 written version=1
look map=1 log=this consumed=1 v4=1
= #1 complete version=1
end
"""


@pytest.fixture(scope="module")
def recorded(build, tmp_path_factory):
    """A system that recorded a whole life: loads, moves, kills of both, restarts, an end."""
    from live_systems import System
    system = System(build, tmp_path_factory.mktemp("recorded"))
    system.recording = system.directory / "agent.rec"
    options = ("--record", system.recording)
    system.start_agent(*options).start_hardware().settle()
    system.load(OTHER_POLICY)
    system.settle()
    keys = [row["request"] for row in json.loads(
        system.vorn("show", "resources", "--json").out)["resources"] if row["pool"] == "counter"]
    for command in ("move", "fail", "restore"):
        system.agent.ask(command, table="counter", key=keys[0])
    system.settle()
    system.hardware.kill()
    system.load(POLICY)
    system.agent.kill()
    system.start_agent(*options).start_hardware().settle()
    system.load(OTHER_POLICY)
    system.agent.kill()
    shutil.rmtree(system.state / "hwside")
    system.start_agent(*options)
    system.hardware.kill()
    system.start_hardware().settle()
    assert system.agent.end() == 0
    yield system
    system.end()


def rewritten(directory, text, name="a.scn"):
    file = directory / name
    file.write_text(text, encoding="utf-8")
    return file


def test_what_was_recorded_through_kills_and_restarts_comes_out_again(recorded):
    result = recorded.vorn.json("replay", "replay", recorded.recording)
    assert result["difference"] is None and result["unreadable"] is None
    assert result["starts"] == 3 and result["changes"] > 20
    text = recorded.vorn("replay", recorded.recording)
    assert text.code == 0, text.out + text.err
    assert text.lines[0] == (f"as recorded: {result['events']} events, 3 starts, "
                             f"{result['changes']} changes")


def test_a_recording_is_text_and_the_same_recording_again(recorded, tmp_path):
    text = recorded.vorn("replay", "--text", recorded.recording)
    assert text.code == 0 and text.out.startswith("start units=1,2 ")
    for kind in ("write", "remove", "turn", "look", "move counter", "sweep", "end", "= own",
                 "= #1 complete", "= counter", "answer #"):
        assert re.search(rf"^ *{re.escape(kind)}", text.out, re.MULTILINE), kind
    file = rewritten(tmp_path, text.out)
    assert recorded.vorn("replay", file).code == 0
    assert recorded.vorn("replay", file, "--binary", tmp_path / "again.rec").code == 0
    assert (tmp_path / "again.rec").read_bytes() == recorded.recording.read_bytes()


def test_an_agent_at_rest_moves_what_it_has_told_behind_the_front_of_its_recording(own):
    recording = own.directory / "live.rec"
    own.start_agent("--record", recording).start_hardware().settle()
    front = 1 << 20
    policies = itertools.cycle((OTHER_POLICY, POLICY))

    def has_moved():
        own.load(next(policies))
        own.settle()
        return recording.stat().st_size > front
    wait_until(has_moved, "frames to be moved")
    assert recording.stat().st_size < front + front // 2  # the front has never been full


def test_a_recording_of_a_running_agent_is_replayed_as_far_as_it_goes(own):
    recording = own.directory / "live.rec"
    own.start_agent("--record", recording).start_hardware().settle()
    result = own.vorn("replay", recording)
    assert result.code == 0, result.out
    assert own.load(OTHER_POLICY)["written"] > 0


def test_the_files_of_a_replay_are_kept_and_shown(recorded, tmp_path):
    kept = tmp_path / "kept"
    assert recorded.vorn("replay", recorded.recording, "--keep", kept).code == 0
    shown = recorded.vorn("show", "entries", "--json", state=str(kept))
    real = recorded.vorn("show", "entries", "--json")
    assert json.loads(shown.out)["entries"] == json.loads(real.out)["entries"] != []
    refused = recorded.vorn("replay", recorded.recording, "--keep", kept)
    assert refused.code == 2 and "new or empty" in refused.err


def test_nothing_of_a_replay_stays(recorded):
    before = set(os.listdir("/dev/shm"))
    assert recorded.vorn("replay", recorded.recording).code == 0
    assert {name for name in os.listdir("/dev/shm") if name.startswith("vorn-replay-")} <= before


def test_a_difference_is_the_first_one_with_its_place(recorded, tmp_path):
    text = recorded.vorn("replay", "--text", recorded.recording).out
    wrong = re.sub(r"(= #\d+ written) version=3$", r"\1 version=33", text, count=1,
                   flags=re.MULTILINE)
    file = rewritten(tmp_path, wrong)
    result = recorded.vorn("replay", file)
    assert result.code == 1
    assert re.match(r"difference at event \d+, \d+\.\d{6} s after the start", result.lines[0])
    assert result.lines[1].startswith("  input:     ")
    assert re.match(r"  recorded:  = #\d+ written version=33$", result.lines[2])
    assert re.match(r"  replayed:  = #\d+ written version=3$", result.lines[3])
    document = recorded.vorn.json("replay", "replay", file, code=1)
    assert document["difference"]["recorded"].endswith("version=33")


def test_a_replay_stops_at_a_version(dead, tmp_path):
    file = rewritten(tmp_path, WRITE)
    assert dead.vorn("replay", file, "--to", "v4:1").lines == [
        "as recorded so far: 6 events, 1 starts, 1 changes",
        "logs stand at: action 0, v4 1, v6 0"]
    assert dead.vorn("replay", file, "--to", "1").lines[0].startswith("as recorded so far")
    assert dead.vorn("replay", file, "--to", "action:1").lines[0].startswith("as recorded: ")
    for wrong in ("v5:1", "x", "v4:", "-1"):
        result = dead.vorn("replay", file, "--to", wrong)
        assert result.code == 2 and len(result.err.splitlines()) == 1, wrong


def test_steps_are_taken_one_by_one(dead, tmp_path):
    file = rewritten(tmp_path, WRITE)
    result = dead.vorn("replay", file, "--step", stdin="\n\n\n\nq\n")
    assert result.lines == [
        "> # One entry.",
        "> start units=1 counters=2 policers=2 capacity=16",
        "  = mounted action=0 v4=0 v6=0",
        "> write #1 v4 1 00000001.00000001 label=one priority=1 action=00000001.0 handler",
        "> turn",
        "  = #1 written version=1",
        "> look map=1 log=this consumed=1 v4=1",
        "as recorded: 6 events, 1 starts, 1 changes",
        "logs stand at: action 0, v4 1, v6 0"]


@pytest.mark.parametrize("scenario", SCENARIOS, ids=lambda path: path.stem)
def test_a_scenario_goes_as_its_file_says(dead, scenario):
    result = dead.vorn("replay", scenario)
    assert result.code == 0, result.out + result.err


def test_an_interrupted_replay_leaves_nothing(dead, tmp_path):
    file = rewritten(tmp_path, WRITE)
    process = subprocess.Popen([dead.vorn.program, "replay", file, "--step"],
                               stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    for _ in range(3):  # the note, the start and its inputs: the files are there
        process.stdin.write("\n")
        process.stdin.flush()
    while "write #1" not in process.stdout.readline():
        pass
    places = [f"/dev/shm/{name}" for name in os.listdir("/dev/shm")
              if name.startswith("vorn-replay-")]
    process.send_signal(signal.SIGINT)
    assert process.wait(timeout=20) == 130
    process.stdin.close()
    process.stdout.close()
    assert len(places) >= 1 and not all(map(os.path.exists, places))


def test_a_scenario_is_brought_up_to_what_comes_out(dead, tmp_path):
    bare = "".join(line + "\n" for line in WRITE.splitlines() if not line.startswith("="))
    file = rewritten(tmp_path, bare)
    assert dead.vorn("replay", file, "--update").code == 0
    assert file.read_text() == WRITE.replace(" 1.1 ", " 00000001.00000001 ").replace(
        "action=1.0", "action=00000001.0")
    assert dead.vorn("replay", file).code == 0
    assert os.listdir(tmp_path).count("a.scn.new") == 0


def test_a_recording_is_not_brought_up_to_anything(recorded):
    before = recorded.recording.read_bytes()
    result = recorded.vorn("replay", recorded.recording, "--update")
    assert result.code == 2 and "--text" in result.err
    assert recorded.recording.read_bytes() == before


def test_a_rotten_recording_is_replayed_up_to_there(recorded, tmp_path):
    whole = bytearray(recorded.recording.read_bytes())
    whole[-3] ^= 1
    file = tmp_path / "rotten.rec"
    file.write_bytes(whole)
    result = recorded.vorn("replay", file)
    assert result.code == 1
    assert result.lines[0].startswith("as recorded: ")
    assert re.match(r"not read: event \d+ at byte \d+: the frame does not verify", result.lines[-1])
    assert recorded.vorn.json("replay", "replay", file, code=1)["unreadable"]
    assert recorded.vorn("replay", "--text", file).code == 1


@pytest.mark.parametrize("content, said", [
    ("turn\n", "event 1: no process has begun"),
    ("start units=1\njump\n", "line 2: no command 'jump'"),
    ("\0\1\2", "line 1: ")])
def test_what_is_no_recording_is_refused_in_one_line(dead, tmp_path, content, said):
    file = rewritten(tmp_path, content)
    result = dead.vorn("replay", file)
    assert result.code == 2
    assert result.err.startswith(f"vorn: {file}: {said}") and result.err.count("\n") == 1


def test_a_file_that_is_not_there_is_said(dead, tmp_path):
    result = dead.vorn("replay", tmp_path / "none")
    assert result.code == 6 and "none: open recording: No such file" in result.err
    (tmp_path / "there").write_text("")
    refused = dead.vorn("replay", SCENARIOS[0], "--binary", tmp_path / "there")
    assert refused.code == 2 and "is there already" in refused.err


def agent_command(system, recording):
    where = system.surroundings
    return [where.program("vorn-agent"), "--policy", system.policy, "--state-dir", system.state,
            "--units", "1", "--plugin", where.program("libVornPolicyCpu.so"),
            "--record", recording]


@pytest.mark.parametrize("content, code, said", [
    (b"no recording, but somebody's notes", 2, "go on with recording: is none"),
    (None, 6, "lock recording: another process writes it")])
def test_an_agent_that_cannot_record_says_so_and_does_not_start(own, build, tmp_path, content, code,
                                                                said):
    from live_systems import System
    recording = own.directory / "a.rec"
    if content is not None:
        recording.write_bytes(content)
    else:
        own.start_agent("--record", recording)
    (tmp_path / "other").mkdir()
    other = System(build, tmp_path / "other")
    result = subprocess.run(list(map(str, agent_command(other, recording))), capture_output=True,
                            text=True, check=False, timeout=60)
    assert result.returncode == code
    assert result.stderr.splitlines()[-1] == f"vorn-agent: {recording}: {said}"
    if content is not None:
        assert recording.read_bytes() == content


def test_a_damaged_recording_is_set_aside(own):
    recording = own.directory / "a.rec"
    own.start_agent("--record", recording).agent.end()
    content = bytearray(recording.read_bytes())
    content[-3] ^= 1
    recording.write_bytes(content)
    own.start_agent("--record", recording)
    aside = own.directory / "a.rec.damaged"
    assert f"the recording was damaged, and is {aside} now" in own.agent.log()
    assert aside.read_bytes() == content
    assert own.vorn("replay", recording).code == 0


def test_a_recording_in_the_state_directory_does_not_hold_itself(own):
    recording = own.state / "a.rec"
    for _ in range(2):
        own.start_agent("--record", recording).agent.end()
    assert "file a.rec" not in own.vorn("replay", "--text", recording).out


def test_an_agent_that_did_not_come_up_spoils_no_recording(own, build, tmp_path):
    """A second agent on the same tables, with a recording of its own; later it is the only one."""
    own.start_agent()
    recording = tmp_path / "late.rec"
    command = list(map(str, agent_command(own, recording)))
    assert subprocess.run(command, capture_output=True, check=False, timeout=60).returncode == 6
    own.agent.end()
    own.start_agent("--record", recording).agent.end()
    result = own.vorn.json("replay", "replay", recording)
    assert result["difference"] is None and result["starts"] == 2


def test_an_agent_goes_on_when_its_recording_cannot(own):
    """A file that may not grow stands for a disk that is full."""
    recording = own.directory / "a.rec"

    own.start_agent("--record", recording).start_hardware().settle()
    resource.prlimit(own.agent.process.pid, resource.RLIMIT_FSIZE, (1 << 20, 1 << 20))
    policies = itertools.cycle([OTHER_POLICY, POLICY])
    # What is behind a megabyte does not fit.
    wait_until(lambda: own.load(next(policies)) and "the recording ends here" in own.agent.log(),
               "the recording to end", 60)
    own.settle()
    assert own.agent.ask("status")["queued"] == 0
    assert own.vorn("replay", recording).code == 0


def test_the_schema_is_met(dead):
    document = json.loads(dead.vorn("replay", SCENARIOS[0], "--json").out)
    conforms(document, "replay")
