"""Logins by key: SONDREL_IDENTITY, SSH_IDENTITY_F and QRV_KEY_PASSWORD."""
import ctypes
import os
import re
import subprocess

import pytest

from debug_log import debug_log  # a fixture  # noqa: F401  # pylint: disable=unused-import
from migrating import MIGRATE, in_place, migrate, sample_source
from script import Script
from scripted_server import ScriptedServer
from source_host import SourceHost, deployed_agent
from terminal import Terminal
from test_servers import dropbear
from tool import Destination, Session
from world import (CONFIGURATION, DTM, HOST, ROOT, SESSION, SUDOER, die_with_parent, files_below, read, wait_until,
                   write)

KEY = "/mnt/identity"
PASSPHRASE = "the key's passphrase"
UNPROTECTED = "/mnt/unprotected"


# libssh2 leaks a few bytes in each login: parts of a key that it has signed with, and the list of methods when it
# is asked for again. Whole stacks distinguish these leaks from our own.
SUPPRESSIONS = "/mnt/leaks-of-the-library"
SANITIZER = {"ASAN_OPTIONS": "exitcode=99:fast_unwind_on_malloc=0",
             "LSAN_OPTIONS": f"suppressions={SUPPRESSIONS}:print_suppressions=0"}


@pytest.fixture(autouse=True)
def scout():
    write(f"{DTM}/scout.pl", "print 'the result'")
    write(SUPPRESSIONS, "leak:libssh2.so\n")


def make_key(kind="ed25519", path=KEY, passphrase="", options=()):
    """Makes a new key pair; returns the path of the private key."""
    for old in (path, f"{path}.pub"):
        if os.path.exists(old):
            os.unlink(old)
    name, _, bits = kind.partition(" ")
    subprocess.run(["ssh-keygen", "-q", "-t", name, *(["-b", bits] if bits else []), "-N", passphrase, "-f", path,
                    *options], check=True, stdin=subprocess.DEVNULL)
    return path


def convert_key(passphrase, *options, path=KEY):
    """Writes a private key in another format: much faster than making one, if it is a large one of RSA."""
    subprocess.run(["ssh-keygen", "-q", "-p", "-P", passphrase, "-N", passphrase, "-f", path, *options], check=True,
                   stdin=subprocess.DEVNULL)


def authorize(path=KEY, login=ROOT):
    directory = f"{login.home}/.ssh"
    os.makedirs(directory, mode=0o700, exist_ok=True)
    os.chown(directory, *login.ids)
    write(f"{directory}/authorized_keys", read(f"{path}.pub"), 0o600, login.ids)


def log_in(path=KEY, passphrase=None, password=None, login=ROOT, environment=None):
    given = {"SONDREL_IDENTITY": path, **SANITIZER, **(environment or {})}
    if passphrase is not None:
        given["QRV_KEY_PASSWORD"] = passphrase
    return Destination(login).run("send-scout", environment=given, password=password)


def reached(outcome):
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b""), outcome
    assert Session().read("scout-result.xml") == b"the result"
    return True


def refused(outcome, reason):
    message = f"Unable to connect to host {HOST}: {reason}"
    assert (outcome.code, outcome.stdout, outcome.stderr.decode()) == (17, b"", message)
    assert Session().messages() == [("SshIdentityRejected", "error", message, [])]
    return True


def library_version():
    library = ctypes.CDLL("libssh2.so.1")
    library.libssh2_version.restype = ctypes.c_char_p
    return library.libssh2_version(0).decode()


LIBRARY = library_version()
SIGNS_RSA_WITH_SHA2 = tuple(map(int, re.findall(r"\d+", LIBRARY)[:2])) >= (1, 11)
# A library without SHA-2 signatures needs a server that accepts SHA-1.
RSA = [] if SIGNS_RSA_WITH_SHA2 else ["PubkeyAcceptedAlgorithms +ssh-rsa"]

KINDS = ["ed25519", "ecdsa 256", "ecdsa 384", "ecdsa 521", "rsa 2048", "rsa 4096"]
FORMATS = {"OpenSSH": (), "PEM": ("-m", "PEM"), "PKCS8": ("-m", "PKCS8")}


@pytest.mark.slow
@pytest.mark.parametrize("passphrase", ["", PASSPHRASE], ids=["plain", "protected"])
def test_a_key_of_each_kind_and_format_lets_the_login_in(passphrase, cases):
    with SourceHost(RSA, recording=False) as source:
        kinds = [(kind, format_) for kind in KINDS for format_ in FORMATS if kind != "ed25519" or format_ == "OpenSSH"]
        cases(len(kinds))
        for kind, format_ in kinds:
            if format_ == "OpenSSH":
                authorize(make_key(kind, passphrase=passphrase))
            else:
                convert_key(passphrase, *FORMATS[format_])
            assert reached(log_in(passphrase=passphrase or None)), (kind, format_)
        assert len(re.findall("Accepted publickey for root", read(source.log).decode())) == len(kinds)
        assert "password" not in read(source.log).decode()


