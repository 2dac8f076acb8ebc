"""Recordings of real agents: their events, what became of each change, and the picture of it."""

import datetime
import itertools
import os
import re
import struct
import subprocess
import sys
import time
import warnings
import zlib

import pandas
import pytest

import vorn
from conftest import SOURCE

LATENCY = SOURCE / "examples" / "python" / "latency.py"


def command_line_text(build, path):
    return subprocess.run([os.path.join(build, "vorn"), "replay", "--text", path], text=True,
                          capture_output=True, check=True, timeout=60).stdout


def entries_of(text):
    """(process, time as it stands there, lines) of each event of a text."""
    run, seconds, found = 0, "0", []
    for line in text.splitlines():
        if line.startswith("  ") and line.split()[0].isdigit():
            found[-1][2].append(line)
        elif line.strip().startswith("@ "):
            seconds = line.split()[1]
        else:
            if line.startswith("start"):
                run, seconds = run + 1, "0"
            found.append((run, seconds, [line.strip()]))
    return found


def test_the_text_is_that_of_the_command_line(build, recorded):
    recording = vorn.Recording(recorded)
    assert recording.text() == command_line_text(build, recorded)
    assert recording.damage is None
    assert repr(recording) == f"<vorn.Recording {recorded}, {len(recording)} events>"


def test_events_are_the_lines_of_that_text_at_their_times(build, recorded):
    told = entries_of(command_line_text(build, recorded))
    events = list(vorn.Recording(str(recorded)))
    assert len(events) == len(told) == len(vorn.Recording(recorded))
    assert [(e.run, e.time, str(e).split("\n")) for e in events] == [
        (run, float(seconds), lines) for run, seconds, lines in told]
    assert [e.event for e in events] == list(range(1, len(events) + 1))


def test_columns_are_what_the_lines_say(recorded):
    seen = set()
    for event in vorn.Recording(recorded):
        line, kind = str(event), event.kind
        seen.add(kind)
        if kind in ("write", "remove"):
            what = f"{kind} #{event.number} {event.table} {event.unit} {event.key}"
            assert (line + " ").startswith(what + " ")
        elif kind == "state":
            version = f" version={event.version}" if event.version else ""
            assert line == f"= #{event.number} {event.state}{version}"
        elif kind == "resource":
            assert line.startswith(f"= {event.table} {event.key} {event.state}")
        elif kind == "file":
            assert line.split("\n")[0] == "file {path} size={size}".format(**event.fields)
        else:
            assert kind in ("start", "mounted", "turn", "look", "own", "sweep", "answer", "answered", "end")
            assert (event.unit, event.state, event.version) == (None,) * 3
            assert (event.key is not None) == (kind == "own")
    assert {"start", "file", "mounted", "write", "remove", "state", "look", "end"} <= seen


def test_a_look_says_whether_it_names_all_tables_or_those_that_moved(recorded):
    looks = [event.fields for event in vorn.Recording(recorded) if event.kind == "look"]
    assert "moved" not in looks[0]
    assert any(look.get("moved") is True for look in looks)


def test_fields_are_what_else_a_line_has(recorded):
    events = list(vorn.Recording(recorded))
    assert events[0].fields["units"] == "1,2" and events[0].fields["capacity"] == "1024"
    for event in events:
        if event.kind != "file":
            words = dict(re.findall(r"([\w-]+)=(\S+)", str(event)))
            assert {n: v for n, v in event.fields.items() if v is not True} == {
                **words, **({"version": str(event.version)} if event.version else {})}
            assert event.fields.get("handler", False) is (" handler" in str(event))


def test_wall_times_are_those_of_the_starts(build, recorded):
    starts = [int(time_ns) / 1e9 for time_ns in
              re.findall(r"^start .* time=(\d+)$", command_line_text(build, recorded), re.MULTILINE)]
    assert len(starts) == 2 and time.time() - 3600 < starts[0] < starts[1] < time.time()
    for event in vorn.Recording(recorded):
        assert event.wall_time.tzinfo is datetime.timezone.utc
        assert event.wall_time.timestamp() == pytest.approx(
            starts[event.run - 1] + event.time, rel=0, abs=5e-6)


def test_events_are_rows_that_are_compared_and_make_a_frame(recorded):
    recording = vorn.Recording(recorded)
    first, second = itertools.islice(recording, 2)
    assert first < second and first != second
    assert first == next(iter(vorn.Recording(recorded))) and hash(first) == hash(
        next(iter(recording)))
    assert dict(first) == first.to_dict() and first["kind"] == "start" and len(first) == 11
    frame = pandas.DataFrame(recording)
    assert list(frame.columns) == list(first.keys()) and len(frame) == len(recording)
    assert frame.equals(pandas.DataFrame(event.to_dict() for event in recording))
    assert repr(first).startswith("<vorn.RecordedEvent 1: start units=1,2 ")
    with pytest.raises(KeyError):
        first["nothing"]


def test_the_walk_is_lazy_and_outlives_its_recording(recorded):
    walk = iter(vorn.Recording(recorded))
    assert next(walk).kind == "start" and iter(walk) is walk
    assert sum(1 for _ in walk) == len(vorn.Recording(recorded)) - 1


