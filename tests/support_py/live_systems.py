"""Real processes in directories of their own, and the command line run on them."""

import json
import os
import pathlib
import shutil

import socketserver
import subprocess
import sys
import threading

import jsonschema
import pytest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCE / "examples" / "demo"))

from processes import Surroundings, wait_until  # noqa: E402

POLICY = """
policers:
  - {name: slow, rate: 500kbit, burst: 64kbit}
actions:
  - {name: bgp, counter: yes, policer: slow}
  - {name: ssh, counter: yes}
  - {name: rest, disposition: drop}
ipv4:
  - {name: bgp, action: bgp, priority: 100, source: 192.0.2.0/24, protocol: tcp, port: 179}
  - {name: ssh, action: ssh, priority: 90, protocol: tcp, destination-port: 22}
  - {name: rest, action: rest, priority: 1}
ipv6:
  - {name: bgp6, action: bgp, priority: 100, source: "2001:db8::/32", protocol: tcp, port: 179}
"""
#: A priority is changed, an action and its entry are gone, another is new.
OTHER_POLICY = (POLICY.replace("priority: 90", "priority: 95")
                .replace("  - {name: rest, disposition: drop}\n", "  - {name: new}\n")
                .replace("{name: rest, action: rest, priority: 1}",
                         "{name: new, action: new, priority: 2}"))


def pytest_addoption(parser):
    parser.addoption("--build", default=str(SOURCE / "build" / "release"))


class Result:
    """What a command printed, and how it ended."""

    def __init__(self, done):
        self.code, self.out, self.err = done.returncode, done.stdout, done.stderr

    @property
    def lines(self):
        return self.out.splitlines()


class Vorn:
    """Runs the command line on a state directory."""

    def __init__(self, build, state, home):
        self.program = os.path.join(build, "vorn")
        self.state = str(state)
        self.home = str(home)

    def __call__(self, *words, stdin=None, environment=None, state=None):
        with_state = {**os.environ, "VORN_STATE_DIR": state or self.state}
        with_state.pop("COLUMNS", None)
        with_state.update(environment or {})
        done = subprocess.run([self.program, *map(str, words)], capture_output=True, text=True,
                              check=False, input=stdin or "", env=with_state, cwd=self.home,
                              timeout=60)
        return Result(done)

    def json(self, schema, *words, code=0, **options):
        """The document, which has to be of the schema."""
        result = self(*words, "--json", **options)
        assert result.code == code, (result.code, result.out, result.err)
        document = json.loads(result.out)
        conforms(document, schema)
        return document


def conforms(document, schema):
    with open(SOURCE / "docs" / "schema" / (schema + ".json"), encoding="utf-8") as file:
        validator = jsonschema.Draft202012Validator(json.load(file))
    wrong = [f"{list(error.absolute_path)}: {error.message}"[:300]
             for error in validator.iter_errors(document)]
    assert wrong == []


class System:
    """An agent and a hardware side with the command line on their directory."""

    def __init__(self, build, directory):
        self.directory = pathlib.Path(directory)
        self.surroundings = Surroundings(build, str(directory), (1, 2))
        self.state = pathlib.Path(self.surroundings.state)
        self.policy = self.directory / "policy.yaml"
        self.policy.write_text(POLICY, encoding="utf-8")
        self.vorn = Vorn(build, self.state, directory)
        self.agent = self.hardware = None

    def start_agent(self, *options):
        where = self.surroundings
        command = [where.program("vorn-agent"), "--policy", self.policy, "--state-dir", self.state,
                   "--units", "1,2", "--capacity", "1024",
                   "--plugin", where.program("libVornPolicyCpu.so"), *options]
        self.agent = where._start("the agent", list(map(str, command)), "agent")
        return self

    def start_hardware(self):
        self.hardware = self.surroundings.hardware()
        return self

    def settle(self):
        """Waits until hardware has all of it."""
        def is_settled():
            status = self.agent.ask("status")
            return status["queued"] == 0 and all(
                table["logVersion"] == table["acknowledgedVersion"] for table in status["tables"])
        wait_until(is_settled, "all to be acknowledged")
        return self

    def load(self, policy):
        self.policy.write_text(policy, encoding="utf-8")
        return self.agent.ask("reload")["load"]

    def end(self):
        self.surroundings.end()


@pytest.fixture(scope="session")
def build(request):
    return os.path.abspath(request.config.getoption("--build"))


@pytest.fixture(scope="module")
def live(build, tmp_path_factory):
    """A system that tests only look at."""
    system = System(build, tmp_path_factory.mktemp("live"))
    yield system.start_agent().start_hardware().settle()
    system.end()


@pytest.fixture(scope="session")
def left(build, tmp_path_factory):
    """What processes left that were killed with everything in hardware."""
    system = System(build, tmp_path_factory.mktemp("left"))
    system.start_agent().start_hardware().settle()
    system.agent.kill()
    system.hardware.kill()
    return system


@pytest.fixture
def dead(build, left, tmp_path):
    """A copy of it, to do with as one likes."""
    system = System(build, tmp_path)
    shutil.rmtree(system.state)
    # Sockets of the dead are no files to copy; readers ask for them in vain either way.
    shutil.copytree(left.state, system.state,
                    ignore=lambda _, names: [n for n in names if n.endswith((".sock", ".bell"))])
    yield system
    system.end()


@pytest.fixture
def own(build, tmp_path):
    """A system for one test, nothing started."""
    system = System(build, tmp_path)
    yield system
    system.end()


class FakePeer:
    """Answers at a control socket what it is told to."""

    def __init__(self, path, answers):
        self.asked = []
        peer = self

        class Handler(socketserver.StreamRequestHandler):
            def handle(self):
                for line in self.rfile:
                    request = json.loads(line)
                    peer.asked.append(request)
                    answer = answers.get(request["cmd"])
                    answer = answer(request) if callable(answer) else answer
                    answer = ({"ok": False, "error": "there is no such command"}
                              if answer is None else {"ok": True, **answer})
                    self.wfile.write(json.dumps(answer).encode() + b"\n")

        self.server = socketserver.ThreadingUnixStreamServer(str(path), Handler)
        self.server.daemon_threads = True
        threading.Thread(target=self.server.serve_forever, args=(0.01,), daemon=True).start()

    def end(self):
        self.server.shutdown()
        self.server.server_close()


@pytest.fixture
def fake(dead):
    """Makes peers on the dead system's directory."""
    peers = []

    def make(socket_name, answers):
        peers.append(FakePeer(dead.state / socket_name, answers))
        return peers[-1]
    yield make
    for peer in peers:
        peer.end()
