"""The Ansible collection sondrel.migration on one destination, with an imitated sondrel."""
import json
import os
import signal
import sys

import pytest

from fleet import COLLECTION, CONTROLLER, PLAYBOOK, inventory, link_collection, module, play, start_ansible
from fleet_controller import new_controller  # noqa: F401  # pylint: disable=unused-import
from fleet_controller import assert_only_where_the_playbook_is
from migrating import IMITATION, STEPS, ImitatedSondrel
from world import HOST, SESSION, kill_together, processes, wait_until, write

sys.path.append(f"{COLLECTION}/plugins/filter")
from sondrel_summary import sondrel_failure, sondrel_summary  # noqa: E402  it lies in the collection

# The log of a session is beside it.
PLACE = f"{SESSION}/one"


@pytest.fixture
def imitated():
    return ImitatedSondrel()


def begin(imitated, session=PLACE, **more):
    given = {"session": session, "program": imitated.program, "password": "a-passphrase",
             "settings": {"host": "src.example", "login": "root", "dump-all": True, "final": True}, **more}
    return module("sondrel_migrate", **given)


def look(imitated, session=PLACE, **more):
    answer = module("sondrel_migrate_info", session=session, program=imitated.program, **more)
    assert "migration" in answer, answer
    return answer["migration"]


def hold(imitated, step):
    """Makes the step wait until the returned function is called."""
    imitated.does(step, f"while [ ! -e {IMITATION}/go ]; do sleep 0.01; done")
    return lambda: write(f"{IMITATION}/go")


def test_example_playbook_and_inventory_pass_the_syntax_check():
    outcome = start_ansible("ansible-playbook", "-i", f"{COLLECTION}/inventory.example.yml", "--syntax-check",
                            PLAYBOOK).finish()
    assert_only_where_the_playbook_is(outcome)


@pytest.mark.slow
def test_a_migration_goes_on_without_the_process_that_began_it(imitated):
    go_on = hold(imitated, "dump")
    assert begin(imitated)["changed"] is True
    wait_until(lambda: imitated.is_at("dump"), "the dump")
    assert look(imitated)["state"] == "running"
    assert look(imitated, wait_seconds=0.2)["state"] == "running"
    # A second beginning leaves it alone, and cannot go back to an earlier step.
    assert begin(imitated)["changed"] is False
    assert "at work" in begin(imitated, from_step="scout")["msg"]
    go_on()
    found = look(imitated, wait_seconds=30)
    assert (found["state"], found["exit_code"], found["step"]) == ("finished", 0, "")
    assert imitated.runs() == STEPS
    assert {name: step["state"] for name, step in found["steps"].items()} == dict.fromkeys(STEPS, "done")
    assert imitated.environment(0)["QRV_PASSWORD"] == "a-passphrase"


def test_a_login_by_key_has_its_passphrase_and_needs_no_password(imitated):
    settings = {"host": "src.example", "login": "jo", "agent-parent": "/home/jo", "sudo": True, "dump-all": True,
                "identity": "/root/key"}
    begin(imitated, settings=settings, password="", key_password="the key's", sudo_password="sudo's")
    assert look(imitated, wait_seconds=30)["state"] == "finished"
    environment = imitated.environment(0)
    assert [environment.get(name) for name in (
        "SONDREL_IDENTITY", "QRV_PASSWORD", "QRV_KEY_PASSWORD", "QRV_SUDO_PASSWORD")] == [
            "/root/key", None, "the key's", "sudo's"]


@pytest.mark.slow
def test_a_finished_migration_is_begun_again_only_for_other_settings_or_a_step_to_go_back_to(imitated):
    settings = {"host": "src.example", "login": "root", "domains": ["a.example", "b.example"], "server": False,
                "final": True}
    assert begin(imitated, check=True, settings=settings)["changed"] is True
    assert not os.path.exists(SESSION)
    assert begin(imitated, settings=settings)["changed"] is True
    assert look(imitated, wait_seconds=30)["state"] == "finished"
    assert "--domains=a.example,b.example" in imitated.arguments(2)
    assert begin(imitated, settings=settings)["changed"] is False
    assert begin(imitated, settings=settings, password="")["changed"] is False
    assert imitated.runs() == STEPS
    assert begin(imitated, settings=settings, from_step="content")["changed"] is True
    assert look(imitated, wait_seconds=30)["state"] == "finished"
    # The agent was gone.
    assert imitated.runs() == [*STEPS, *STEPS[1:]]
    assert begin(imitated, settings={**settings, "host": "other.example"})["changed"] is True
    found = look(imitated, wait_seconds=30)
    assert (found["state"], found["exit_code"]) == ("refused", 1)
    assert "--host was" in found["reason"]


