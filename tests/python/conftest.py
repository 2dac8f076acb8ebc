"""The fixtures of tests/support_py, and the module as it was built."""

import os
import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support_py"))

from live_systems import *  # noqa: E402, F401, F403


def module_path(build):
    return os.path.join(os.path.abspath(build), "python")


def pytest_configure(config):
    sys.path.insert(0, module_path(config.getoption("--build")))


@pytest.fixture(scope="session")
def environment(build):
    """Of other interpreters that import the module."""
    return {**os.environ, "PYTHONPATH": module_path(build)}


@pytest.fixture
def system(live):
    import vorn
    with vorn.attach(live.state) as attached:
        yield attached


@pytest.fixture(scope="session")
def recorded(build, tmp_path_factory):
    """The recording of an agent that was killed while hardware was paused, and of the one after
    it."""
    system = System(build, tmp_path_factory.mktemp("recorded"))
    path = system.directory / "agent.rec"
    system.start_agent("--record", path).start_hardware().settle()
    system.hardware.ask("pause")
    wait_until(lambda: system.agent.ask("status")["suspended"], "the pause to be known")
    system.load(OTHER_POLICY)
    system.agent.kill()
    system.hardware.ask("resume")
    system.start_agent("--record", path).settle()
    system.load(POLICY)
    system.settle()
    assert system.agent.end() == 0
    system.end()
    return path
