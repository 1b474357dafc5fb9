"""sondrel-migrate with an imitated sondrel: where passwords come from, and where they go."""
import os

import pytest

from imitated_runs import imitated  # noqa: F401  # pylint: disable=unused-import
from imitated_runs import ALL, SUDO_ALL, complaint
from migrating import STEPS, State, progress_of
from terminal import Terminal
from world import CONFIGURATION, SESSION, SUDOER, read, write


def test_reads_both_passwords_from_standard_input(imitated):
    outcome = imitated.run(*SUDO_ALL, "--password-fd=0", "--sudo-password-fd=0", password=None,
                           stdin=b"first one\nsecond\nnot theirs\n")
    assert outcome.code == 0, outcome
    environment = imitated.environment(4)
    assert (environment["QRV_PASSWORD"], environment["QRV_SUDO_PASSWORD"]) == ("first one", "second")


BY_KEY = "--identity=/mnt/a key"


def test_a_login_by_key_needs_no_password(imitated):
    outcome = imitated.run(*ALL, BY_KEY, password=None, prepare=os.setsid, environment={"SONDREL_IDENTITY": "other"})
    assert outcome.code == 0, outcome
    for number in range(5):
        environment = imitated.environment(number)
        assert environment["SONDREL_IDENTITY"] == "/mnt/a key"
        assert "QRV_PASSWORD" not in environment and "QRV_KEY_PASSWORD" not in environment
    assert State().settings["identity"] == "/mnt/a key"


@pytest.mark.parametrize("given, handed_on", [
    ([], "agent"), (["--identity=agent"], "agent"), (["--identity=a key"], "/mnt/a key"),
    (["--identity=./agent"], "/mnt/./agent")], ids=["the environment's", "agent", "a file", "a file named agent"])
def test_the_key_is_a_file_or_the_agent(imitated, given, handed_on):
    outcome = imitated.run(*ALL, *given, password=None, prepare=os.setsid, directory="/mnt",
                           environment={"SONDREL_IDENTITY": "agent"})
    assert outcome.code == 0, outcome
    assert imitated.environment(0)["SONDREL_IDENTITY"] == handed_on


def test_a_key_of_the_host_configuration_needs_no_password(imitated):
    kept = read(CONFIGURATION)
    write(CONFIGURATION, kept + b"SSH_IDENTITY_F /mnt/key\n")
    try:
        assert imitated.run(*ALL, password=None, prepare=os.setsid).code == 0
    finally:
        write(CONFIGURATION, kept)


def test_password_passphrase_and_password_of_sudo_follow_each_other(imitated):
    outcome = imitated.run(*SUDO_ALL, BY_KEY, "--password-fd=0", "--sudo-password-fd=0", "--key-password-fd=0",
                           password=None, stdin=b"first\nthe key's\nsudo's\n")
    assert outcome.code == 0, outcome
    environment = imitated.environment(4)
    assert [environment[f"QRV_{name}"] for name in ("PASSWORD", "KEY_PASSWORD", "SUDO_PASSWORD")] == [
        "first", "the key's", "sudo's"]


def test_an_empty_line_is_no_password_of_a_login_by_key(imitated):
    outcome = imitated.run(*ALL, BY_KEY, "--password-fd=0", "--key-password-fd=0", password=None, stdin=b"\n\n")
    assert outcome.code == 0, outcome
    assert "QRV_PASSWORD" not in imitated.environment(0) and "QRV_KEY_PASSWORD" not in imitated.environment(0)


WANTED = {
    "password": ("QRV_PASSWORD", b"The password of root@src.example: ",
                 "the server wants a password besides the key, and none was given"),
    "passphrase": ("QRV_KEY_PASSWORD", b"The passphrase of /mnt/a key: ",
                   "the key file /mnt/a key is protected by a passphrase, and none was given")}


def wants(variable, reason):
    """Lines of shell: a step that fails with the reason unless it has the variable."""
    error = f"Unable to connect to host src.example: {reason}"
    return (f'[ -n "${variable}" ] || {{ cat > {SESSION}/migration.result << end\n<?xml version="1.0"?>\n'
            '<execution-result status="error"><message code="SshIdentityRejected" id="1" severity="error">'
            f'<description>{error}</description></message></execution-result>\nend\necho "{error}" >&2; exit 17; }}')


