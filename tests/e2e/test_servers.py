"""SSH servers of many kinds and settings: a migration succeeds, or ends with a clear message."""
import contextlib
import ctypes
import hashlib
import os
import re
import signal
import socket
import subprocess
import time

import pytest

from content import left, offered
from invariants import ARCHIVES, check
from remote_scout import MIB
from script import Script
from scripted_server import ScriptedServer
from source_host import SourceHost, deployed_agent, install_sample_agent, set_password, use_shell
from test_authentication import REFUSED
from test_connection import START_FAILED
from test_remote_commands__data import LEAKY
from test_signal_matrix import executed, holds_open
from tool import Destination, Outcome, Session
from world import (DTM, HOST, LOGS, PLAIN, ROOT, SOURCE_TREE, Login, die_with_parent, files_below, read, wait_until,
                   write)

pytestmark = pytest.mark.matrix("servers")

DONE = Outcome(0, b"", b"")
CONFIGURATION_OF_LOGINS = "/etc/pam.d/sshd"


@contextlib.contextmanager
def dropbear(*options):
    """A Dropbear server on port 22."""
    use_shell("/bin/sh")
    key = "/mnt/dropbear.key"
    if not os.path.exists(key):
        subprocess.run(["dropbearkey", "-t", "ecdsa", "-f", key], check=True, stdout=subprocess.DEVNULL)
    log = write(f"{LOGS}/dropbear.log")
    with open(log, "wb") as told:
        server = subprocess.Popen(["dropbear", "-F", "-E", "-P", "/mnt/dropbear.pid", "-p", f"{HOST}:22", "-r", key,
                                   *options], stdin=subprocess.DEVNULL, stderr=told, preexec_fn=die_with_parent)
    try:
        wait_until(lambda: b"Not backgrounding" in read(log) and listening(), "the ssh server to listen")
        yield server
    finally:
        server.kill()
        server.wait()


def listening():
    """True when a process listens on port 22 of the private network; checked without a connection."""
    with open("/proc/net/tcp", encoding="utf-8") as table:
        return any(line.split()[1].endswith(":0016") and line.split()[3] == "0A" for line in list(table)[1:])


SERVERS = {"OpenSSH": lambda: SourceHost(recording=False), "Dropbear": dropbear,
           "the scripted one": lambda: ScriptedServer(Script(answer=executed))}


@pytest.fixture(params=list(SERVERS))
def server(request):
    with SERVERS[request.param]():
        yield


def test_migration_goes_through_with(server, content_verify):
    install_sample_agent()
    content = {f"domains/{number}.test/it's {number}": bytes([number]) * 70_000 * number for number in range(5)}
    for name, data in content.items():
        write(f"{SOURCE_TREE}/{name}", data)
    write(f"{DTM}/scout.pl", "print 'found'")
    for action in ("send-scout", "deploy-agent", "dump-all"):
        assert Destination().run(action) == DONE
    assert Session().read("scout-result.xml") == b"found"
    dump = Session().read("dump.xml")
    expected = {f"content/{name}": data for name, data in content.items()} | {"dump.xml": dump}
    outcome = Destination().run("get-content")
    assert outcome == DONE
    check(outcome, expected)
    assert files_below(ARCHIVES) == {os.fsencode(name): data for name, data in expected.items()}
    outcome = Destination().run("get-dumping-status")
    assert (outcome.code, outcome.stderr) == (0, b"") and outcome.stdout.startswith(b"<")
    assert Destination().run("remove-agent") == DONE
    assert os.listdir(ROOT.home) == []


FILES = {f"directory/{number}": bytes([number]) * 100_003 * number for number in range(8)}


@pytest.mark.parametrize("option", [
    "MaxSessions 1", "MaxSessions 2", "MaxStartups 1", "RekeyLimit 16K", "RekeyLimit 4M", "LoginGraceTime 1",
    "MaxAuthTries 1", "ClientAliveInterval 1"])
def test_content_run_goes_through_with(option, content_verify):
    offered(ROOT, *FILES.items())
    with SourceHost(options=[option], recording=False):
        outcome = Destination().run("get-content", environment=LEAKY)
    assert outcome == DONE
    check(outcome, FILES)
    assert left(ROOT) == []


