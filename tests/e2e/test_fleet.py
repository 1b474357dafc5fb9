"""Many migrations at once: the Ansible collection sondrel.migration."""
import contextlib
import json
import os
import re
import shutil
import signal
import subprocess
import sys

import pytest
import yaml

from fleet import (COLLECTION, CONTROLLER, LOG, NAME, PLAYBOOK, Watch, inventory, link_collection, module, play,
                   start_ansible)
from linux_host import Dump, assert_same_tree, install_linux_agent, unpack, web_host
from migrating import IMITATION, STEPS, ImitatedSondrel
from nodes import SESSIONS, Node, cables
from source_host import use_shell
from source_services import add_user, fill_root
from test_secret_matrix import check_nothing_told
from world import DTM, HOST, ROOT, SESSION, SUDOER, processes, read, wait_until, write

sys.path.append(f"{COLLECTION}/plugins/filter")
from sondrel_summary import sondrel_failure, sondrel_summary  # noqa: E402  it lies in the collection


@pytest.fixture(autouse=True)
def new_controller():
    """Nothing of another test's inventory is there."""
    shutil.rmtree(CONTROLLER, ignore_errors=True)


# --- three destinations, four sources --------------------------------------------------------

DESTINATIONS = {"new1": 11, "new2": 12, "new3": 13}
# The source, its number, where its site goes, and the login that is used.
SOURCES = {"old1": (21, "new1", ROOT), "old2": (22, "new1", ROOT), "old3": (23, "new2", SUDOER),
           "old4": (24, "new3", ROOT)}
# What its archive step says must not be taken for a template of Ansible's.
BROKEN = "/mnt/shell/broken"
COMPLAINT = "no {{ 6 * 7 }} today"
CAT = f"""#!/bin/sh
case "$*" in *.tar*) [ ! -e {BROKEN} ] || {{ echo '{COMPLAINT}' >&2; exit 1; }} ;; esac
exec /bin/cat "$@"
"""
# A tar that sends files would go past that.
TAR = f"""#!/bin/sh
case "$*" in *--no-unquote*) [ ! -e {BROKEN} ] || exit 127 ;; esac
exec /bin/tar "$@"
"""
# root's shell at the destinations: it keeps the command lines that Ansible has run there.
COMMAND_LINES = "/mnt/shell/command-lines"
LISTING_SHELL = f"""#!/bin/sh
printf '%s\\n' "$2" >> {COMMAND_LINES}
exec /bin/sh "$@"
"""


def furnish_web_host(name, running):
    """A host with one site, whose name is that of the host."""
    host = running.enter_context(web_host())
    root = fill_root(f"/home/owner/{name}.test", add_user("owner"),
                     {"index.html": f"<h1>{name}</h1>", "picture": os.urandom(100_000).hex()})
    host.nginx.add_site(f"{name}.test", root)


