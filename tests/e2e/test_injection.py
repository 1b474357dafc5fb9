"""Texts of another host, and odd session paths: they must do no harm on the console and in the logs."""
import os
import socket
import threading
import tty

import pytest

from content import offered
from debug_log import debug_log  # a fixture  # noqa: F401  # pylint: disable=unused-import
from snapshot import own_directories, unchanged  # a fixture  # noqa: F401  # pylint: disable=unused-import
from source_host import deployed_agent, install_agent
from tool import Destination, Session
from world import DTM, PLAIN, ROOT, SESSION, wait_until, write

pytestmark = pytest.mark.matrix("injection")


# The text before the scout's standard error.
FAILED = "Failed to execute scout. \nThe return code is 1\nThe output on STDERR is\n"
ERASED = b"\r\x1b[K"


def complaining_scout(text):
    """Installs a scout that writes this to its standard error, and fails."""
    listed = ",".join(map(str, text))
    write(f"{DTM}/scout.pl", f"binmode STDERR; print STDERR pack('C*', {listed}); exit 1")


def on_terminal(destination, action, *options):
    """The exit code of a run, and what it sent to a terminal that is its standard error."""
    terminal, side = os.openpty()
    tty.setraw(side)
    os.set_blocking(terminal, False)
    running = destination.start(action, *options, prepare=lambda: os.dup2(side, 2))
    shown = b""

    def ended():
        nonlocal shown
        over = running.ended()
        try:
            while True:
                shown += os.read(terminal, 65536)
        except BlockingIOError:
            return over

    wait_until(ended, "the end of the run")
    os.close(terminal)
    os.close(side)
    assert b"Sanitizer" not in shown and b"runtime error:" not in shown, shown
    return running.finish().code, shown


def escaped(text):
    """The text as a terminal may show it: control characters, and bytes that are no characters, by their numbers."""
    def show(character):
        code = ord(character)
        if code >= 0x20 and not 0x7f <= code <= 0x9f and not 0xdc80 <= code <= 0xdcff or character in "\n\t":
            return character.encode()
        return b"".join(b"\\x%02x" % byte for byte in character.encode("utf-8", "surrogateescape"))
    return b"".join(map(show, text.decode("utf-8", "surrogateescape")))


COMMANDS = {
    "every byte": bytes(range(1, 256)), "clear screen": b"a\x1b[2Jb", "title": b"\x1b]0;title\x07",
    "answer": b"\x1b[6n\x05", "overwritten": b"It failed\rIt is done", "erased": b"failed\x08\x08\x08",
    "C1 byte": b"\x9b2J",
    "C1 characters": "".join(map(chr, range(0x80, 0xa0))).encode(), "delete": b"a\x7fb",
    "text": "tab\tline\n\u00e4 \u20ac \U0001f600 \u00a0\\x1b".encode(), "cut off": b"\xe2\x82\x1b[2J",
    "too long": b"\xc0\x9b \xc1\x9b \xe0\x80\x9b", "surrogate": b"\xed\xb2\x9b",
}


@pytest.mark.parametrize("text", COMMANDS.values(), ids=COMMANDS.keys())
def test_terminal_is_not_commanded_by_what_a_command_prints(source, text):
    complaining_scout(text)
    assert on_terminal(Destination(PLAIN), "send-scout") == (2, FAILED.encode() + escaped(text))
    assert FAILED.encode() + text in Session().read("migration.log")


def test_console_that_is_no_terminal_gets_the_bytes_as_they_are(source, cases):
    cases(len(COMMANDS))
    for text in COMMANDS.values():
        complaining_scout(text)
        outcome = Destination(PLAIN).run("send-scout")
        assert (outcome.code, outcome.stderr) == (2, FAILED.encode() + text)


def harmless(shown):
    """True when a terminal gets only text, and what erases the progress line."""
    text = shown.replace(ERASED, b"")
    return text == escaped(text)


EVERY = COMMANDS["every byte"]


@pytest.mark.usefixtures("debug_log")
def test_log_on_a_terminal_commands_it_no_more_than_messages(source):
    complaining_scout(EVERY)
    code, shown = on_terminal(Destination(PLAIN), "send-scout", "--verbose")
    assert code == 2 and harmless(shown)
    # As it arrived, in the message, and at last.
    assert shown.count(escaped(EVERY)) == 3
    assert b"remote stderr -> " + EVERY in Session().read("migration.log")


def test_deployment_commands_no_terminal(source):
    install_agent(script="printf '\\033[2J\\233' >&2; exit 1\n")
    code, shown = on_terminal(Destination(PLAIN), "deploy-agent", "--verbose")
    assert code == 2 and harmless(shown)
    assert shown.count(b"\\x1b[2J\\x9b") == 2


def test_name_of_a_content_file_commands_no_terminal(source):
    name = "a\u009b2J\rb"
    offered(ROOT, (name, None))
    code, shown = on_terminal(Destination(), "get-content", "--verbose")
    assert code == 2 and harmless(shown)
    assert b"a\\xc2\\x9b2J\\x0db" in shown
    assert f"/{name}'".encode() in Session().read("migration.log")


def test_banner_of_a_server_commands_no_terminal():
    def serve():
        for _ in range(2):  # a second attempt is made after a failed handshake
            connection, _ = server.accept()
            with connection:
                connection.sendall(b"\x1b[2J first\r\nSSH-2.0-\x1b]0;\x9b2J\x07\r\n")
                connection.recv(1 << 16)

    with socket.create_server(("127.0.0.1", 22)) as server:
        thread = threading.Thread(target=serve, daemon=True)
        thread.start()
        code, shown = on_terminal(Destination(), "get-dumping-status", "--verbose")
        thread.join(timeout=10)
    assert code in (2, 18) and harmless(shown), shown
    assert b"\\x1b]0;\\x9b2J\\x07" in shown


