"""--send-scout."""
import pytest

from source_host import RemoteCommand, root_command, sh_quote, sudo_check
from tool import Destination, Session
from world import DTM, FREE_SUDOER, PLAIN, ROOT, SUDOER, Login, owner_and_mode, write

SCOUT = f"{DTM}/scout.pl"
AGENT_STATUS = ("migration-status", [], "", [("agent", [("action", "wait")], "", [("host", [], "127.0.0.1", [])])])


def scout_command(login, script):
    """The command of the scout. It has no agent directory, so it runs in the login's home."""
    command = root_command(login, "perl", script)
    return RemoteCommand(login.name, command.line.replace(sh_quote(f"cd {login.agent_dir};"), sh_quote("cd ;")),
                         command.stdin)


def test_stores_what_the_script_prints(source, login):
    script = b"print 'user ', scalar getpwuid $<, \" here\\n\"; print STDERR 'noise';"
    write(SCOUT, script)
    outcome = Destination(login).run("send-scout")
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")
    runs_as = "root" if login.sudo_password is not None else login.name
    assert Session().read("scout-result.xml") == f"user {runs_as} here\n".encode()
    assert source.commands() == sudo_check(login) + [scout_command(login, script)]
    assert Session().status() == AGENT_STATUS
    assert Session().result() == ("execution-result", [("status", "success")], "", [])


def test_sends_these_very_lines_through_sudo(source):
    write(SCOUT, "print 1")
    assert Destination(SUDOER).run("send-scout").code == 0
    assert source.commands() == [
        RemoteCommand("sudoer", "sudo -V", b""),
        RemoteCommand("sudoer", "sudo -k; sudo -S -p ' ' true", b"root-passphrase"),
        RemoteCommand("sudoer", r"sh -c cd\ \;\ sudo\ -k\;\ sudo\ -S\ -p\ \'\ \'\ perl", b"root-passphrase\nprint 1")]


def test_sends_this_very_line_without_sudo(source):
    write(SCOUT, "print 1")
    assert Destination(ROOT).run("send-scout").code == 0
    assert source.commands() == [RemoteCommand("root", r"sh -c cd\ \;\ perl", b"print 1")]


def test_copies_a_long_script_and_its_long_output_byte_for_byte(source):
    script = b"binmode STDOUT; print map { chr } 0 .. 255 for 1 .. 4096;\n__END__\n" + bytes(range(256)) * 1024
    write(SCOUT, script)
    assert Destination(FREE_SUDOER).run("send-scout").code == 0
    assert Session().read("scout-result.xml") == bytes(range(256)) * 4096
    assert source.commands()[-1].stdin == script


def test_keeps_the_partial_output_of_a_script_that_fails(source):
    write(SCOUT, "print 'half'; print STDERR \"oops\\n\"; exit 5")
    write(Session().file("scout-result.xml"), "a longer result of an earlier run")
    outcome = Destination(PLAIN).run("send-scout")
    text = "Failed to execute scout. \nThe return code is 5\nThe output on STDERR is\noops\n"
    assert (outcome.code, outcome.stdout, outcome.stderr) == (2, b"", text.encode())
    assert Session().read("scout-result.xml") == b"half"
    assert Session().messages() == [("FailedToExecuteScout", "error", text, [])]
    assert Session().result()[1] == [("status", "error")]
    assert Session().status()[3][0][:2] == ("agent", [("action", "deploy")])


@pytest.mark.parametrize("signal, status", [("TERM", 143), ("KILL", 137), ("INT", 130)])
def test_reports_a_signal_that_ended_the_script(source, signal, status):
    write(SCOUT, f"kill '{signal}', $$; sleep 60")
    outcome = Destination(PLAIN).run("send-scout")
    assert outcome.code == 2
    assert outcome.stderr.startswith(f"Failed to execute scout. \nThe return code is {status}\n".encode())


def test_reports_a_status_of_each_size(source):
    for status in (1, 4, 44, 255):
        write(SCOUT, f"exit {status}")
        outcome = Destination(PLAIN).run("send-scout")
        assert (outcome.code, outcome.stderr) == (
            2, f"Failed to execute scout. \nThe return code is {status}\nThe output on STDERR is\n".encode())


def test_missing_script_ends_the_process_and_says_why(source):
    outcome = Destination(PLAIN).run("send-scout")
    assert outcome.code == -6
    assert b"UnableToOpenScoutFile" in outcome.stderr
    assert b"Unable to open %1% for transferring to the remote host" in outcome.stderr
    assert source.commands() == []


@pytest.mark.parametrize("login", [
    Login("sudoer", "sudoer-passphrase", "wrong-passphrase"),
    Login("sudoer", "sudoer-passphrase", ""),
    Login("plain", "plain-passphrase", "plain-passphrase"),
], ids=["wrong password", "empty password where one is needed", "login that sudo does not know"])
def test_fails_when_sudo_refuses(source, login):
    write(SCOUT, "print 'reached'")
    outcome = Destination(login).run("send-scout")
    assert outcome.code == 2
    start = b"Failed to execute scout. \nThe return code is 1\nThe output on STDERR is\n"
    assert outcome.stderr.startswith(start)
    assert b"sudo" in outcome.stderr[len(start):] or b"Sorry" in outcome.stderr[len(start):]
    assert source.commands() == sudo_check(login) + [scout_command(login, b"print 'reached'")]
    assert Session().read("scout-result.xml") == b""


def test_wrong_login_password_is_refused(source):
    write(SCOUT, "print 1")
    outcome = Destination(Login("plain", "wrong-passphrase")).run("send-scout")
    text = "Unable to connect to host 127.0.0.1: you have specified incorrect username or password"
    assert (outcome.code, outcome.stdout, outcome.stderr) == (17, b"", text.encode())
    assert Session().messages()[0][:3] == ("SshInvalidCredentials", "error", text)
    assert Session().log().endswith("Sondrel finished. Exit code: 17\n")
    assert source.commands() == []


def test_result_is_readable_whatever_the_mask_of_the_caller(source):
    write(SCOUT, "print 1")
    assert Destination(PLAIN).run("send-scout").code == 0
    assert owner_and_mode(Session().file("scout-result.xml")) == (0, 0, 0o644)
