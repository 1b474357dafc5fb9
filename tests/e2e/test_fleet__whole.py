"""Many migrations at once: the Ansible collection sondrel.migration moves four hosts to three."""
import contextlib
import json
import os
import re
import shutil
import subprocess

import pytest

from archives import assert_same_tree, unpack
from fleet import CONTROLLER, LOG, NAME, Watch, inventory, play
from fleet_controller import new_controller  # noqa: F401  # pylint: disable=unused-import
from linux_agent import Dump, install_linux_agent
from linux_host import web_host
from nodes import SESSIONS, Node, cables
from source_host import use_shell
from source_services import add_user, fill_root
from test_secret_matrix import check_nothing_told
from world import DTM, ROOT, SUDOER, read, write

DESTINATIONS = {"new1": 11, "new2": 12, "new3": 13}
# The source, its number, where its site goes, and the login that is used.
SOURCES = {"old1": (21, "new1", ROOT), "old2": (22, "new1", ROOT), "old3": (23, "new2", SUDOER),
           "old4": (24, "new3", ROOT)}
# Ansible must not take the output of its archive step for a template.
BROKEN = "/mnt/shell/broken"
COMPLAINT = "no {{ 6 * 7 }} today"
CAT = f"""#!/bin/sh
case "$*" in *.tar*) [ ! -e {BROKEN} ] || {{ echo '{COMPLAINT}' >&2; exit 1; }} ;; esac
exec /bin/cat "$@"
"""
# A tar that sends files would bypass that `cat`, so it fails as well.
TAR = f"""#!/bin/sh
case "$*" in *--no-unquote*) [ ! -e {BROKEN} ] || exit 127 ;; esac
exec /bin/tar "$@"
"""
# root's shell at the destinations: it records the command lines that Ansible runs there.
COMMAND_LINES = "/mnt/shell/command-lines"
LISTING_SHELL = f"""#!/bin/sh
printf '%s\\n' "$2" >> {COMMAND_LINES}
exec /bin/sh "$@"
"""


def furnish_web_host(name, running):
    """Makes a host with one site, which has the name of the host."""
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
        """Sets passwords that no other run on this machine uses."""
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
        # Records the arguments that Ansible gives to ssh.
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
        """The path by which the test reaches the session of a source's migration."""
        return self.nodes[SOURCES[name][1]].own(f"{SESSIONS}/{name}")

    def sent(self):
        """{source: the commands that it has received so far}"""
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
        # All command lines that Ansible ran at the destinations: none transferred a file.
        for name in DESTINATIONS:
            lines = read(fleet.nodes[name].own(COMMAND_LINES)).decode()
            assert "python3" in lines and "sftp" not in lines and "AnsiballZ" not in lines
        assert read(f"{CONTROLLER}/ssh-arguments") and f"TASK [{NAME}.sondrel_migrate : Begin".encode() in read(LOG)
        check_nothing_told(*fleet.all_passwords())
