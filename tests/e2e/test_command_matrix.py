"""How commands of a source host can end, refuse, hang and print too much, and what a run does then."""
import hashlib
import os
import signal
import time

import pytest

from content import left, offered
from gates import gated_host, run_to
from invariants import ARCHIVES, check, complete
from remote_scout import MIB, SCOUT, result, scout_failure
from script import Script
from scripted_server import ScriptedServer
from source_host import SourceHost, deployed_agent, install_agent, use_shell
from test_remote_commands__course import processor_time
from test_remote_commands__data import LEAKY, peak_bytes, sum_of
from test_signal_matrix import SUM_OF_LARGE, executed
from tool import Destination, Outcome, Session
from world import PLAIN, ROOT, files_below, process_running, wait_until, write

pytestmark = pytest.mark.matrix("commands")

SIGNALS = [signal.SIGTERM, signal.SIGKILL, signal.SIGSEGV]


def cause_in(outcome, log="migration.result"):
    """(code, text) of the error inside the one that a dump or a content run ends with."""
    assert outcome == Outcome(2, b"", b"Error during dump retrieval")
    (_, _, _, ((code, _, text, _),)), = [message for message in Session().messages(log)
                                         if message[0] == "CantRetrieveDump"]
    return code, text


# --- how a command ends ----------------------------------------------------------------------

def test_status_of_a_real_command_is_told_as_it_is(cases):
    statuses = [0, 1, 2, 63, 126, 127, 128, 129, 137, 143, 200, 254, 255]
    cases(len(statuses))
    with SourceHost(recording=False):
        for status in statuses:
            write(SCOUT, f"print 'output'; exit {status}")
            outcome = Destination(PLAIN).run("send-scout")
            assert outcome == (Outcome(2, b"", scout_failure(status)) if status else Outcome(0, b"", b""))
            assert result() == b"output"


@pytest.mark.parametrize("number", SIGNALS, ids=lambda number: number.name)
@pytest.mark.parametrize("recording", [False, True], ids=["by sh", "by another shell"])
def test_signal_that_ends_a_real_command_is_told_as_a_status(number, recording):
    write(SCOUT, f"$| = 1; print 'half'; kill {int(number)}, $$; sleep 60")
    with SourceHost(recording=recording):
        outcome = Destination(PLAIN).run("send-scout")
    # The shell may add a text about the signal.
    assert outcome.code == 2 and outcome.stderr.startswith(scout_failure(128 + number))
    assert result() == b"half"


FILES = {"one": b"1" * 3000, "two": b"22" * 100_000, "three": b"333"}


@pytest.mark.parametrize("point", ["before the list", "amid the list", "before cat two", "amid cat two",
                                   "after cat two"])
def test_signal_that_ends_a_command_of_a_content_run_loses_nothing(content_verify, cases, point):
    with gated_host():
        for number in SIGNALS:
            cases(1)
            outcome = run_with_a_death(point, number)
            code, _ = cause_in(outcome, "transfer.result")
            assert code == ("CantRetrieveContentList" if "list" in point else "CantRetrieveContentFile")
            # A file whose reading failed is not complete, however much of it arrived.
            assert left(ROOT) == (sorted(FILES) if "list" in point else ["three", "two"])
            assert Destination().run("get-content") == Outcome(0, b"", b"")


@pytest.mark.parametrize("when", ["before", "after"])
def test_signal_that_ends_a_removal_is_told_and_loses_nothing(content_verify, cases, when):
    with gated_host():
        for number in SIGNALS:
            cases(1)
            outcome = run_with_a_death(f"{when} rm two", number)
            assert outcome == Outcome(0, b"", b"")
            assert left(ROOT) == (["two"] if when == "before" else [])
            (code, severity, text, _), = Session().messages("transfer.result")
            assert (code, severity) == ("UnableToRemoveRemoteFile", "error")
            assert text.startswith(f"Unable to remove remote file '{ROOT.agent_dir}/two' from '127.0.0.1': ")


