"""The session directory: what is made, for whom, and what is reused."""
import os

import pytest

from tool import Session, sondrel
from world import SESSION, owner_and_mode, write


def run(path=SESSION):
    return sondrel("--remove-dumping-status", "--session-path", path)


def test_is_made_with_its_parents_for_root_and_the_service_account():
    assert run(f"{SESSION}/of/today").code == 0
    for path in (SESSION, f"{SESSION}/of", f"{SESSION}/of/today", f"{SESSION}/of/today/archives"):
        assert owner_and_mode(path) == (0, 20000, 0o750), path


def test_is_reused_as_it_is():
    os.mkdir(SESSION)
    os.chmod(SESSION, 0o711)
    write(f"{SESSION}/kept", "content")
    assert run().code == 0
    assert owner_and_mode(SESSION) == (0, 0, 0o711)
    assert Session().read("kept") == b"content"
    assert owner_and_mode(f"{SESSION}/archives") == (0, 20000, 0o750)


def test_name_with_a_slash_behind_is_accepted():
    assert run(SESSION + "/").code == 0
    assert Session().exists("migration.log")


def test_relative_name_is_accepted():
    assert sondrel("--remove-dumping-status", "--session-path", "session", directory="/mnt").code == 0
    assert Session().exists("migration.log")


@pytest.mark.parametrize("name", ["with blank", "it's", "a\nline", "ärger", "a#b", "${LOG_FILE_NAME}", "100%1%"],
                         ids=["blank", "quote", "newline", "UTF-8", "hash", "variable", "percent signs"])
def test_odd_name_is_taken_as_it_stands(name):
    path = f"{SESSION}/{name}"
    assert run(path).code == 0
    assert Session(path).log().endswith("Exit code: 0\n")
    assert sorted(os.listdir(SESSION)) == [name]
    assert Session(path).result() == ("execution-result", [("status", "success")], "", [])


def test_results_lie_in_it_whatever_its_name_means_in_a_uri():
    os.makedirs(f"{SESSION}/sA")
    assert run(f"{SESSION}/s%41").code == 0
    assert os.listdir(f"{SESSION}/sA") == []
    assert Session(f"{SESSION}/s%41").result() == ("execution-result", [("status", "success")], "", [])


@pytest.mark.matrix("local")
@pytest.mark.parametrize("taken, text", [
    ("session", b"Unable to create session: Unable to create session directory"),
    ("session/archives", b"Unable to create session: Unable to create session archives directory"),
], ids=["itself", "its archives"])
def test_file_in_the_place_of_the_directory_ends_the_run(taken, text):
    write(f"/mnt/{taken}", "here first")
    outcome = run()
    assert (outcome.code, outcome.stdout) == (1, b"")
    assert text in outcome.stderr
    os.unlink(f"/mnt/{taken}")


def test_status_file_belongs_to_the_service_account():
    assert run().code == 0
    assert owner_and_mode(f"{SESSION}/migration.status") == (20000, 20000, 0o600)
    assert Session().status() == ("migration-status", [], "", [("idle", [], "", [])])
    assert sorted(os.listdir(SESSION)) == ["archives", "migration.log", "migration.result", "migration.status"]