class Fleet:
    """The machines, and the controller's files."""

    def __init__(self, running):
        self.passwords = {}
        install_linux_agent()
        running.enter_context(cables())
        self.nodes = {}
        for name, number in DESTINATIONS.items():
            self.nodes[name] = running.enter_context(Node(name, number))
            shutil.copytree(DTM, self.nodes[name].own(DTM), dirs_exist_ok=True)
        for name, (number, _, _) in SOURCES.items():
            self.nodes[name] = running.enter_context(
                Node(name, number, lambda name=name: furnish_web_host(name, contextlib.ExitStack())))
            write(self.nodes[name].own("/mnt/shell/programs/cat"), CAT, mode=0o755)
            write(self.nodes[name].own("/mnt/shell/programs/tar"), TAR, mode=0o755)
        self.servers = {name: running.enter_context(self._server(name)) for name in self.nodes}
        self._give_passwords()
        self._furnish_controller()

    def _server(self, name):
        node = self.nodes[name]
        if name in SOURCES:
            return node.server(["SetEnv PATH=/mnt/shell/programs:/usr/bin:/bin"])
        server = node.server(recording=False)
        write(node.own("/mnt/shell/listing-shell"), LISTING_SHELL, mode=0o755)
        use_shell("/mnt/shell/listing-shell", node.own("/etc/passwd"))
        return server

    def _give_passwords(self):
        """Of these words other runs on this machine know nothing."""
        for name in SOURCES:
            self.passwords[name] = {login.name: f"own-{login.name}-passphrase-of-{name}-{os.getpid()}"
                                    for login in (ROOT, SUDOER)}
            for login in (ROOT, SUDOER):
                self.nodes[name].set_password(login, self.passwords[name][login.name])

    def _furnish_controller(self):
        os.makedirs(CONTROLLER)
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", f"{CONTROLLER}/key"], check=True)
        for name in DESTINATIONS:
            write(self.nodes[name].own(f"{ROOT.home}/.ssh/authorized_keys"), read(f"{CONTROLLER}/key.pub"), mode=0o600)
        known = "".join(f"{self.nodes[name].address} {read(f'/mnt/sshd.{name}.22/ed25519.key.pub').decode()}"
                        for name in DESTINATIONS)
        write(f"{CONTROLLER}/known_hosts", known)
        # What Ansible gives ssh for arguments.
        write(f"{CONTROLLER}/ssh", f'#!/bin/sh\nprintf "%s\\n" "$@" >> {CONTROLLER}/ssh-arguments\n'
                                   'exec /usr/bin/ssh "$@"\n', mode=0o755)
        inventory({name: {"ansible_host": self.nodes[name].address} for name in DESTINATIONS},
                  {name: self._migration(name) for name in SOURCES},
                  {"sondrel_migrate_session": SESSIONS + "/{{ inventory_hostname }}", "sondrel_migrate_slots": 1,
                   "sondrel_migrate_password": "{{ vault_passwords[inventory_hostname] }}"})
        self._encrypt(f"{CONTROLLER}/group_vars/sondrel_migrations/vault.yml", {
            "vault_passwords": {name: self.passwords[name][login.name] for name, (_, _, login) in SOURCES.items()},
            "vault_sudo_password": self.passwords["old3"]["root"]})

    def _migration(self, name):
        _, destination, login = SOURCES[name]
        given = {"sondrel_migrate_host": self.nodes[name].address, "sondrel_migrate_destination": destination,
                 "sondrel_migrate_login": login.name, "sondrel_migrate_agent_parent": login.home}
        if login.sudo_password is not None:
            given |= {"sondrel_migrate_sudo": True, "sondrel_migrate_sudo_password": "{{ vault_sudo_password }}"}
        return given

    def _encrypt(self, path, variables):
        write(f"{CONTROLLER}/vault-pass", "the key to the vault\n", mode=0o600)
        os.makedirs(os.path.dirname(path))
        subprocess.run(["ansible-vault", "encrypt", "--vault-password-file", f"{CONTROLLER}/vault-pass", "--output",
                        path, "-"], input=json.dumps(variables), text=True, check=True, capture_output=True,
                       env={"PATH": "/usr/bin:/bin", "HOME": CONTROLLER, "LC_ALL": "C.UTF-8"})

    def play(self):
        return play("--vault-password-file", f"{CONTROLLER}/vault-pass", "-vvv", environment={
            "ANSIBLE_SSH_EXECUTABLE": f"{CONTROLLER}/ssh", "ANSIBLE_PRIVATE_KEY_FILE": f"{CONTROLLER}/key",
            "ANSIBLE_SSH_COMMON_ARGS": f"-o UserKnownHostsFile={CONTROLLER}/known_hosts"})

    def session(self, name):
        """Where the test finds the session of a source's migration."""
        return self.nodes[SOURCES[name][1]].own(f"{SESSIONS}/{name}")

    def sent(self):
        """{source: the commands that it was sent so far}"""
        return {name: self.servers[name].lines() for name in SOURCES}

    def all_passwords(self):
        return [word for words in self.passwords.values() for word in words.values()]


def assert_arrived(fleet, name):
    session = fleet.session(name)
    dump = Dump(read(f"{session}/dump.xml"))
    assert (dump.names("domain"), dump.problems("error")) == ([f"{name}.test"], [])
    stage = f"/mnt/stage/{name}"
    for file in dump.files():
        unpack(f"{session}/archives/{file}", stage)
    site = f"/home/owner/{name}.test"
    assert_same_tree(fleet.nodes[name].own(site), stage + site)