def test_changes_are_put_together_of_their_events(recorded):
    """Once more, in the simplest way: by what the events of each number say."""
    recording = vorn.Recording(recorded)
    told = {}
    for event in recording:
        if event.kind in ("write", "remove", "remove-all"):
            told[event.run, event.number] = {"made": event, "created": event.time}
        elif event.kind == "own":
            told[event.run, event.number] = {"made": event, "created": None}
        elif event.kind == "state":
            told[event.run, event.number].update({event.state: event.time, "last": event})
    changes = recording.changes()
    assert [(c.run, c.number) for c in changes] == list(told)
    assert len({c.run for c in changes}) == 2
    for change, about in zip(changes, told.values()):
        made, last = about["made"], about.get("last")
        assert (change.table, change.unit, change.key, change.operation, change.wall_time) == (
            made.table, made.unit, made.key, made.kind, made.wall_time)
        assert (change.state, change.version) == (
            (last.state, last.version) if last else ("created", None))
        assert (change.staged, change.committed, change.answered) == (
            about["created"], about.get("written"), about.get("complete"))
        assert change.state != "complete" or change.acknowledgement_latency == pytest.approx(
            change.answered - change.committed, abs=1e-9)
        assert None in (change.staged, change.committed) or change.commit_latency == pytest.approx(
            change.committed - change.staged, abs=1e-9)
    frame = pandas.DataFrame(changes)
    assert list(frame.columns) == list(changes[0].keys()) and len(frame) == len(changes)
    assert sorted(changes, reverse=True) == changes[::-1] and changes == recording.changes()
    assert len(set(changes)) == len(changes)


def test_what_a_kill_cut_short_waits_and_the_next_process_counts_anew(recorded):
    changes = vorn.Recording(recorded).changes()
    waiting = [c for c in changes if c.answered is None and c.operation != "own"]
    # Of the first process only: hardware was paused when it was killed.
    assert waiting and {c.run for c in waiting} == {1}
    assert {c.state for c in waiting} <= {"created", "written"}
    assert all(c.acknowledgement_latency is None for c in waiting)
    second = [c for c in changes if c.run == 2]
    assert [c.number for c in second] == list(range(1, len(second) + 1))
    own = [c for c in second if c.operation == "own"]  # what the first had committed
    assert own and {(c.state, c.staged, c.commit_latency) for c in own} == {("written", None, None)}


SCENARIO = """\
# changes of all ends
write #1 action 1 2a.0 name=none
start units=1 counters=1 policers=1 time=1000000000000000000
@ 1
write #1 action 1 2a.0 name=a
remove-all #2 v4 1
write #3 v4 1 2a.1 label=b after=#1
write #4 v6 1 2a.1 label=c
remove #6 v6 1 2a.2
sweep counter
@ 1.5
= #1 written version=7
= #3 failed
= #6 written version=9
= own #5 action ?
= #5 written version=8
@ 2.25
= #1 complete version=7
= #2 complete
= #6 failed version=9
= counter 2a/1 complete update=3 index=4
= #5 complete version=8
start units=1 counters=1 policers=1
= #4 complete version=10
"""


@pytest.fixture
def scenario(tmp_path):
    path = tmp_path / "scenario.txt"
    path.write_text(SCENARIO, encoding="utf-8")
    return path


def test_each_end_of_a_change_is_told_apart(scenario):
    before, *rest = vorn.Recording(scenario).changes()
    assert (before.run, before.state, before.wall_time) == (0, "created", None)
    assert [(c.operation, c.state, c.version, c.staged, c.committed, c.answered,
             c.commit_latency, c.acknowledgement_latency) for c in rest] == [
        ("write", "complete", 7, 1.0, 1.5, 2.25, 0.5, 0.75),
        ("remove-all", "complete", None, 1.0, None, 2.25, None, None),
        ("write", "failed", None, 1.0, None, 1.5, None, None),
        ("write", "created", None, 1.0, None, None, None, None),
        ("remove", "failed", 9, 1.0, 1.5, 2.25, 0.5, None),
        ("own", "complete", 8, None, 1.5, 2.25, None, 0.75)]
    assert (rest[1].key, rest[5].key, rest[5].unit) == (None, None, None)
    epoch = datetime.datetime.fromtimestamp(10**9, datetime.timezone.utc)
    assert rest[5].wall_time == epoch + datetime.timedelta(seconds=1.5)
    assert str(rest[0]) == "run 1 #1 action write unit 1 key 0000002a.0: complete, version 7"


def test_a_text_is_a_recording_too(scenario):
    events = list(vorn.Recording(scenario))
    assert (events[0].kind, events[0].fields) == ("note", {"text": "changes of all ends"})
    sweep = next(event for event in events if event.kind == "sweep")
    assert (sweep.table, sweep.key, sweep.fields) == ("counter", None, {})
    index = next(event for event in events if event.kind == "resource")
    assert (index.key, index.state, index.fields) == (
        "0000002a/1", "complete", {"update": "3", "index": "4"})
    assert [e.number for e in events if e.kind == "own"] == [5]


