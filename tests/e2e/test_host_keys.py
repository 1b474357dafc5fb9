"""Verifying the source host: SSH_HOST_KEY_POLICY and SSH_KNOWN_HOSTS_F."""
import os
import re
import subprocess

import pytest

from debug_log import debug_log  # a fixture  # noqa: F401  # pylint: disable=unused-import
from script import Script
from scripted_server import ScriptedServer
from source_host import SourceHost, install_sample_agent
from tool import Destination, Session
from world import CONFIGURATION, DTM, HOST, PLAIN, read, write

FILE = "/mnt/known_hosts"
KEY_TYPES = {"ed25519": "ssh-ed25519", "ecdsa": "ecdsa-sha2-nistp256"}


@pytest.fixture(autouse=True)
def scout():
    write(f"{DTM}/scout.pl", "print 'the result'")


@pytest.fixture
def configure():
    """Adds lines to the host's configuration for the time of the test."""
    kept = read(CONFIGURATION)
    yield lambda *lines: write(CONFIGURATION, kept + "".join(line + "\n" for line in lines).encode())
    write(CONFIGURATION, kept)
    if os.path.exists(FILE):
        os.unlink(FILE)


@pytest.fixture
def policy(configure):
    return lambda name: configure(f"SSH_KNOWN_HOSTS_F {FILE}", f"SSH_HOST_KEY_POLICY {name}")


def public_key(host, kind):
    """The type of the key and its base64."""
    return " ".join(read(f"{host.key_file(kind)}.pub").decode().split()[:2])


def fingerprint(key):
    path = write("/mnt/fingerprint.pub", key + "\n")
    return subprocess.run(["ssh-keygen", "-lf", path], check=True, stdout=subprocess.PIPE,
                          text=True).stdout.split()[1]


def key_of(server):
    """The key of a scripted server."""
    return f"{server.key.get_name()} {server.key.get_base64()}"


def rejected(outcome, code, reason):
    """Checks that the run has ended because of the key, and reports that."""
    message = f"Unable to connect to host {HOST}: {reason}"
    assert (outcome.code, outcome.stdout, outcome.stderr.decode()) == (code, b"", message)
    assert Session().messages() == [("SshHostKeyRejected", "error", message, [])]


CHANGED = ("the key that it presents, {} {}, is not the one that " + FILE + " has for it. "
           "Either the key was changed, or somebody is between this host and it")
UNKNOWN = "the key that it presents, {} {}, is not known: " + FILE + " has none for it"


@pytest.mark.parametrize("name", ["accept-new", "strict", "strict  \t"], ids=["accept-new", "strict", "strict and blanks"])
@pytest.mark.parametrize("kind", list(KEY_TYPES))
def test_a_known_key_lets_the_run_go_on(source, policy, name, kind):
    policy(name)
    write(FILE, f"{HOST} {public_key(source, kind)}\n")
    assert Destination().run("send-scout").code == 0
    assert read(FILE).decode() == f"{HOST} {public_key(source, kind)}\n"


@pytest.mark.parametrize("kind", list(KEY_TYPES))
def test_the_server_is_asked_for_the_kind_of_key_that_it_is_known_by(policy, kind):
    policy("strict")
    with SourceHost(["LogLevel DEBUG1"]) as host:
        write(FILE, f"{HOST} {public_key(host, kind)}\n")
        assert Destination().run("send-scout").code == 0
        assert f"kex: host key algorithm: {KEY_TYPES[kind]} " in read(host.log).decode()


def test_a_server_that_is_known_by_an_rsa_key_is_asked_for_that_one(policy):
    """The signatures of such a key have other names than the key."""
    policy("strict")
    signatures = "ssh-ed25519,ecdsa-sha2-nistp256,rsa-sha2-512,rsa-sha2-256,ssh-rsa"
    with SourceHost(["LogLevel DEBUG1", f"HostKeyAlgorithms {signatures}"], port=2222,
                    host_keys=("ed25519", "ecdsa", "rsa")) as host:
        write(FILE, f"[{HOST}]:2222 {public_key(host, 'rsa')}\n")
        assert Destination().run("send-scout", "--port=2222").code == 0
        assert re.search("kex: host key algorithm: (ssh-rsa|rsa-sha2-(256|512)) ", read(host.log).decode())


@pytest.mark.parametrize("changed", [
    lambda key, other: f"{HOST} {other}\n",
    lambda key, other: f"* {other}\n",
    lambda key, other: f"{HOST}\n",
], ids=["another key", "a pattern with another key", "no key at all"])
@pytest.mark.parametrize("name", ["accept-new", "strict"])
def test_another_key_than_the_known_one_ends_the_run_before_any_password(policy, changed, name):
    policy(name)
    with ScriptedServer(Script()) as other:
        pass
    with ScriptedServer(Script()) as server:
        known = changed(key_of(server), key_of(other))
        write(FILE, known)
        outcome = Destination(PLAIN).run("send-scout")
    rejected(outcome, 18, CHANGED.format(server.key.get_name(), fingerprint(key_of(server))))
    unharmed(server)
    assert read(FILE).decode() == known


