"""Runs of --get-content, and the commands that they send."""
import subprocess

import pytest

from source_host import root_command, sh_quote, sudo_check, user_line
from tool import Destination, Session
from world import ROOT

ARCHIVES = "/mnt/session/archives"
DUMPS = "/mnt/dumps"
WRAPPING = "Error during dump retrieval"


@pytest.fixture(autouse=True)
def no_dumps():
    yield
    subprocess.run(["umount", "-q", DUMPS], check=False)
    subprocess.run(["rm", "-rf", DUMPS, "/mnt/outside"], check=True)


def get_content(login=ROOT, *options):
    outcome = Destination(login).run("get-content", *options)
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")
    return outcome


def cause_of_failure(*options, login=ROOT, agent="sample"):
    """(code, text) of the error inside the one that wraps every failure."""
    outcome = Destination(login, agent=agent).run("get-content", *options)
    assert (outcome.code, outcome.stdout, outcome.stderr) == (2, b"", WRAPPING.encode())
    assert not Session().exists("migration.result")
    assert Session().result("transfer.result")[1] == [("status", "error")]
    (code, severity, text, nested), = [message for message in Session().messages("transfer.result")
                                       if message[0] == "CantRetrieveDump"]
    assert (code, severity, text) == ("CantRetrieveDump", "error", WRAPPING)
    (code, _, text, _), = nested
    return code, text


def fetching(login, *names):
    """The RemoteCommands that fetch and remove these files."""
    commands = []
    for name in names:
        path = sh_quote(f"{login.agent_dir}/{name}")
        commands += [user_line(login, f"cat {path}"), root_command(login, f"rm {path}")]
    return commands


def listing(login):
    return sudo_check(login) + [root_command(login, f"sh {login.agent_dir}/agent --get-content-list")]