def test_damage_ends_a_recording_with_a_warning(recorded, tmp_path):
    whole = list(vorn.Recording(recorded))
    image = bytearray(recorded.read_bytes())
    body = 1 << 20
    image[(body + len(image)) // 2] ^= 1
    path = tmp_path / "rotten.rec"
    path.write_bytes(image)
    with pytest.warns(vorn.DamageWarning, match=f"^rotten: {path}: event [0-9]+ at byte"):
        recording = vorn.Recording(path)
    assert re.fullmatch(rf"event {len(recording) + 1} at byte \d+: .*", recording.damage)
    assert 0 < len(recording) < len(whole) and list(recording) == whole[:len(recording)]
    assert repr(recording).endswith(" events, damaged>")
    with warnings.catch_warnings():
        warnings.simplefilter("error", vorn.DamageWarning)
        with pytest.raises(vorn.DamageWarning):
            vorn.Recording(path)


def test_what_is_no_recording_is_said_to_be_none(tmp_path):
    path = tmp_path / "none"
    path.write_bytes(b"\x89PNG \xff\x1b nothing\n")
    with pytest.raises(vorn.QuestionError) as refused:
        vorn.Recording(path)
    line = str(refused.value)
    assert line.startswith(f"{path}: no recording, nor the text of one: line 1: no command ")
    assert line.isprintable()
    path.write_text("start units=1 counters=1 policers=1\nwrite #1 v4\n", encoding="utf-8")
    with pytest.raises(ValueError, match="line 2: a unit is missing"):
        vorn.Recording(path)


def test_a_file_that_cannot_be_read_is_an_error_of_the_system(tmp_path):
    missing = tmp_path / "missing"
    with pytest.raises(OSError, match="open recording: No such file or directory") as failed:
        vorn.Recording(missing)
    assert isinstance(failed.value, vorn.FileError) and isinstance(failed.value, vorn.Error)
    assert (failed.value.errno, failed.value.filename) == (2, str(missing))
    with pytest.raises(vorn.FileError, match=f"no regular file: .*{re.escape(str(tmp_path))}"):
        vorn.Recording(tmp_path)
    with pytest.raises(TypeError):
        vorn.Recording(7)


def test_a_recording_is_read_while_it_grows(own):
    own.start_agent("--record", own.directory / "growing.rec")
    before = vorn.Recording(own.directory / "growing.rec")
    own.start_hardware().settle()
    after = vorn.Recording(own.directory / "growing.rec")
    assert before.damage is None and after.damage is None
    assert list(after)[:len(before)] == list(before) and len(before) < len(after)
    assert {change.state for change in after.changes()} == {"complete"}


def pixels(path):
    """Width, height and the distinct bytes of a PNG's lines."""
    image = path.read_bytes()
    assert image[:8] == b"\x89PNG\r\n\x1a\n"
    at, data, size = 8, b"", None
    while at < len(image):
        length, kind = struct.unpack(">I4s", image[at:at + 8])
        body = image[at + 8:at + 8 + length]
        assert struct.unpack(">I", image[at + 8 + length:at + 12 + length]) == (
            zlib.crc32(kind + body),)
        if kind == b"IHDR":
            size = struct.unpack(">II", body[:8])
        elif kind == b"IDAT":
            data += body
        at += 12 + length
    assert kind == b"IEND"
    return (*size, zlib.decompress(data))


@pytest.fixture
def latency(environment, tmp_path):
    """Runs the example, with its caches in the test's own directory."""
    def run(*words):
        return subprocess.run([sys.executable, LATENCY, *map(str, words)], capture_output=True,
                              text=True, check=False, timeout=120,
                              env={**environment, "MPLCONFIGDIR": str(tmp_path / "matplotlib")})
    return run


def test_the_example_draws_the_latencies(latency, recorded, tmp_path):
    png = tmp_path / "latency.png"
    done = latency(recorded, png)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    width, height, data = pixels(png)
    assert (width, height) == (1100, 480)
    assert len(set(data)) > 64  # a blank picture has one colour


def test_the_example_draws_what_took_no_time_and_has_no_wall_time(latency, scenario, tmp_path):
    scenario.write_text(re.sub(r" time=\d+|(?m:^@ .*\n)", "", SCENARIO), encoding="utf-8")
    done = latency(scenario, tmp_path / "latency.png")
    assert (done.returncode, done.stderr) == (0, "")
    pixels(tmp_path / "latency.png")


def test_the_example_says_in_a_line_why_it_draws_nothing(latency, scenario, tmp_path):
    scenario.write_text(SCENARIO[:SCENARIO.index("@ 1.5")], encoding="utf-8")
    png = tmp_path / "latency.png"
    done = latency(scenario, png)
    assert (done.returncode, done.stderr) == (
        1, f"latency: {scenario}: no change was acknowledged\n")
    done = latency(tmp_path / "missing", png)
    assert done.returncode == 1 and done.stderr.startswith("latency: [Errno 2] open recording: No such")
    assert done.stderr.count("\n") == 1
    assert latency(scenario).returncode == 2
    assert not png.exists()
