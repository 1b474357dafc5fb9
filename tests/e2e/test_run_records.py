"""The debug log, the run records in it, and the result log."""
import os
import re

import pytest

from debug_log import PROPERTIES, debug_log  # a fixture  # noqa: F401  # pylint: disable=unused-import
from source_host import deployed_agent
from tool import Destination, Session, sondrel
from world import BINARY, DTM, PLAIN, PRODUCT, ROOT, SESSION, SUDOER, owner_and_mode, write

REMOVAL = ["--remove-dumping-status", "--session-path", SESSION]


@pytest.fixture(autouse=True)
def keeps_configuration():
    """Restores the product's log configuration and the host's configuration for the next test."""
    files = [PROPERTIES, "/etc/qrv/qrv.conf"]
    kept = {path: open(path, "rb").read() for path in files}
    yield
    for path, content in kept.items():
        write(path, content)


def test_start_record_quotes_every_argument(source):
    write(f"{DTM}/scout.pl", "print 1")
    arguments = Destination(PLAIN).arguments("send-scout", "--clients=it's *all* $HERE", "--resellers", "", "--domains=a\nb")
    assert sondrel(*arguments, password=PLAIN.password).code == 0
    assert Session().log().startswith(
        f"INFO k.log: Sondrel started : {BINARY} --send-scout --host 127.0.0.1 --login plain --session-path "
        f"{SESSION} --clients=it\\'s\\ \\*all\\*\\ \\$HERE --resellers '' --domains=a'\n'b\n")


def test_end_record_tells_the_exit_code(source):
    destination = Destination(PLAIN)
    write(f"{DTM}/scout.pl", "exit 3")
    assert destination.run("send-scout").code == 2
    assert destination.session.log().endswith("\nINFO k.log: Sondrel finished. Exit code: 2\n")
    write(f"{DTM}/scout.pl", "exit 0")
    assert destination.run("send-scout").code == 0
    assert destination.session.log().endswith("\nINFO k.log: Sondrel finished. Exit code: 0\n")
    assert destination.session.log().count("Sondrel started : ") == 2


def test_exception_that_no_net_expects_is_told_by_the_last_one(source):
    deployed_agent(ROOT, "echo '<contentlist size=\"many\"><file size=\"some\">x</file></contentlist>'")
    outcome = Destination().run("get-content", "--no-check-space")
    assert (outcome.code, outcome.stdout) == (1, b"")
    assert outcome.stderr == (b"Uncaught std::exception: bad lexical cast: source type value could not be "
                              b"interpreted as target\n")
    assert Session().log().endswith("INFO k.log: Sondrel finished.  (exit code is not reported)\n")
    assert Session().result("transfer.result") == ("execution-result", [("status", "error")], "", [])


def test_session_that_cannot_be_made_is_told_by_the_last_net():
    write(SESSION + ".file", "here first")
    outcome = sondrel("--remove-dumping-status", "--session-path", SESSION + ".file")
    assert (outcome.code, outcome.stdout) == (1, b"")
    assert re.fullmatch(
        rb"Uncaught ExTraceableException: UnableToCreateSession\[[0-9a-f-]{36}\0\]: Unable to create session: "
        rb"Unable to create session directory \[session\.cpp:[1-9]\d*\]\n[^\n]*SessionFiles[^\n]*\n",
        outcome.stderr), outcome.stderr


def test_verbose_run_shows_its_log_on_the_console_too():
    outcome = sondrel(*REMOVAL, "--verbose")
    assert (outcome.code, outcome.stdout) == (0, b"")
    assert outcome.stderr == Session().read("migration.log") != b""


def test_run_that_is_not_verbose_keeps_the_console_clear():
    outcome = sondrel(*REMOVAL)
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")


def test_log_is_readable_by_its_owner_and_group_only():
    assert sondrel(*REMOVAL).code == 0
    assert owner_and_mode(f"{SESSION}/migration.log")[2] == 0o640


@pytest.mark.parametrize("content", [None, "log4cpp.rootCategory=NOSUCHPRIORITY, A1\n",
                                     "log4cpp.rootCategory=INFO, A1\nlog4cpp.appender.A1=NoSuchAppender\n"],
                         ids=["missing", "with a wrong priority", "with an unknown appender"])
def test_unusable_log_configuration_is_told_to_the_system_log_only(system_log, content):
    if content is None:
        os.unlink(PROPERTIES)
    else:
        write(PROPERTIES, content)
    outcome = sondrel(*REMOVAL)
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")
    assert "log4cpp" in system_log.text()


@pytest.mark.parametrize("content, told", [
    (None, "unable to open configuration file /etc/qrv/qrv.conf: No such file or directory"),
    ("PRODUCT_ROOT_D /mnt/product\nNOVALUE\n", "NOVALUE"),
    ("# a comment\n   \t# another\n\nBAD-KEY value\n\tPRODUCT_ROOT_D /mnt/product\n", "BAD-KEY"),
], ids=["missing file", "key without a value", "key with a dash"])
def test_trouble_with_the_host_configuration_is_told_to_the_system_log_only(system_log, content, told):
    if content is None:
        os.unlink("/etc/qrv/qrv.conf")
    else:
        write("/etc/qrv/qrv.conf", content)
    outcome = sondrel(*REMOVAL)
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")
    assert told in system_log.text()
    # The good lines of a file with bad ones are used.
    assert Session().exists("migration.log") == (content is not None)


def test_sound_configuration_tells_the_system_log_nothing(system_log):
    assert sondrel(*REMOVAL).code == 0
    assert system_log.text() == ""


