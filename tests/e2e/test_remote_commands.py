"""Running a command on the source host: its input, its outputs, and how it ended."""
import hashlib
import os
import signal
import threading
import time

import pytest

from debug_log import debug_log  # a fixture  # noqa: F401  # pylint: disable=unused-import
from scripted_server import Script, ScriptedServer, Stopped, ends
from source_host import SourceHost, deployed_agent, install_agent
from tool import Destination, Outcome, Session
from world import BINARY, DTM, PLAIN, ROOT, SUDOER, process_running, processor_ticks, wait_until, write

pytestmark = pytest.mark.matrix("commands")

SCOUT = f"{DTM}/scout.pl"
MIB = 1 << 20


@pytest.fixture(autouse=True)
def scout():
    write(SCOUT, "the script")


def scouted(answer, **script):
    """Runs the scout against a server that answers so; returns the outcome and the one command."""
    with ScriptedServer(Script(answer=answer, **script)) as server:
        outcome = Destination(PLAIN).run("send-scout")
    assert [command.line for command in server.commands] == [r"sh -c cd\ \;\ perl"]
    return outcome, server.commands[0]


def scout_failure(status, stderr=""):
    return f"Failed to execute scout. \nThe return code is {status}\nThe output on STDERR is\n{stderr}".encode()


def result():
    return Session().read("scout-result.xml")