@pytest.mark.parametrize("kind", ["ed25519", "ecdsa 256"])
def test_dropbear_lets_a_key_in(kind):
    authorize(make_key(kind))
    with dropbear():
        assert reached(log_in())


def test_dropbear_gets_key_and_password_where_it_wants_both():
    authorize(make_key())
    with dropbear("-t"):
        assert refused(log_in(), "the server wants a password besides the key, and none was given")
        assert reached(log_in(password=ROOT.password))


def test_an_rsa_key_is_used_or_told_to_be_beyond_the_library():
    authorize(make_key("rsa 2048"))
    with SourceHost(recording=False):
        outcome = log_in()
    if SIGNS_RSA_WITH_SHA2:
        assert reached(outcome)
        return
    assert refused(outcome, f"the server does not take the key {KEY}: the SSH library of this host, libssh2 {LIBRARY}, "
                   "signs with RSA keys by SHA-1 only, which servers since OpenSSH 8.8 refuse. Use an ed25519 or "
                   "ECDSA key")


# --- where the key is named --------------------------------------------------------------------

@pytest.fixture
def configure():
    """Adds lines to the host's configuration for the time of the test."""
    kept = read(CONFIGURATION)
    yield lambda *lines: write(CONFIGURATION, kept + "".join(line + "\n" for line in lines).encode())
    write(CONFIGURATION, kept)


def test_the_host_configuration_names_the_key_and_the_environment_goes_before_it(configure):
    authorize(make_key())
    other = make_key(path="/mnt/other-identity")
    with SourceHost(recording=False):
        configure(f"SSH_IDENTITY_F {KEY} \t")
        assert reached(Destination().run("send-scout", password=None))
        configure(f"SSH_IDENTITY_F {other}")
        assert reached(log_in(KEY))


def test_an_empty_variable_turns_the_configured_key_off(configure):
    configure(f"SSH_IDENTITY_F {authorize(make_key()) or KEY}")
    with SourceHost(recording=False) as source:
        assert log_in("").code == 1
        assert reached(log_in("", password=ROOT.password))
        assert b"publickey" not in read(source.log)


@pytest.mark.parametrize("line, reason", [
    ("SSH_IDENTITY_F=/mnt/identity", "a line of the host's configuration names SSH_IDENTITY_F and sets nothing"),
    ("SSH_IDENTITY_F .ssh/id", 'SSH_IDENTITY_F is ".ssh/id", which is neither "agent" nor an absolute path'),
], ids=["a malformed line", "a relative path"])
def test_a_setting_that_cannot_be_met_ends_the_run_before_it_connects(configure, line, reason):
    configure(line)
    with ScriptedServer(Script()) as server:
        assert refused(Destination().run("send-scout"), reason)
    assert server.connections == []


# --- agents --------------------------------------------------------------------------------------

@pytest.fixture
def agent():
    """Adds keys to an SSH agent; returns the environment for using it."""
    path = "/mnt/agent.socket"
    if os.path.exists(path):
        os.unlink(path)
    process = subprocess.Popen(["ssh-agent", "-D", "-a", path], stdout=subprocess.DEVNULL,
                               preexec_fn=die_with_parent)
    wait_until(lambda: os.path.exists(path), "the agent to listen")
    environment = {"SSH_AUTH_SOCK": path}

    def add(*keys):
        subprocess.run(["ssh-add", "-q", *keys], check=True, stdin=subprocess.DEVNULL,
                       env={**os.environ, **environment})
        return environment
    yield add
    process.kill()
    process.wait()


def test_the_agents_keys_are_tried_in_turn(agent):
    keys = [make_key(kind, f"/mnt/of-agent-{kind}") for kind in ("ecdsa", "ed25519")]
    environment = agent(*keys)
    authorize(keys[1])
    with SourceHost(recording=False):
        assert reached(log_in("agent", environment=environment))


def test_an_agent_that_is_not_there_or_empty_is_told(agent):
    with ScriptedServer(Script(methods="publickey,password")):
        assert refused(log_in("agent"), "SSH_AUTH_SOCK names no agent")
        outcome = log_in("agent", environment={"SSH_AUTH_SOCK": "/mnt/no-agent"})
        assert outcome.code == 17
        assert b"the agent at SSH_AUTH_SOCK cannot be asked for keys: " in outcome.stderr
    key = make_key()
    environment = agent(key)
    subprocess.run(["ssh-add", "-q", "-D"], check=True, env={**os.environ, **environment})
    with SourceHost(recording=False):
        assert refused(log_in("agent", environment=environment), "the agent at SSH_AUTH_SOCK has no keys")


