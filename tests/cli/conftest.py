"""The fixtures of tests/support_py, for these tests."""

import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support_py"))

from live_systems import *  # noqa: E402, F401, F403
