"""What the documents say one can type, one can type."""

import re

import pytest

from conftest import SOURCE

DOCUMENT = (SOURCE / "docs" / "operations.md").read_text(encoding="utf-8")


def commands():
    """The commands of the document: the words before the first that is no name of a command."""
    for line in re.findall(r"^    (?:\$ )?vorn (.+)$", DOCUMENT, re.MULTILINE):
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
