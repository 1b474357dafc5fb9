"""After runs of every kind, the passwords are in no file and no message."""
import itertools
import os
import re
import resource
import shutil
import signal

import pytest

from content import content_list
from script import Script
from scripted_server import ScriptedServer
from source_host import SourceHost, deployed_agent, install_agent, set_password
from tool import Destination, Session, sondrel
from world import AGENTS, BINARY, DTM, HERE, RECORDS, ROOT, RUNS, SUDOER, Login, read, write

pytestmark = pytest.mark.matrix("secrets")

WORK = "/mnt/work"  # the caller's directory
PROPERTIES = f"{DTM}/log4cpp.properties"
SHIPPED = f"{os.path.dirname(os.path.dirname(HERE))}/sondrel/log4cpp.properties"
MISTAKEN, MISTAKEN_FOR_SUDO = "mistaken-passphrase", "mistaken-sudo-passphrase"
# All actions with a connection.
ACTIONS = ["send-scout", "deploy-agent", "dump-all", "dump-selected", "get-dumping-status", "get-content",
           "remove-agent"]
OPTIONS = {"dump-all": ["--content-transport=rsync"], "dump-selected": ["--domains=a.test"]}


@pytest.fixture(autouse=True)
def as_shipped():
    """Sets up the log as it is shipped, and runs the tool in a directory of its own."""
    kept = read(PROPERTIES)
    shutil.copy(SHIPPED, PROPERTIES)
    shutil.rmtree(WORK, ignore_errors=True)
    os.makedirs(WORK)
    yield
    write(PROPERTIES, kept)


def written():
    """All files of the private world that the tool, its callers and its source host have written."""
    for top in ("/mnt", "/run", "/var/log", "/etc", "/dev"):
        for parent, directories, names in os.walk(top):
            directories[:] = [name for name in directories if name not in ("etc.orig", "dev.orig")]
            for name in names:
                path = os.path.join(parent, name)
                # Not the input of remote commands: passwords belong there.
                if os.path.isfile(path) and not os.path.islink(path) and not (
                        os.path.basename(parent) == os.path.basename(RECORDS) and name.endswith(".stdin")):
                    yield path


def check_nothing_told(*secrets):
    """Checks that no password is in the name or the content of any file, console output included."""
    wanted = [os.fsencode(secret) for secret in secrets if secret]
    assert wanted
    looked_at = 0
    for path in written():
        looked_at += 1
        for text in (os.fsencode(path), read(path)):
            for secret in wanted:
                assert secret not in text, f"{secret} is in {path}"
    assert looked_at >= len(os.listdir(RUNS))


# --- runs of every kind ----------------------------------------------------------------------

WORKING = """
case "$*" in
*--get-content-list*) cat "${0%/*}/list.xml" ;;
*--get-status*) echo '<agentstatus/>' ;;
*) echo '<dump/>' > "${0%/*}/dump.xml" ;;
esac
"""
FAILING = "echo 'no, thank you' >&2; exit 1\n"


def offered_by(login, script=WORKING):
    """Installs an agent, on both hosts, with everything that the actions ask for."""
    shutil.rmtree(login.agent_dir, ignore_errors=True)
    deployed_agent(login, script, {"list.xml": content_list([("one", b"1", {})]), "one": b"1",
                                   "dumping-status.xml": "<status/>"})
    write(f"{DTM}/scout.pl", "exit 1" if script == FAILING else "print 'found'")


def run(action, login):
    return Destination(login).run(action, "--verbose", *OPTIONS.get(action, []), directory=WORK)


# Actions that cannot fail, and actions that do not run the agent.
NEVER_FAIL, WITHOUT_AGENT = {"remove-agent"}, {"remove-agent", "get-dumping-status"}


def conditions(login):
    """(name, the login, the agent's script, the actions that succeed)"""
    yield "all is well", login, WORKING, set(ACTIONS)
    yield "the agent fails", login, FAILING, WITHOUT_AGENT
    yield "the password is wrong", Login(login.name, MISTAKEN, login.sudo_password), WORKING, NEVER_FAIL
    if login.sudo_password:
        yield ("the password for sudo is wrong", Login(login.name, login.password, MISTAKEN_FOR_SUDO), WORKING,
               NEVER_FAIL)


def test_no_file_holds_a_password_after_any_action(source, login, cases):
    for name, used, script, succeed in conditions(login):
        for action in ACTIONS:
            cases(1)
            offered_by(login, script)
            outcome = run(action, used)
            assert (outcome.code == 0) == (action in succeed), (name, action, outcome)
            check_nothing_told(used.password, used.sudo_password)
    assert source.lines()


