"""Fixtures of the tests of sondrel-restore: a private destination, and a session that was made for the test."""
import faulthandler
import os
import sys

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(os.path.dirname(HERE))
sys.path[:0] = [f"{TOP}/restore", f"{TOP}/tests/e2e"]

import destination  # noqa: E402  pylint: disable=wrong-import-position
import world  # noqa: E402  pylint: disable=wrong-import-position
from made_session import MadeSession  # noqa: E402  pylint: disable=wrong-import-position


@pytest.hookimpl(tryfirst=True)
def pytest_runtest_setup(item):
    """A test that hangs ends by itself, and says where, and takes its servers along."""
    if item.config.getoption("forked", False):
        os.setsid()
        world.die_with_parent()
        # Long enough beside ten others; what waits for something has a deadline of its own.
        faulthandler.dump_traceback_later(600, exit=True)


@pytest.fixture(scope="session", autouse=True)
def private_destination():
    """The world of the tests, with directories in which a restore can write."""
    world.enter()
    destination.make()


@pytest.fixture
def session():
    """A session directory with nothing in its description yet."""
    return MadeSession("/mnt/session")