def unharmed(server):
    """Fails if a client tried to log in at the server, above all with a password."""
    assert len(server.connections) == 1
    connection = server.connections[0]
    assert not [point for point in connection.points if point.startswith("userauth")]
    assert (connection.passwords, connection.responses, server.commands) == ([], [], [])


def test_an_unknown_key_ends_a_strict_run_before_any_password(policy):
    policy("strict")
    with ScriptedServer(Script()) as server:
        outcome = Destination(PLAIN).run("send-scout")
    rejected(outcome, 18, UNKNOWN.format(server.key.get_name(), fingerprint(key_of(server))))
    unharmed(server)
    assert not os.path.exists(FILE)


def test_a_revoked_key_ends_the_run_before_any_password(policy):
    policy("accept-new")
    with ScriptedServer(Script()) as server:
        write(FILE, f"{HOST} {key_of(server)}\n@revoked * {key_of(server)}\n")
        outcome = Destination(PLAIN).run("send-scout")
    rejected(outcome, 18, f"the key that it presents, {server.key.get_name()} {fingerprint(key_of(server))}, "
                          f"is revoked in {FILE}")
    unharmed(server)


def test_a_new_server_is_accepted_once_and_then_held_to_its_key(policy):
    policy("accept-new")
    with ScriptedServer(Script()) as server:
        assert Destination(PLAIN).run("send-scout").code == 0
    assert read(FILE).decode() == f"{HOST} {key_of(server)}\n"
    assert (f"INFO k.Ssh: The host key of {HOST} is new and was added to {FILE}: "
            f"{server.key.get_name()} {fingerprint(key_of(server))}\n") in Session().log().replace("[INFO]", "INFO")
    with ScriptedServer(Script()) as impostor:
        assert Destination(PLAIN).run("send-scout").code == 18
    unharmed(impostor)