def test_input_and_output_come_through_many_changes_of_keys():
    names = b"name," * MIB
    deployed_agent(ROOT, 'tee "${0%/*}/dump.xml"')
    with SourceHost(options=["RekeyLimit 16K"], recording=False):
        outcome = Destination().run("dump-selected", "--domains=-", stdin=names, environment=LEAKY)
    assert outcome == DONE
    assert Session().read("dump.xml") == names


def test_keys_change_but_not_the_ciphers():
    """A server with other lists in a later exchange could choose a combination of ciphers that the library
    cannot use.
    """
    offered(ROOT, *FILES.items())
    with SourceHost(options=["RekeyLimit 1M", "LogLevel DEBUG2"], recording=False) as source:
        assert Destination().run("get-content", environment=LEAKY) == DONE
        log = read(source.log).decode()
    client = re.findall(r"peer client KEXINIT proposal.*?ciphers ctos: (\S+).*?ciphers stoc: (\S+)", log, re.DOTALL)
    used = re.findall(r"kex: client->server cipher: (\S+)", log)[0]
    assert len(client) > 2 and set(client[1:]) == {(used, used)}


# --- limits ----------------------------------------------------------------------------------

@pytest.mark.parametrize("sessions", [1, 2])
def test_refresh_is_dropped_where_the_server_has_no_room_for_it(sessions):
    deployed_agent(ROOT, 'read line < "${0%/*}/pipe"; echo "$line" > "${0%/*}/dump.xml"',
                   {"dumping-status.xml": "<status/>"})
    os.mkfifo(f"{ROOT.agent_dir}/pipe")
    options = [f"MaxSessions {sessions}", "LogLevel DEBUG1"]
    with SourceHost(options=options, recording=False) as source:
        running = Destination().start("dump-all")
        with open(f"{ROOT.agent_dir}/pipe", "wb") as pipe:
            running.send(signal.SIGALRM)
            if sessions == 1:
                wait_until(lambda: b"no more sessions" in read(source.log), "the refresh to be refused")
            else:
                wait_until(lambda: Session().exists("dumping-status.xml"), "the refresh")
            pipe.write(b"<dump/>\n")
        assert running.finish() == DONE
    assert Session().read("dump.xml") == b"<dump/>\n"
    assert Session().exists("dumping-status.xml") == (sessions == 2)
    assert not Session().exists("dumping-status.xml.tmp")
    assert Session().result() == ("execution-result", [("status", "success")], "", [])


def test_server_that_is_busy_with_other_logins_is_told_and_reached_later():
    offered(ROOT, *FILES.items())
    with SourceHost(options=["MaxStartups 1"], recording=False) as source:
        with socket.create_connection((HOST, 22)) as other:
            assert other.recv(4) == b"SSH-"
            outcome = Destination().run("get-content")
        assert outcome == Outcome(2, b"", b"Error during dump retrieval")
        (_, _, _, ((code, _, text, _),)), = Session().messages("transfer.result")
        assert code == "UnableToStartSshSession" and len(text) > len(START_FAILED)
        check(outcome, FILES)
        wait_until(lambda: not source.serves(), "the other login to be given up")
        outcome = Destination().run("get-content")
    assert outcome == DONE
    check(outcome, FILES)


@contextlib.contextmanager
def asked_first(script):
    """This script decides about logins; the password is checked only when it ends with 0."""
    kept = read(CONFIGURATION_OF_LOGINS)
    write("/mnt/asked", f"#!/bin/sh\n{script}\n", mode=0o755)
    write(CONFIGURATION_OF_LOGINS, b"auth requisite pam_exec.so /mnt/asked\n" + kept)
    try:
        yield
    finally:
        write(CONFIGURATION_OF_LOGINS, kept)


def test_login_that_the_server_has_no_more_time_for_is_refused():
    offered(ROOT, *FILES.items())
    os.mkfifo("/mnt/for-ever")
    with SourceHost(options=["LoginGraceTime 1"], recording=False), asked_first("read line < /mnt/for-ever"):
        running = Destination().start("get-content")
        with open("/mnt/for-ever", "wb"):  # returns when the login waits
            outcome = running.finish(20)
    assert refused(outcome)
    check(outcome, FILES)


def test_login_may_take_as_long_as_its_work_does():
    deployed_agent(ROOT, 'sleep 2; echo "<dump/>" > "${0%/*}/dump.xml"')
    with SourceHost(options=["LoginGraceTime 1"], recording=False):
        assert Destination().run("dump-all") == DONE


# --- logging in ------------------------------------------------------------------------------

