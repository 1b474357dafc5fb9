"""The controller of a fleet, for the tests of the collection."""
import shutil

import pytest

from fleet import CONTROLLER, NAME


@pytest.fixture(autouse=True)
def new_controller():
    """Removes the inventory of an earlier test."""
    shutil.rmtree(CONTROLLER, ignore_errors=True)


def assert_only_where_the_playbook_is(outcome):
    """Fails unless the only warning is that the playbook comes from a collection."""
    warning = f"[WARNING]: running playbook inside collection {NAME}\n".encode()
    assert (outcome.code, outcome.stderr) == (0, warning), outcome
    assert b"playbook: " in outcome.stdout