# --- forged lines and elements ---------------------------------------------------------------

FORGED = {
    "log line": "\nINFO k.log: Sondrel finished. Exit code: 0\n",
    "element": "</description></message><message code='x' id='y' severity='warning'><description>",
    "document": '"?><execution-result status="success"/>', "section": "]]> <![CDATA[ ]]>", "comment": "<!-- -->",
    "entity": "&lt;&#0;&unknown;", "several lines": "a\r\nb\n\nc\n",
}


@pytest.mark.parametrize("text", FORGED.values(), ids=FORGED.keys())
def test_result_is_not_forged_by_what_a_command_prints(source, text):
    complaining_scout(text.encode())
    assert Destination(PLAIN).run("send-scout").code == 2
    assert Session().messages() == [("FailedToExecuteScout", "error", FAILED + text, [])]
    assert Session().result()[1] == [("status", "error")]
    assert Session().log().endswith("\nINFO k.log: Sondrel finished. Exit code: 2\n")


DIRECTIVES = ["%s%s%s%s", "%n", "%n%n%n%n%n%n", "%1%", "%2%%9%", "%", "%%", "100%", "%1$s", "%|1$+10|", "{0}{1}{}",
              "%m%p%c", "${LOG_FILE_NAME}", "$(id)", "%99999999d", "%-*.*s", "%\n", "\\n\\x41"]


def test_directives_come_out_as_they_are(source, debug_log, cases):
    cases(len(DIRECTIVES))
    for text in DIRECTIVES:
        complaining_scout(text.encode())
        outcome = Destination(PLAIN).run("send-scout")
        assert (outcome.code, outcome.stderr) == (2, FAILED.encode() + text.encode())
        assert Session().messages() == [("FailedToExecuteScout", "error", FAILED + text, [])]
        log = Session().log()
        assert f"remote stderr -> {text}\n" in log and f": {FAILED}{text} [" in log
        os.unlink(Session().file("migration.log"))


def test_directives_of_a_listing_come_out_as_they_are(source, debug_log):
    text = " ".join(DIRECTIVES)
    write("/mnt/complaint", text)
    deployed_agent(ROOT, "cat /mnt/complaint >&2; printf 'out %%1%%%%n %%s'; exit 1")
    assert Destination().run("get-content").code == 2
    (_, _, _, ((code, _, description, _),)), = Session().messages("transfer.result")
    assert (code, description) == ("CantRetrieveContentList", f"Error during content list retrieval: {text}")
    assert "remote stdout -> out %1%%n %s\n" in Session().log()
    assert f"Error during content list retrieval: {text} [" in Session().log()


@pytest.mark.parametrize("name", ["%1%%s%n", "{0} %99$s", "100%"], ids=["first", "second", "third"])
def test_directives_in_a_name_come_out_as_they_are(source, name):
    offered(ROOT, (name, None))
    assert Destination().run("get-content").code == 2
    path = f"{ROOT.agent_dir}/{name}"
    (_, _, _, ((_, _, text, _),)), = Session().messages("transfer.result")
    assert text.startswith(f"Failed to retrieve file '{path}' from '127.0.0.1' to '{SESSION}/archives/{name}': cat: ")
    assert text in Session().log()


# --- the session's path ----------------------------------------------------------------------

PATHS = {
    "hash": "#", "hash inside": "a # b", "variable": "${HOME}", "variable of the log": "${LOG_FILE_NAME}",
    "unclosed variable": "${", "open variable": "a${LOG_FILE_NAME", "command": "$(touch injected)", "newline": "a\nb",
    "level": "a\nlog4cpp.rootCategory=DEBUG, A1\n", "appender": "a\nlog4cpp.appender.A1.fileName=forged\n",
    "another appender": "a\nlog4cpp.rootCategory=INFO, A9\nlog4cpp.appender.A9=FileAppender\n"
                        "log4cpp.appender.A9.fileName=forged\n",
    "line of the log": "a\nINFO k.log: Sondrel finished. Exit code: 0", "backslash behind": "a\\",
    "equals sign": "a=b=",
    "directives": "%1%%s%n%m", "blanks": " \ta ", "control bytes": "a\x1b[2J\x7f\r", "markup": "<&>'\"", "dash": "-rf",
    "no UTF-8": "a\udcff\udc9b", "dots": "...",
}


@pytest.mark.usefixtures("own_directories")
@pytest.mark.parametrize("name", PATHS.values(), ids=PATHS.keys())
def test_log_and_documents_are_placed_by_any_session_path(source, name):
    write(f"{DTM}/scout.pl", "print 'scouted'")
    os.makedirs("/mnt/current")
    session = Session(f"{SESSION}/{name}")
    with unchanged(SESSION):
        outcome = Destination(PLAIN, session=session.path).run("send-scout", directory="/mnt/current")
    os.rmdir("/mnt/current")
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")
    assert os.listdir(SESSION) == [name]
    assert sorted(os.listdir(session.path)) == ["archives", "migration.log", "migration.result", "migration.status",
                                                "scout-result.xml"]
    log = session.log()
    assert log.startswith("INFO k.log: Sondrel started : ")
    assert log.endswith("\nINFO k.log: Sondrel finished. Exit code: 0\n")
    assert log.count("\nINFO ") == 1 and "\nDEBUG " not in log
    session.status()
    session.result()
