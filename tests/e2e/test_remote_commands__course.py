"""Running a command on the source host: how it ends, and how it is waited for."""
import os
import signal
import threading
import time

import pytest

from remote_scout import scout  # noqa: F401  # pylint: disable=unused-import
from remote_scout import MIB, SCOUT, result, scout_failure, scouted
from script import Script, ends
from scripted_server import ScriptedServer
from source_host import deployed_agent, install_agent
from tool import Destination, Outcome, Session
from world import BINARY, PLAIN, ROOT, SUDOER, process_running, processor_ticks, wait_until, write

pytestmark = pytest.mark.matrix("commands")


# --- how a command ends ----------------------------------------------------------------------

@pytest.mark.parametrize("status", [1, 2, 5, 44, 126, 127, 128, 200, 254, 255, 65536])
def test_exit_status_is_that_of_the_command(status):
    outcome, _ = scouted(ends(status=status))
    assert (outcome.code, outcome.stdout, outcome.stderr) == (2, b"", scout_failure(status))
    assert Session().messages() == [("FailedToExecuteScout", "error", scout_failure(status).decode(), [])]


ENDINGS = {
    "as usual": ["status", "eof", "close"],
    "end of output first": ["eof", "status", "close"],
    "without an end of output": ["status", "close"],
}


@pytest.mark.parametrize("status", [0, 3])
@pytest.mark.parametrize("steps", ENDINGS.values(), ids=ENDINGS.keys())
def test_messages_at_the_end_of_a_command_may_come_in_any_order(steps, status):
    def answer(command):
        command.take_input()
        command.say(b"all of it")
        for step in steps:
            getattr(command, step)(*([status] if step == "status" else []))

    outcome, _ = scouted(answer)
    assert (outcome.code, outcome.stderr) == ((0, b"") if status == 0 else (2, scout_failure(status)))
    assert result() == b"all of it"


def test_exit_status_may_come_long_before_the_end_of_the_output():
    def answer(command):
        command.status(9)
        command.say(b"x" * MIB)
        command.take_input()
        command.eof()
        command.close()

    outcome, _ = scouted(answer)
    assert (outcome.code, outcome.stderr) == (2, scout_failure(9))
    assert result() == b"x" * MIB


SIGNALS = {"ABRT": 134, "ALRM": 142, "FPE": 136, "HUP": 129, "ILL": 132, "INT": 130, "KILL": 137, "PIPE": 141,
           "QUIT": 131, "SEGV": 139, "TERM": 143, "USR1": 138, "USR2": 140}


@pytest.mark.parametrize("name, status", [
    *SIGNALS.items(), ("TSTP-of-my-own@example.org", 255), ("SIGTERM", 255), ("term", 255), ("A" * 20000, 255),
    ("TERM" + "x" * 28, 255), ("", 255)],
    ids=[*SIGNALS, "a name of its own", "name with SIG", "small letters", "20000 letters", "name and more", "no name"])
def test_signal_is_128_and_its_number_or_255(name, status):
    def answer(command):
        command.take_input()
        command.killed_by(name)
        command.eof()
        command.close()

    outcome, _ = scouted(answer)
    assert (outcome.code, outcome.stderr) == (2, scout_failure(status))


@pytest.mark.parametrize("size", [0, 10, 3 * MIB], ids=["no input", "small input", "input above the window"])
def test_refused_command_has_status_255(size):
    write(SCOUT, b"x" * size)
    outcome, command = scouted(None, starts=lambda line: False)
    assert (outcome.code, outcome.stderr) == (2, scout_failure(255))
    assert command.stdin == b""


def test_refused_command_does_not_keep_the_next_one_from_running():
    # `cat` may find no status, but the check of sudo comes first.
    answers = {"sudo -V": False, "sudo -k; sudo -S -p ' ' true": False}
    with ScriptedServer(Script(starts=lambda line: answers.get(line, True))) as server:
        assert Destination(SUDOER).run("send-scout").code == 0
    assert [command.line for command in server.commands][:2] == list(answers)
    assert server.commands[2].stdin == b"root-passphrase\nthe script"


@pytest.mark.parametrize("status", [1, 127])
def test_check_of_sudo_does_not_judge_exit_statuses(status):
    def answer(command):
        ends(status=status if command.line.startswith("sudo ") else 0)(command)

    with ScriptedServer(Script(answer=answer)) as server:
        assert Destination(SUDOER).run("send-scout").code == 0
    assert [(command.line, command.stdin) for command in server.commands[:2]] == [
        ("sudo -V", b""), ("sudo -k; sudo -S -p ' ' true", b"root-passphrase")]


