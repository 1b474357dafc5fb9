"""--get-dumping-status and --remove-dumping-status."""
import os
import signal

import pytest

from source_host import RemoteCommand, deployed_agent, root_command, sudo_check, user_line
from tool import Destination, Running, Session
from world import BINARY, PLAIN, ROOT, SESSION, SUDOER, process_running, wait_until, write

STATUS = "dumping-status.xml"


def messages_inside(outcome):
    """The messages inside the error that wraps every failure."""
    text = "Error during getting dumping status"
    assert (outcome.code, outcome.stderr) == (2, text.encode())
    (code, severity, description, nested), = Session().messages()
    assert (code, severity, description) == ("DumpStatusError", "error", text)
    return nested


@pytest.mark.parametrize("content", [b"<status/>", b"", bytes(range(256)) * 1024, b"no root-passphrase is hidden\n"],
                         ids=["document", "nothing", "any bytes", "a password"])
def test_prints_the_status_byte_for_byte(source, content):
    deployed_agent(ROOT, "", {STATUS: content})
    outcome = Destination().run("get-dumping-status")
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, content, b"")
    assert Session().result() == ("execution-result", [("status", "success")], "", [])
    assert Session().status() == ("migration-status", [], "", [("idle", [], "", [])])


def test_takes_the_status_over_before_it_reads_it(source, login):
    deployed_agent(login, "", {STATUS: "<status/>"})
    os.chown(f"{login.agent_dir}/{STATUS}", 0, 0)
    os.chmod(f"{login.agent_dir}/{STATUS}", 0o600 if login.sudo_password is not None else 0o644)
    outcome = Destination(login).run("get-dumping-status")
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"<status/>", b"")
    path = f"{login.agent_dir}/{STATUS}"
    taken = []
    if login.sudo_password is not None:
        taken = sudo_check(login) + [root_command(login, f"chown {login.name} {path}")]
    assert source.commands() == taken + [user_line(login, f"cat {path}")]


def test_sends_these_very_lines_through_sudo(source):
    deployed_agent(SUDOER, "", {STATUS: ""})
    assert Destination(SUDOER).run("get-dumping-status").code == 0
    assert source.commands() == [
        RemoteCommand("sudoer", "sudo -V", b""),
        RemoteCommand("sudoer", "sudo -k; sudo -S -p ' ' true", b"root-passphrase"),
        RemoteCommand("sudoer", r"sh -c cd\ /mnt/home/sudoer/agent\;\ sudo\ -k\;\ sudo\ -S\ -p\ \'\ \'\ chown\ sudoer\ "
                                r"/mnt/home/sudoer/agent/dumping-status.xml", b"root-passphrase\n"),
        RemoteCommand("sudoer", "cat /mnt/home/sudoer/agent/dumping-status.xml", b"")]


def test_status_that_is_not_there_yet_is_no_failure(source):
    deployed_agent(PLAIN, "")
    outcome = Destination(PLAIN).run("get-dumping-status")
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")


def test_status_that_cannot_be_taken_over_is_a_failure(source):
    deployed_agent(SUDOER, "")
    (code, _, text, _), = messages_inside(Destination(SUDOER).run("get-dumping-status"))
    assert code == "CantTakeFileOwnership"
    assert text.startswith(f"Cannot take ownership of {SUDOER.agent_dir}/{STATUS}: ")


def test_signal_that_ends_the_reading_is_a_failure(source):
    deployed_agent(PLAIN, "")
    path = f"{PLAIN.agent_dir}/{STATUS}"
    os.mkfifo(path)
    os.chmod(path, 0o644)
    running = Destination(PLAIN).start("get-dumping-status")
    pid = wait_until(lambda: process_running("cat", path), "cat to read the status")
    os.kill(pid, signal.SIGKILL)
    assert messages_inside(running.finish()) == []


@pytest.mark.matrix("local")
@pytest.mark.parametrize("stdout", ["/dev/full", False], ids=["full", "closed"])
def test_output_that_cannot_be_written_is_a_failure(source, stdout):
    deployed_agent(ROOT, "", {STATUS: "<status/>"})
    assert messages_inside(Destination().run("get-dumping-status", stdout=stdout)) == [
        ("StreamWrite", "error", "Cannot write data to the stream", [])]


@pytest.mark.matrix("signals")
def test_reader_that_has_gone_is_a_failure_and_no_signal(source):
    deployed_agent(ROOT, "", {STATUS: "<status/>" * 100_000})
    os.mkfifo("/mnt/gone")
    reader = os.open("/mnt/gone", os.O_RDONLY | os.O_NONBLOCK)
    running = Destination().start("get-dumping-status", stdout="/mnt/gone")
    os.close(reader)
    assert messages_inside(running.finish()) == [
        ("StreamWrite", "error", "Cannot write data to the stream", [])]
    os.unlink("/mnt/gone")


# Mounts everything of the real root directory into another one: what is made in that directory itself is the test's
# own.
IN_THROW_AWAY_ROOT = ["unshare", "--mount", "--propagation", "private", "sh", "-euc", """
    root=$1; shift
    for directory in "$root"/*; do
      [ -L "$directory" ] || [ ! -d "$directory" ] || mount --rbind "/${directory##*/}" "$directory"
    done
    exec chroot "$root" "$@"
    """, "sh"]


@pytest.fixture
def throw_away_root():
    root = "/mnt/root"
    os.mkdir(root)
    for name in os.listdir("/"):
        if os.path.islink(f"/{name}"):
            os.symlink(os.readlink(f"/{name}"), f"{root}/{name}")
        elif os.path.isdir(f"/{name}"):
            os.mkdir(f"{root}/{name}")
    yield root
    for name in os.listdir(root):
        path = f"{root}/{name}"
        # The mounts ended with their namespace: all directories are empty.
        (os.rmdir if os.path.isdir(path) and not os.path.islink(path) else os.unlink)(path)
    os.rmdir(root)


@pytest.mark.parametrize("there", [True, False], ids=["is there", "is not there"])
def test_removal_acts_on_this_host(throw_away_root, there):
    if there:
        write(f"{throw_away_root}/{STATUS}", "<status/>")
    write(f"{throw_away_root}/another.xml", "")
    outcome = Running(["--remove-dumping-status", "--session-path", SESSION],
                      through=[*IN_THROW_AWAY_ROOT, throw_away_root, BINARY]).finish()
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")
    assert not os.path.exists(f"{throw_away_root}/{STATUS}")
    assert os.path.exists(f"{throw_away_root}/another.xml")
    assert Session().result() == ("execution-result", [("status", "success")], "", [])