@pytest.mark.parametrize("more, reason", [
    ({"password": ""}, "the password of root@src.example is empty"),
    ({"settings": {"host": "src.example", "login": "root"}}, "what to dump is missing"),
], ids=["password", "settings"])
def test_says_why_nothing_was_begun(imitated, more, reason):
    begin(imitated, **more)
    found = look(imitated, wait_seconds=30)
    assert (found["state"], found["exit_code"]) == ("refused", 1)
    assert reason in found["reason"] and imitated.runs() == []


@pytest.mark.slow
def test_what_was_killed_is_cut_short_and_is_gone_on_with(imitated):
    hold(imitated, "dump")
    begin(imitated)
    wait_until(lambda: imitated.is_at("dump"), "the dump")
    kill_together([pid for pid, command in processes() if command.startswith(os.fsencode(f"{imitated.program}\0"))])
    found = look(imitated, wait_seconds=30)
    assert (found["state"], found["step"], found["exit_code"]) == ("cut short", "dump", 128 + signal.SIGKILL)
    os.unlink(f"{IMITATION}/dump")
    assert begin(imitated)["changed"] is True
    assert look(imitated, wait_seconds=30)["state"] == "finished"


@pytest.mark.slow
def test_a_run_begun_by_hand_is_waited_for_and_left_alone(imitated):
    go_on = hold(imitated, "dump")
    running = imitated.start(f"--session-path={PLACE}", "--host=src.example", "--login=root", "--dump-all",
                             "--final")
    wait_until(lambda: imitated.is_at("dump"), "the dump")
    assert begin(imitated)["changed"] is False
    assert look(imitated)["state"] == "running"
    go_on()
    assert running.finish().code == 0
    assert look(imitated, wait_seconds=30)["state"] == "finished"


def test_tells_of_problems_of_a_success(imitated):
    problems = "".join(f'<problem severity="{severity}"/>' for severity in ("error", "warning", "info", "warning"))
    imitated.does("dump", f"echo '<dump><problems>{problems}</problems></dump>' > {PLACE}/dump.xml")
    # Longer than any document that the role itself would read.
    imitated.does("content", "echo \"<execution-result status='success'>$(yes '<message/>' | head -n 200000)"
                             f"</execution-result>\" > {PLACE}/transfer.result")
    begin(imitated)
    found = look(imitated, wait_seconds=30)
    assert (found["state"], found["problems"]) == ("finished", 200001)
    assert {key: found[key] for key in ("counted", "errors", "warnings", "notes")} == {
        "counted": True, "errors": 1, "warnings": 2, "notes": 1}
    assert (found["dump"], found["log"]) == (f"{PLACE}/dump.xml", f"{PLACE}/migration.log")
    line = sondrel_summary(["a"], {"a": {"sondrel_migration": {**found, "destination": "new"}}})[0]
    assert line.endswith(f"1 error, 2 warnings, 1 note, 200000 problems of the content, new:{PLACE}"), line


def test_a_failure_says_what_is_known_and_where_to_look(imitated):
    imitated.does("dump", f"echo '<dump><problems><problem severity=\"error\"/></problems></dump>' > {PLACE}/dump.xml")
    imitated.does("content", "exit 2")
    begin(imitated)
    found = {**look(imitated, wait_seconds=30), "destination": "new"}
    assert sondrel_failure(found) == (f"new: failed at content, exit code 2, 0 B in 0 files, 1 error, 0 warnings, 0 notes, "
                                      f"new:{PLACE}. See {PLACE}/migration.log, and {PLACE}.log for what the runs said")


@pytest.mark.slow
def test_what_was_refused_and_then_made_by_hand_is_finished(imitated):
    begin(imitated, password="")
    assert look(imitated, wait_seconds=30)["state"] == "refused"
    assert imitated.run(f"--session-path={PLACE}").code == 0
    assert begin(imitated)["changed"] is False
    found = look(imitated)
    assert (found["state"], found["exit_code"], found["reason"]) == ("finished", 0, "")


