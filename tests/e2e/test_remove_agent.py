"""--remove-agent."""
import os

import pytest

from source_host import RemoteCommand, deployed_agent, root_command, sudo_check
from tool import Destination, Session
from world import ROOT, SUDOER, Login, write


def succeeded(outcome):
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")
    assert Session().result() == ("execution-result", [("status", "success")], "", [])
    assert not Session().exists("migration.status")
    return True


def test_removes_the_whole_directory_and_nothing_else(source, login):
    deployed_agent(login, "", {"sub/directory/file": "1", "it's odd\n": "2"})
    write(f"{login.home}/other", "kept")
    assert succeeded(Destination(login).run("remove-agent"))
    assert os.listdir(login.home) == ["other"]
    assert source.commands() == sudo_check(login) + [root_command(login, f"rm -rf {login.agent_dir}")]


def test_sends_this_very_line(source):
    assert succeeded(Destination().run("remove-agent"))
    assert source.commands() == [RemoteCommand(
        "root", r"sh -c cd\ /mnt/home/root/agent\;\ rm\ -rf\ /mnt/home/root/agent", b"")]


def test_quotes_the_directory_for_the_removal(source):
    write(f"{ROOT.home}/agent dir/file", "1")
    write(f"{ROOT.home}/dir/file", "kept")
    assert succeeded(Destination(agent_dir=f"{ROOT.home}/agent dir").run("remove-agent"))
    assert os.listdir(ROOT.home) == ["dir"]
    assert source.lines() == [
        r"sh -c cd\ /mnt/home/root/agent\ dir\;\ rm\ -rf\ /mnt/home/root/agent\\\ dir"]


def test_succeeds_when_there_is_no_directory(source, login):
    assert succeeded(Destination(login).run("remove-agent"))


def test_succeeds_when_the_directory_cannot_be_removed(source):
    deployed_agent(ROOT, "")
    os.chmod(ROOT.home, 0o755)
    login = Login("plain", "plain-passphrase")
    assert succeeded(Destination(login, agent_dir=ROOT.agent_dir).run("remove-agent"))
    assert os.path.exists(ROOT.agent_dir)


@pytest.mark.parametrize("login, host", [
    (Login("plain", "wrong-passphrase"), "127.0.0.1"), (ROOT, "127.0.0.2"), (ROOT, "192.0.2.1"),
    (Login("sudoer", "sudoer-passphrase", "wrong-passphrase"), "127.0.0.1"),
], ids=["wrong password", "connection refused", "unreachable network", "sudo refuses"])
def test_succeeds_when_the_host_cannot_be_used(source, login, host):
    assert succeeded(Destination(login, host=host).run("remove-agent"))


def test_needs_neither_the_catalogue_nor_a_valid_agent_name(source):
    deployed_agent(SUDOER, "")
    assert succeeded(Destination(SUDOER, agent="absent").run("remove-agent"))
    assert not os.path.exists(SUDOER.agent_dir)
