"""What both processes tell the service manager that starts them, and the journal."""

import os
import re
import signal
import socket
import subprocess
import time

import pytest

from conftest import OTHER_POLICY, wait_until

DEADLINE_S = 30
#: The interval at which keepalives are wanted; they come twice as often.
WATCHDOG_S = 0.4


class Manager:
    """The socket of a service manager: what processes have told it."""

    def __init__(self, directory):
        self.path = str(directory / "notify")
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(self.path)

    def next(self, within_s=DEADLINE_S):
        """The next message as a dictionary; None when there was none in that time."""
        self.socket.settimeout(within_s)
        try:
            message = self.socket.recv(65536).decode()
        except TimeoutError:
            return None
        return dict(line.split("=", 1) for line in message.splitlines())

    def until(self, name):
        """Messages up to the first that has that name."""
        messages = []
        end = time.monotonic() + DEADLINE_S
        while not messages or name not in messages[-1]:
            message = self.next(max(end - time.monotonic(), 0.001))
            assert message is not None, f"{name} has not come; these have: {messages}"
            messages.append(message)
        return messages

    def forget(self):
        """Takes what has come so far."""
        self.socket.setblocking(False)
        try:
            while self.socket.recv(65536):
                pass
        except BlockingIOError:
            pass


@pytest.fixture
def manager(tmp_path, monkeypatch):
    made = Manager(tmp_path)
    monkeypatch.setenv("NOTIFY_SOCKET", made.path)
    monkeypatch.delenv("WATCHDOG_USEC", raising=False)
    monkeypatch.delenv("WATCHDOG_PID", raising=False)
    yield made
    made.socket.close()


@pytest.fixture
def watched(monkeypatch, manager):
    monkeypatch.setenv("WATCHDOG_USEC", str(int(WATCHDOG_S * 1e6)))
    return manager


def start(system, which):
    getattr(system, "start_" + which)()
    return getattr(system, which)


def command(system, which):
    """The command line that the fixture would start, without waiting for what it serves."""
    program = system.surroundings.program
    if which == "hardware":
        return [program("vorn-hwd"), "--state-dir", str(system.state)]
    return [program("vorn-agent"), "--policy", str(system.policy), "--state-dir",
            str(system.state), "--units", "1,2", "--capacity", "1024", "--plugin",
            program("libVornPolicyCpu.so")]


def next_expiry_s(pid):
    """When the earliest timer of the process's event loop runs out; None where there is none."""
    for descriptor in os.listdir(f"/proc/{pid}/fdinfo"):
        with open(f"/proc/{pid}/fdinfo/{descriptor}", encoding="ascii") as file:
            found = re.search(r"it_value: \((\d+), (\d+)\)", file.read())
        if found and found.groups() != ("0", "0"):
            return int(found[1]) + int(found[2]) * 1e-9
    return None


BOTH = pytest.mark.parametrize("which", ["agent", "hardware"])


@BOTH
def test_is_ready_only_when_its_control_socket_answers(own, manager, which, tmp_path):
    with open(tmp_path / "log", "wb") as log:
        process = subprocess.Popen(command(own, which), stderr=log)
    try:
        messages = manager.until("READY")
        # One connection, one request: nothing is tried again.
        name = "agent.sock" if which == "agent" else "hwd.sock"
        connection = socket.socket(socket.AF_UNIX)
        connection.settimeout(DEADLINE_S)
        connection.connect(str(own.state / name))
        connection.sendall(b'{"cmd":"status"}\n')
        assert b'"ok":true' in connection.recv(65536)
        assert messages[-1]["READY"] == "1"
    finally:
        process.terminate()
        process.wait(DEADLINE_S)


def test_the_status_of_the_agent_is_what_its_last_load_did(own, manager):
    start(own, "agent")
    ready = manager.until("READY")[-1]
    policy = str(own.policy)
    assert ready["STATUS"] == f"policy {policy}: 18 written, 0 removed, 0 unchanged on 2 units"
    own.start_hardware()
    while not ready["STATUS"].endswith("changes acknowledged"):
        ready = manager.until("STATUS")[-1]
    assert ready["STATUS"] == f"policy {policy}: all 18 changes acknowledged"