@pytest.mark.slow
def test_no_more_are_at_work_than_there_are_slots(imitated):
    go_on = hold(imitated, "scout")
    for number in range(3):
        assert begin(imitated, f"{SESSION}/{number}", slots=2)["changed"] is True
    wait_until(lambda: len(imitated.runs()) == 2, "two migrations to be at work")
    states = sorted(look(imitated, f"{SESSION}/{number}")["state"] for number in range(3))
    assert states == ["queued", "running", "running"]
    assert len(imitated.runs()) == 2
    go_on()
    for number in range(3):
        assert look(imitated, f"{SESSION}/{number}", wait_seconds=30)["state"] == "finished"


@pytest.mark.parametrize("environment", [{"ANSIBLE_KEEP_REMOTE_FILES": "1"}], ids=["files are kept"])
def test_refuses_passwords_that_come_in_a_file(imitated, environment):
    answer = begin(imitated, environment=environment)
    assert "Pipelining is off" in answer["msg"] and imitated.runs() == []


def test_a_password_of_two_lines_is_none(imitated):
    assert begin(imitated, password="one\ntwo")["msg"] == "password is more than one line"
    assert imitated.runs() == []


def test_a_password_among_the_settings_does_not_become_an_argument(imitated):
    assert begin(imitated, settings={"host": "src.example", "password": "a"})["msg"] == "A password is no setting"
    assert not os.path.exists(SESSION)


def test_a_setting_without_a_value_names_nothing(imitated):
    answer = begin(imitated, settings={"host": "src.example", "login": "root", "domains": None})
    assert answer["msg"] == "The setting domains has no value"
    assert not os.path.exists(SESSION)


def test_role_by_its_short_name_hands_over_jump_host_and_key(imitated):
    # Linked as the package links it, for playbooks that were written before the collection.
    roles = f"{CONTROLLER}/roles"
    os.makedirs(roles)
    os.symlink(f"{link_collection()}/roles/sondrel_migrate", f"{roles}/sondrel_migrate")
    inventory({"here": {"ansible_connection": "local"}}, {"one": {
        "sondrel_migrate_destination": "here", "sondrel_migrate_host": "src.example",
        "sondrel_migrate_jump": "jo@gate.example:2222", "sondrel_migrate_identity": "/root/key",
        "sondrel_migrate_session": PLACE, "sondrel_migrate_password": "a-passphrase"}},
              {"sondrel_migrate_program": imitated.program})
    playbook = write(f"{CONTROLLER}/own.yml", json.dumps([
        {"hosts": "sondrel_migrations", "gather_facts": False, "roles": ["sondrel_migrate"]}]))
    found = play(playbook=playbook, environment={"ANSIBLE_ROLES_PATH": roles})
    assert (found.code, found.count("changed")) == (0, {"one": 1}), found.text
    environment = imitated.environment(0)
    assert [environment.get(name) for name in ("SONDREL_JUMP", "SONDREL_IDENTITY", "QRV_PASSWORD")] == [
        "jo@gate.example:2222", "/root/key", "a-passphrase"]
    assert "--host=src.example" in imitated.arguments(0)


@pytest.mark.slow
def test_a_destination_out_of_reach_and_one_without_the_program_stop_no_other(imitated):
    local = {"ansible_connection": "local"}
    inventory({"here": local, "nowhere": {"ansible_host": HOST, "ansible_port": 9}},
              {"one": {"sondrel_migrate_destination": "nowhere"},
               "two": {"sondrel_migrate_destination": "here", "sondrel_migrate_program": "/mnt/absent"},
               "three": {"sondrel_migrate_destination": "here"}},
              {"sondrel_migrate_session": SESSION + "/{{ inventory_hostname }}",
               "sondrel_migrate_password": "a-passphrase", "sondrel_migrate_connection_attempts": 0,
               "sondrel_migrate_program": imitated.program})
    # One batch after the other; the first two fail.
    found = play("-e", "batch=1")
    assert found.code == 2
    assert found.count("changed") == {"one": 0, "two": 0, "three": 1}
    assert found.count("failed") == {"one": 1, "two": 1, "three": 0}
    summary = found.summary()
    assert summary["one"].startswith("unknown, 0 B in 0 files, ") and HOST in summary["one"]
    assert summary["two"].startswith("unknown, ") and "/mnt/absent" in summary["two"]
    assert summary["three"].startswith("finished, ") and summary[""] == "1 of 3 finished, 0 B"
