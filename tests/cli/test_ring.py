"""The ring trace as a trace of the Common Trace Format, read by the reader that people use."""

import os
import random
import re
import resource
import signal
import subprocess

import bt2
import pytest

from conftest import OTHER_POLICY, POLICY, SOURCE
from ring_file import RingFile, format_at, slot_at

START = 1795349281_000000000


class Trace:
    """What babeltrace2 finds: events as dictionaries, and counts of discarded ones with times."""

    def __init__(self, path):
        self.events, self.discarded = [], []
        self.environment = {}
        for message in bt2.TraceCollectionMessageIterator(str(path)):
            if type(message) is bt2._StreamBeginningMessageConst:
                self.environment = {k: v for k, v in message.stream.trace.environment.items()}
            elif type(message) is bt2._DiscardedEventsMessageConst:
                self.discarded.append((message.count,
                                       message.beginning_default_clock_snapshot.ns_from_origin,
                                       message.end_default_clock_snapshot.ns_from_origin))
            elif type(message) is bt2._EventMessageConst:
                self.events.append(self._values(message))

    @staticmethod
    def _values(message):
        event = message.event
        clock = message.default_clock_snapshot
        assert clock.clock_class.origin_is_unix_epoch and clock.clock_class.frequency == 10**9
        fields = dict(event.payload_field.items())
        return {"name": event.name, "time": clock.ns_from_origin, "class": event.cls.id,
                "sequence": int(event.common_context_field["sequence"]),
                "recorded": int(event.common_context_field["recorded_ns"]),
                "msg": str(fields.pop("msg")),
                "text": str(fields.pop("text")) if "text" in fields else None,
                "numbers": [int(fields[name]) for name in sorted(fields)]}

    def lines(self):
        """As `vorn ring dump` has them."""
        return [f"{e['time'] // 10**9}.{e['time'] % 10**9:09} {e['msg']}" for e in self.events]


def exported(system, directory, *options):
    """The trace and the document that comes with it; the reader's own program likes it too."""
    document = system.vorn.json("ring-export", "ring", "dump", "--ctf", directory, *options)
    assert sorted(os.listdir(directory)) == ["metadata", "stream"]
    read = subprocess.run(["babeltrace2", str(directory)], capture_output=True, check=False,
                          timeout=60)
    assert read.returncode == 0, read.stderr
    trace = Trace(directory)
    assert len(read.stdout.splitlines()) == len(trace.events) == document["messages"]
    assert sum(count for count, _, _ in trace.discarded) == document["discarded"]
    return trace, document


def lines_of(system, *options):
    """The text dump's messages and the slots that it calls rotten."""
    lines = system.vorn.json("ring-dump", "ring", "dump", *options)["lines"]
    rotten = [int(line.split()[2]) for line in lines if line.startswith("? slot ")]
    return lines[:len(lines) - len(rotten)], rotten


@pytest.fixture
def ring(dead, tmp_path):
    """Writes a ring, exports it and compares with the text dump."""
    def export(file):
        file.write(dead.state / "agent.ring")
        trace, document = exported(dead, tmp_path / "trace")
        lines, rotten = lines_of(dead)
        assert (trace.lines(), document["rotten"]) == (lines, rotten)
        return trace, document
    return export


@pytest.mark.parametrize("kind", ["live", "left"])
def test_the_trace_of_an_agent_says_what_the_text_says(request, kind, tmp_path):
    system = request.getfixturevalue(kind)
    trace, document = exported(system, tmp_path / "trace")
    lines, _ = lines_of(system)
    assert trace.lines() == lines and len(lines) == 10
    assert [event["sequence"] for event in trace.events] == list(range(1, len(lines) + 1))
    assert document["discarded"] == 0 and trace.discarded == []
    assert trace.environment["procname"] == "vorn-agent"
    assert trace.environment["ring_file"] == document["file"] == f"{system.state}/agent.ring"
    for event in trace.events:
        assert event["recorded"] == event["time"]
        text = str(trace.environment[f"format_{event['class']}"])
        assert text.format(*event["numbers"]) == event["msg"]
    names = {event["name"] for event in trace.events}
    assert "Restored_entries_for_table_PolicyCpuTcamAction_unitId" in names


def test_the_trace_of_the_agent_before_is_had(own, tmp_path):
    own.start_agent()
    own.agent.kill()
    last, _ = lines_of(own)
    own.start_agent()
    trace, document = exported(own, tmp_path / "trace", "--before")
    assert trace.lines() == last
    assert document["file"].endswith("/agent.ring.before")


