"""A command on the source host whose answer the test chooses: that of --send-scout."""
import pytest

from script import Script
from scripted_server import ScriptedServer
from tool import Destination, Session
from world import DTM, PLAIN, write

SCOUT = f"{DTM}/scout.pl"
MIB = 1 << 20


@pytest.fixture(autouse=True)
def scout():
    write(SCOUT, "the script")


def scouted(answer, **script):
    """Runs the scout against a server with this answer; returns the outcome and the one command."""
    with ScriptedServer(Script(answer=answer, **script)) as server:
        outcome = Destination(PLAIN).run("send-scout")
    assert [command.line for command in server.commands] == [r"sh -c cd\ \;\ perl"]
    return outcome, server.commands[0]


def scout_failure(status, stderr=""):
    return f"Failed to execute scout. \nThe return code is {status}\nThe output on STDERR is\n{stderr}".encode()


def result():
    return Session().read("scout-result.xml")
