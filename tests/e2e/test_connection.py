"""Resolution of the host's name, the TCP connection, and the start of the SSH session."""
import contextlib
import pathlib
import re
import socket
import subprocess

import pytest

from content import offered
from debug_log import debug_log  # a fixture  # noqa: F401  # pylint: disable=unused-import
from script import Script, ends, fin
from scripted_server import ScriptedServer
from source_host import install_agent
from tool import Destination, Session
from world import DTM, HOST, PLAIN, ROOT, read, write

# Documentation addresses: no host could ever answer there, even if the network were connected.
UNROUTED = "192.0.2.1"
ROUTED = "198.51.100.1"
GROUP1 = ("diffie-hellman-group1-sha1",)
START_FAILED = "Unable to start SSH session: "


@pytest.fixture(autouse=True)
def scout():
    write(f"{DTM}/scout.pl", "the script")


@pytest.fixture
def hosts():
    """Adds lines to /etc/hosts."""
    kept = read("/etc/hosts")
    yield lambda lines: write("/etc/hosts", kept + lines.encode())
    write("/etc/hosts", kept)


@contextlib.contextmanager
def route(*words):
    subprocess.run(["ip", "route", "add", *words], check=True)
    try:
        yield
    finally:
        subprocess.run(["ip", "route", "del", *words], check=True)


@contextlib.contextmanager
def few_attempts():
    """Makes the system's time-out of a connection as short as possible: 3 s instead of minutes."""
    setting = pathlib.Path("/proc/sys/net/ipv4/tcp_syn_retries")
    kept = setting.read_text()
    setting.write_text("1")
    try:
        yield
    finally:
        setting.write_text(kept)


@contextlib.contextmanager
def full_backlog():
    """A listener on port 22 whose queue of waiting connections is full."""
    with few_attempts(), contextlib.ExitStack() as stack:
        listener = stack.enter_context(socket.create_server((HOST, 22), backlog=0))
        queued = 0
        while True:
            client = stack.enter_context(socket.socket())
            client.setblocking(False)
            client.connect_ex((HOST, 22))
            # On loopback a connection is established at once if there is room for it.
            if client.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 1) != b"\1":
                break
            queued += 1
        assert queued and listener
        yield


def failed(outcome, code, tag, text, stderr_before=""):
    """Checks that the run failed with exactly this text on the console and this message in the result log."""
    assert (outcome.code, outcome.stdout) == (code, b"")
    assert outcome.stderr == (stderr_before + text).encode()
    assert Session().messages() == [(tag, "error", text, [])]
    assert dict(Session().result()[1])["status"] == "error"
    assert Session().log().endswith(f"INFO k.log: Sondrel finished. Exit code: {code}\n")
    return True


# --- exit codes ------------------------------------------------------------------------------

def test_refused_connection_ends_with_11():
    assert failed(Destination(PLAIN).run("send-scout"), 11, "ConnectionRefused",
                  "No one listening on the remote address at host 127.0.0.1")


def test_connection_without_an_answer_ends_with_12():
    with full_backlog():
        assert failed(Destination(PLAIN).run("send-scout"), 12, "ConnectionTimedOut",
                      "Timeout while attempting connection to host 127.0.0.1")


def test_unreachable_network_ends_with_13():
    assert failed(Destination(PLAIN, host=UNROUTED).run("send-scout"), 13, "NetworkUnreachable",
                  f"Specified network host {UNROUTED} is unreachable")


def test_unreachable_host_ends_with_14():
    with route("unreachable", ROUTED):
        assert failed(Destination(PLAIN, host=ROUTED).run("send-scout"), 14, "HostUnreachable",
                      f"No route to host {ROUTED}")


@pytest.mark.parametrize("kind, text", [("prohibit", "Permission denied"), ("blackhole", "Invalid argument")])
def test_any_other_fault_of_the_connection_ends_with_15(kind, text):
    with route(kind, ROUTED):
        assert failed(Destination(PLAIN, host=ROUTED).run("send-scout"), 15, "ConnectionFault",
                      f"Unable to connect to host {ROUTED}: {text}")


@pytest.mark.parametrize("host", ["nowhere.invalid", "no where", "%1% %s"],
                         ids=["unknown", "with a blank", "with signs of a format"])
def test_name_that_does_not_resolve_ends_with_16(host):
    reason = f"{host}: Name or service not known"
    assert failed(Destination(PLAIN, host=host).run("send-scout"), 16, "HostNotFound",
                  f"Unable to resolve hostname {reason}", stderr_before=f"300Unable to resolve {reason}")


def test_deployment_has_the_same_exit_codes():
    install_agent()
    assert failed(Destination(PLAIN).run("deploy-agent"), 11, "ConnectionRefused",
                  "No one listening on the remote address at host 127.0.0.1")