def test_a_ring_that_wrapped_counts_what_was_overwritten(ring):
    file = RingFile(8)
    for number in range(20):
        file.record(START + number, "number {}", number)
    trace, document = ring(file)
    assert [event["numbers"] for event in trace.events] == [[n] for n in range(12, 20)]
    assert trace.discarded == [(12, START + 12, START + 12)] and document["discarded"] == 12


def test_an_empty_ring_is_a_trace_without_events(ring):
    trace, document = ring(RingFile(8))
    assert trace.events == [] and document["messages"] == 0


def test_texts_of_any_bytes_come_through(ring):
    formats = ['a "quoted" {}', "back\\slash \\{} \\", "größe {} 漢字", "tab\t new\nline \x7f\x01 {}",
               "*/ }; {} /* // '", "%s %d {} $x", "{}", "{", "", "\\n \\x41 \\101 {}"]
    file = RingFile(32)
    for number, text in enumerate(formats):
        file.record(START + number, text, number)
        file.record(START + number, text, f'"\\\n{number}ü')
    trace, _ = ring(file)
    for number, text in enumerate(formats):
        numbered, worded = trace.events[2 * number:2 * number + 2]
        assert numbered["msg"] == text.replace("{}", str(number), 1)
        assert numbered["numbers"] == [number] and numbered["text"] is None
        assert worded["text"] == f'"\\\n{number}ü' and worded["numbers"] == []
        for event in numbered, worded:
            assert trace.environment[f"format_{event['class']}"] == text
            assert re.fullmatch(r"[A-Za-z0-9_]+", event["name"])


@pytest.mark.parametrize("seed", range(20))
def test_rings_of_any_content_give_traces_that_are_read(dead, tmp_path, seed):
    choose = random.Random(seed)

    def any_bytes(most):
        return bytes(choose.randrange(1, 256) for _ in range(choose.randrange(most)))
    file = RingFile(choose.choice([1, 4, 16]))
    for _ in range(choose.randrange(40)):
        text = choose.choice([any_bytes(20) + choose.choice([b"", b"{}", b"{} {} {} {}"]),
                              *file.formats])
        numbers = [choose.randrange(-2**63, 2**63) for _ in range(choose.randrange(5))]
        time_ns = choose.choice([0, START + choose.randrange(100), 2**63 - 1, 2**64 - 1])
        file.record(time_ns, text, *choose.choice([numbers, [any_bytes(40)]]))
    for _ in range(choose.randrange(3)):
        file.rot(choose.randrange(format_at(0), len(file.bytes)))
    file.write(dead.state / "agent.ring")
    trace, document = exported(dead, tmp_path / "trace")
    lines, rotten = lines_of(dead)
    assert document["rotten"] == rotten
    assert [f"{e['recorded'] // 10**9}.{e['recorded'] % 10**9:09} {e['msg']}"
            for e in trace.events] == lines


def test_what_is_no_utf8_is_replaced_as_in_json(ring):
    file = RingFile(4)
    file.record(START, b"latin gr\xf6\xdfe {}", b"\xff\xfe")
    file.record(START, "cut {}", "x" * 30 + "ü")
    trace, _ = ring(file)
    assert trace.events[0]["msg"] == "latin gr\ufffd\ufffde \ufffd\ufffd"
    assert trace.events[1]["text"] == "x" * 30 + "\ufffd"


def test_four_negative_numbers_stay_what_they_are(ring):
    numbers = [-1, -2**31, -2**63, -42]
    file = RingFile(4)
    file.record(START, "{} {} {} {}", *numbers)
    file.record(START, "{} {} {} {}", 1, 2)
    trace, _ = ring(file)
    assert [event["numbers"] for event in trace.events] == [numbers, [1, 2]]
    assert trace.events[0]["msg"] == " ".join(map(str, numbers))


def test_rotten_slots_are_told_and_counted_and_are_no_events(ring, dead, tmp_path):
    file = RingFile(8)
    for number in range(6):
        file.record(START + number, "number {}", number)
    file.record(START + 6, "of a format that rots {}", 6)
    file.rot(slot_at(3) + 40)
    file.rot(format_at(2) + 5)
    trace, document = ring(file)
    assert document["rotten"] == [3, 6]
    assert [event["sequence"] for event in trace.events] == [1, 2, 3, 5, 6]
    assert trace.discarded == [(1, START + 2, START + 4)]
    assert trace.environment["rotten_slots"] == 2
    told = dead.vorn("ring", "dump", "--ctf", tmp_path / "told")
    assert told.err.splitlines() == ["? slot 3 does not verify", "? slot 6 does not verify"]
    assert told.code == dead.vorn("ring", "dump").code == 0