def refused(outcome):
    """Checks that the content run reports wrong credentials."""
    assert outcome == Outcome(2, b"", b"Error during dump retrieval")
    (_, _, _, cause), = Session().messages("transfer.result")
    assert cause == [("SshInvalidCredentials", "error", REFUSED, [])]
    return True


BY_PASSWORD, BY_QUESTIONS = "Accepted password", "Accepted keyboard-interactive/pam"


@pytest.mark.parametrize("options, accepted", [
    (["KbdInteractiveAuthentication no"], BY_PASSWORD),
    (["PasswordAuthentication no"], BY_QUESTIONS),
    (["AuthenticationMethods keyboard-interactive"], BY_QUESTIONS),
    (["AuthenticationMethods keyboard-interactive password"], BY_PASSWORD),
    (["MaxAuthTries 1", "KbdInteractiveAuthentication no"], BY_PASSWORD),
    (["MaxAuthTries 1", "PasswordAuthentication no"], BY_QUESTIONS),
], ids=["password only", "questions only", "questions only, by methods", "both", "password at the only try",
        "questions at the only try"])
def test_content_run_logs_in_by(options, accepted):
    offered(ROOT, *FILES.items())
    with SourceHost(options=options, recording=False) as source:
        outcome = Destination().run("get-content")
        assert re.findall("Accepted [a-z/-]+", read(source.log).decode()) == [accepted]
    assert outcome == DONE
    check(outcome, FILES)


def test_content_run_logs_in_by_questions_after_its_password_was_refused():
    offered(ROOT, *FILES.items())
    with ScriptedServer(Script(answer=executed, accepts=("keyboard-interactive",), prompts=(1, 3))) as server:
        outcome = Destination().run("get-content")
    assert server.connections[0].passwords == [("root", ROOT.password)]
    assert server.connections[0].responses == [[ROOT.password], 3 * [ROOT.password]]
    assert outcome == DONE
    check(outcome, FILES)


@pytest.mark.parametrize("options, password, tried", [
    ([], "wrong", 2), (["MaxAuthTries 1"], "wrong", 1), (["PasswordAuthentication no"], "wrong", 1),
    (["AuthenticationMethods publickey"], None, 0), (["AuthenticationMethods publickey,password"], None, 0),
    (["PasswordAuthentication no", "KbdInteractiveAuthentication no"], None, 0),
    (["AuthenticationMethods password,keyboard-interactive"], None, 0), (["PermitRootLogin no"], None, 2),
    (["AllowUsers plain"], None, 2),
], ids=["wrong password", "wrong password at the only try", "wrong answer", "key only", "key and password",
        "nothing but a key", "both in a row", "no root", "not this login"])
def test_content_run_is_refused_with(options, password, tried):
    offered(ROOT, *FILES.items())
    with SourceHost(options=options, recording=False) as source:
        outcome = Destination(Login("root", password or ROOT.password, None)).run("get-content")
        assert len(re.findall("Failed (?:password|keyboard)", read(source.log).decode())) == tried
    assert refused(outcome)
    check(outcome, FILES)
    assert left(ROOT) == sorted(FILES)


def test_login_without_any_authentication_is_refused_by_the_tool():
    offered(PLAIN, *FILES.items())
    set_password("plain", "")
    try:
        with SourceHost(options=["UsePAM no", "PermitEmptyPasswords yes"], recording=False) as source:
            outcome = Destination(PLAIN).run("get-content")
            assert b"Accepted none for plain" in read(source.log)
    finally:
        set_password("plain", PLAIN.password)
    assert outcome == Outcome(2, b"", b"Error during dump retrieval")
    (_, _, _, cause), = Session().messages("transfer.result")
    assert cause == [("InvalidHandle", "error", "Invalid handle passed", [])]
    check(outcome, FILES, login=PLAIN)


# --- what the installed SSH library does not know ---------------------------------------------

KEX, HOST_KEY, CIPHER, MAC = 0, 1, 2, 4


def known_to_the_library(kind):
    """Names of the methods that the installed library offers."""
    library = ctypes.CDLL("libssh2.so.1")
    library.libssh2_session_init_ex.restype = ctypes.c_void_p
    session = ctypes.c_void_p(library.libssh2_session_init_ex(None, None, None, None))
    names = ctypes.POINTER(ctypes.c_char_p)()
    number = library.libssh2_session_supported_algs(session, kind, ctypes.byref(names))
    assert number > 0
    return [names[index].decode() for index in range(number)]


