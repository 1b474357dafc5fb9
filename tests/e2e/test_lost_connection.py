"""What a run does when its connection is lost, or its server falls silent."""
import re
import signal
import threading
import time

import pytest

from fast_clock import fast_clock  # a fixture  # noqa: F401  # pylint: disable=unused-import
from script import Script, disconnect, ends, fin, mute, rst
from scripted_server import ScriptedServer, Stopped
from source_host import install_agent
from tool import Destination, Session
from world import DTM, PLAIN, ROOT, write

LOST = "Lost connection with the remote host"
CREDENTIALS = "Unable to connect to host 127.0.0.1: you have specified incorrect username or password"
MIB = 1 << 20
# The most time that the tool may take to notice, also on a busy machine: its own limits are two minutes, or none.
LIMIT_SECONDS = 10


@pytest.fixture(autouse=True)
def scout():
    write(f"{DTM}/scout.pl", "the script")


class Timed:
    """Does something to a connection, and records the time when it did so last."""

    def __init__(self, action):
        self._action = action
        self.when = None

    def __call__(self, connection):
        self.when = time.monotonic()
        self._action(connection)


def run_until_lost(timed, script, action="send-scout", destination=None):
    """The outcome of a run, which must end within the limit after the connection was lost."""
    with ScriptedServer(script):
        outcome = (destination or Destination(PLAIN)).run(action)
        ended = time.monotonic()
        assert timed.when is not None, "the connection was never lost"
        assert ended - timed.when < LIMIT_SECONDS
    assert outcome.stdout == b""
    return outcome


ways = pytest.mark.parametrize("way", [fin, rst], ids=["closed", "reset"])


@ways
@pytest.mark.parametrize("point", ["connected", "version", "kexinit", "newkeys", "service-request"])
def test_loss_in_the_handshake_is_a_session_that_does_not_start(way, point):
    timed = Timed(way)
    outcome = run_until_lost(timed, Script(at={point: timed}))
    assert outcome.code == 2 and outcome.stderr.startswith(b"Unable to start SSH session: ")
    assert [message[0] for message in Session().messages()] == ["UnableToStartSshSession"]


# A login that fails with its connection is reported like one that is refused: the methods are tried one after the
# other, whatever happened to the one before.
@ways
@pytest.mark.parametrize("point, methods, code, text", [
    ("userauth none", "password", 2, "Invalid handle passed"),
    ("userauth password", "password,keyboard-interactive", 17, CREDENTIALS),
    ("userauth keyboard-interactive", "keyboard-interactive", 17, CREDENTIALS),
    ("userauth-info-response", "keyboard-interactive", 17, CREDENTIALS),
    ("channel-open", "password", 2, "Invalid handle passed"),
    ("channel-request", "password", 18, LOST),
    ("channel-eof", "password", 18, LOST)],
    ids=["list of methods", "password", "keyboard-interactive", "answers", "channel", "command", "end of input"])
def test_loss_is_told_by_the_step_it_falls_in(way, point, methods, code, text):
    timed = Timed(way)
    outcome = run_until_lost(timed, Script(methods=methods, at={point: timed}))
    assert (outcome.code, outcome.stderr) == (code, text.encode())
    assert Session().messages()[0][2] == text


def silent(command):
    command.take_input()


def after_output(command):
    command.take_input()
    command.say(b"half")


def after_error_output(command):
    command.take_input()
    command.complain(b"half")


def after_end_of_output(command):
    command.take_input()
    command.eof()


def after_all_but_the_close(command):
    command.take_input()
    command.say(b"half")
    command.status(0)
    command.eof()


def amid_input(command):
    command.take_input(MIB)


def at_full_windows(command):
    command.say(b"o" * 65536)


@ways
@pytest.mark.parametrize("stage", [silent, after_output, after_error_output, after_end_of_output,
                                   after_all_but_the_close, amid_input, at_full_windows],
                         ids=lambda stage: stage.__name__.replace("_", " "))
def test_loss_while_a_command_runs_ends_with_18(way, stage):
    def answer(command):
        stage(command)
        timed(command.connection)

    timed = Timed(way)
    if stage in (amid_input, at_full_windows):
        write(f"{DTM}/scout.pl", b"x" * (50 * MIB))
    outcome = run_until_lost(timed, Script(answer=answer))
    assert (outcome.code, outcome.stderr) == (18, LOST.encode())
    assert Session().messages() == [("SshConnectionFault", "error", LOST, [])]
    assert Session().log().endswith("INFO k.log: Sondrel finished. Exit code: 18\n")


def test_reset_behind_output_that_was_not_read_yet_ends_with_18():
    """The tool is sending its input: output that it can still read must not hide that it cannot write."""
    def answer(command):
        command.take_input(MIB)
        assert began.wait(60)
        with Stopped(runs[0]):
            command.say(b"unread")
            rst(command.connection)
            command.connection.transport.join(60)  # the reset goes out when nobody reads any more

    runs, began = [], threading.Event()
    write(f"{DTM}/scout.pl", b"x" * (50 * MIB))
    with ScriptedServer(Script(answer=answer)):
        runs.append(Destination(PLAIN).start("send-scout"))
        began.set()
        outcome = runs[0].finish()
    assert (outcome.code, outcome.stderr) == (18, LOST.encode())


