"""Why an entry is, or is not, in hardware."""

import pytest

import vorn
from conftest import OTHER_POLICY, wait_until


def test_an_explanation_prints_what_the_command_line_prints(live, system):
    for table, unit, name in (("v4", 1, "ssh"), ("action", 2, "bgp"), ("v4", 1, "0000002a.1")):
        story = system.table(table).explain(unit, name)
        assert str(story) + "\n" == live.vorn("explain", table, unit, name).out


def test_its_document_is_that_of_the_command_line(left):
    with vorn.attach(left.state) as system:
        story = system.table("v4").explain(1, "ssh")
        told = left.vorn.json("explain", "explain", "v4", 1, "ssh", code=1)
        assert {"source": "files", **story.to_dict()} == told
        assert (story.standing, story.good, story.root) == ("unconfirmed", False, None)
        assert story.committed == system.table("v4").find(1, "ssh")
        assert (story.table, story.unit, story.name) == ("v4", 1, "ssh")
        assert story.key == story.committed.key
        assert story.verdict in repr(story)


def test_what_waits_names_its_root_and_is_listed_as_staged(own):
    own.start_agent().start_hardware().settle()
    with vorn.attach(own.state) as system:
        own.hardware.ask("pause")
        wait_until(lambda: own.agent.ask("status")["suspended"], "the pause to be known")
        own.load(OTHER_POLICY)
        story = system.table("v4").explain(1, "new")
        assert story.standing == "waits" and not story.good and story.committed is None
        assert story.verdict == "waits for: " + story.root
        staged = system.staged("v4", 1)
        assert story.key in {change["key"] for change in staged}
        assert system.acknowledgements().pause_requested
        own.hardware.ask("resume")
        own.settle()
        assert system.table("v4").explain(1, "new").good


def test_a_process_that_starts_later_is_asked(own):
    own.start_agent()
    with vorn.attach(own.state) as system:
        assert system.table("v4").explain(1, "ssh").standing == "underWay"
        own.start_hardware().settle()
        assert system.table("v4").explain(1, "ssh").standing == "inHardware"


def test_a_value_that_has_rotted_is_a_damage_of_its_story(dead):
    with vorn.attach(dead.state) as system:
        key = system.table("v4").find(1, "ssh").key
        file = next(dead.state.glob("asic/*/tableConfig/PolicyCpuV4TcamEntry/1.table"))
        content = bytearray(file.read_bytes())
        content[content.index(b"ssh\0")] ^= 1
        file.write_bytes(content)
        with pytest.warns(vorn.DamageWarning):
            story = system.table("v4").explain(1, key)
        assert story.standing == "rotten" and len(story.damages) == 1