WRAPPED = {"dump-all": ("CantRetrieveDump", "Error during dump retrieval", "migration.result"),
           "dump-selected": ("CantRetrieveDump", "Error during dump retrieval", "migration.result"),
           "get-content": ("CantRetrieveDump", "Error during dump retrieval", "transfer.result"),
           "get-dumping-status": ("DumpStatusError", "Error during getting dumping status", "migration.result")}


@pytest.mark.parametrize("action", WRAPPED)
def test_dump_content_and_status_wrap_a_refused_connection(action):
    tag, text, result = WRAPPED[action]
    install_agent()
    outcome = Destination(PLAIN).run(action)
    assert (outcome.code, outcome.stdout, outcome.stderr) == (2, b"", text.encode())
    cause = ("ConnectionRefused", "error", "No one listening on the remote address at host 127.0.0.1", [])
    assert Session().messages(result) == [(tag, "error", text, [cause])]


def test_dump_wraps_a_name_that_does_not_resolve():
    install_agent()
    outcome = Destination(PLAIN, host="nowhere.invalid").run("dump-all")
    assert outcome.code == 2
    assert outcome.stderr == (b"300Unable to resolve nowhere.invalid: Name or service not known"
                              b"Error during dump retrieval")


# --- addresses -------------------------------------------------------------------------------

def test_ipv6_address_is_used_where_it_comes_first(hosts):
    hosts("::1 twofold\n127.0.0.1 twofold\n")
    with ScriptedServer(address="::1") as server:
        assert Destination(PLAIN, host="twofold").run("send-scout").code == 0
    assert len(server.connections) == 1


def test_only_the_first_address_is_tried(hosts):
    hosts("::1 twofold\n127.0.0.1 twofold\n")
    with ScriptedServer() as server:
        assert failed(Destination(PLAIN, host="twofold").run("send-scout"), 11, "ConnectionRefused",
                      "No one listening on the remote address at host twofold")
    assert server.connections == []


def test_ipv6_address_may_be_given_as_it_is():
    with ScriptedServer(address="::1"):
        assert Destination(PLAIN, host="::1").run("send-scout").code == 0


# --- what the log says -----------------------------------------------------------------------

def test_name_of_the_host_is_in_the_log_at_every_level():
    with ScriptedServer():
        assert Destination(PLAIN).run("send-scout").code == 0
    assert "ERROR k.libssh2pp.Socket: Resolving 127.0.0.1\n" in Session().log()
    assert "k.libssh2pp" not in Session().log().replace("k.libssh2pp.Socket: Resolving", "")


def test_refused_connection_is_logged_with_its_port(debug_log):
    assert Destination(PLAIN).run("send-scout", "--port", "65535").code == 11
    assert debug_log("k.libssh2pp.Socket") == [
        "DEBUG Connecting to 127.0.0.1:65535", "ERROR Resolving 127.0.0.1",
        "ERROR Unable to open socket to 127.0.0.1:65535: Connection refused"]
    assert "65535: Connection refused\n\n" in Session().log()


def test_unresolved_name_is_logged_before_anything_is_opened(debug_log):
    assert Destination(PLAIN, host="nowhere.invalid").run("send-scout").code == 16
    assert debug_log("k.libssh2pp.Socket") == [
        "DEBUG Connecting to nowhere.invalid:22", "ERROR Resolving nowhere.invalid"]


@pytest.mark.matrix("servers")
def test_session_without_encryption_is_encrypted_where_the_library_knows_no_other_way(source, debug_log):
    offered(ROOT, ("one", b"1"))
    assert Destination().run("get-content", "--no-encryption").code == 0
    lines = debug_log("k.libssh2pp.Session")
    assert lines[:2] == ["DEBUG Trying to start SSH session", "DEBUG Disabling SSH encryption"]
    assert re.fullmatch(r"DEBUG Selected (?!none)\S+ encryption method", lines[2])
    assert lines[3] == "DEBUG SSH session started successfully"


# --- the start of the session ----------------------------------------------------------------

def breaks_at_first(point="version", **later):
    """The first connection breaks; later ones are served."""
    return Script(at={point: fin}), Script(**later)


@pytest.mark.parametrize("point", ["connected", "version", "kexinit", "newkeys", "service-request"])
def test_broken_handshake_is_tried_once_more_on_a_new_connection(point):
    with ScriptedServer(*breaks_at_first(point, kex=GROUP1)) as server:
        assert Destination(PLAIN).run("send-scout").code == 0
    assert len(server.connections) == 2
    assert server.connections[1].passwords == [("plain", "plain-passphrase")]


def test_second_attempt_offers_the_oldest_key_exchange_only():
    with ScriptedServer(*breaks_at_first(kex=("diffie-hellman-group14-sha1",))) as server:
        outcome = Destination(PLAIN).run("send-scout")
    assert outcome.code == 2 and outcome.stderr.startswith(START_FAILED.encode())
    assert len(server.connections) == 2
    assert "newkeys" not in server.connections[1].points