def test_no_file_holds_a_password_when_no_server_listens(login, cases):
    install_agent()
    write(f"{DTM}/scout.pl")
    for action in ACTIONS:
        cases(1)
        assert (run(action, login).code == 0) == (action in NEVER_FAIL)
        check_nothing_told(login.password, login.sudo_password)


@pytest.mark.parametrize("arguments", [["--remove-dumping-status", "--session-path", Session().path], ["--help"], [],
                                       ["--nonsense"], ["--send-scout", "--session-path", Session().path]],
                         ids=["removal of the status", "help", "nothing", "nonsense", "no host"])
def test_no_file_holds_a_password_that_is_not_needed(arguments):
    outcome = sondrel(*arguments, password=MISTAKEN, sudo_password=MISTAKEN_FOR_SUDO, directory=WORK)
    assert outcome.code == (0 if arguments == ["--help"] else 1)
    check_nothing_told(MISTAKEN, MISTAKEN_FOR_SUDO)


# --- runs that are killed --------------------------------------------------------------------

# Without this the sanitizers would handle these signals, and forbid core files.
AS_THEY_ARE = {"ASAN_OPTIONS": "exitcode=99:handle_segv=0:handle_abort=0:handle_sigbus=0:disable_coredump=0"}


def allow_cores():
    resource.setrlimit(resource.RLIMIT_CORE, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))


def test_killed_run_leaves_no_password_and_no_core(source, login, cases):
    for number in (signal.SIGTERM, signal.SIGKILL, signal.SIGABRT, signal.SIGSEGV, signal.SIGQUIT):
        cases(1)
        offered_by(login, 'read line < "${0%/*}/pipe"')
        os.mkfifo(f"{login.agent_dir}/pipe")
        running = Destination(login).start("dump-all", "--verbose", directory=WORK, environment=AS_THEY_ARE,
                                           prepare=allow_cores)
        with open(f"{login.agent_dir}/pipe", "wb"):  # returns when the agent reads
            running.send(number)
            # Not reaped yet, so that the kernel's record can be read.
            ended = os.waitid(os.P_PID, running.pid, os.WEXITED | os.WNOWAIT)
        assert (ended.si_code, ended.si_status) == (os.CLD_KILLED, number)  # and not CLD_DUMPED
        assert running.finish().code == -number
        for directory in (WORK, Session().path):
            assert [name for name in os.listdir(directory) if name.startswith("core")] == []
        check_nothing_told(login.password, login.sudo_password)
    assert source.lines()


# --- what the source host makes of them ------------------------------------------------------

TOLD = f"{SUDOER.password} and {SUDOER.sudo_password}"


def betraying(number):
    """A server that answers like the others, except to one command: that fails and prints all its input."""
    def answer(command):
        command.take_input()
        if command.connection.commands.index(command) == number:
            command.complain(TOLD.encode())
            command.end(1)
            return
        if "--get-content-list" in command.line:
            command.say(content_list([("one", b"1", {}), ("two", b"1", {})]).encode())
        elif command.line.startswith("cat ") and ">" not in command.line:
            command.say(b"1")
        command.end()
    return answer


@pytest.mark.parametrize("action", ACTIONS)
def test_complaint_that_tells_the_passwords_is_masked(action, cases):
    install_agent()
    write(f"{AGENTS}/shared/file", "shared")
    write(f"{DTM}/scout.pl")
    failed = 0
    for number in itertools.count():
        cases(1)
        with ScriptedServer(Script(answer=betraying(number))) as server:
            failed += run(action, SUDOER).code != 0
        check_nothing_told(SUDOER.password, SUDOER.sudo_password)
        if len(server.commands) <= number:
            break  # none of them betrayed anything any more
    assert number > 2
    assert failed or action in NEVER_FAIL


LISTS = {"in place of a list": (TOLD, 2), "inside of a list": (f"<contentlist>{TOLD}<", 2),
         "as the name of a root": (f"<{SUDOER.password}>", 2),
         "as the size of all": (f'<contentlist unpacked="{TOLD}"/>', 1),
         "as the size of a file": (f'<contentlist unpacked="1"><file size="{TOLD}">one</file></contentlist>', 1)}


