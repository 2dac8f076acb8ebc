"""What doc strings, stubs, examples and documents say is so."""

import doctest
import inspect
import re
import subprocess
import sys

import pandas
import pytest

import vorn
from conftest import SOURCE, Surroundings, wait_until

DOCUMENT = (SOURCE / "docs" / "python.md").read_text(encoding="utf-8")
NAMES = [name for name in vorn.__all__ if not name.startswith("__")]


def documented():
    """Objects with a doc string, by name: the module, its classes and functions, their members."""
    yield "vorn", vorn
    for name in NAMES:
        thing = getattr(vorn, name)
        yield name, thing
        for member, value in vars(thing).items() if inspect.isclass(thing) else ():
            if not member.startswith("_"):
                yield f"{name}.{member}", value


EXAMPLES = [(name, thing.__doc__) for name, thing in documented() if ">>>" in (thing.__doc__ or "")]


@pytest.mark.parametrize("name, text", EXAMPLES, ids=[name for name, _ in EXAMPLES])
def test_examples_of_doc_strings_print_what_they_say(system, recorded, monkeypatch, name, text):
    monkeypatch.chdir(recorded.parent)  # which has agent.rec
    names = {"system": system, "vorn": vorn, "pandas": pandas}
    test = doctest.DocTestParser().get_doctest(text, names, name, None, 0)
    runner = doctest.DocTestRunner(optionflags=doctest.ELLIPSIS)
    told = []
    assert runner.run(test, out=told.append).failed == 0, "".join(told)


def test_many_doc_strings_have_examples():
    assert len(EXAMPLES) >= 12


def test_every_public_name_has_a_doc_string():
    assert [name for name, thing in documented() if not (thing.__doc__ or "").strip()] == []


@pytest.fixture
def mypy(environment, tmp_path):
    """Runs mypy or a part of it with the module in sight."""
    def run(*words):
        return subprocess.run([sys.executable, "-m", *map(str, words)], capture_output=True,
                              text=True, check=False, cwd=tmp_path, timeout=120,
                              env={**environment, "MYPY_CACHE_DIR": str(tmp_path)})
    return run


def test_the_stubs_are_those_of_the_module(mypy, tmp_path):
    # What cannot be made by scripts has a constructor that refuses everything.
    allowed = tmp_path / "allowed"
    allowed.write_text(r"vorn\.(_vorn\.)?\w+\.__init__", encoding="utf-8")
    done = mypy("mypy.stubtest", "vorn", "--allowlist", allowed)
    assert done.returncode == 0, done.stdout + done.stderr


@pytest.mark.parametrize("example", sorted((SOURCE / "examples" / "python").glob("*.py")),
                         ids=lambda path: path.stem)
def test_the_examples_are_typed_strictly(mypy, example):
    done = mypy("mypy", "--strict", example)
    assert done.returncode == 0, done.stdout + done.stderr


def test_the_example_runs(live, environment):
    done = subprocess.run([sys.executable, SOURCE / "examples" / "python" / "behind.py",
                           live.state, "0"], capture_output=True, text=True, check=False,
                          env=environment, timeout=60)
    assert (done.returncode, done.stdout, done.stderr) == (
        0, "0 entries are not in hardware yet\n", "")


@pytest.fixture
def guarded_router(build, tmp_path, monkeypatch):
    """An agent with the policy of the document's transcript."""
    where = Surroundings(build, str(tmp_path), (1, 2))
    agent = where.agent(str(SOURCE / "examples" / "rfc6192.yaml"))
    where.hardware()
    wait_until(lambda: all(table["logVersion"] == table["acknowledgedVersion"] != 0
                           for table in agent.ask("status")["tables"]), "all to be acknowledged")
    monkeypatch.setenv("VORN_STATE_DIR", where.state)
    yield
    where.end()


def test_the_transcript_of_the_document_is_real(guarded_router):
    transcript = "\n".join(re.findall(r"^    (.*)$", DOCUMENT[:DOCUMENT.index("## What there is")],
                                   re.MULTILINE))
    told = []
    test = doctest.DocTestParser().get_doctest(transcript, {}, "python.md", None, 0)
    assert len(test.examples) > 10
    runner = doctest.DocTestRunner(optionflags=doctest.ELLIPSIS)
    assert runner.run(test, out=told.append).failed == 0, "".join(told)


class AnyTimes(doctest.OutputChecker):
    """Another machine has other times."""

    def check_output(self, want, got, flags):
        timeless = [re.sub(r" *\b\d+\.\d{1,6}\b", " TIME", told) for told in (want, got)]
        return super().check_output(*timeless, flags | doctest.NORMALIZE_WHITESPACE)


def test_the_transcript_of_a_recording_is_real(own, monkeypatch):
    policy = (SOURCE / "examples" / "rfc6192.yaml").read_text(encoding="utf-8")
    own.policy.write_text(policy, encoding="utf-8")
    own.start_agent("--record", own.directory / "agent.rec").start_hardware().settle()
    own.load(policy.replace("690", "695"))
    own.settle()
    monkeypatch.chdir(own.directory)
    section = DOCUMENT[DOCUMENT.index("## Recordings"):DOCUMENT.index("A change is staged")]
    transcript = "\n".join(re.findall(r"^    (.*)$", section, re.MULTILINE))
    told = []
    test = doctest.DocTestParser().get_doctest(transcript, {}, "python.md", None, 0)
    assert len(test.examples) > 7
    assert doctest.DocTestRunner(AnyTimes()).run(test, out=told.append).failed == 0, "".join(told)


def test_the_document_lists_every_name_of_the_module():
    listed = set(re.findall(r"^\| `(?:vorn\.)?(\w+)", DOCUMENT, re.MULTILINE))
    assert set(NAMES) - listed == set()


def test_the_document_lists_every_member_of_what_one_begins_with():
    for kind in (vorn.System, vorn.Table, vorn.Recording):
        members = {name for name in vars(kind) if not name.startswith("_")}
        assert [name for name in members if f"`{name}" not in DOCUMENT] == []