@pytest.mark.parametrize("what", WANTED)
def test_asks_on_the_terminal_for_what_a_login_by_key_turns_out_to_need(imitated, what):
    variable, question, reason = WANTED[what]
    imitated.does("scout", wants(variable, reason))
    with Terminal([imitated.program, *ALL, BY_KEY]) as terminal:
        terminal.shows(question)
        assert not terminal.echoes()
        terminal.type(b"given now\n")
        assert terminal.finish() == 0
        assert b"given now" not in terminal.shown
    assert imitated.runs() == ["scout", *STEPS]
    assert imitated.environment(5)[variable] == "given now"


@pytest.mark.parametrize("what", WANTED)
def test_the_step_fails_where_nobody_can_give_what_it_turns_out_to_need(imitated, what):
    variable, _, reason = WANTED[what]
    imitated.does("scout", wants(variable, reason))
    outcome = imitated.run(*ALL, BY_KEY, password=None, prepare=os.setsid)
    assert outcome.code == 17
    assert f"{variable} is not set" in outcome.stderr.decode()
    assert State().progress() == progress_of("failed")


def test_a_descriptor_wins_over_the_environment(imitated):
    assert imitated.run(*ALL, "--password-fd=0", password="other", stdin=b"first").code == 0
    assert imitated.environment(0)["QRV_PASSWORD"] == "first"


@pytest.mark.parametrize("given, expected", [
    (b"", "the password of root@src.example is empty"), (b"\nx", "the password of root@src.example is empty"),
    (b"a\0b\n", "the password of root@src.example holds a zero byte"),
    (b"x" * 4097, "the password of root@src.example is longer than 4096 bytes"),
], ids=["nothing", "empty line", "zero byte", "too long"])
def test_refuses_what_is_no_password(imitated, given, expected):
    assert complaint(imitated.run(*ALL, "--password-fd=0", password=None, stdin=given)) == expected
    assert imitated.runs() == []


def test_an_empty_password_for_sudo_is_one(imitated):
    assert imitated.run(*SUDO_ALL, login=SUDOER, sudo_password="").code == 0
    assert imitated.environment(0)["QRV_SUDO_PASSWORD"] == ""


@pytest.mark.parametrize("number", [3, 4, 99])
def test_says_that_a_descriptor_is_not_open(imitated, number):
    """Descriptors that it opened itself, such as the lock's, are no source of passwords."""
    outcome = imitated.run(*ALL, f"--password-fd={number}", password=None)
    assert complaint(outcome) == "the descriptor for the password of root@src.example is not open"
    assert imitated.runs() == []


def test_says_what_is_missing_where_there_is_nobody_to_ask(imitated):
    outcome = imitated.run(*ALL, password=None, prepare=os.setsid)
    assert complaint(outcome) == ("the password of root@src.example is missing: there is no terminal to ask on, "
                                  "QRV_PASSWORD is not set, and --password-fd is not given")


def test_asks_for_passwords_on_the_terminal_and_shows_none(imitated):
    with Terminal([imitated.program, *SUDO_ALL]) as terminal:
        terminal.shows(b"The password of sudoer@src.example: ")
        assert not terminal.echoes()
        terminal.type(b"first one\n")
        terminal.shows(b"The password for sudo of sudoer@src.example: ")
        assert not terminal.echoes()
        terminal.type(b"second\n")
        assert terminal.finish() == 0
        assert b"first" not in terminal.shown and b"second" not in terminal.shown
    environment = imitated.environment(0)
    assert (environment["QRV_PASSWORD"], environment["QRV_SUDO_PASSWORD"]) == ("first one", "second")


def test_an_interrupted_question_leaves_a_terminal_that_shows_what_is_typed(imitated):
    with Terminal(["/bin/sh", "-c", 'trap "" INT; "$@"; echo "ended with $?"; read line', "sh",
                   "/usr/bin/env", "--default-signal=INT", imitated.program, *ALL]) as terminal:
        terminal.shows(b"The password of root@src.example: ")
        assert not terminal.echoes()
        terminal.type(b"\x03")
        terminal.shows(b"ended with 130")
        assert terminal.echoes()
        terminal.type(b"\n")
        terminal.finish()
    assert imitated.runs() == []
