"""Tests of the source host itself, with an SSH client that is not the tool."""
import paramiko
import pytest

import source_host
import world


@pytest.fixture
def client(source):
    def connect(login):
        session = paramiko.SSHClient()
        session.set_missing_host_key_policy(paramiko.AutoAddPolicy())
        session.connect(world.HOST, 22, login.name, login.password, allow_agent=False, look_for_keys=False)
        return session
    return connect


def run(session, command, stdin=b""):
    channel = session.get_transport().open_session()
    channel.exec_command(command)
    channel.sendall(stdin)
    channel.shutdown_write()
    stdout = channel.makefile("rb").read()
    stderr = channel.makefile_stderr("rb").read()
    return channel.recv_exit_status(), stdout, stderr


def test_records_each_command_with_its_input(source, client, login):
    with client(login) as session:
        assert run(session, "cat; echo problem >&2; exit 3", b"\0in\nput") == (3, b"\0in\nput", b"problem\n")
        assert run(session, "true", b"unread") == (0, b"", b"")
    assert source.commands() == [
        source_host.user_line(login, "cat; echo problem >&2; exit 3", b"\0in\nput"),
        source_host.user_line(login, "true", b"unread")]


def test_ends_as_its_command_was_ended_by_a_signal(client):
    with client(world.PLAIN) as session:
        assert run(session, "kill -TERM $$")[0] == -1


def test_asks_for_the_sudo_password_where_one_is_set(client):
    command = "sudo -k; sudo -S -p ' ' id -un"
    with client(world.SUDOER) as session:
        assert run(session, command, b"root-passphrase\n")[:2] == (0, b"root\n")
        assert run(session, command, b"sudoer-passphrase\n")[0] == 1
    with client(world.FREE_SUDOER) as session:
        assert run(session, command)[:2] == (0, b"root\n")
    with client(world.PLAIN) as session:
        assert run(session, command, b"plain-passphrase\n")[0] == 1