def some_bytes(size):
    return (bytes(range(256)) * (size // 256 + 1))[:size]


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
    # The status may not be there: whatever `cat` says, sudo is asked first.
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


# --- outputs ---------------------------------------------------------------------------------

def test_output_may_come_in_pieces_of_any_size():
    sizes = [1] * 50 + [16383, 16384, 16385, 65535, 65536, 65537, 1, MIB]

    def answer(command):
        command.take_input()
        for size in sizes:
            command.say(some_bytes(size))
        command.end()

    outcome, _ = scouted(answer)
    assert outcome.code == 0
    assert result() == b"".join(map(some_bytes, sizes))


@pytest.mark.parametrize("size", [0, 1, 65536, 3 * MIB])
def test_error_output_alone_is_read_to_its_end(size):
    def answer(command):
        command.take_input()
        command.complain(b"e" * size)
        command.end(1)

    outcome, _ = scouted(answer)
    assert (outcome.code, outcome.stderr) == (2, scout_failure(1, "e" * size))


def test_outputs_do_not_mix():
    def answer(command):
        command.take_input()
        for number in range(200):
            command.say(b"%d o\n" % number)
            command.complain(b"%d e\n" % number)
        command.say(b"o" * MIB)
        command.complain(b"e" * MIB)
        command.end(1)

    outcome, _ = scouted(answer)
    assert result() == b"".join(b"%d o\n" % n for n in range(200)) + b"o" * MIB
    assert outcome.stderr == scout_failure(1, "".join(f"{n} e\n" for n in range(200)) + "e" * MIB)


def test_data_of_streams_that_do_not_exist_is_dropped():
    def answer(command):
        command.take_input()
        for stream in (0, 2, 7, 0xffffffff):
            command.say_on_stream(stream, b"nobody asked")
            command.say(b"o")
            command.complain(b"e")
        command.end(1)

    outcome, _ = scouted(answer)
    assert (outcome.stderr, result()) == (scout_failure(1, "eeee"), b"oooo")


def test_answer_without_a_request_hides_no_data():
    def answer(command):
        command.take_input()
        for _ in range(3):
            command.answer_without_request()
            command.say(b"o" * MIB)
        command.end()

    outcome, _ = scouted(answer)
    assert (outcome.code, result()) == (0, b"o" * 3 * MIB)


def test_standard_output_goes_first_when_both_have_come(debug_log):
    def answer(command):
        command.take_input()
        running_began.wait(60)
        with Stopped(runs[0]):
            command.complain(b"problem")
            command.say(b"finding")
        command.end()

    runs, running_began = [], threading.Event()
    with ScriptedServer(Script(answer=answer)):
        runs.append(Destination(PLAIN).start("send-scout"))
        running_began.set()
        assert runs[0].finish().code == 0
    assert [line for line in debug_log("k.Ssh") if "remote std" in line] == [
        "DEBUG remote stdout -> finding", "DEBUG remote stderr -> problem"]


def test_steps_of_commands_are_logged_in_order_with_the_bytes_as_they_are(debug_log):
    def answer(command):
        ends(*((some_bytes(256), b"oops\0\xff") if "sample" in command.line else (b"<dump/>", b"quiet")))(command)

    install_agent()
    write(f"{DTM}/agents/sample/control/spec", "EntryPoint: sample\nInterpreter: sh\n")
    with ScriptedServer(Script(answer=answer)):
        assert Destination(ROOT).run("dump-selected", "--domains=a.test").code == 0
    path = f"{ROOT.agent_dir}/dump.xml"
    line = rf"sh -c cd\ {ROOT.agent_dir}\;\ sh\ {ROOT.agent_dir}/sample\ --migration-mode\ --dump-domains=-\ " \
           r"--include-app-distrib"
    assert debug_log("k.Ssh") == [f"DEBUG {text}" for text in [
        f"Executing {line} on the remote host", "remote stdin <- a.test", "remote stdout -> " +
        os.fsdecode(some_bytes(256)).split("\n", maxsplit=1)[0], "remote stderr -> " + os.fsdecode(b"oops\0\xff"),
        "Execution finished with return code 0", "Reading data to the file /mnt/session/dump.xml",
        f"Reading data from the remote file {path}",
        f"Executing cat {path} on the remote host", "Execution finished with return code 0"]]
    assert "DEBUG k.Ssh: remote stdout -> " + os.fsdecode(some_bytes(256)) + "\n" in Session().log()
    assert "quiet" not in Session().log() and "<dump/>" not in Session().log()


def test_steps_of_an_upload_are_logged_in_order(debug_log):
    install_agent("content of the agent\n")
    with ScriptedServer(Script(answer=ends(b"answer", b"complaint"))) as server:
        assert Destination(ROOT).run("deploy-agent").code == 0
    steps = debug_log("k.Ssh")
    remote, local = f"{ROOT.agent_dir}/agent", f"{DTM}/agents/sample/agent"
    first = steps.index(f"DEBUG Writing file {local} to the remote host")
    assert steps[first:first + 4] == [f"DEBUG {text}" for text in [
        f"Writing file {local} to the remote host", f"Writing data to the remote file {remote}",
        f"Executing cat > {remote} on the remote host", "Execution finished with return code 0"]]
    assert "content of the agent" not in Session().log()
    assert [command.stdin for command in server.commands if command.line == f"cat > {remote}"] == [
        b"content of the agent\n"]


# --- input -----------------------------------------------------------------------------------

@pytest.mark.parametrize("text", [b"", b"\0", b"no line end", *map(some_bytes, (65536, 65537, 5 * MIB))],
                         ids=["nothing", "zero byte", "no line end", "one buffer", "one buffer and a byte", "5 MiB"])
def test_input_arrives_byte_for_byte(text):
    write(SCOUT, text)
    outcome, command = scouted(ends())
    assert outcome.code == 0
    assert command.stdin == text
    points = command.connection.points
    assert ("channel-data" in points) == bool(text)
    assert points.count("channel-eof") == 1


def test_output_ahead_of_large_input_is_read_when_it_fills_the_window():
    def answer(command):
        command.say(b"o" * MIB)
        command.complain(b"e" * MIB)
        command.take_input()
        command.say(b"end")
        command.end()

    write(SCOUT, some_bytes(5 * MIB))
    outcome, command = scouted(answer)
    assert outcome.code == 0
    assert command.stdin == some_bytes(5 * MIB)
    assert result() == b"o" * MIB + b"end"


def test_input_and_output_in_step_come_through():
    def answer(command):
        while chunk := command.take_input(100000):
            command.say(chunk)
        command.end()

    write(SCOUT, some_bytes(5 * MIB))
    outcome, command = scouted(answer)
    assert outcome.code == 0
    assert result() == command.stdin == some_bytes(5 * MIB)


@pytest.mark.parametrize("size", [0, 1, 2 * MIB - 1, 2 * MIB, 2 * MIB + 1, 50 * MIB],
                         ids=["nothing", "one byte", "less than the window", "the window", "more than the window", "50 MiB"])
@pytest.mark.parametrize("status", [0, 7])
def test_command_that_has_ended_does_not_hold_its_input_up(size, status):
    def answer(command):
        command.say(b"seen enough")
        command.end(status)

    write(SCOUT, b"x" * size)
    outcome, _ = scouted(answer)
    assert (outcome.code, outcome.stderr) == ((0, b"") if status == 0 else (2, scout_failure(7)))
    assert result() == b"seen enough"


def test_command_that_ends_amid_its_input_has_its_output_read_whole():
    def answer(command):
        command.take_input(3 * MIB)
        command.say(b"o" * MIB)
        command.end(7)

    write(SCOUT, b"x" * (50 * MIB))
    outcome, _ = scouted(answer)
    assert (outcome.code, outcome.stderr) == (2, scout_failure(7))
    assert result() == b"o" * MIB


@pytest.mark.parametrize("size", [100, 50 * MIB], ids=["100 bytes", "50 MiB"])
def test_real_command_that_has_ended_does_not_hold_its_input_up(size):
    write(SCOUT, b"print 'seen enough'; exit 7\n__END__\n" + b"x" * size)
    with SourceHost(recording=False):
        outcome = Destination(PLAIN).run("send-scout")
    assert (outcome.code, outcome.stderr) == (2, scout_failure(7))
    assert result() == b"seen enough"


# --- waiting ---------------------------------------------------------------------------------

def processor_time(pid):
    """Seconds, of the process and the system for it."""
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
    # What it does with what has just come is in it as well.
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


# --- large files -----------------------------------------------------------------------------

def large_file(path, size):
    """Fills a file with bytes that do not repeat within a buffer's size; returns their sum."""
    digest = hashlib.md5()
    block = b"".join(hashlib.md5(b"%d" % n).digest() for n in range(65536)) + b"odd"
    with open(path, "wb") as out:
        while size > 0:
            part = block[:size]
            out.write(part)
            digest.update(part)
            size -= len(part)
    return digest.hexdigest()


def sum_of(path):
    digest = hashlib.md5()
    with open(path, "rb") as file:
        while block := file.read(MIB):
            digest.update(block)
    return digest.hexdigest()


def peak_bytes(running):
    """Waits for the end of the run; returns the most memory that it was seen to hold."""
    peak = 0

    def ended():
        nonlocal peak
        with open(f"/proc/{running.pid}/status", encoding="utf-8") as status:
            held = [int(line.split()[1]) for line in status if line.startswith("VmHWM:")]
        peak = max([peak, *held])
        return running.ended()

    wait_until(ended, "the end of the run", 100)
    return peak * 1024


def printed_status(size, **how):
    """Has the tool print a file of this size; returns its peak of memory."""
    write(f"{PLAIN.agent_dir}/dumping-status.xml")
    expected = large_file(f"{PLAIN.agent_dir}/dumping-status.xml", size)
    running = Destination(PLAIN).start("get-dumping-status", stdout="/mnt/printed", **how)
    peak = peak_bytes(running)
    outcome = running.finish()
    assert (outcome.code, outcome.stderr) == (0, b"")
    assert sum_of("/mnt/printed") == expected
    return peak


@pytest.mark.slow
def test_300_mb_arrive_whole_in_the_memory_of_one():
    with SourceHost(recording=False):
        # Freed memory goes back at once, where a sanitizer would keep it for a while.
        at_once = {"ASAN_OPTIONS": "exitcode=99:quarantine_size_mb=1"}
        small = printed_status(MIB, environment=at_once)
        large = printed_status(300 * 1000 * 1000, environment=at_once)
    assert large <= small + 8 * MIB


# Some releases of the SSH library lose a hundred bytes with each change of keys, and keep
# the rest: no leak of the tool.
LEAKY = {"ASAN_OPTIONS": "exitcode=99:detect_leaks=0"}


@pytest.mark.parametrize("limit", ["1M", "4M"])
def test_change_of_keys_amid_a_transfer_loses_nothing(limit):
    with SourceHost(options=[f"RekeyLimit {limit}"], recording=False):
        printed_status(80 * MIB, environment=LEAKY)


def test_change_of_keys_amid_an_upload_loses_nothing():
    write(SCOUT, b"print 'read to the end'\n__END__\n" + b"x" * 20 * MIB)
    with SourceHost(options=["RekeyLimit 1M"], recording=False):
        assert Destination(PLAIN).run("send-scout", environment=LEAKY).code == 0
    assert result() == b"read to the end"
