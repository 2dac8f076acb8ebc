"""What the documents say one can type, one can type."""

import json
import os
import re
import subprocess

import pytest

from conftest import SOURCE

DOCUMENT = (SOURCE / "docs" / "operations.md").read_text(encoding="utf-8")
INSTALLING = (SOURCE / "docs" / "installing.md").read_text(encoding="utf-8")


def commands():
    """The commands of the documents: the words before the first that is no name of a command."""
    lines = re.findall(r"^    (?:\$ )?vorn (.+)$", DOCUMENT + INSTALLING, re.MULTILINE)
    for line in lines + re.findall(r"`vorn (.+?)`", INSTALLING):
        for part in line.split("; "):
            words = part.removeprefix("vorn ").split()
            names = []
            for word in words:
                if not re.fullmatch(r"[a-z][a-z-]*", word):
                    break
                names.append(word)
            if not names:
                continue
            # Two words are the most that a command has; what follows are its arguments.
            yield tuple(names[:2] if names[0] in ("show", "policy", "ring", "trace", "resource")
                        else names[:1])


@pytest.mark.parametrize("words", sorted(set(commands())), ids=" ".join)
def test_a_command_of_the_document_is_there(left, words):
    result = left.vorn(*words, "--help")
    assert result.code == 0, result.err


def test_ten_questions_are_answered():
    assert [int(n) for n in re.findall(r"^## (\d+)\. ", DOCUMENT, re.MULTILINE)] == \
        list(range(1, 11))


def test_the_exit_codes_are_those_of_the_help(left):
    listed = re.findall(r"^  (\d)  ", left.vorn("--help").out, re.MULTILINE)
    assert re.findall(r"^\| (\d) \|", DOCUMENT, re.MULTILINE) == listed


def exit_codes(text, pattern):
    return sorted(set(map(int, re.findall(pattern, text, re.MULTILINE))))


@pytest.mark.parametrize("program", ["vorn-agent", "vorn-hwd"])
def test_the_manual_of_a_service_names_options_and_exit_codes_of_its_help(build, program):
    help_text = subprocess.run([os.path.join(build, program), "--help"], capture_output=True,
                               text=True, check=True, timeout=60).stdout
    manual = (SOURCE / "docs" / "man" / (program + ".8")).read_text(encoding="utf-8")
    options = {word.replace("\\-", "-") for word in re.findall(r"\\-\\-[a-z\\-]+", manual)}
    assert options <= set(re.findall(r"--[a-z-]+", help_text))
    listed = help_text[re.search("Exit (status|codes):", help_text).end():]
    assert exit_codes(manual, r"^\.B (\d)$") == exit_codes(listed, r"\b(\d) [a-z]")


@pytest.mark.parametrize("unit", ["vorn-agent", "vorn-hwd"])
def test_a_unit_does_not_retry_what_its_manual_calls_an_error_of_use(unit):
    """Wrong options at the least; nothing that the program does not end with."""
    text = (SOURCE / "packaging" / "systemd" / (unit + ".service.in")).read_text(encoding="utf-8")
    final = set(re.search(r"^RestartPreventExitStatus=(.*)$", text, re.MULTILINE)[1].split())
    manual = (SOURCE / "docs" / "man" / (unit + ".8")).read_text(encoding="utf-8")
    assert "2" in final
    assert final <= set(re.findall(r"^\.B (\d)$", manual, re.MULTILINE))


def test_the_policy_of_the_package_drops_and_limits_nothing(build):
    entries = subprocess.run([os.path.join(build, "vorn-agent"), "--check", "--policy",
                              str(SOURCE / "packaging" / "policy.yaml")], capture_output=True,
                             text=True, check=True, timeout=60).stdout
    actions = json.loads(entries)["actions"]
    assert actions and all(action["disposition"] == "permit" for action in actions)
    assert not any(action["policed"] for action in actions)