PLAIN_CIPHER = ["Ciphers aes256-ctr"]


@pytest.mark.parametrize("kind, option, method, more", [
    (KEX, "KexAlgorithms", "sntrup761x25519-sha512@openssh.com", []),
    (KEX, "KexAlgorithms", "curve25519-sha256", []),
    (HOST_KEY, "HostKeyAlgorithms", "rsa-sha2-512", []),
    (HOST_KEY, "HostKeyAlgorithms", "ssh-rsa", []),
    (HOST_KEY, "HostKeyAlgorithms", "ssh-ed25519", []),
    (CIPHER, "Ciphers", "chacha20-poly1305@openssh.com", []),
    (CIPHER, "Ciphers", "aes256-gcm@openssh.com", []),
    (CIPHER, "Ciphers", "aes128-ctr", []),
    (MAC, "MACs", "umac-128@openssh.com", PLAIN_CIPHER),
    (MAC, "MACs", "hmac-sha2-512-etm@openssh.com", PLAIN_CIPHER),
    (MAC, "MACs", "hmac-sha2-256", PLAIN_CIPHER)],
                         ids=lambda value: value.partition("@")[0] if str(value).islower() else "")
def test_host_that_insists_on_a_method_is_reached_or_told_apart(kind, option, method, more):
    offered(ROOT, *FILES.items())
    options = [f"{option} {method}", *more]
    with SourceHost(options=options, host_keys=("rsa", "ed25519"), recording=False):
        outcome = Destination().run("get-content")
    check(outcome, FILES)
    if method in known_to_the_library(kind):
        assert outcome == DONE
        return
    assert outcome == Outcome(2, b"", b"Error during dump retrieval")
    (_, _, _, ((code, _, text, _),)), = Session().messages("transfer.result")
    assert code == "UnableToStartSshSession" and len(text) > len(START_FAILED)
    error = "ERROR k.libssh2pp.Session: "
    assert Session().log().count(f"{error}SSH session was not started: {text[len(START_FAILED):]}\n") == 2
    assert len(re.findall(f"{error}The remote host presents itself as SSH-2.0-OpenSSH_.+\n", Session().log())) == 2


# --- patience of servers ---------------------------------------------------------------------

def openssh_alive(times):
    return SourceHost(options=["ClientAliveInterval 1", f"ClientAliveCountMax {times}"], recording=False)


# The seconds after which the server has surely given up a silent client: OpenSSH asks once more than configured,
# and takes up to two seconds more each time.
PATIENCE = {"OpenSSH, 2 s": (6, lambda: openssh_alive(2)), "OpenSSH, 3 s": (8, lambda: openssh_alive(3)),
            "Dropbear, 3 s": (5, lambda: dropbear("-K", "1"))}

impatient = pytest.mark.parametrize("seconds, server", PATIENCE.values(), ids=PATIENCE.keys())


def bytes_summed_up_in(seconds):
    """Content whose sum takes this machine at least this long to compute."""
    begin = time.process_time()
    digest = hashlib.md5()
    for _ in range(64):
        digest.update(bytes(MIB))
    return int(seconds / (time.process_time() - begin) * 64) * MIB


@pytest.mark.slow
@impatient
def test_server_hears_of_the_run_while_the_sum_of_a_large_local_file_is_taken(seconds, server):
    offered(ROOT, ("one", b"1"), ("large", b"content"), ("three", b"333"))
    large = f"{ARCHIVES}/large"
    os.makedirs(ARCHIVES)
    with open(large, "wb") as hole:
        hole.truncate(bytes_summed_up_in(1.2 * seconds))
    with server():
        running = Destination().start("get-content")
        wait_until(lambda: holds_open(running, large), "the sum to be taken")
        begin = time.monotonic()
        wait_until(lambda: not holds_open(running, large), "the sum", 120)
        assert time.monotonic() - begin > seconds, "too quick to try anybody's patience"
        outcome = running.finish()
    assert outcome == DONE
    check(outcome, {"one": b"1", "large": b"content", "three": b"333"})
    assert left(ROOT) == []


@pytest.mark.slow
@impatient
def test_server_hears_of_the_run_while_a_command_is_silent(seconds, server):
    deployed_agent(ROOT, f'sleep {seconds + 1}; echo "<dump/>" > "${{0%/*}}/dump.xml"')
    with server():
        assert Destination().run("dump-all") == DONE
