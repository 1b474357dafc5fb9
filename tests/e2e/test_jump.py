"""Connections through a jump host: SONDREL_JUMP, and --jump of sondrel-migrate."""
import os
import subprocess

import pytest

from migrating import State, in_place, migrate, sample_source
from source_host import SourceHost, deployed_agent
from tool import Destination, Session
from world import CONFIGURATION, DTM, HOST, PLAIN, ROOT, kill_together, processes, read, wait_until, write

PORT = 2222
JUMP = f"{PLAIN.name}@{HOST}:{PORT}"
KEY = "/mnt/jump.key"
OWN = f"{ROOT.home}/.ssh"
KNOWN_HOSTS = "/mnt/known_hosts"
PROGRAMS = "/mnt/programs"


def public_key(host):
    return " ".join(read(f"{host.key_file('ed25519')}.pub").decode().split()[:2])


def let_in(login, home, known_hosts):
    """Lets this host's root log in by key where the login has that home; `known_hosts` are the host keys for ssh."""
    if not os.path.exists(KEY):
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", KEY], check=True)
    directory = f"{home}/.ssh"
    os.makedirs(directory, mode=0o700, exist_ok=True)
    os.chown(directory, *login.ids)
    write(f"{directory}/authorized_keys", read(f"{KEY}.pub"), 0o600, login.ids)
    os.makedirs(OWN, mode=0o700, exist_ok=True)
    write(f"{OWN}/config", f"IdentityFile {KEY}\nIdentitiesOnly yes\n", 0o600)
    write(f"{OWN}/known_hosts", known_hosts, 0o600)


def make_jump(*options):
    """Makes a jump host that accepts the key of this host's root, and whose host key is known to ssh here."""
    host = SourceHost([*options, f"PermitOpen {HOST}:22"], port=PORT)
    let_in(PLAIN, PLAIN.home, f"[{HOST}]:{PORT} {public_key(host)}\n")
    return host


@pytest.fixture(autouse=True)
def scout(source):
    write(f"{DTM}/scout.pl", "print 'the result'")
    return source


@pytest.fixture
def jump():
    with make_jump() as host:
        yield host


@pytest.fixture
def strict():
    kept = read(CONFIGURATION)
    write(CONFIGURATION, kept + f"SSH_KNOWN_HOSTS_F {KNOWN_HOSTS}\nSSH_HOST_KEY_POLICY strict\n".encode())
    yield
    write(CONFIGURATION, kept)


def run(action="send-scout", jump=JUMP, path="/usr/sbin:/usr/bin:/sbin:/bin", **how):
    return Destination().run(action, environment={"SONDREL_JUMP": jump, "PATH": path}, **how)


def no_ssh_is_left():
    wait_until(lambda: not any(command.startswith(b"ssh\0-o\0BatchMode") for _, command in processes()), "ssh to end")


def test_it_leads_through_the_jump_host(jump):
    outcome = run()
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b""), outcome
    assert Session().read("scout-result.xml") == b"the result"
    assert b"Accepted publickey for plain" in read(jump.log)
    no_ssh_is_left()


def test_without_it_no_jump_host_is_asked(jump):
    assert Destination().run("send-scout").code == 0
    assert run(jump="").code == 0
    assert b"Accepted" not in read(jump.log)


@pytest.mark.usefixtures("strict")
def test_the_key_of_the_source_host_is_held_against_its_own_name(source, jump):
    write(KNOWN_HOSTS, f"{HOST} {public_key(source)}\n")
    assert run().code == 0
    write(KNOWN_HOSTS, f"{HOST} {public_key(jump)}\n[{HOST}]:{PORT} {public_key(source)}\n")
    outcome = run()
    assert outcome.code == 18
    assert Session().messages()[-1][0] == "SshHostKeyRejected"
    no_ssh_is_left()


def children(pid):
    return [int(child) for child in read(f"/proc/{pid}/task/{pid}/children").split()]


def no_key():
    write(f"{OWN}/config", "PreferredAuthentications password\n", 0o600)


def unknown_host_key():
    write(f"{OWN}/known_hosts", "", 0o600)


OBSTACLES = {
    "a password is wanted": ((), no_key, "Permission denied"),
    "an unknown host key": ((), unknown_host_key, "Host key verification failed."),
    "no forwarding": (("AllowTcpForwarding no",), lambda: None, "administratively prohibited"),
}


@pytest.mark.parametrize("options, put, reason", OBSTACLES.values(), ids=OBSTACLES)
def test_a_jump_host_that_leads_nowhere_is_named_with_the_reason(options, put, reason):
    with make_jump(*options):
        put()
        outcome = run()
    assert_no_way(outcome, reason)