def test_an_agent_of_which_no_key_is_known_is_told(agent):
    environment = agent(make_key())
    with SourceHost(recording=False):
        assert refused(log_in("agent", environment=environment),
                       "the server does not take any key of the agent at SSH_AUTH_SOCK: it is not among the "
                       "authorized keys of root there")


# --- with a password -------------------------------------------------------------------------------

BOTH = ["publickey,password", "publickey,keyboard-interactive", "password,publickey",
        "publickey,password,keyboard-interactive"]


@pytest.mark.parametrize("methods", BOTH)
def test_server_that_wants_key_and_password_gets_both(methods):
    authorize(make_key())
    with SourceHost([f"AuthenticationMethods {methods}"], recording=False) as source:
        assert reached(log_in(password=ROOT.password))
        for method in methods.split(","):
            assert re.search(f"(Accepted|Partial) {method}", read(source.log).decode())


def test_server_that_wants_a_password_too_is_told_apart():
    authorize(make_key())
    with SourceHost(["AuthenticationMethods publickey,password"], recording=False):
        assert refused(log_in(), "the server wants a password besides the key, and none was given")
        assert refused(log_in(password="wrong"), "the server takes the key, and not the password")


UNKNOWN_KEY = f"the server does not take the key {KEY}: it is not among the authorized keys of root there"


def test_password_is_tried_after_a_key_that_the_server_does_not_know():
    make_key()
    with SourceHost(recording=False) as source:
        assert reached(log_in(password=ROOT.password))
        assert b"Accepted password" in read(source.log)
        assert refused(log_in(password="wrong"), UNKNOWN_KEY + "; nor does it take the password")
        assert refused(log_in(), UNKNOWN_KEY)


def test_password_is_tried_where_the_server_takes_no_keys():
    authorize(make_key())
    with SourceHost(["PubkeyAuthentication no"], recording=False):
        assert reached(log_in(password=ROOT.password))
        assert refused(log_in(), "the server takes no key from this login")


def test_key_that_is_not_known_at_the_only_try_is_told():
    make_key()
    with SourceHost(["MaxAuthTries 1"], recording=False):
        assert refused(log_in(), f"the server does not take the key {KEY}, and allows no more attempts")


def test_without_a_key_nothing_but_the_password_is_tried(debug_log):
    authorize(make_key())
    with ScriptedServer(Script(methods="publickey,password")) as server:
        Destination().run("send-scout", environment={"QRV_KEY_PASSWORD": PASSPHRASE})
    points = [point for point in server.connections[0].points if point.startswith("userauth")]
    assert points == ["userauth none", "userauth password"]
    assert "publickey' authentication" not in debug_log("k.libssh2pp.Session")


def test_sudo_works_with_a_login_by_key():
    authorize(make_key(), SUDOER)
    deployed_agent(SUDOER, 'id -u > "${0%/*}/dump.xml"')
    with SourceHost(recording=False):
        outcome = Destination(SUDOER).run("dump-all", environment={"SONDREL_IDENTITY": KEY, **SANITIZER}, password=None)
    assert outcome.code == 0
    assert Session().read("dump.xml") == b"0\n"


# --- keys that cannot be used ------------------------------------------------------------------------

@pytest.mark.parametrize("mode", [0o640, 0o604, 0o620, 0o644])
def test_key_file_that_others_may_use_is_refused(mode):
    authorize(make_key())
    os.chmod(KEY, mode)
    with ScriptedServer(Script()) as server:
        assert refused(log_in(password=ROOT.password), f"the key file {KEY} may be read or changed by others than its "
                       "owner: take that from them by chmod 600")
    assert server.connections == []


def damaged_key():
    text = read(make_key()).decode().splitlines()
    write(KEY, "\n".join([text[0], "AAAA", text[-1]]) + "\n", 0o600)


@pytest.mark.parametrize("prepare, reason", [
    (lambda: None, "cannot be read: No such file or directory"),
    (lambda: os.mkdir(KEY, 0o700), "is no regular file"),
    (lambda: os.mkfifo(KEY, 0o600), "is no regular file"),
    (lambda: write(KEY, b"", 0o600), "holds no private key in the format of OpenSSH or in PEM"),
    (lambda: write(KEY, read(make_key() + ".pub"), 0o600), "holds no private key in the format of OpenSSH or in PEM"),
    (lambda: write(KEY, bytes(1 << 20), 0o600), "is too large for a key"),
    (damaged_key, "is damaged: it does not say what kind of key it holds"),
    (lambda: make_key(passphrase=PASSPHRASE), "is protected by a passphrase, and none was given"),
    (lambda: make_key("rsa", passphrase=PASSPHRASE, options=FORMATS["PEM"]),
     "is protected by a passphrase, and none was given"),
    (lambda: make_key("rsa", passphrase=PASSPHRASE, options=FORMATS["PKCS8"]),
     "is protected by a passphrase, and none was given"),
], ids=["none", "a directory", "a pipe", "an empty one", "the public one", "a large one", "a damaged one", "protected",
        "protected PEM", "protected PKCS8"])
