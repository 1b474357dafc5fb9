"""Passwords do not get where they do not belong."""
import os
import resource

import pytest

from source_host import deployed_agent, set_password
from tool import Destination, Session
from world import DTM, PLAIN, ROOT, RUNS, SUDOER, Login, read, write

pytestmark = pytest.mark.matrix("secrets")

SECRETS = (SUDOER.password.encode(), SUDOER.sudo_password.encode())


@pytest.fixture
def working():
    """A run that is in the middle of its work, and goes on until the test ends."""
    deployed_agent(SUDOER, "read line < \"${0%/*}/pipe\"; : > \"${0%/*}/dump.xml\"")
    os.mkfifo(f"{SUDOER.agent_dir}/pipe")
    running = Destination(SUDOER).start("dump-all", environment={"KEPT": "as it was"}, prepare=lambda:
                                        resource.setrlimit(resource.RLIMIT_CORE, (1 << 20, 1 << 20)))
    with open(f"{SUDOER.agent_dir}/pipe", "wb"):
        yield running
    running.finish()


def test_running_process_shows_no_password(source, working):
    environment = read(f"/proc/{working.pid}/environ")
    assert b"KEPT=as it was\0" in environment
    for shown in (environment, read(f"/proc/{working.pid}/cmdline")):
        for secret in SECRETS:
            assert secret not in shown


def test_sudo_password_that_is_not_asked_for_is_not_used_and_not_shown(source):
    deployed_agent(PLAIN, "read line < \"${0%/*}/pipe\"; : > \"${0%/*}/dump.xml\"")
    os.mkfifo(f"{PLAIN.agent_dir}/pipe")
    running = Destination(PLAIN).start("dump-all", sudo_password="unasked-passphrase")
    with open(f"{PLAIN.agent_dir}/pipe", "wb"):
        assert b"unasked" not in read(f"/proc/{running.pid}/environ")
    assert running.finish().code == 0
    assert not [command for command in source.commands() if "sudo" in command.line or command.stdin]


def test_running_process_leaves_no_core(source, working):
    limits = read(f"/proc/{working.pid}/limits").decode()
    line, = [line for line in limits.splitlines() if line.startswith("Max core file size")]
    # With a limit of 0 the kernel would still pass the core to a program, if it is configured so.
    assert line.split()[4:6] == ["1", "1"]


def test_no_file_of_a_session_holds_a_password(source):
    deployed_agent(SUDOER, "cat > /dev/null; : > \"${0%/*}/dump.xml\"; echo '<contentlist/>'")
    write(f"{DTM}/scout.pl", "print 1")
    destination = Destination(SUDOER)
    for action in ("send-scout", "deploy-agent", "dump-all", "get-dumping-status", "get-content", "remove-agent"):
        destination.run(action, "--verbose")
    assert len(os.listdir(RUNS)) == 6 * 4
    for directory in (Session().path, RUNS):
        for parent, _, names in os.walk(directory):
            for name in names:
                for secret in SECRETS:
                    assert secret not in read(f"{parent}/{name}"), name


def failing_scout(login, *words):
    """The error output of a scout that prints the words, as the run reports it."""
    write(f"{DTM}/scout.pl", f"print STDERR '{' '.join(words)}'; exit 1")
    outcome = Destination(login).run("send-scout")
    assert outcome.code == 2
    start = b"Failed to execute scout. \nThe return code is 1\nThe output on STDERR is\n"
    assert outcome.stderr.startswith(start)
    told = outcome.stderr[len(start):].decode()
    assert Session().messages()[0][2].endswith("\n" + told)
    assert told in Session().log()
    return told


def test_passwords_in_the_output_of_a_command_become_asterisks(source):
    assert failing_scout(SUDOER, "a", SUDOER.password, "b", SUDOER.sudo_password, "c", SUDOER.password).strip() == (
        "a ******** b ******** c ********")


def test_password_of_eight_characters_becomes_asterisks(source):
    set_password("plain", "12345678")
    try:
        assert failing_scout(Login("plain", "12345678"), "x12345678y1234567") == "x********y1234567"
    finally:
        set_password("plain", PLAIN.password)


def test_password_of_seven_characters_is_left_alone(source):
    set_password("plain", "1234567")
    try:
        assert failing_scout(Login("plain", "1234567"), "x1234567y") == "x1234567y"
    finally:
        set_password("plain", PLAIN.password)


def test_password_in_what_an_agent_complains_about_becomes_asterisks(source):
    deployed_agent(ROOT, f"echo 'bad password {ROOT.password}' >&2; exit 1")
    for action, result in (("dump-all", "migration.result"), ("get-content", "transfer.result")):
        assert Destination().run(action).code == 2
        (_, _, _, ((_, _, text, _),)), = Session().messages(result)
        assert text.endswith(": bad password ********\n")


def test_fixed_parts_of_an_error_are_never_altered(source):
    # A password that is also a part of the message itself.
    set_password("plain", "retrieving")
    try:
        deployed_agent(PLAIN, "echo retrieving >&2; exit 1")
        assert Destination(Login("plain", "retrieving")).run("dump-all").code == 2
        (_, _, _, ((_, _, text, _),)), = Session().messages()
        assert text == ("Error during dump file retrieving. \nRemote agent failed with the following stderr messages: "
                        "********\n")
    finally:
        set_password("plain", PLAIN.password)


def test_what_is_fetched_is_never_altered(source):
    content = f"<x>{SUDOER.password} {SUDOER.sudo_password}</x>".encode()
    deployed_agent(SUDOER, "", {"dump.xml": content, "dumping-status.xml": content})
    assert Destination(SUDOER).run("dump-all").code == 0
    assert Session().read("dump.xml") == content
    assert Destination(SUDOER).run("get-dumping-status").stdout == content
    write(f"{DTM}/scout.pl", f"print '{SUDOER.password}'")
    assert Destination(SUDOER).run("send-scout").code == 0
    assert Session().read("scout-result.xml") == SUDOER.password.encode()