def test_ssh_keyscan_and_ssh_keygen_make_files_that_are_understood(policy):
    policy("strict")
    with SourceHost(port=2222) as host:
        scan = subprocess.run(["ssh-keyscan", "-p", "2222", "-H", HOST], check=True, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL)
        # Newer versions write comments to standard output, too.
        assert b"\n|1|" in b"\n" + scan.stdout
        write(FILE, scan.stdout)
        assert Destination().run("send-scout", "--port=2222").code == 0
        subprocess.run(["ssh-keygen", "-q", "-R", f"[{HOST}]:2222", "-f", FILE], check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        assert Destination().run("send-scout", "--port=2222").code == 18
        assert public_key(host, "ed25519").encode() not in read(FILE)


def test_the_accepted_line_is_understood_by_ssh(policy):
    policy("accept-new")
    with SourceHost(port=2222) as host:
        assert Destination().run("send-scout", "--port=2222").code == 0
        found = subprocess.run(["ssh-keygen", "-F", f"[{HOST}]:2222", "-f", FILE], check=True,
                               stdout=subprocess.PIPE, text=True).stdout
        kind = next(kind for kind, name in KEY_TYPES.items() if name in found)
        assert public_key(host, kind) in found


def test_lines_of_certificate_authorities_are_skipped_and_told_to_the_log(source, policy):
    policy("strict")
    write(FILE, f"@cert-authority * {public_key(source, 'ecdsa')}\n{HOST} {public_key(source, 'ed25519')}\n")
    assert Destination().run("send-scout").code == 0
    assert f"k.Ssh: Line 1 of {FILE} is skipped: certificates are not used\n" in Session().log()


@pytest.mark.parametrize("lines", [[], ["SSH_HOST_KEY_POLICY ignore"], [f"SSH_KNOWN_HOSTS_F {FILE}"]],
                         ids=["nothing", "ignore", "a file alone"])
def test_keys_are_not_looked_at_unless_the_configuration_says_so(source, configure, lines):
    configure(*lines)
    write(FILE, f"@revoked * {public_key(source, 'ed25519')}\n@revoked * {public_key(source, 'ecdsa')}\n")
    assert Destination().run("send-scout").code == 0


MALFORMED = "a line of the host's configuration names {} and sets nothing"
POLICY_MALFORMED = MALFORMED.format("SSH_HOST_KEY_POLICY")


@pytest.mark.parametrize("lines, reason", [
    (["SSH_HOST_KEY_POLICY yes"],
     'SSH_HOST_KEY_POLICY is "yes", which is none of "ignore", "accept-new" and "strict"'),
    (["SSH_HOST_KEY_POLICY "], 'SSH_HOST_KEY_POLICY is "", which is none of "ignore", "accept-new" and "strict"'),
    (["SSH_HOST_KEY_POLICY"], POLICY_MALFORMED),
    (["SSH_HOST_KEY_POLICY=strict", f"SSH_KNOWN_HOSTS_F {FILE}"], POLICY_MALFORMED),
    (["SSH_HOST_KEY_POLICY: strict", "SSH_HOST_KEY_POLICY ignore"], POLICY_MALFORMED),
    (["ssh_host_key_policy strict", f"SSH_KNOWN_HOSTS_F {FILE}"], POLICY_MALFORMED),
    (["export SSH_HOST_KEY_POLICY=strict"], POLICY_MALFORMED),
    ([f"SSH_KNOWN_HOSTS_F={FILE}", f"SSH_KNOWN_HOSTS_F {FILE}.other", "SSH_HOST_KEY_POLICY accept-new"],
     MALFORMED.format("SSH_KNOWN_HOSTS_F")),
    (["SSH_HOST_KEY_POLICY strict"], 'SSH_HOST_KEY_POLICY is "strict", and SSH_KNOWN_HOSTS_F names no file'),
    (["SSH_HOST_KEY_POLICY accept-new", "SSH_KNOWN_HOSTS_F  "],
     'SSH_HOST_KEY_POLICY is "accept-new", and SSH_KNOWN_HOSTS_F names no file'),
    (["SSH_HOST_KEY_POLICY strict", "SSH_KNOWN_HOSTS_F /mnt"],
     "the file of known host keys cannot be used: /mnt: not a regular file"),
    (["SSH_HOST_KEY_POLICY accept-new", "SSH_KNOWN_HOSTS_F /mnt/none/known"],
     "the file of known host keys cannot be used: /mnt/none/known: No such file or directory"),
    (["SSH_HOST_KEY_POLICY accept-new", "SSH_KNOWN_HOSTS_F ~/.ssh/known_hosts"],
     'SSH_KNOWN_HOSTS_F is "~/.ssh/known_hosts", which is no absolute path'),
    (["SSH_HOST_KEY_POLICY strict", "SSH_KNOWN_HOSTS_F mnt/known_hosts"],
     'SSH_KNOWN_HOSTS_F is "mnt/known_hosts", which is no absolute path'),
], ids=["unknown policy", "empty policy", "policy without a blank", "policy behind an equals sign",
        "policy behind a colon", "policy in small letters", "policy as in a script", "malformed file",
        "strict without a file", "accept-new without a file", "a directory",
        "no directory for the file", "a file in the home", "a relative file"])
def test_settings_that_cannot_be_met_let_no_host_in(configure, lines, reason):
    configure(*lines)
    with ScriptedServer(Script()) as server:
        outcome = Destination(PLAIN).run("send-scout")
    rejected(outcome, 18, reason)
    assert all(not connection.passwords for connection in server.connections)


@pytest.fixture
def unreadable():
    """Replaces the host's configuration by something that cannot be read."""
    kept = read(CONFIGURATION)
    os.unlink(CONFIGURATION)
    yield
    subprocess.run(["rm", "-rf", CONFIGURATION], check=True)
    write(CONFIGURATION, kept)


@pytest.mark.usefixtures("unreadable")
@pytest.mark.parametrize("put", [lambda: os.symlink("/mnt/missing", CONFIGURATION), lambda: os.mkdir(CONFIGURATION),
                                 lambda: os.symlink("qrv.conf", CONFIGURATION)],
                         ids=["a dangling link", "a directory", "a link to itself"])
def test_configuration_that_cannot_be_read_ends_the_run_before_any_password(put):
    put()
    with ScriptedServer(Script()) as server:
        outcome = Destination(PLAIN).run("get-dumping-status")
    assert (outcome.code, outcome.stdout) == (2, b"")
    (code, _, text, _), = Session().messages()[0][3]
    assert (code, text) == ("SshHostKeyRejected", f"Unable to connect to host {HOST}: the host's configuration, which "
                                                  "may demand certain keys, cannot be read")
    assert server.connections == []


# Every action that connects, with the exit status that a rejected key gives it.
ACTIONS = {"send-scout": 18, "deploy-agent": 18, "dump-all": 2, "get-dumping-status": 2, "get-content": 2,
           "remove-agent": 0}


@pytest.mark.parametrize("action, code", list(ACTIONS.items()), ids=list(ACTIONS))
def test_every_action_stops_at_a_changed_key(policy, action, code):
    policy("strict")
    install_sample_agent()
    with ScriptedServer(Script()) as server:
        outcome = Destination(PLAIN).run(action)
    assert outcome.code == code, outcome
    unharmed(server)


def test_a_server_in_compatibility_mode_is_held_to_its_key_as_well(policy):
    policy("strict")
    refusing = Script(at={"version": lambda connection: (connection.socket.close(), connection.give_up())})
    with ScriptedServer(refusing, Script(kex=("diffie-hellman-group1-sha1",))) as server:
        write(FILE, f"{HOST} {key_of(server)}x\n")
        outcome = Destination(PLAIN).run("send-scout")
    assert outcome.code == 18, outcome
    assert [connection.passwords for connection in server.connections] == [[], []]