def test_refused_channel_is_an_invalid_handle():
    with ScriptedServer(Script(opens_channels=False)):
        outcome = Destination(PLAIN).run("send-scout")
    assert (outcome.code, outcome.stderr) == (2, b"Invalid handle passed")
    assert Session().messages() == [("InvalidHandle", "error", "Invalid handle passed", [])]


def test_channel_is_closed_before_the_next_one_is_opened():
    install_agent()
    with ScriptedServer() as server:
        assert Destination(SUDOER).run("dump-all").code == 0
    points = [point for point in server.connections[0].points if point in ("channel-open", "channel-close")]
    assert points == ["channel-open", "channel-close"] * (len(points) // 2)
    assert points.count("channel-open") == 5  # the check of sudo, the agent, chown, cat


# --- waiting ---------------------------------------------------------------------------------

def processor_time(pid):
    """Seconds of processor time, of the process and of the system for it."""
    return processor_ticks(pid) / os.sysconf("SC_CLK_TCK")


@pytest.mark.parametrize("before", ["nothing", "output", "error output", "exit status", "end of output"])
def test_waiting_for_a_silent_command_takes_no_processor_time(before):
    def answer(command):
        command.take_input()
        {"nothing": lambda: None, "output": lambda: command.say(b"x"),
         "error output": lambda: command.complain(b"x"), "exit status": lambda: command.status(0),
         "end of output": command.eof}[before]()
        silent.set()
        over.wait(60)
        if before != "exit status":
            command.status(0)
        if before != "end of output":
            command.eof()
        command.close()

    silent, over = threading.Event(), threading.Event()
    with ScriptedServer(Script(answer=answer)):
        running = Destination(PLAIN).start("send-scout")
        assert silent.wait(60)
        begin = processor_time(running.pid)
        time.sleep(1)  # the time over which it is measured
        used = processor_time(running.pid) - begin
        over.set()
        assert running.finish().code == 0
    # This includes the work on output that has just arrived.
    assert used <= 0.1


def test_command_is_waited_for_longer_than_any_limit_of_login_or_close_message():
    def answer(command):
        if command.line.startswith("cat ") and "dumping-status" in command.line:
            ends(b"<status/>")(command)
            refreshed.set()
        elif command.line.startswith("cat "):
            ends(b"<dump/>")(command)
        else:
            running_began.wait(60)
            runs[0].send(signal.SIGALRM)
            assert refreshed.wait(60)
            command.eof()
            over.wait(3.5)  # longer than the 3 s that a close message may take
            command.status(0)
            command.close()

    runs, running_began, refreshed, over = [], threading.Event(), threading.Event(), threading.Event()
    install_agent()
    with ScriptedServer(Script(answer=answer)):
        runs.append(Destination(ROOT).start("dump-all"))
        running_began.set()
        assert runs[0].finish().code == 0
    assert Session().read("dump.xml") == b"<dump/>"
    assert Session().read("dumping-status.xml") == b"<status/>"


def test_child_that_keeps_the_output_open_is_waited_for(source):
    os.mkfifo(f"{PLAIN.home}/pipe")
    os.chmod(f"{PLAIN.home}/pipe", 0o644)
    write(SCOUT, f"""$| = 1; print 'parent,';
        if (!fork) {{ open my $in, '<', '{PLAIN.home}/pipe'; print <$in>; exit 0 }}
        exit 6;""")
    running = Destination(PLAIN).start("send-scout")
    with open(f"{PLAIN.home}/pipe", "wb") as pipe:
        wait_until(lambda: Session().exists("scout-result.xml") and result() == b"parent,", "the first output")
        wait_until(lambda: process_running("perl") is not None, "the child to be alone")
        assert not running.ended()
        pipe.write(b"child")
    assert running.finish().stderr == scout_failure(6)
    assert result() == b"parent,child"


@pytest.mark.parametrize("closed, code", [("<&-", 0), ("2>&-", 0), ("<&- >&- 2>&-", 2)],
                         ids=["input", "error output", "all three"])
def test_closed_standard_stream_does_not_mix_with_the_connection(source, closed, code):
    deployed_agent(PLAIN, "", {"dumping-status.xml": "<status/>"})
    outcome = Destination(PLAIN).run("get-dumping-status", through=("sh", "-c", f'exec "$0" "$@" {closed}', BINARY))
    assert outcome == Outcome(code, b"<status/>" if code == 0 else b"", b"")
    assert source.lines() == [f"cat {PLAIN.agent_dir}/dumping-status.xml"]