def test_the_status_of_the_hardware_side_is_what_it_does(own, watched):
    start(own, "hardware")
    assert watched.until("READY")[-1]["STATUS"] == f"waits for an agent in {own.state}"
    own.start_agent().settle()
    wait_until(lambda: watched.next()["STATUS"] ==
               f"follows {own.state}: 6 actions, 8 IPv4 and 4 IPv6 entries programmed, 0 waiting",
               "the status to come with a keepalive")


def test_the_status_of_the_hardware_side_changes_with_the_agent_that_comes(own, manager):
    start(own, "hardware")
    assert manager.until("READY")[-1]["STATUS"] == f"waits for an agent in {own.state}"
    start(own, "agent")
    programmed = f"follows {own.state}: 6 actions, 8 IPv4 and 4 IPv6 entries programmed, 0 waiting"
    wait_until(lambda: manager.until("STATUS")[-1]["STATUS"] == programmed, "the new status")


@pytest.mark.parametrize("way", ["signal", "request"])
def test_a_reload_is_told_before_and_after(own, manager, way):
    start(own, "agent")
    manager.until("READY")
    own.policy.write_text(OTHER_POLICY, encoding="utf-8")
    before_us = time.clock_gettime_ns(time.CLOCK_MONOTONIC) // 1000
    if way == "signal":
        own.agent.process.send_signal(signal.SIGHUP)
    else:
        own.agent.ask("reload")
    reloading = manager.until("RELOADING")[-1]
    assert reloading["RELOADING"] == "1" and int(reloading["MONOTONIC_USEC"]) >= before_us
    messages = manager.until("READY")
    assert "6 written, 4 removed" in messages[-1]["STATUS"], messages


def test_a_reload_that_fails_ends_ready_with_the_reason(own, manager):
    start(own, "agent")
    manager.until("READY")
    own.policy.write_text("actions: 7\n", encoding="utf-8")
    own.agent.process.send_signal(signal.SIGHUP)
    manager.until("RELOADING")
    assert manager.until("READY")[-1]["STATUS"] == \
        f"policy {own.policy} has errors, the one before stays"


@BOTH
@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT], ids=["SIGTERM", "SIGINT"])
def test_says_that_it_stops_when_told_to_end(own, manager, which, number):
    process = start(own, which).process
    manager.until("READY")
    process.send_signal(number)
    assert manager.until("STOPPING")[-1]["STOPPING"] == "1"
    assert process.wait(DEADLINE_S) == 0


@BOTH
def test_keepalives_come_in_time(own, manager, monkeypatch, which):
    limit_s = 2  # beyond what a busy machine holds a process up
    monkeypatch.setenv("WATCHDOG_USEC", str(int(limit_s * 1e6)))
    start(own, which)
    manager.until("READY")
    manager.until("WATCHDOG")
    last = time.monotonic()
    longest = 0
    for _ in range(3):
        manager.until("WATCHDOG")
        longest = max(longest, time.monotonic() - last)
        last = time.monotonic()
    assert longest < limit_s


@BOTH
def test_keepalives_stop_with_the_process_and_go_on_with_it(own, watched, which):
    process = start(own, which).process
    watched.until("WATCHDOG")
    process.send_signal(signal.SIGSTOP)
    os.waitpid(process.pid, os.WUNTRACED)  # it has stopped
    watched.forget()
    assert watched.next(3 * WATCHDOG_S) is None
    process.send_signal(signal.SIGCONT)
    watched.until("WATCHDOG")


def test_keepalives_stop_while_the_event_loop_is_busy(own, manager, monkeypatch):
    interval_s = 0.02
    monkeypatch.setenv("WATCHDOG_USEC", str(int(interval_s * 1e6)))
    start(own, "agent")
    manager.until("WATCHDOG")
    numbers = ", ".join(map(str, range(1, 201)))
    own.policy.write_text(f"""
actions:
  - {{name: all, counter: yes}}
ipv4:
  - {{name: many, action: all, priority: 1, protocol: udp, source-port: [{numbers}],
     destination-port: [{numbers}]}}
""", encoding="utf-8")
    own.agent.process.send_signal(signal.SIGHUP)
    manager.until("RELOADING")
    since = time.monotonic()
    messages = manager.until("READY")
    assert time.monotonic() - since > 3 * interval_s, "it was not busy for long enough"
    assert all("WATCHDOG" not in message for message in messages), messages
    manager.until("WATCHDOG")