def test_all_rotten_is_an_empty_trace(ring):
    file = RingFile(2)
    file.record(START, "number {}", 1)
    file.rot(slot_at(0))
    trace, document = ring(file)
    assert trace.events == [] and document["rotten"] == [0]


def test_a_clock_that_was_set_back_gives_a_trace_that_is_read(dead, tmp_path):
    file = RingFile(8)
    for time_ns in (START, START - 5 * 10**9, 2**64 - 1, START + 1):
        file.record(time_ns, "at {}", time_ns % 2**62)
    file.write(dead.state / "agent.ring")
    trace, _ = exported(dead, tmp_path / "trace")
    assert [event["time"] for event in trace.events] == [START, START, START, START + 1]
    assert [event["recorded"] for event in trace.events] == [
        START, START - 5 * 10**9, 2**64 - 1, START + 1]


def test_a_ring_that_is_written_meanwhile_gives_traces_that_are_read(own, tmp_path):
    own.start_agent().start_hardware().settle()
    for number in range(5):
        own.load(OTHER_POLICY if number % 2 == 0 else POLICY)
        exported(own, tmp_path / f"trace{number}")


def test_an_empty_directory_is_taken_also_by_a_link(left, tmp_path):
    (tmp_path / "empty").mkdir()
    (tmp_path / "link").symlink_to(tmp_path / "empty")
    exported(left, tmp_path / "link")
    assert sorted(os.listdir(tmp_path / "empty")) == ["metadata", "stream"]


def made_full(path):
    path.mkdir()
    (path / "mine").touch()


@pytest.mark.parametrize("make, reason, code", [
    (made_full, "is not empty; give a new directory", 2),
    (lambda path: path.touch(), "is no directory; give a new one", 2),
    (lambda path: path.symlink_to("nowhere"), "is no directory; give a new one", 2),
    (lambda path: path.parent.rmdir(), "make directory: No such file or directory", 6),
], ids=["full", "file", "dangling", "no-parent"])
def test_a_place_that_cannot_be_taken_is_refused_in_one_line(left, tmp_path, make, reason, code):
    place = tmp_path / "below" / "trace"
    place.parent.mkdir()
    make(place)
    before = sorted(tmp_path.rglob("*"))
    refused = left.vorn("ring", "dump", "--ctf", place)
    assert (refused.code, refused.out, refused.err) == (code, "", f"vorn: {place}: {reason}\n")
    assert sorted(tmp_path.rglob("*")) == before
    failure = left.vorn.json("error", "ring", "dump", "--ctf", place, code=code)
    assert failure["exit"] == code


def test_wrong_use_is_told(left, dead, tmp_path):
    assert left.vorn("ring", "dump", "--ctf").code == 2
    assert "a directory is needed" in left.vorn("ring", "dump", "--ctf", "").err
    (dead.state / "agent.ring").unlink()
    assert dead.vorn("ring", "dump", "--ctf", tmp_path / "trace").code == 3
    (dead.state / "agent.ring").write_text("no ring", encoding="utf-8")
    assert "not a ring trace" in dead.vorn("ring", "dump", "--ctf", tmp_path / "trace").err
    assert not (tmp_path / "trace").exists()


@pytest.mark.parametrize("is_there", [False, True], ids=["new", "empty"])
def test_an_export_that_fails_leaves_nothing(left, tmp_path, is_there):
    place = tmp_path / "trace"
    if is_there:
        place.mkdir()

    def no_room():
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (1000, 1000))
    done = subprocess.run([left.vorn.program, "--state-dir", str(left.state), "ring", "dump",
                           "--ctf", str(place)], capture_output=True, text=True, check=False,
                          preexec_fn=no_room, timeout=60)
    assert done.returncode == 6
    assert done.stderr == f"vorn: {place}/stream.part: write file: File too large\n"
    assert list(tmp_path.rglob("*")) == ([place] if is_there else [])


def test_completion_and_help_know_the_option(left):
    assert "--ctf" in left.vorn("__complete", "ring", "dump", "--").lines
    assert left.vorn("__complete", "ring", "dump", "--ctf", "").lines == []
    assert "--ctf DIR" in left.vorn("ring", "dump", "--help").out
    for document in ("operations.md", "man/vorn.1"):
        text = (SOURCE / "docs" / document).read_text(encoding="utf-8").replace("\\", "")
        assert "--ctf" in text, document