def test_farewell_of_the_server_amid_a_command_ends_with_18():
    def answer(command):
        command.take_input()
        timed(command.connection)

    timed = Timed(disconnect)
    outcome = run_until_lost(timed, Script(answer=answer))
    assert (outcome.code, outcome.stderr) == (18, LOST.encode())


@ways
@pytest.mark.parametrize("action, code, text", [
    ("dump-all", "CantRetrieveDump", "Error during dump retrieval"),
    ("get-content", "CantRetrieveDump", "Error during dump retrieval"),
    ("get-dumping-status", "DumpStatusError", "Error during getting dumping status")],
    ids=["dump", "content", "dumping status"])
def test_dump_content_and_status_wrap_the_loss(way, action, code, text):
    def answer(command):
        command.take_input()
        timed(command.connection)

    timed = Timed(way)
    install_agent()
    outcome = run_until_lost(timed, Script(answer=answer), action)
    assert (outcome.code, outcome.stderr) == (2, text.encode())
    result = "transfer.result" if action == "get-content" else "migration.result"
    assert Session().messages(result) == [(code, "error", text, [("SshConnectionFault", "error", LOST, [])])]


@ways
def test_content_file_that_is_lost_half_way_stays_on_the_source_host(way):
    def answer(command):
        if "--get-content-list" in command.line:
            ends(b'<contentlist size="10" unpacked="10"><file size="10">one</file></contentlist>')(command)
        else:
            command.take_input()
            command.say(b"half")
            way(command.connection)

    install_agent()
    with ScriptedServer(Script(answer=answer)) as server:
        outcome = Destination(ROOT).run("get-content")
    assert (outcome.code, outcome.stderr) == (2, b"Error during dump retrieval")
    ((_, _, _, (cause,)),) = Session().messages("transfer.result")
    assert cause[0] == "CantRetrieveContentFile" and cause[3] == [("SshConnectionFault", "error", LOST, [])]
    assert [command.line.split()[0] for command in server.commands] == ["sh", "cat"]


def test_lost_removal_ends_well():
    with ScriptedServer(Script(answer=lambda command: fin(command.connection))):
        outcome = Destination(PLAIN).run("remove-agent")
    assert (outcome.code, outcome.stderr) == (0, b"")


# --- silence ---------------------------------------------------------------------------------

def test_farewell_to_a_silent_server_takes_no_longer_than_its_limit():
    def answer(command):
        command.take_input()
        taken.set()
        assert asked.wait(60)
        command.say(b"x")

    taken, asked = threading.Event(), threading.Event()
    # The server receives the close message and does not answer it.
    with ScriptedServer(Script(answer=answer, at={"channel-close": mute})) as server:
        running = Destination(PLAIN).start("send-scout")
        assert taken.wait(60)
        running.send(signal.SIGUSR1)
        begin = time.monotonic()
        asked.set()
        outcome = running.finish()
        took = time.monotonic() - begin
    assert (outcome.code, outcome.stdout) == (0, b"Migration has been terminated")
    assert server.connections[0].points[-1] == "channel-close"
    assert took < 3 + LIMIT_SECONDS


@pytest.mark.parametrize("point, connections, code, text", [
    ("connected", 2, 2, "Unable to start SSH session: .*"),
    ("version", 2, 2, "Unable to start SSH session: .*"),
    ("kexinit", 2, 2, "Unable to start SSH session: .*"),
    ("service-request", 2, 2, "Unable to start SSH session: .*"),
    ("userauth none", 1, 2, "Invalid handle passed"),
    ("userauth password", 1, 18, LOST),
    ("userauth keyboard-interactive", 1, 18, LOST),
    ("userauth-info-response", 1, 18, LOST)],
    ids=["from the beginning", "after its version", "at the key exchange", "at the login service",
         "at the list of methods", "at the password", "at keyboard-interactive", "at the answers"])
def test_server_that_falls_silent_before_the_login_is_done_is_given_up(fast_clock, point, connections, code, text):
    methods = "password" if point == "userauth password" else "keyboard-interactive"
    with ScriptedServer(Script(methods=methods, at={point: mute})) as server:
        begin = time.monotonic()
        outcome = Destination(PLAIN).run("send-scout", environment=fast_clock)
        took = time.monotonic() - begin
    assert outcome.code == code and re.fullmatch(text, outcome.stderr.decode(), re.DOTALL), outcome
    assert len(server.connections) == connections
    # 120 s for each connection, of which a hundredth passes here, and the time of the run itself.
    assert 1.1 * connections < took < 1.3 * connections + LIMIT_SECONDS
