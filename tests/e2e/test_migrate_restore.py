"""migrate command: the steps of a restore, with an imitated sondrel and sondrel-restore."""
import os

import pytest

from migrating import IMITATION, RESTORE_STEPS, STEPS, ImitatedSondrel, State, progress_of, status
from world import SESSION

ALL = [f"--session-path={SESSION}", "--host=src.example", "--login=root", "--dump-all", "--final"]
AGAIN = f"--session-path={SESSION}"
ALL_STEPS = [*STEPS, *RESTORE_STEPS]


@pytest.fixture
def imitated():
    imitated = ImitatedSondrel()
    imitated.can_restore()
    return imitated


def whole(*states):
    return progress_of(*states, steps=ALL_STEPS)


def test_plans_applies_and_verifies_behind_the_other_steps(imitated):
    outcome = imitated.run(*ALL, "--restore")
    assert outcome.code == 0, outcome
    assert imitated.runs() == ALL_STEPS
    assert [imitated.arguments(number) for number in (5, 6, 7)] == [[name, SESSION] for name in RESTORE_STEPS]
    assert State().progress() == whole(*["done"] * 8)
    assert [status()[name].split(",")[0] for name in RESTORE_STEPS] == ["done"] * 3


def test_knows_no_step_of_a_restore_where_none_is_asked_for(imitated):
    assert imitated.run(*ALL).code == 0
    assert imitated.runs() == STEPS
    assert list(State().steps) == STEPS
    assert not set(RESTORE_STEPS) & set(status())


def test_shows_what_the_restore_prints(imitated):
    imitated.does("plan", "echo 'account alice: is made'")
    imitated.does("apply", "echo 'something odd' >&2")
    outcome = imitated.run(*ALL, "--restore")
    assert b"account alice: is made\n" in outcome.stdout and b"something odd\n" in outcome.stderr


def test_hands_on_what_the_restore_must_know(imitated):
    assert imitated.run(*ALL, "--restore", "--restore-install", "--dumps-dir=/mnt/x").code == 0
    assert [imitated.arguments(number) for number in (5, 6, 7)] == [
        ["plan", "--archives=/mnt/x", "--install", SESSION], ["apply", "--archives=/mnt/x", "--install", SESSION],
        ["verify", "--archives=/mnt/x", SESSION]]


def test_gives_the_restore_no_password(imitated):
    assert imitated.run(*ALL, "--restore", "--sudo", sudo_password="sudo-passphrase").code == 0
    assert "QRV_PASSWORD" in imitated.environment(4)
    for number in (5, 6, 7):
        assert not [name for name in imitated.environment(number) if "PASSWORD" in name]


def test_a_finished_migration_is_restored_later_without_a_login(imitated):
    assert imitated.run(*ALL).code == 0
    outcome = imitated.run(AGAIN, "--restore", password=None)
    assert outcome.code == 0, outcome
    assert imitated.runs() == ALL_STEPS


@pytest.mark.parametrize("step", ["plan", "apply"])
def test_needed_decisions_are_told_from_failures(imitated, step):
    imitated.does(step, "echo 'conflict: account:alice'; exit 3")
    outcome = imitated.run(*ALL, "--restore")
    assert outcome.code == 5, outcome
    assert b"conflict: account:alice\n" in outcome.stdout and b"needs decisions or packages" in outcome.stderr
    assert status()["state"] == f"failed at {step} with exit code 5"
    os.unlink(f"{IMITATION}/{step}")
    assert imitated.run(AGAIN).code == 0
    assert State().progress() == whole(*["done"] * 8)


@pytest.mark.parametrize(("step", "reason"), [
    ("plan", b"The restore failed: nginx: broken"), ("apply", b"The restore failed: nginx: broken"),
    ("verify", b"What is here is not what was fetched: sondrel-restore verify names the differences")])
def test_a_failure_of_the_restore_ends_the_run_and_is_tried_again(imitated, step, reason):
    """Differences are applied again, not only compared."""
    imitated.does(step, "printf 'first\\nnginx: broken\\n' >&2; exit 1")
    outcome = imitated.run(*ALL, "--restore")
    assert outcome.code == 6 and outcome.stderr.startswith(b"first\nnginx: broken\n" + reason), outcome
    assert status()[step].endswith(reason.decode())
    os.unlink(f"{IMITATION}/{step}")
    assert imitated.run(AGAIN).code == 0
    number = ALL_STEPS.index(step)
    again = ALL_STEPS.index("apply" if step == "verify" else step)
    assert imitated.runs() == [*ALL_STEPS[:number + 1], *ALL_STEPS[again:]]


def test_goes_back_to_a_step_of_the_restore_without_the_agent(imitated):
    assert imitated.run(*ALL, "--restore").code == 0
    assert imitated.run(AGAIN, "--from=apply").code == 0
    assert imitated.runs() == [*ALL_STEPS, "apply", "verify"]


def test_a_later_dump_is_restored_again(imitated):
    assert imitated.run(*ALL, "--restore").code == 0
    assert imitated.run(AGAIN, "--from=dump").code == 0
    assert imitated.runs() == [*ALL_STEPS, *ALL_STEPS[1:]]


def complaint(outcome):
    assert outcome.code == 1, outcome
    return outcome.stderr.decode()


def test_refuses_what_cannot_be_restored_before_anything_is_begun(imitated):
    assert "exclude each other" in complaint(imitated.run(*ALL, "--restore", "--no-content"))
    assert "give both" in complaint(imitated.run(*ALL, "--restore-install"))
    os.unlink(f"{imitated.directory}/sondrel-restore")
    assert "install the package sondrel-restore" in complaint(imitated.run(*ALL, "--restore"))
    assert imitated.runs() == []
