"""Signals at every step: alarms disturb none, a stop request ends it in order, a killed run can be continued."""
import os
import shutil
import signal
import socket
import subprocess
import threading
import time

import pytest

from content import offered
from gates import gated_host, offered_behind_gates, run_to
from invariants import ARCHIVES, TERMINATED, check, check_documents, check_nothing_lost, complete, temporaries
from script import Held, Script, fin
from scripted_server import ScriptedServer
from source_host import deployed_agent, install_agent
from test_signals import signals_of
from tool import Destination, Outcome, Session, sondrel
from world import HOST, ROOT, wait_until

pytestmark = pytest.mark.matrix("signals")


# --- alarms ----------------------------------------------------------------------------------

ALARMS = 144  # in each phase, and so a thousand in all seven
STEP_SECONDS = 0.01
DUMP = b"<dump/>" * ALARMS


class Alarmed:
    """A dump that gets alarms every 10 ms while its server lets it wait."""

    def __init__(self):
        install_agent()
        self._started = threading.Event()
        self._running = None
        self.sent = 0

    def run(self):
        self._running = Destination(ROOT).start("dump-all")
        self._started.set()
        return self._running.finish()

    def ring(self, number=ALARMS):
        """Sends this many alarms; at each the dump runs and expects alarms."""
        assert self._started.wait(60)
        wait_until(lambda: signal.SIGALRM in signals_of(self._running.pid, "SigCgt"), "the alarm to be armed")
        for _ in range(number):
            assert not self._running.ended()
            self._running.send(signal.SIGALRM)
            self.sent += 1
            time.sleep(STEP_SECONDS)

    def at(self, *points, of=ALARMS):
        """For a Script: the same number of alarms at each of these points."""
        return {point: lambda _: self.ring(of // len(points)) for point in points}


def answered(command):
    """Answers a dump's commands as a source host."""
    command.take_input()
    if "dumping-status" in command.line:
        command.say(b"<status/>")
    elif "dump.xml" in command.line:
        command.say(DUMP)
    command.end()


def check_dump(outcome, alarmed, server, connections=1):
    """Checks that the dump ran as if there had been no alarms."""
    assert outcome == Outcome(0, b"", b"")
    assert alarmed.sent == ALARMS
    assert len(server.connections) == connections
    assert Session().read("dump.xml") == DUMP
    assert Session().read("dump-name") == b"/mnt/session/dump.xml"
    assert Session().result() == ("execution-result", [("status", "success")], "", [])
    assert temporaries(Session().path) == []
    check_documents(Session())


class LateServer(ScriptedServer):
    """Accepts connections only when the test says so. Its only place for a waiting connection is taken."""

    def __enter__(self):
        self._accepting = threading.Event()
        super().__enter__()
        self._listener.listen(0)
        with socket.create_connection((HOST, 22)):
            pass
        return self

    def _accept(self):
        assert self._accepting.wait(60)
        super()._accept()

    def accept(self):
        self._accepting.set()


def test_alarms_while_the_host_is_connected_to_break_nothing():
    def ring_and_accept():
        alarmed.ring()
        server.accept()

    alarmed = Alarmed()
    with LateServer(Script(answer=answered)) as server:
        ringing = threading.Thread(target=ring_and_accept)
        ringing.start()
        outcome = alarmed.run()
        ringing.join()
    # The connection that had taken the place is the first.
    check_dump(outcome, alarmed, server, connections=2)
    assert server.connections[0].commands == []


@pytest.mark.parametrize("points", [
    ("version", "kexinit", "newkeys"),
    ("service-request", "userauth none", "userauth keyboard-interactive", "userauth-info-response"),
], ids=["handshake", "login"])
def test_alarms_break_nothing_in_the(points):
    alarmed = Alarmed()
    script = Script(methods="keyboard-interactive", answer=answered, at=alarmed.at(*points))
    with ScriptedServer(script) as server:
        check_dump(alarmed.run(), alarmed, server)


def test_alarms_while_the_agent_starts_and_talks_break_nothing():
    def answer(command):
        if "/agent/agent" in command.line:
            for _ in range(ALARMS // 2):
                command.say(b"o" * 1000)
                command.complain(b"e" * 1000)
                alarmed.ring(1)
        answered(command)

    alarmed = Alarmed()
    script = Script(answer=answer, at=alarmed.at("channel-open 1", "channel-request 1", of=ALARMS // 2))
    with ScriptedServer(script) as server:
        check_dump(alarmed.run(), alarmed, server)
    # A new refresh began each time the last one had ended.
    assert sum("dumping-status" in command.line for command in server.commands) > 1
    assert Session().read("dumping-status.xml") == b"<status/>"


def test_alarms_while_the_status_is_refreshed_break_nothing():
    def answer(command):
        if "/agent/agent" in command.line:
            alarmed.ring(1)
            assert refreshed.wait(60)
        elif "dumping-status" in command.line:
            command.say(b"<!-- -->")
            alarmed.ring(ALARMS - 1)
            refreshed.set()
        answered(command)

    refreshed = threading.Event()
    alarmed = Alarmed()
    with ScriptedServer(Script(answer=answer)) as server:
        check_dump(alarmed.run(), alarmed, server)
    assert Session().read("dumping-status.xml") == b"<!-- --><status/>"


def test_alarms_while_the_dump_is_fetched_break_nothing():
    def answer(command):
        if "dump.xml" not in command.line:
            answered(command)
            return
        for start in range(0, len(DUMP), 7):
            command.say(DUMP[start:start + 7])
            alarmed.ring(1)
        command.end()

    alarmed = Alarmed()
    with ScriptedServer(Script(answer=answer)) as server:
        check_dump(alarmed.run(), alarmed, server)


def test_alarms_while_the_connection_is_taken_down_break_nothing():
    def answer(command):
        # With an old key exchange an idle channel stays open to the end: it ends only when it is closed.
        if command.line != "cat":
            answered(command)

    alarmed = Alarmed()
    # Before the idle channel, those of the agent and of the dump are closed.
    script = Script(kex=("diffie-hellman-group1-sha1",), answer=answer, at=alarmed.at("channel-close 3"))
    with ScriptedServer(Script(at={"version": fin}), script) as server:
        check_dump(alarmed.run(), alarmed, server, connections=2)
    assert [command.line.split()[0] for command in server.commands] == ["cat", "sh", "cat"]


# --- requests to stop, and deaths ------------------------------------------------------------

FILES = {"one": b"1" * 3000, "sub/two": b"22" * 100_000, "three": b"333"}
# Where a run can be interrupted: before, during and after each of its commands, and between the files.
LAST = ["before rm three", "after rm three"]
POINTS = ["before the list", "amid the list", "before cat one", "amid cat one", "after cat one", "before rm one",
          "after rm one", "before cat two", "amid cat two", "before cat three", *LAST]
SUCCESS = ("execution-result", [("status", "success")], "", [])


@pytest.fixture
def host():
    with gated_host() as source:
        yield source


class Fetched:
    """Counts what a run fetches, by the commands of the source host."""

    def __init__(self, source):
        self._source = source
        self._before = len(source.lines())

    def names(self):
        lines = self._source.lines()[self._before:]
        return [line.partition("/agent/")[2] for line in lines if line.startswith("cat ")]


def complete_it(source, files=FILES):
    """Runs once more, to the end: the run fetches exactly what is not complete."""
    already = complete(files, ARCHIVES)
    # A killed run may have left a temporary file that was to replace another one.
    left = temporaries(Session().path, ARCHIVES)
    fetched = Fetched(source)
    outcome = Destination().run("get-content")
    assert outcome == Outcome(0, b"", b"")
    check(outcome, files, already=already, leaves=len(left))
    assert fetched.names() == [name for name in files if name not in already]


@pytest.mark.parametrize("point", POINTS)
def test_stop_request_ends_a_content_run_cleanly(host, content_verify, point):
    running, gate = run_to(point, FILES)
    running.send(signal.SIGUSR1)
    gate.open()
    outcome = running.finish()
    check(outcome, FILES)
    assert outcome == Outcome(0, b"" if point in LAST else TERMINATED, b"")
    assert Session().result("transfer.result") == SUCCESS
    complete_it(host)


@pytest.mark.parametrize("point", POINTS)
def test_killed_content_run_is_completed_by_the_next(host, content_verify, cases, point):
    cases(2)
    for number in (signal.SIGTERM, signal.SIGKILL):
        running, gate = run_to(point, FILES)
        running.send(number)
        outcome = running.finish()
        assert outcome == Outcome(-number, b"", b"")
        check(outcome, FILES)
        gate.open()
        check_nothing_lost(FILES)
        complete_it(host)


def holds_open(running, path):
    """True while the run has the file open."""
    directory = f"/proc/{running.pid}/fd"
    try:
        return any(os.readlink(f"{directory}/{name}") == path for name in os.listdir(directory))
    except FileNotFoundError:
        return False  # one was closed since the directory was listed


# A gibibyte of zero bytes takes a second or more to sum up, and as a file that is one hole it needs no room.
LARGE = 1 << 30
SUM_OF_LARGE = "cd573cfaace07e7949bc0c46028904ff"


@pytest.fixture
def large_file(host):
    """A local file that matches the list, between two files that are not here yet."""
    entries = [("one", FILES["one"], {}), ("large", None, {"size": LARGE, "md5sum": SUM_OF_LARGE}),
               ("three", FILES["three"], {})]
    files = {"one": FILES["one"], "three": FILES["three"]}

    def start():
        shutil.rmtree(Session().path, ignore_errors=True)
        offered_behind_gates(files, entries)
        os.makedirs(ARCHIVES)
        with open(f"{ARCHIVES}/large", "wb") as hole:
            hole.truncate(LARGE)
        running = Destination().start("get-content", "--no-check-space")
        wait_until(lambda: holds_open(running, f"{ARCHIVES}/large"), "the sum of the large file to be taken")
        return running

    return files, start


@pytest.mark.parametrize("number", [signal.SIGUSR1, signal.SIGTERM, signal.SIGKILL], ids=lambda number: number.name)
def test_signal_while_the_sum_of_a_local_file_is_taken(host, large_file, content_verify, number):
    files, start = large_file
    running = start()
    running.send(number)
    assert running.finish() == (Outcome(0, TERMINATED, b"") if number == signal.SIGUSR1 else Outcome(-number, b"", b""))
    assert Session().exists("transfer.result") == (number == signal.SIGUSR1)
    fetched = Fetched(host)
    outcome = Destination().run("get-content", "--no-check-space")
    assert outcome == Outcome(0, b"", b"") and fetched.names() == ["three"]
    os.unlink(f"{ARCHIVES}/large")  # too much to look into
    check(outcome, files)


def test_run_that_is_killed_at_its_last_documents_leaves_nothing_to_fetch(host, content_verify):
    offered_behind_gates(FILES)
    os.makedirs(Session().path)
    os.mkfifo(Session().file("dump-name"))  # nobody reads it
    running = Destination().start("get-content")
    wait_until(lambda: Session().exists("migration.status") and b' left="0"' in Session().read("migration.status"),
               "the last file")
    running.send(signal.SIGKILL)
    assert running.finish() == Outcome(-signal.SIGKILL, b"", b"")
    os.unlink(Session().file("dump-name"))
    assert complete(FILES, ARCHIVES) == set(FILES)
    complete_it(host)


def executed(command):
    """Runs the command as a server does, once its input is complete."""
    given = command.take_input()
    done = subprocess.run(["sh", "-c", command.line], input=given, capture_output=True, check=False)
    command.say(done.stdout)
    command.complain(done.stderr)
    command.end(done.returncode)


@pytest.mark.parametrize("point", ["connected", "version", "kexinit", "newkeys", "service-request", "userauth none",
                                   "userauth password", "channel-open", "channel-request", "channel-eof"])
def test_stop_request_before_the_list_comes_leaves_everything_where_it_is(point):
    offered(ROOT, *FILES.items())
    held = Held()
    with ScriptedServer(Script(answer=executed, at={point: held}), Script(answer=executed)) as server:
        running = Destination().start("get-content")
        held.reached()
        running.send(signal.SIGUSR1)
        held.release()
        outcome = running.finish()
        assert outcome == Outcome(0, TERMINATED, b"")
        assert Session().result("transfer.result") == SUCCESS
        check(outcome, FILES)
        assert complete(FILES, ARCHIVES) == set()
        outcome = Destination().run("get-content")
        assert len(server.connections) == 2
    assert outcome == Outcome(0, b"", b"")
    check(outcome, FILES)


def test_stop_request_is_taken_from_the_first_moment_on():
    offered(ROOT, *FILES.items())
    with ScriptedServer(Script(answer=executed)):
        running = Destination().start("get-content")
        wait_until(lambda: signal.SIGUSR1 in signals_of(running.pid, "SigCgt"), "the handler")
        running.send(signal.SIGUSR1)
        outcome = running.finish()
    check(outcome, FILES)
    assert outcome == Outcome(0, TERMINATED, b"")
    assert Session().result("transfer.result") == SUCCESS


# --- an output that nobody reads any more ----------------------------------------------------

def unread():
    """The writing end of a pipe whose reader has gone."""
    reader, writer = os.pipe()
    os.close(reader)
    return writer


def test_unread_help_is_complained_about():
    assert sondrel("--help", stdout=unread()) == Outcome(1, b"", b"Unable to write the usage text\n")


def test_unread_status_is_a_failure(source):
    deployed_agent(ROOT, "", {"dumping-status.xml": "<status/>"})
    outcome = Destination().run("get-dumping-status", stdout=unread())
    assert outcome == Outcome(2, b"", b"Error during getting dumping status")
    (_, _, _, cause), = Session().messages()
    assert cause == [("StreamWrite", "error", "Cannot write data to the stream", [])]


def test_unread_farewell_of_a_stopped_run_changes_nothing_else():
    offered(ROOT, *FILES.items())
    held = Held()
    with ScriptedServer(Script(answer=executed, at={"connected": held})):
        running = Destination().start("get-content", stdout=unread())
        held.reached()
        running.send(signal.SIGUSR1)
        held.release()
        outcome = running.finish()
    assert outcome == Outcome(0, b"", b"")
    assert Session().result("transfer.result") == SUCCESS
    assert Session().log().endswith("INFO k.log: Migration has been terminated\n"
                                    "INFO k.log: Sondrel finished. Exit code: 0\n")
