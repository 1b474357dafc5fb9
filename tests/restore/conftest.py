"""Fixtures of the tests of sondrel-restore: a private destination, and a session made by hand."""
import faulthandler
import os
import sys

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(os.path.dirname(HERE))
sys.path[:0] = [f"{TOP}/restore", f"{TOP}/tests/e2e"]

import copied_program  # noqa: E402  pylint: disable=wrong-import-position
import destination  # noqa: E402  pylint: disable=wrong-import-position
import world  # noqa: E402  pylint: disable=wrong-import-position
from made_session import MadeSession  # noqa: E402  pylint: disable=wrong-import-position


@pytest.hookimpl(tryfirst=True)
def pytest_runtest_setup(item):
    """Makes a hanging test print where it hangs and end by itself, together with its servers."""
    if item.config.getoption("forked", False):
        os.setsid()
        world.die_with_parent()
        # Long enough while ten other tests run. Waits for a condition have shorter limits of their own.
        faulthandler.dump_traceback_later(600, exit=True)


@pytest.fixture(scope="session", autouse=True)
def private_destination():
    """The private world of the tests, with directories that a restore can write to."""
    world.enter()
    destination.make()


@pytest.fixture
def session():
    """A session directory whose description has no objects yet. Its sondrel-restore is a copy of the test's process."""
    return MadeSession("/mnt/session", copied_program.run)
