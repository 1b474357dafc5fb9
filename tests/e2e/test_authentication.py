"""Logging in: which methods are tried, with what, and what is reported."""
import pytest

from debug_log import debug_log  # a fixture  # noqa: F401  # pylint: disable=unused-import
from script import Script
from scripted_server import ScriptedServer
from source_host import install_agent
from tool import Destination, Session
from world import DTM, PLAIN, Login, write

pytestmark = pytest.mark.matrix("servers")

REFUSED = "Unable to connect to host 127.0.0.1: you have specified incorrect username or password"


@pytest.fixture(autouse=True)
def scout():
    write(f"{DTM}/scout.pl", "the script")


def attempts(connection):
    """The authentication requests of a connection, in order, without the request for the list of methods."""
    return [point.split()[1] for point in connection.points if point.startswith("userauth ")][1:]


def login(script, code=0, user=PLAIN):
    """Runs the scout against the script; returns the connection, which must be the only one."""
    with ScriptedServer(script) as server:
        outcome = Destination(user).run("send-scout")
    assert (outcome.code, len(server.connections)) == (code, 1), outcome
    if code == 17:
        assert (outcome.stdout, outcome.stderr) == (b"", REFUSED.encode())
        assert Session().messages() == [("SshInvalidCredentials", "error", REFUSED, [])]
        assert "ERROR k.libssh2pp.Session: Authentication failed\n" in Session().log()
        assert server.commands == []
    return server.connections[0]


def session_lines(lines):
    """The log lines between the start of the session and the first channel."""
    begin = lines.index("DEBUG SSH session started successfully") + 1
    end = next((i for i, line in enumerate(lines) if line.startswith("DEBUG Opening")), len(lines))
    return [line for line in lines[begin:end] if line != "DEBUG SSH session finished"]


BEGIN = ["DEBUG Requested authorization for user plain", "DEBUG Getting userauth methods for user 'plain'"]
GOT = "DEBUG Got the following allowed userauth methods: "
PASSWORD = "DEBUG Trying 'password' authentication"
INTERACTIVE = "DEBUG Trying 'keyboard-interactive' authentication"
CALLBACK = "DEBUG 'keyboard-interactive' callback requested. Filling {} responses with the password"
BY_PASSWORD = "DEBUG Authenticated succesfully"
BY_INTERACTIVE = "DEBUG Authenticated successfully"
FAILED = "ERROR Authentication failed"


def test_password_is_tried_first_and_then_nothing_else(debug_log):
    connection = login(Script())
    assert attempts(connection) == ["password"]
    assert connection.passwords == [("plain", "plain-passphrase")]
    assert session_lines(debug_log("k.libssh2pp.Session")) == [
        *BEGIN, GOT + "password,keyboard-interactive", PASSWORD, BY_PASSWORD]


def test_keyboard_interactive_alone_is_used(debug_log):
    connection = login(Script(methods="publickey,keyboard-interactive"))
    assert attempts(connection) == ["keyboard-interactive"]
    assert connection.responses == [["plain-passphrase"]]
    assert session_lines(debug_log("k.libssh2pp.Session")) == [
        *BEGIN, GOT + "publickey,keyboard-interactive", INTERACTIVE, CALLBACK.format(1), BY_INTERACTIVE]


def test_keyboard_interactive_follows_a_refused_password(debug_log):
    connection = login(Script(methods="keyboard-interactive,password", accepts=("keyboard-interactive",)))
    assert attempts(connection) == ["password", "keyboard-interactive"]
    assert connection.passwords == [("plain", "plain-passphrase")]
    assert connection.responses == [["plain-passphrase"]]
    assert session_lines(debug_log("k.libssh2pp.Session")) == [
        *BEGIN, GOT + "keyboard-interactive,password", PASSWORD, INTERACTIVE, CALLBACK.format(1), BY_INTERACTIVE]


def test_keyboard_interactive_completes_a_password_that_does_not_suffice():
    connection = login(Script(demands_more_after=("password",), accepts=("keyboard-interactive",)))
    assert attempts(connection) == ["password", "keyboard-interactive"]