def run_with_a_death(point, number):
    """The outcome of a content run in which a signal ends one command."""
    running, gate = run_to(point, FILES)
    gate.kill(number)
    outcome = running.finish()
    check(outcome, FILES)
    return outcome


@pytest.mark.parametrize("refused, code", [("agent --get", "CantRetrieveContentList"),
                                           ("cat ", "CantRetrieveContentFile")], ids=["list", "file"])
def test_refused_command_of_a_content_run_loses_nothing(content_verify, refused, code):
    offered(ROOT, *FILES.items())
    with ScriptedServer(Script(answer=executed, starts=lambda line: refused.replace(" ", r"\ ") not in line
                               and not line.startswith(refused))):
        outcome = Destination().run("get-content")
    assert cause_in(outcome, "transfer.result")[0] == code
    check(outcome, FILES)
    assert left(ROOT) == sorted(FILES)


def test_refused_removal_is_told_and_loses_nothing(content_verify):
    offered(ROOT, *FILES.items())
    with ScriptedServer(Script(answer=executed, starts=lambda line: r"\ rm\ " not in line)):
        outcome = Destination().run("get-content")
    assert outcome == Outcome(0, b"", b"")
    check(outcome, FILES)
    assert left(ROOT) == sorted(FILES)
    assert [message[0] for message in Session().messages("transfer.result")] == 3 * ["UnableToRemoveRemoteFile"]