@pytest.mark.slow
def test_moves_four_hosts_to_three_goes_on_where_one_failed_and_then_changes_nothing():
    with contextlib.ExitStack() as running:
        fleet = Fleet(running)
        broken = write(fleet.nodes["old2"].own(BROKEN))
        with Watch(fleet.all_passwords()) as watch:
            first = fleet.play()
            assert first.code == 2, first.text
            sent = fleet.sent()
            os.unlink(broken)
            second = fleet.play()
            sent_then = fleet.sent()
            third = fleet.play()

        assert first.count("changed") == {"old1": 1, "old2": 1, "old3": 1, "old4": 1}
        assert first.count("failed") == {"old1": 0, "old2": 1, "old3": 0, "old4": 0}
        summary = first.summary()
        for name in ("old1", "old3", "old4"):
            place = re.escape(f"{SOURCES[name][1]}:{SESSIONS}/{name}")
            assert re.fullmatch(rf"finished, [1-9][\d.]* k?B in \d+ files, \d+ errors?, \d+ warnings?, \d+ notes?, {place}",
                                summary[name]), summary
        assert re.fullmatch(rf"failed at content, exit code 2, 0 B in 1 files, \d+ errors?, \d+ warnings?, \d+ notes?, "
                            rf"new1:{SESSIONS}/old2: .*"
                            + re.escape(COMPLAINT), summary["old2"]), summary
        assert re.fullmatch(r"3 of 4 finished, [1-9][\d.]* k?B", summary[""])

        assert (second.code, third.code) == (0, 0), second.text + third.text
        assert second.count("changed") == {"old1": 0, "old2": 1, "old3": 0, "old4": 0}
        assert {name: sent_then[name] for name in sent if name != "old2"} == {
            name: sent[name] for name in sent if name != "old2"}
        further = sent_then["old2"][len(sent["old2"]):]
        assert "--get-content-list" in further[0] and not any("perl -" in line or "mkdir" in line for line in further)
        assert second.summary()[""].startswith("4 of 4 finished, ")

        assert set(third.count("changed").values()) == {0} and len(third.recap) == 4
        assert third.summary() == second.summary()
        assert fleet.sent() == sent_then

        for name in SOURCES:
            assert_arrived(fleet, name)
        assert watch.told == set()
        assert {"ansible-playbook", "python3", "ssh", "sondrel-migrate", "sondrel"} <= watch.programs
        # Every command line that Ansible had run at the destinations, and none brought a file.
        for name in DESTINATIONS:
            lines = read(fleet.nodes[name].own(COMMAND_LINES)).decode()
            assert "python3" in lines and "sftp" not in lines and "AnsiballZ" not in lines
        assert read(f"{CONTROLLER}/ssh-arguments") and f"TASK [{NAME}.sondrel_migrate : Begin".encode() in read(LOG)
        check_nothing_told(*fleet.all_passwords())


# --- the collection ---------------------------------------------------------------------------

@pytest.mark.slow
@pytest.mark.release_only
def test_collection_passes_ansible_lint():
    # Its own rule is that a collection lies where Ansible finds it.
    place = f"{CONTROLLER}/lint/ansible_collections/{NAME.replace('.', '/')}"
    shutil.copytree(COLLECTION, place, ignore=shutil.ignore_patterns("__pycache__"))
    checked = subprocess.run(["ansible-lint", "--offline", "-p", "--nocolor"], cwd=place, text=True, capture_output=True,
                             check=False, env={"PATH": "/usr/bin:/bin", "HOME": CONTROLLER, "LC_ALL": "C.UTF-8",
                                               "ANSIBLE_COLLECTIONS_PATH": f"{CONTROLLER}/lint"})
    assert (checked.returncode, checked.stdout) == (0, ""), checked
    # Without a list of files from git it finds them itself; nothing found would pass as well.
    assert int(re.search(r"on (\d+) files", checked.stderr)[1]) > 10, checked


def test_collection_is_built_and_installed_with_what_its_playbook_needs():
    """What is installed elsewhere has no file of the checkout behind it."""
    target = f"{CONTROLLER}/installed"
    for words in (["build", COLLECTION, "--output-path", target],
                  ["install", "--offline", f"{target}/{NAME.replace('.', '-')}-{version_of_program()}.tar.gz", "-p", target]):
        outcome = start_ansible("ansible-galaxy", "collection", *words, alone=False).finish()
        assert outcome.code == 0, outcome
    outcome = start_ansible("ansible-playbook", "-i", f"{COLLECTION}/inventory.example.yml", "--syntax-check", PLAYBOOK,
                            environment={"ANSIBLE_COLLECTIONS_PATH": target}).finish()
    assert_only_where_the_playbook_is(outcome)