@BOTH
def test_keepalives_that_another_process_is_asked_for_are_not_sent(own, watched, monkeypatch,
                                                                   which):
    monkeypatch.setenv("WATCHDOG_PID", str(os.getpid()))
    start(own, which)
    watched.until("READY")
    messages = iter(lambda: watched.next(3 * WATCHDOG_S), None)
    assert all("WATCHDOG" not in message for message in messages)


@BOTH
def test_no_timer_wakes_an_idle_process_without_a_watchdog(own, which):
    own.start_agent().start_hardware().settle()
    pid = getattr(own, which).process.pid

    def sleeps():
        # The loop looks at its clock every five minutes at most when nothing is due.
        expiry = next_expiry_s(pid)
        return expiry is None or expiry > 60
    wait_until(sleeps, "all timers to have run out")


@BOTH
def test_the_timer_of_keepalives_is_seen_where_there_is_one(own, watched, which):
    process = start(own, which).process
    watched.until("WATCHDOG")
    wait_until(lambda: (next_expiry_s(process.pid) or 60) <= WATCHDOG_S / 2, "a timer")


def test_a_service_manager_that_has_gone_is_said_once(own, manager):
    os.unlink(manager.path)
    start(own, "agent").ask("reload")
    own.agent.end()
    assert own.agent.log().count("the service manager cannot be told") == 1


@BOTH
def test_lines_to_the_journal_begin_with_their_priority(own, which, monkeypatch, tmp_path):
    monkeypatch.setenv("VORN_TRACE", "*/1-9")
    log = tmp_path / ("agent.log" if which == "agent" else "hwd.log")
    log.touch()
    status = log.stat()
    monkeypatch.setenv("JOURNAL_STREAM", f"{status.st_dev}:{status.st_ino}")
    start(own, which)
    (own.start_hardware() if which == "agent" else own.start_agent()).settle()
    if which == "agent":
        own.policy.write_text("actions: 7\n", encoding="utf-8")
        own.agent.process.send_signal(signal.SIGHUP)
        wait_until(lambda: "has errors" in own.agent.log(), "the error to be told")
    lines = getattr(own, which).log().splitlines()
    priorities = {}
    for line in lines:
        parts = re.fullmatch(r"<([2-7])>(vorn-agent: |vorn-hwd: |\d )(.*)", line)
        assert parts, line
        priorities.setdefault(parts[2], set()).add(parts[1])
    expected = {"1 ": {"4"}, "2 ": {"6"}, "3 ": {"7"}, "8 ": {"7"}, "9 ": {"7"},
                "vorn-hwd: ": {"5"}, "vorn-agent: ": {"3", "5", "6"}}
    assert len(priorities) > 2
    for kind, found in priorities.items():
        if kind in expected:
            assert found <= expected[kind], (kind, found)
    if which == "agent":
        assert {"3", "5"} <= priorities["vorn-agent: "]


def test_lines_to_a_person_have_no_priority(own, monkeypatch):
    monkeypatch.setenv("JOURNAL_STREAM", "1:2")
    start(own, "agent")
    assert re.search("^vorn-agent: policy ", own.agent.log(), re.MULTILINE)
    assert not re.search("^<", own.agent.log(), re.MULTILINE)


@pytest.mark.parametrize("program", ["vorn-agent", "vorn-hwd"])
def test_the_line_of_a_failure_is_an_error_in_the_journal(build, tmp_path, program):
    with open(tmp_path / "log", "wb") as log:
        status = os.fstat(log.fileno())
        environment = {**os.environ, "JOURNAL_STREAM": f"{status.st_dev}:{status.st_ino}"}
        code = subprocess.run([os.path.join(build, program), "--nonsense"], stderr=log,
                              env=environment, check=False, timeout=DEADLINE_S).returncode
    assert code == 2
    assert (tmp_path / "log").read_text(encoding="utf-8").startswith(f"<3>{program}: ")
