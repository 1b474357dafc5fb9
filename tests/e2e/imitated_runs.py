"""Runs of sondrel-migrate with an imitated sondrel."""
import pytest

from migrating import ImitatedSondrel
from world import SESSION

PLACE = [f"--session-path={SESSION}", "--host=src.example", "--login=root"]
KEPT = [*PLACE, "--dump-all"]
ALL = [*KEPT, "--final"]
SUDO_ALL = [f"--session-path={SESSION}", "--host=src.example", "--login=sudoer", "--sudo", "--dump-all", "--final",
            "--agent-parent=/home/sudoer"]


@pytest.fixture
def imitated():
    return ImitatedSondrel()


def complaint(outcome):
    """The one error line that says why the migration did not begin."""
    assert outcome.code == 1 and outcome.stdout == b"", outcome
    lines = outcome.stderr.decode().splitlines()
    assert len(lines) == 1 and lines[0].startswith("sondrel-migrate: "), lines
    return lines[0].removeprefix("sondrel-migrate: ")
