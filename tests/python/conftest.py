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