@pytest.mark.parametrize("prompts", [(0,), (1,), (3,), (100,), (1, 0, 2)], ids=str)
def test_each_prompt_is_answered_with_the_password(debug_log, prompts):
    connection = login(Script(methods="keyboard-interactive", prompts=prompts))
    assert connection.responses == [["plain-passphrase"] * number for number in prompts]
    assert session_lines(debug_log("k.libssh2pp.Session")) == [
        *BEGIN, GOT + "keyboard-interactive", INTERACTIVE, *map(CALLBACK.format, prompts), BY_INTERACTIVE]


def test_refusal_of_every_method_ends_with_17(debug_log):
    connection = login(Script(accepts=()), 17)
    assert attempts(connection) == ["password", "keyboard-interactive"]
    assert session_lines(debug_log("k.libssh2pp.Session")) == [
        *BEGIN, GOT + "password,keyboard-interactive", PASSWORD, INTERACTIVE, CALLBACK.format(1), FAILED]


@pytest.mark.parametrize("methods, tried", [
    ("password", ["password"]), ("keyboard-interactive", ["keyboard-interactive"])])
def test_refusal_of_the_only_method_ends_with_17(methods, tried):
    assert attempts(login(Script(methods=methods, accepts=()), 17)) == tried


@pytest.mark.parametrize("methods", ["publickey", "", "Password,passwords,xkeyboard-interactive", " password"],
                         ids=["keys only", "none at all", "similar names only", "a name with a blank"])
def test_without_a_method_that_it_knows_nothing_is_tried(debug_log, methods):
    assert attempts(login(Script(methods=methods), 17)) == []
    assert session_lines(debug_log("k.libssh2pp.Session")) == [*BEGIN, GOT + methods, FAILED]


def test_empty_names_in_the_list_of_methods_do_no_harm(debug_log):
    assert attempts(login(Script(methods=",publickey,,password,"))) == ["password"]
    assert GOT + ",publickey,,password," in debug_log("k.libssh2pp.Session")


def test_login_that_needs_no_authentication_is_refused_by_the_tool(debug_log):
    with ScriptedServer(Script(accepts=("none",))) as server:
        outcome = Destination(PLAIN).run("send-scout")
    assert (outcome.code, outcome.stdout, outcome.stderr) == (2, b"", b"Invalid handle passed")
    assert Session().messages() == [("InvalidHandle", "error", "Invalid handle passed", [])]
    assert session_lines(debug_log("k.libssh2pp.Session")) == BEGIN
    assert server.commands == []


@pytest.mark.parametrize("method", ["password", "keyboard-interactive"])
@pytest.mark.parametrize("password", ["x", "p\u00e4ss w\u00f6rd '\"\\$%1%\n\t", "0123456789abcdef" * 128],
                         ids=["one letter", "odd letters", "2048 letters"])
def test_login_and_password_are_sent_as_they_are(method, password):
    connection = login(Script(methods=method), user=Login("a b\u00fc", password))
    if method == "password":
        assert connection.passwords == [("a b\u00fc", password)]
    else:
        assert connection.responses == [[password]]


def test_deployment_has_the_same_exit_code():
    install_agent()
    with ScriptedServer(Script(accepts=())):
        outcome = Destination(PLAIN).run("deploy-agent")
    assert (outcome.code, outcome.stderr) == (17, REFUSED.encode())


@pytest.mark.parametrize("action, text, result", [
    ("dump-all", "Error during dump retrieval", "migration.result"),
    ("get-content", "Error during dump retrieval", "transfer.result"),
    ("get-dumping-status", "Error during getting dumping status", "migration.result")])
def test_dump_content_and_status_wrap_refused_credentials(action, text, result):
    install_agent()
    with ScriptedServer(Script(accepts=())):
        outcome = Destination(PLAIN).run(action)
    assert (outcome.code, outcome.stdout, outcome.stderr) == (2, b"", text.encode())
    assert Session().messages(result)[0][2:] == (text, [("SshInvalidCredentials", "error", REFUSED, [])])