def assert_only_where_the_playbook_is(outcome):
    """Ansible warns of a playbook that a collection brings, and of nothing else."""
    assert (outcome.code, outcome.stderr) == (0, f"[WARNING]: running playbook inside collection {NAME}\n".encode()), outcome
    assert b"playbook: " in outcome.stdout


def version_of_program():
    return re.search(r"project\(sondrel VERSION ([\d.]+)", read(f"{os.path.dirname(COLLECTION)}/CMakeLists.txt").decode())[1]


@pytest.mark.parametrize("kind, name", [("module", "sondrel_migrate"), ("module", "sondrel_migrate_info"),
                                        ("filter", "sondrel_summary"), ("filter", "sondrel_failure"),
                                        ("role", "sondrel_migrate")])
def test_collection_documents_its(kind, name):
    shown = start_ansible("ansible-doc", "--json", "-t", kind, f"{NAME}.{name}", alone=False).finish()
    assert (shown.code, shown.stderr) == (0, b""), shown
    found = json.loads(shown.stdout)[f"{NAME}.{name}"]
    if kind == "role":
        assert found["entry_points"]["main"]["options"]
    else:
        assert found["doc"]["description"] and found["examples"] and found["return"]


def test_defaults_that_the_role_documents_are_those_that_it_has():
    shown = start_ansible("ansible-doc", "--json", "-t", "role", f"{NAME}.sondrel_migrate", alone=False).finish()
    options = json.loads(shown.stdout)[f"{NAME}.sondrel_migrate"]["entry_points"]["main"]["options"]
    documented = {name: option["default"] for name, option in options.items() if "default" in option}
    assert documented == yaml.safe_load(read(f"{COLLECTION}/roles/sondrel_migrate/defaults/main.yml"))


# --- one host --------------------------------------------------------------------------------

# The log of a session lies beside it.
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
    """The step waits for what the returned function does."""
    imitated.does(step, f"while [ ! -e {IMITATION}/go ]; do sleep 0.01; done")
    return lambda: write(f"{IMITATION}/go")


def test_example_playbook_and_inventory_pass_the_syntax_check():
    outcome = start_ansible("ansible-playbook", "-i", f"{COLLECTION}/inventory.example.yml", "--syntax-check",
                            PLAYBOOK).finish()
    assert_only_where_the_playbook_is(outcome)


def test_a_migration_goes_on_without_the_process_that_began_it(imitated):
    go_on = hold(imitated, "dump")
    assert begin(imitated)["changed"] is True
    wait_until(lambda: imitated.is_at("dump"), "the dump")
    assert look(imitated)["state"] == "running"
    assert look(imitated, wait_seconds=0.2)["state"] == "running"
    # Begun a second time it is left alone, and cannot go back.
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


def test_what_was_killed_is_cut_short_and_is_gone_on_with(imitated):
    hold(imitated, "dump")
    begin(imitated)
    wait_until(lambda: imitated.is_at("dump"), "the dump")
    for pid, command in processes():
        if command.startswith(os.fsencode(f"{imitated.program}\0")):
            os.kill(pid, signal.SIGKILL)
    found = look(imitated, wait_seconds=30)
    assert (found["state"], found["step"], found["exit_code"]) == ("cut short", "dump", 128 + signal.SIGKILL)
    os.unlink(f"{IMITATION}/dump")
    assert begin(imitated)["changed"] is True
    assert look(imitated, wait_seconds=30)["state"] == "finished"


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
    # Longer than a document that the role itself would read.
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


def test_what_was_refused_and_then_made_by_hand_is_finished(imitated):
    begin(imitated, password="")
    assert look(imitated, wait_seconds=30)["state"] == "refused"
    assert imitated.run(f"--session-path={PLACE}").code == 0
    assert begin(imitated)["changed"] is False
    found = look(imitated)
    assert (found["state"], found["exit_code"], found["reason"]) == ("finished", 0, "")


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
    # As the package links it, for playbooks that were written before the collection.
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
    # One batch after the other; the first two come to nothing.
    found = play("-e", "batch=1")
    assert found.code == 2
    assert found.count("changed") == {"one": 0, "two": 0, "three": 1}
    assert found.count("failed") == {"one": 1, "two": 1, "three": 0}
    summary = found.summary()
    assert summary["one"].startswith("unknown, 0 B in 0 files, ") and HOST in summary["one"]
    assert summary["two"].startswith("unknown, ") and "/mnt/absent" in summary["two"]
    assert summary["three"].startswith("finished, ") and summary[""] == "1 of 3 finished, 0 B"