@pytest.mark.parametrize("printed, code", LISTS.values(), ids=LISTS.keys())
def test_list_that_tells_the_passwords_is_masked(printed, code):
    def answer(command):
        command.take_input()
        command.say(printed.encode() if "--get-content-list" in command.line else b"")
        command.end()

    install_agent()
    with ScriptedServer(Script(answer=answer)):
        outcome = run("get-content", SUDOER)
    assert outcome.code == code
    check_nothing_told(SUDOER.password, SUDOER.sudo_password)


# --- processes -------------------------------------------------------------------------------

LOOK = """
cat /proc/[0-9]*/cmdline /proc/[0-9]*/environ >> /mnt/seen 2> /dev/null
ps axwwe >> /mnt/seen
"""


@pytest.fixture
def own():
    """An account whose passwords no other process has: other runs on this machine, and tests beside this one, must not
    interfere.
    """
    login = Login("sudoer", f"own-login-passphrase-{os.getpid()}", f"own-sudo-passphrase-{os.getpid()}")
    set_password("sudoer", login.password)
    set_password("root", login.sudo_password)
    yield login
    set_password("sudoer", SUDOER.password)
    set_password("root", ROOT.password)


@pytest.fixture
def watchful_host():
    """Every program of the source host first looks at all processes."""
    directory = "/mnt/watchful"
    for name in ("cat", "rm", "mkdir", "chown", "perl", "sh", "true"):
        write(f"{directory}/{name}", f'#!/bin/sh\nPATH=/usr/bin:/bin\n{LOOK}\nexec /usr/bin/{name} "$@"\n', mode=0o755)
    kept = read("/etc/sudoers")
    write("/etc/sudoers", kept + f"Defaults secure_path={directory}:/usr/bin:/bin\n".encode(), mode=0o440)
    with SourceHost(options=[f"SetEnv PATH={directory}:/usr/bin:/bin"]) as source:
        yield source
    write("/etc/sudoers", kept, mode=0o440)


@pytest.mark.parametrize("action", ACTIONS)
def test_no_process_shows_a_password(own, watchful_host, action):
    offered_by(own)
    write("/mnt/seen", mode=0o666)
    assert run(action, own).code == 0
    seen = read("/mnt/seen")
    assert os.fsencode(f"{BINARY}\0--{action}\0--host\0") in seen  # the run itself was looked at
    assert b"sudo\0-S\0-p\0 \0" in seen or action == "get-dumping-status"
    check_nothing_told(own.password, own.sudo_password)
    # Both were used, each where it belongs.
    given = b"".join(command.stdin for command in watchful_host.commands())
    assert own.sudo_password.encode() in given
    assert (own.password.encode() in given) == (action == "dump-all")


# --- the log at its most talkative -----------------------------------------------------------

RECORD = re.compile(rb"^(?:[\d-]+ [\d:.]+ )?\[([A-Z]+)\] (\S+): ", re.MULTILINE)


def records(text):
    """[(priority and category, text)...] of a log, a text with several lines in one piece."""
    found = list(RECORD.finditer(text))
    ends_at = [match.start() for match in found[1:]] + [len(text)]
    return [(b" ".join(match.groups()), text[match.end():end]) for match, end in zip(found, ends_at)]


@pytest.mark.parametrize("action", ACTIONS)
def test_only_the_input_and_output_of_commands_hold_passwords_in_the_debug_log(source, action):
    shipped = read(PROPERTIES)
    write(PROPERTIES, shipped.replace(b"rootCategory=INFO", b"rootCategory=DEBUG").replace(b"=INFO", b"=DEBUG"))
    # The agent of a dump prints its input.
    offered_by(SUDOER, f"cat\n{WORKING}" if action == "dump-all" else WORKING)
    outcome = run(action, SUDOER)
    assert outcome.code == 0
    holding = set()
    for log in (read(Session().file("migration.log")), outcome.stderr):
        for source_of_it, text in records(log):
            if any(os.fsencode(secret) in text for secret in (SUDOER.password, SUDOER.sudo_password)):
                holding.add((source_of_it, text[:len(b"remote stdxx -> ")]))
    allowed = {(b"DEBUG k.Ssh", b"remote stdin <- "), (b"DEBUG k.Ssh", b"remote stdout ->")}
    assert holding and holding <= allowed
    assert (action == "dump-all") == (len(holding) == 2)
    with pytest.raises(AssertionError):
        check_nothing_told(SUDOER.password, SUDOER.sudo_password)
    os.unlink(Session().file("migration.log"))
    shutil.rmtree(RUNS)
    os.makedirs(RUNS)
    check_nothing_told(SUDOER.password, SUDOER.sudo_password)