def assert_no_way(outcome, reason):
    text = outcome.stderr.decode()
    assert outcome.code == 15, outcome
    assert text.startswith(f"Unable to connect to host {HOST}: no way leads through the jump host {HOST}: "), text
    assert reason in text and "ssh -o BatchMode=yes" in text
    assert "\n" not in text.strip()
    message, = Session().messages()
    assert message[0] == "ConnectionFault"
    assert message[2] == text
    no_ssh_is_left()


def test_a_jump_host_that_is_not_there_is_told():
    make_jump()
    assert_no_way(run(), "Connection refused")


def test_a_source_host_that_the_jump_host_does_not_reach_is_told(source, jump):
    source.stop()
    assert_no_way(run(), "Connection refused")
    assert b"Accepted publickey" in read(jump.log)


def test_a_missing_ssh_is_told(jump):
    os.makedirs(PROGRAMS, exist_ok=True)
    outcome = run(path=PROGRAMS)
    assert outcome.code == 15 and b"ssh" in outcome.stderr, outcome
    assert b"Accepted" not in read(jump.log)


@pytest.mark.parametrize("value", ["-oProxyCommand=touch /mnt/harm", "jump:0", "a b", "@jump"])
def test_what_is_no_jump_host_is_refused(value):
    outcome = run(jump=value)
    assert outcome.code == 15 and b"SONDREL_JUMP should be [login@]host[:port]" in outcome.stderr, outcome
    assert not os.path.exists("/mnt/harm")


def test_ssh_gets_no_password(jump):
    os.makedirs(PROGRAMS, exist_ok=True)
    write(f"{PROGRAMS}/ssh", f"#!/bin/sh\ntr '\\0' '\\n' < /proc/$$/environ > {PROGRAMS}/environment\n"
                             f"echo \"$@\" > {PROGRAMS}/arguments\nexec /usr/bin/ssh \"$@\"\n", 0o755)
    assert run(path=f"{PROGRAMS}:/usr/bin:/bin").code == 0
    for name in "environment", "arguments":
        assert ROOT.password.encode() not in read(f"{PROGRAMS}/{name}")
    assert read(f"{PROGRAMS}/arguments").decode().split()[-8:] == [
        "-W", f"{HOST}:22", "-l", PLAIN.name, "-p", str(PORT), "--", HOST]
    assert b"Accepted" in read(jump.log)


def test_an_ssh_that_does_not_end_is_killed(jump):
    """Such as a script in its place that goes on after it."""
    os.makedirs(PROGRAMS, exist_ok=True)
    write(f"{PROGRAMS}/ssh", "#!/bin/sh\ntrap '' TERM\n/usr/bin/ssh \"$@\"\n"
                             f"echo $$ > {PROGRAMS}/number\nwhile :; do sleep 1; done\n", 0o755)
    outcome = run(path=f"{PROGRAMS}:/usr/bin:/bin")
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b""), outcome
    assert not os.path.exists(f"/proc/{read(f'{PROGRAMS}/number').decode().strip()}")
    assert b"Accepted" in read(jump.log)
    no_ssh_is_left()


def test_a_jump_host_that_goes_is_a_lost_connection(jump):
    deployed_agent(ROOT, "touch /mnt/begun; exec sleep 1000\n")
    running = Destination().start("dump-all", environment={"SONDREL_JUMP": JUMP})
    wait_until(lambda: os.path.exists("/mnt/begun"), "the agent to begin")
    # sshd's privileged process, and the one that serves the connection.
    kill_together([part for pid in jump.connections() for part in [*children(pid), pid]])
    outcome = running.finish(30)
    assert outcome.code == 2, outcome
    assert b"Lost connection with the remote host" in Session().read("migration.result")
    no_ssh_is_left()


def test_a_migration_leads_through_it_and_remembers_it(jump):
    sample_source({"index.html": "a page"})
    outcome = migrate(*in_place(ROOT, "--dump-all", f"--jump={JUMP}"))
    assert outcome.code == 0, outcome
    assert State().settings["jump"] == JUMP
    assert read(jump.log).count(b"Accepted publickey for plain") >= 5


def test_a_migration_refuses_what_is_no_jump_host():
    outcome = migrate(*in_place(ROOT, "--dump-all", "--jump=-oProxyCommand=x"))
    assert outcome.code == 1 and b"--jump must be [login@]host[:port]" in outcome.stderr, outcome
