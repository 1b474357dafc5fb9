"""Dumps of a web host by the agent "linux", through the tool."""
import os
import shutil

import pytest

from archives import STAGE, assert_same_tree, unpack
from linux_agent import Dump, check_schema, install_linux_agent
from linux_host import populate, populate_apache, web_host
from tool import Destination, Session
from world import ROOT, files_below, owner_and_mode, read

ARCHIVES = "/mnt/session/archives"


@pytest.fixture
def host():
    """A populated web host with its web servers running."""
    install_linux_agent()
    shutil.rmtree(STAGE, ignore_errors=True)
    with web_host() as found:
        populate(found)
        populate_apache(found)
        with found.nginx, found.apache:
            yield found


def run(login, action, *options, **how):
    """A run of the tool that must succeed without any output."""
    outcome = Destination(login, agent="linux").run(action, *options, **how)
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b""), (action, outcome)


def dumped(login, action="dump-all", *options):
    """Runs a dump by an agent that is deployed already; returns its document."""
    run(login, action, *options)
    text = Session().read("dump.xml")
    check_schema(text, "dump")
    check_schema(read(f"{login.agent_dir}/dumping-status.xml"), "dumping-status")
    return Dump(text)


def migrate(login=ROOT, *selection):
    """Deploys, dumps and fetches everything that is selected, and unpacks it."""
    run(login, "deploy-agent")
    dump = dumped(login, *selection)
    run(login, "get-content")
    assert Session().messages("transfer.result") == []
    assert set(files_below(ARCHIVES)) == {os.fsencode(name) for name in [*dump.files(), "dump.xml"]}
    assert read(f"{ARCHIVES}/dump.xml") == dump.text
    for name in dump.files():
        if ".tar" in name:
            unpack(f"{ARCHIVES}/{name}")
    return dump


def arrived(*directories):
    """Checks that each directory is the same on the source host and in what was unpacked."""
    for directory in directories:
        assert_same_tree(directory, STAGE + directory)


def entries(login):
    """{path relative to the agent directory: (owner, group, mode)}"""
    return {os.path.relpath(os.path.join(parent, name), login.agent_dir): owner_and_mode(os.path.join(parent, name))
            for parent, directories, names in os.walk(login.agent_dir) for name in [*directories, *names]}