@pytest.mark.parametrize("sent", ["nothing", "half", "everything"])
@pytest.mark.parametrize("end_of_output", [True, False], ids=["end of output", "none"])
def test_end_without_an_exit_status_passes_for_success_unless_the_content_is_compared(
        content_verify, sent, end_of_output):
    def answer(command):
        if not command.line.startswith("cat "):
            executed(command)
            return
        content = FILES[command.line.rpartition("/")[2]]
        command.take_input()
        command.say({"nothing": b"", "half": content[:len(content) // 2], "everything": content}[sent])
        if end_of_output:
            command.eof()
        command.close()

    offered(ROOT, *FILES.items())
    with ScriptedServer(Script(answer=answer)):
        outcome = Destination().run("get-content")
    if sent == "everything":
        check(outcome, FILES)
    elif content_verify:
        check(outcome, FILES)
        assert cause_in(outcome, "transfer.result")[0] == "ContentVerificationFailed"
        assert left(ROOT) == sorted(FILES)
    else:
        # The SSH library cannot distinguish it from a good end.
        assert outcome == Outcome(0, b"", b"")
        assert left(ROOT) == [] and complete(FILES, ARCHIVES) == set()


# --- hosts that run no command as they should -------------------------------------------------

def change_account(login, path, field, value):
    """Sets a field of the login's line in /etc/passwd or /etc/shadow of the private world."""
    with open(path, encoding="utf-8") as accounts:
        lines = accounts.read().splitlines()
    with open(path, "w", encoding="utf-8") as accounts:
        for line in lines:
            fields = line.split(":")
            if fields[0] == login.name:
                fields[field] = value
            accounts.write(":".join(fields) + "\n")


LAST_CHANGE, EXPIRES = 2, 7


def every_action_fails(cases, printed, complaint, status=1):
    """Checks runs on a host that prints this instead of running a command: every action reports it and fails."""
    install_agent()
    write(SCOUT, "print 1")
    outcome = Destination(PLAIN).run("send-scout")
    assert outcome == Outcome(2, b"", scout_failure(status, complaint))
    assert result() == printed
    outcome = Destination(PLAIN).run("deploy-agent")
    assert outcome == Outcome(2, b"", f"Can't create agent directory {PLAIN.agent_dir} on the remote host: {complaint}"
                              .encode())
    assert cause_in(Destination(PLAIN).run("dump-all")) == (
        "CantRetrieveDumpFile",
        f"Error during dump file retrieving. \nRemote agent failed with the following stderr messages: {complaint}")
    assert cause_in(Destination(PLAIN).run("get-content"), "transfer.result") == (
        "CantRetrieveContentList", f"Error during content list retrieval: {complaint}")
    cases(4)
    return True


def test_login_without_a_shell_fails_in_every_action(cases):
    with SourceHost(recording=False):
        use_shell("/usr/sbin/nologin")
        assert every_action_fails(cases, b"This account is currently not available.\n", "")
    use_shell("/bin/sh")


def test_login_whose_password_has_expired_fails_in_every_action(cases):
    change_account(PLAIN, "/etc/shadow", LAST_CHANGE, "0")
    try:
        with SourceHost(recording=False):
            assert every_action_fails(cases, b"", "WARNING: Your password has expired.\n"
                                      "Password change required but no TTY available.\n")
    finally:
        change_account(PLAIN, "/etc/shadow", LAST_CHANGE, "19000")


def test_login_that_has_expired_is_refused():
    change_account(PLAIN, "/etc/shadow", EXPIRES, "1")
    try:
        with SourceHost(recording=False):
            write(SCOUT, "print 1")
            outcome = Destination(PLAIN).run("send-scout")
    finally:
        change_account(PLAIN, "/etc/shadow", EXPIRES, "")
    assert outcome == Outcome(17, b"", b"Unable to connect to host 127.0.0.1: you have specified incorrect username "
                                       b"or password")


def test_host_without_perl_fails_where_perl_is_needed():
    programs = "/mnt/few"
    os.makedirs(programs)
    for name in ("sh", "cat", "mkdir", "chown"):
        os.symlink(f"/bin/{name}", f"{programs}/{name}")
    deployed_agent(ROOT, "print 1")
    install_agent("print 1", spec="EntryPoint: agent\n")
    write(SCOUT, "print 1")
    with SourceHost(options=[f"SetEnv PATH={programs}"], recording=False):
        outcome = Destination().run("send-scout")
        missing = "sh: 1: perl: not found\n"
        assert outcome == Outcome(2, b"", scout_failure(127, missing))
        assert cause_in(Destination().run("dump-all"))[1].endswith(f" messages: {missing}")
        assert cause_in(Destination().run("get-content"), "transfer.result")[1].endswith(f": {missing}")
        outcome = Destination().run("deploy-agent")
    assert outcome == Outcome(2, b"", f"Cannot request remote agent status using command line {ROOT.agent_dir}/agent: "
                              f"{missing}".encode())


# --- input and output ------------------------------------------------------------------------

def dump_of(names, script, files=None):
    """Makes an agent dump this many bytes of names; the agent finds its own directory in $here."""
    deployed_agent(ROOT, f"here=${{0%/*}}\n{script}", files)
    with SourceHost(recording=False):
        return Destination().run("dump-selected", "--domains=-", stdin=names, environment=LEAKY)


@pytest.mark.parametrize("size", [0, 1, 2 * MIB - 1, 2 * MIB, 2 * MIB + 1, 50 * MIB],
                         ids=["nothing", "one byte", "less than the window", "the window", "more than the window",
                              "50 MiB"])
def test_command_that_closes_its_input_and_works_on_is_waited_for(size):
    outcome = dump_of(b"x" * size, 'exec <&-; sleep 0.2; echo "$*" > $here/dump.xml')
    assert outcome == Outcome(0, b"", b"")
    given = b"--dump-domains=- " if size else b""
    assert Session().read("dump.xml") == b"--migration-mode " + given + b"--include-app-distrib\n"


def test_command_that_talks_before_it_reads_its_input_gets_all_of_it():
    names = b"name," * MIB
    outcome = dump_of(names, """
        head -c 3000000 /dev/zero
        head -c 3000000 /dev/zero >&2
        md5sum > $here/dump.xml
        head -c 3000000 /dev/zero
        """)
    assert outcome == Outcome(0, b"", b"")
    assert Session().read("dump.xml") == hashlib.md5(names).hexdigest().encode() + b"  -\n"


@pytest.mark.slow
def test_half_a_minute_of_error_output_alone_is_waited_through():
    write(SCOUT, "$| = 1; for (1 .. 31) { print STDERR \"line $_\\n\"; sleep 1 } exit 3")
    used = []
    with SourceHost(recording=False):
        running = Destination(PLAIN).start("send-scout")
        wait_until(lambda: process_running("perl"), "the scout to begin")
        wait_until(lambda: used.append(processor_time(running.pid)) or running.ended(), "its end", 60)
    assert running.finish() == Outcome(2, b"", scout_failure(3, "".join(f"line {n}\n" for n in range(1, 32))))
    assert used[-1] - used[0] <= 0.3


@pytest.mark.slow
def test_gibibyte_of_output_is_stored_in_little_memory():
    write(SCOUT, r"my $zeros = qq(\0) x 65536; print $zeros for 1 .. 16384")
    with SourceHost(recording=False):
        # Freed memory is returned at once; a sanitizer would keep it for a while.
        running = Destination(PLAIN).start("send-scout", environment={
            "ASAN_OPTIONS": "exitcode=99:detect_leaks=0:quarantine_size_mb=1"})
        peak = peak_bytes(running)
        assert running.finish() == Outcome(0, b"", b"")
    assert peak < 96 * MIB
    assert sum_of(Session().file("scout-result.xml")) == SUM_OF_LARGE


def test_child_that_keeps_the_output_open_is_waited_for_at_rest(source):
    deployed_agent(ROOT, 'cat "${0%/*}/pipe" & echo parent; : > "${0%/*}/dump.xml"')
    os.mkfifo(f"{ROOT.agent_dir}/pipe")
    running = Destination().start("dump-all")
    with open(f"{ROOT.agent_dir}/pipe", "wb") as pipe:  # returns when the child reads
        wait_until(lambda: process_running("/bin/sh", "-c", source.lines()[0]) is None, "the child to be alone")
        begin = processor_time(running.pid)
        time.sleep(1)  # the time over which it is measured
        assert processor_time(running.pid) - begin <= 0.1
        assert not running.ended()
        pipe.write(b"child")
    assert running.finish() == Outcome(0, b"", b"")


@pytest.fixture
def chatty_host():
    """A host whose shell prints something before every command; returns the function that sets the text."""
    with SourceHost(recording=False) as source:
        use_shell("/bin/bash")
        yield lambda said: write(f"{ROOT.home}/.bashrc", said)
    use_shell("/bin/sh")
    assert source


def test_chatter_ahead_of_a_list_is_no_list(chatty_host, content_verify):
    offered(ROOT, *FILES.items())
    chatty_host("echo 'Welcome back!'")
    outcome = Destination().run("get-content")
    assert cause_in(outcome, "transfer.result")[0] == "tError_ParseFile"
    check(outcome, FILES)
    assert left(ROOT) == sorted(FILES)


def test_chatter_that_passes_for_a_list_spoils_the_files_unless_they_are_compared(chatty_host, content_verify):
    offered(ROOT, *FILES.items())
    chatty_host("echo '<!-- Welcome back! -->'")
    outcome = Destination().run("get-content")
    spoilt = {os.fsencode(name): b"<!-- Welcome back! -->\n" + content for name, content in FILES.items()}
    assert files_below(ARCHIVES) == spoilt
    if content_verify:
        check(outcome, FILES)
        assert cause_in(outcome, "transfer.result")[0] == "ContentVerificationFailed"
        assert [message[0] for message in Session().messages("transfer.result")[:-1]] == 3 * [
            "WrongFileSize", "WrongMd5Sum"]
        assert left(ROOT) == sorted(FILES)
    else:
        assert outcome == Outcome(0, b"", b"")
        assert left(ROOT) == []


def test_chatter_on_the_error_output_does_no_harm(chatty_host, content_verify):
    offered(ROOT, *FILES.items())
    chatty_host("echo 'Welcome back!' >&2")
    outcome = Destination().run("get-content")
    assert outcome == Outcome(0, b"", b"")
    check(outcome, FILES)
    assert Session().messages("transfer.result") == []
