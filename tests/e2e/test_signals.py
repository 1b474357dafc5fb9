"""Signals that arrive while the connection is made or used: no call fails because of them."""
import os
import re
import signal
import threading

import pytest

from script import Held, Script, ends
from scripted_server import ScriptedServer
from source_host import SourceHost, deployed_agent, install_agent
from tool import Destination, Session
from world import DTM, PLAIN, ROOT, wait_until, write

pytestmark = pytest.mark.matrix("signals")

STOPPED = b"Migration has been terminated"
MIB = 1 << 20
POINTS = ["connected", "kexinit", "service-request", "userauth none", "userauth keyboard-interactive",
          "userauth-info-response", "channel-open", "channel-request"]


@pytest.fixture(autouse=True)
def scout():
    write(f"{DTM}/scout.pl", "the script")


def signals_of(pid, which):
    """The set of signals that /proc shows in this field."""
    with open(f"/proc/{pid}/status", encoding="utf-8") as status:
        mask = int(re.search(rf"^{which}:\s*([0-9a-f]+)$", status.read(), re.MULTILINE)[1], 16)
    return {number for number in range(1, 65) if mask >> (number - 1) & 1}


class Storm:
    """Sends a signal again and again until the block or the run ends."""

    def __init__(self, running, number):
        self._running = running
        self._number = number
        self._over = threading.Event()
        self._thread = threading.Thread(target=self._blow)
        self.sent = 0

    def _blow(self):
        while not self._over.wait(0.001):
            self._running.send(self._number)
            self.sent += 1

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *exception):
        self._over.set()
        self._thread.join()


@pytest.mark.parametrize("point", POINTS)
def test_stop_request_lets_the_present_step_finish(point):
    held = Held()
    with ScriptedServer(Script(methods="keyboard-interactive", at={point: held})) as server:
        running = Destination(PLAIN).start("send-scout")
        held.reached()
        running.send(signal.SIGUSR1)
        held.release()
        outcome = running.finish()
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, STOPPED, b"")
    assert len(server.connections) == 1
    # The script would have been in the first chunk.
    assert [command.line for command in server.commands] == [r"sh -c cd\ \;\ perl"]
    assert server.commands[0].stdin == b""
    assert Session().result() == ("execution-result", [("status", "success")], "", [])


def test_stop_request_from_before_the_program_began_stops_it_cleanly(source):
    def pend():
        signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGUSR1])
        os.kill(os.getpid(), signal.SIGUSR1)

    outcome = Destination(PLAIN).run("send-scout", prepare=pend)
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, STOPPED, b"")


def test_stop_request_does_not_end_a_wait_in_which_nothing_moves():
    def answer(command):
        command.take_input()
        taken.set()
        assert asked.wait(60)
        command.end()

    taken, asked = threading.Event(), threading.Event()
    with ScriptedServer(Script(answer=answer)):
        running = Destination(PLAIN).start("send-scout")
        assert taken.wait(60)
        running.send(signal.SIGUSR1)
        wait_until(lambda: signal.SIGUSR1 not in signals_of(running.pid, "ShdPnd"), "the signal to be taken")
        asked.set()
        outcome = running.finish()
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")


def test_stop_request_ends_a_long_upload_at_the_next_chunk():
    def answer(command):
        command.take_input(MIB)
        runs[0].send(signal.SIGUSR1)
        # More than the window, so that the tool must send another chunk.
        command.take_input(8 * MIB)

    runs, taken = [], threading.Event()
    write(f"{DTM}/scout.pl", b"x" * (20 * MIB))
    with ScriptedServer(Script(answer=lambda command: taken.wait(60) and answer(command))) as server:
        runs.append(Destination(PLAIN).start("send-scout"))
        taken.set()
        outcome = runs[0].finish()
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, STOPPED, b"")
    assert MIB <= len(server.commands[0].stdin) < 20 * MIB


def test_alarm_is_held_back_only_while_a_dump_has_it_armed():
    def answer(command):
        masks.append((command.line.split()[0], signals_of(runs[0].pid, "SigBlk"), signals_of(runs[0].pid, "SigCgt")))
        ends(b"<dump/>")(command)

    runs, masks, began = [], [], threading.Event()
    install_agent()
    with ScriptedServer(Script(answer=lambda command: began.wait(60) and answer(command))):
        for action in ("send-scout", "dump-all"):
            began.clear()
            runs[:] = [Destination(ROOT).start(action)]
            began.set()
            assert runs[0].finish().code == 0
    assert signal.SIGALRM not in masks[0][1] | masks[0][2]
    assert signal.SIGALRM in masks[1][2]
    # All other signals are unblocked in every wait.
    assert all(blocked <= {signal.SIGALRM} for _, blocked, _ in masks)


def test_storm_of_alarms_breaks_no_step_of_a_dump():
    def answer(command):
        if "/agent/agent" in command.line:
            command.say(b"o" * MIB)
            command.take_input()
            command.end()
        elif "dumping-status" in command.line:
            ends(b"<status/>")(command)
        else:
            ends(b"d" * (4 * MIB))(command)

    install_agent()
    names = b"d.test," * 100000
    held = Held()
    script = Script(methods="keyboard-interactive", answer=answer, at={"connected": held})
    with ScriptedServer(script) as server:
        running = Destination(ROOT).start("dump-selected", "--domains=-", stdin=names)
        held.reached()  # by then the alarm is armed
        with Storm(running, signal.SIGALRM) as storm:
            held.release()
            outcome = running.finish()
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")
    assert Session().read("dump.xml") == b"d" * (4 * MIB)
    assert storm.sent > 10
    agent = next(command for command in server.commands if "/agent/agent" in command.line)
    assert agent.stdin == names
    assert Session().read("dumping-status.xml") == b"<status/>"


def test_storm_of_alarms_breaks_no_dump_of_a_real_server():
    deployed_agent(ROOT, """
        head -c 3000000 /dev/zero
        read line < "${0%/*}/pipe"
        head -c 5000000 /dev/zero > "${0%/*}/dump.xml"
        """, {"dumping-status.xml": "<status/>"})
    os.mkfifo(f"{ROOT.agent_dir}/pipe")
    with SourceHost(recording=False):
        running = Destination(ROOT).start("dump-all")
        wait_until(lambda: signal.SIGALRM in signals_of(running.pid, "SigCgt"), "the alarm to be armed")
        with Storm(running, signal.SIGALRM):
            wait_until(lambda: Session().exists("dumping-status.xml"), "the status to be refreshed")
            with open(f"{ROOT.agent_dir}/pipe", "wb") as pipe:
                pipe.write(b"go on\n")
            outcome = running.finish()
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")
    assert Session().read("dump.xml") == bytes(5000000)