def test_key_file_that_is_none_ends_the_run_before_it_connects(prepare, reason):
    if os.path.isdir(KEY):
        os.rmdir(KEY)
    elif os.path.lexists(KEY):
        os.unlink(KEY)
    prepare()
    with ScriptedServer(Script()) as server:
        assert refused(log_in(password=ROOT.password), f"the key file {KEY} {reason}")
    assert server.connections == []


@pytest.mark.parametrize("format_", list(FORMATS))
def test_wrong_passphrase_is_told_and_appears_nowhere(format_):
    authorize(make_key("ecdsa", passphrase=PASSPHRASE, options=FORMATS[format_]))
    with SourceHost(recording=False):
        assert refused(log_in(passphrase="not that passphrase"), f"the passphrase of the key file {KEY} is wrong")
    assert not [name for name, data in files_below("/mnt/session").items() if b"not that passphrase" in data]


def test_key_protected_by_a_cipher_that_the_library_lacks_is_told():
    authorize(make_key(passphrase=PASSPHRASE, options=["-Z", "chacha20-poly1305@openssh.com"]))
    with SourceHost(recording=False):
        outcome = log_in(passphrase=PASSPHRASE)
    assert refused(outcome, f"the key file {KEY} is protected by the cipher chacha20-poly1305@openssh.com, which the SSH "
                   f"library of this host, libssh2 {LIBRARY}, does not have. Change that by ssh-keygen -p -Z aes256-ctr")


# --- whole migrations ---------------------------------------------------------------------------------

def test_migration_by_a_protected_key_asks_for_no_password():
    sample_source({"domains/a.test/index": b"page"})
    authorize(make_key(passphrase=PASSPHRASE), SUDOER)
    with SourceHost(["PasswordAuthentication no", "KbdInteractiveAuthentication no"], recording=False):
        outcome = migrate(*in_place(SUDOER, "--dump-all", f"--identity={KEY}"), login=SUDOER, password=None,
                          environment={"QRV_KEY_PASSWORD": PASSPHRASE, **SANITIZER}, prepare=os.setsid)
    assert (outcome.code, outcome.stderr) == (0, b""), outcome
    assert files_below(f"{SESSION}/archives")[b"content/domains/a.test/index"] == b"page"
    assert PASSPHRASE.encode() not in read(f"{SESSION}/migrate/state.xml")


def test_migration_asks_for_the_password_that_the_server_wants_besides_the_key():
    sample_source({"domains/a.test/index": b"page"})
    authorize(make_key())
    with SourceHost(["AuthenticationMethods publickey,password"], recording=False), \
            Terminal([MIGRATE, *in_place(ROOT, "--dump-all", f"--identity={KEY}")], environment=SANITIZER) as terminal:
        terminal.shows(f"The password of root@{HOST}: ".encode())
        terminal.type(f"{ROOT.password}\n".encode())
        assert terminal.finish() == 0
    assert files_below(f"{SESSION}/archives")[b"content/domains/a.test/index"] == b"page"


# --- secrets -------------------------------------------------------------------------------------------

def test_running_process_shows_neither_key_nor_passphrase():
    authorize(make_key(passphrase=PASSPHRASE))
    os.mkfifo("/mnt/home/root/gate")
    deployed_agent(ROOT, f'read line < "{ROOT.home}/gate"; echo "<dump/>" > "${{0%/*}}/dump.xml"')
    with SourceHost(recording=False):
        running = Destination().start("dump-all", password=None, environment={
            "SONDREL_IDENTITY": KEY, "QRV_KEY_PASSWORD": PASSPHRASE, **SANITIZER})
        with open("/mnt/home/root/gate", "w", encoding="utf-8"):  # returns when the agent runs
            for name in ("environ", "cmdline"):
                assert PASSPHRASE.encode() not in read(f"/proc/{running.pid}/{name}")
        assert running.finish().code == 0
    secrets = [PASSPHRASE.encode(), read(KEY).splitlines()[1]]
    assert not [name for name, data in files_below("/mnt/session").items() if any(one in data for one in secrets)]