def test_product_root_is_the_last_one_that_the_host_configuration_gives(source):
    write("/etc/qrv/qrv.conf", f"PRODUCT_ROOT_D /nowhere\nPRODUCT_ROOT_D \t {PRODUCT}.other\n")
    write(f"{PRODUCT}.other/DTM/scout.pl", "print 'the other product'")
    assert Destination(PLAIN).run("send-scout").code == 0
    assert Session().read("scout-result.xml") == b"the other product"


def test_debug_log_holds_each_step_of_the_connection_in_order(source, debug_log):
    deployed_agent(PLAIN, "", {"dumping-status.xml": "<status/>"})
    path = f"{PLAIN.agent_dir}/dumping-status.xml"
    assert Destination(PLAIN).run("get-dumping-status").code == 0
    log = Session().log()
    by_category = {category: [line.partition(" ")[2] for line in debug_log(category)]
                   for category in ("k.Ssh", "k.libssh2pp.Socket", "k.libssh2pp.Session", "k.libssh2pp.Channel")}
    assert by_category["k.Ssh"] == [f"Reading data from the remote file {path}",
                                    f"Executing cat {path} on the remote host",
                                    "Execution finished with return code 0"]
    assert by_category["k.libssh2pp.Socket"] == ["Connecting to 127.0.0.1:22", "Resolving 127.0.0.1", "Connected"]
    cipher = by_category["k.libssh2pp.Session"].pop(1)
    assert re.fullmatch(r"Selected \S+ encryption method", cipher)
    methods = by_category["k.libssh2pp.Session"].pop(4)
    assert methods.startswith("Got the following allowed userauth methods: ") and "password" in methods
    assert by_category["k.libssh2pp.Session"] == [
        "Trying to start SSH session", "SSH session started successfully",
        "Requested authorization for user plain", "Getting userauth methods for user 'plain'",
        "Trying 'password' authentication", "Authenticated succesfully",
        f"Opening SSH channel for command 'cat {path}'", "SSH session finished"]
    assert by_category["k.libssh2pp.Channel"] == ["Closed"]
    assert "DEBUG k.libssh2pp.Socket: Connecting to 127.0.0.1:22\n\nERROR k.libssh2pp.Socket: Resolving" in log


@pytest.mark.usefixtures("debug_log")
def test_debug_log_holds_what_was_sent_and_received(source):
    deployed_agent(SUDOER, "printf 'out\\001put'; echo problem >&2; : > dump.xml")
    assert Destination(SUDOER).run("dump-selected", "--domains=a.test").code == 0
    log = Session().log()
    assert "DEBUG k.Ssh: Executing sudo -V on the remote host\n" in log
    assert ("DEBUG k.Ssh: Executing sudo -k; sudo -S -p ' ' true on the remote host\n"
            "DEBUG k.libssh2pp.Session: Opening SSH channel for command 'sudo -k; sudo -S -p ' ' true'\n"
            "DEBUG k.Ssh: remote stdin <- root-passphrase\n") in log
    assert "DEBUG k.Ssh: remote stdin <- root-passphrase\na.test\n" in log
    assert "DEBUG k.Ssh: remote stdout -> out\1put\n" in log
    assert "problem\n\n" in log


def test_log_does_not_hold_what_was_sent_unless_asked_for(source):
    deployed_agent(SUDOER, ": > dump.xml")
    assert Destination(SUDOER).run("dump-selected", "--domains=a.test", "--content-transport=rsync").code == 0
    for password in (SUDOER.password, SUDOER.sudo_password):
        assert password not in Session().log()


def test_result_log_of_a_success_is_an_empty_document():
    assert sondrel(*REMOVAL).code == 0
    assert Session().result() == ("execution-result", [("status", "success")], "", [])
    assert owner_and_mode(Session().file("migration.result")) == (20000, 20000, 0o600)
    assert not Session().exists("transfer.result")


def test_same_failure_has_one_identifier_in_the_log_and_in_the_result_log(source):
    write(f"{DTM}/scout.pl", "exit 1")
    assert Destination(PLAIN).run("send-scout").code == 2
    identifier = dict(Session().result()[3][0][1])["id"]
    assert f"FailedToExecuteScout[{identifier}\0]: Failed to execute scout. \n" in Session().log()


def test_cause_is_nested_in_the_message_that_wraps_it(source):
    outcome = Destination(agent="absent").run("dump-all")
    assert (outcome.code, outcome.stdout, outcome.stderr) == (2, b"", b"Error during dump retrieval")
    name, attributes, _, children = Session().result()
    assert (name, attributes, len(children)) == ("execution-result", [("status", "error")], 1)
    name, attributes, _, (description, cause) = children[0]
    assert name == "message" and [key for key, _ in attributes] == ["code", "id", "severity"]
    assert attributes[0][1] == "CantRetrieveDump" and attributes[2][1] == "error"
    assert description == ("description", [], "Error during dump retrieval", [])
    assert cause[0] == "message" and dict(cause[1])["code"] == "AgentNotFound"
    assert dict(cause[1])["id"] != dict(attributes)["id"]
    assert cause[3] == [("description", [],
                         "Agent absent was not found or does not contain proper spec file", [])]
    log = Session().log()
    assert re.search(r"INFO k\.log: CantRetrieveDump\[[0-9a-f-]{36}\0\]: Error during dump retrieval \[\S+:\d+\]\n"
                     r"[^\n]*execute[^\n]*\nInner exception:\nAgentNotFound\[[0-9a-f-]{36}\0\]: Agent absent was not "
                     r"found or does not contain proper spec file \[agent_spec\.cpp:\d+\]\n[^\n]*getAgent", log), log
