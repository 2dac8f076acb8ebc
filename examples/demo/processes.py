"""The two processes of the demonstration: started, asked over their sockets, ended."""

import json
import os
import signal
import socket
import subprocess
import time


class Failure(Exception):
    """Something is not as it has to be."""


def wait_until(condition, what, seconds=15):
    """Asks again until the condition gives something; both processes answer within microseconds."""
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        value = condition()
        if value:
            return value
        time.sleep(0.002)
    raise Failure(f"timed out waiting for {what}")


class Process:
    """A program that serves requests, each a line of JSON, at a socket in the state directory."""

    def __init__(self, name, command, socket_path, log_path):
        self.name = name
        self.socket_path = socket_path
        self.log_path = log_path
        with open(log_path, "ab") as log:
            self.process = subprocess.Popen(command, stderr=log)
        self.stream = None

    def wait_served(self, seconds=15):
        wait_until(self._connected, f"{self.name} to serve {self.socket_path}", seconds)
        return self

    def _connected(self):
        if self.process.poll() is not None:
            raise Failure(f"{self.name} ended with {self.process.returncode}:\n{self.log()}")
        connection = socket.socket(socket.AF_UNIX)
        try:
            connection.connect(self.socket_path)
        except OSError:
            connection.close()
            return False
        self.stream = connection.makefile("rw")
        connection.close()  # the stream keeps it
        try:
            pid = self.ask("status")["pid"]
        except Failure:
            pid = None
        return pid == self.process.pid  # not the socket of a process that was killed

    def ask(self, command, **members):
        try:
            self.stream.write(json.dumps({"cmd": command, **members}) + "\n")
            self.stream.flush()
            line = self.stream.readline()
        except OSError as error:
            raise Failure(f"{self.name} does not answer: {error}") from error
        if not line:
            raise Failure(f"{self.name} has closed its socket")
        answer = json.loads(line)
        if not answer["ok"]:
            raise Failure(f"{self.name} refuses {command}: {answer['error']}")
        return answer

    def log(self):
        with open(self.log_path, encoding="utf-8", errors="replace") as log:
            return log.read()

    def kill(self):
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()

    def end(self):
        """Asks the process to end; its exit status."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        try:
            return self.process.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.kill()
            return -signal.SIGKILL


class Surroundings:
    """Where the programs lie and what they are started with."""

    def __init__(self, build, directory, units):
        self.build = build
        self.state = os.path.join(directory, "state")
        self.logs = directory
        self.units = units
        self.started = []
        os.mkdir(self.state, 0o750)

    def program(self, name):
        path = os.path.join(self.build, name)
        if not os.path.exists(path):
            raise Failure(f"{path} is not built")
        return path

    def _start(self, name, command, short):
        process = Process(name, command, os.path.join(self.state, short + ".sock"),
                          os.path.join(self.logs, short + ".log"))
        self.started.append(process)
        return process.wait_served()

    def end(self):
        """Ends what still runs."""
        for process in self.started:
            process.end()

    def agent(self, policy, capacity=65536):
        command = [self.program("vorn-agent"), "--policy", policy, "--state-dir", self.state,
                   "--units", ",".join(map(str, self.units)), "--capacity", str(capacity),
                   "--plugin", self.program("libVornPolicyCpu.so")]
        return self._start("the agent", command, "agent")

    def hardware(self):
        command = [self.program("vorn-hwd"), "--state-dir", self.state]
        return self._start("the hardware side", command, "hwd")

    def compiled(self, policy):
        """The entries that a policy stands for."""
        result = subprocess.run([self.program("vorn-agent"), "--check", "--policy", policy],
                                capture_output=True, check=False, text=True)
        if result.returncode != 0:
            raise Failure(result.stderr.strip())
        return json.loads(result.stdout)