def test_second_attempt_keeps_an_idle_channel_to_its_end():
    def answer(command):
        if command.line == "cat":
            command.take_input()
            assert over, "the idle channel ended before the run did"
        else:
            idle = command.connection.commands[0]
            ends(b"found")(command)
            over.append(idle.line)

    over = []
    with ScriptedServer(*breaks_at_first(kex=GROUP1, answer=answer)) as server:
        assert Destination(PLAIN).run("send-scout").code == 0
    assert over == ["cat"]
    assert Session().read("scout-result.xml") == b"found"
    assert [command.line for command in server.commands] == ["cat", r"sh -c cd\ \;\ perl"]
    assert server.commands[0].stdin == b""


def test_steps_of_both_attempts_are_logged_in_order(debug_log):
    with ScriptedServer(*breaks_at_first(kex=GROUP1, methods="password")):
        assert Destination(PLAIN).run("send-scout").code == 0
    lines = debug_log("k.libssh2pp.Session")
    assert re.fullmatch("ERROR SSH session was not started: .+", lines.pop(1))
    assert lines.pop(1) == "ERROR The remote host presents itself as SSH-2.0-scripted"
    assert re.fullmatch(r"DEBUG Selected \S+ encryption method", lines.pop(2))
    assert lines == [f"DEBUG {text}" for text in [
        "Trying to start SSH session", "Trying to start SSH session", "SSH session started successfully",
        "Requested authorization for user plain", "Getting userauth methods for user 'plain'",
        "Got the following allowed userauth methods: password", "Trying 'password' authentication",
        "Authenticated succesfully", "Create a reserve channel", "Opening SSH channel for command 'cat'",
        r"Opening SSH channel for command 'sh -c cd\ \;\ perl'", "SSH session finished"]]
    assert debug_log("k.Ssh")[0] == "DEBUG Attempt to start SSH session in a 'compatibility' mode"
    assert debug_log("k.libssh2pp.Socket") == 2 * [
        "DEBUG Connecting to 127.0.0.1:22", "ERROR Resolving 127.0.0.1", "DEBUG Connected"]
    assert debug_log("k.libssh2pp.Channel") == 2 * ["DEBUG Closed"]


@pytest.mark.matrix("servers")
def test_session_that_cannot_be_started_fails_after_two_attempts():
    with ScriptedServer(Script(ciphers=("a-cipher-of-the-future",))) as server:
        outcome = Destination(PLAIN).run("send-scout")
    assert (outcome.code, outcome.stdout) == (2, b"")
    text = outcome.stderr.decode()
    assert text.startswith(START_FAILED) and len(text) > len(START_FAILED)
    assert Session().messages() == [("UnableToStartSshSession", "error", text, [])]
    assert len(server.connections) == 2
    log = Session().log()
    assert log.count(f"ERROR k.libssh2pp.Session: SSH session was not started: {text[len(START_FAILED):]}\n") == 2
    assert "ERROR k.libssh2pp.Session: The remote host presents itself as SSH-2.0-scripted\n" in log


def test_failure_to_reach_the_host_again_is_what_the_second_attempt_reports():
    def break_and_refuse(connection):
        connection.server.refuse()
        fin(connection)

    with ScriptedServer(Script(at={"version": break_and_refuse})):
        assert failed(Destination(PLAIN).run("send-scout"), 11, "ConnectionRefused",
                      "No one listening on the remote address at host 127.0.0.1")


@pytest.mark.matrix("servers")
@pytest.mark.parametrize("script", [
    Script(before_version=b"Welcome\r\nto this host\n"),
    Script(before_version=b"x" * 2000 + b"\r\n"),
    Script(version="SSH-2.0-" + "v" * 245),
    Script(version="SSH-1.99-old"),
    Script(login_banner="Authorized use only.\n" * 1000),
    Script(kex=GROUP1),
], ids=["lines ahead of it", "long line ahead of it", "longest version", "version 1.99", "banner at login",
        "oldest key exchange only"])
def test_server_of_odd_manners_is_accepted(script):
    with ScriptedServer(script) as server:
        assert Destination(PLAIN).run("send-scout").code == 0
    assert server.commands[-1].stdin == b"the script"


@pytest.mark.matrix("servers")
@pytest.mark.parametrize("greeting", [b"HTTP/1.1 400 Bad Request\r\n\r\n", b"SSH-1.5-ancient\r\n", b""],
                         ids=["another protocol", "version 1.5", "nothing"])
def test_server_of_another_kind_is_no_session(greeting):
    def greet(connection):
        connection.socket.sendall(greeting)
        fin(connection)

    with ScriptedServer(Script(at={"connected": greet})) as server:
        outcome = Destination(PLAIN).run("send-scout")
    assert outcome.code == 2 and outcome.stderr.startswith(START_FAILED.encode())
    assert len(server.connections) == 2
