"""The controller of a fleet, as the tests of the collection have it."""
import shutil

import pytest

from fleet import CONTROLLER, NAME


@pytest.fixture(autouse=True)
def new_controller():
    """Nothing of another test's inventory is there."""
    shutil.rmtree(CONTROLLER, ignore_errors=True)


def assert_only_where_the_playbook_is(outcome):
    """Ansible warns of a playbook that a collection brings, and of nothing else."""
    warning = f"[WARNING]: running playbook inside collection {NAME}\n".encode()
    assert (outcome.code, outcome.stderr) == (0, warning), outcome
    assert b"playbook: " in outcome.stdout
