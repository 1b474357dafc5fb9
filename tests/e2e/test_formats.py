"""Every document that the tool reads or writes is as docs/formats says, and docs/formats has nothing else."""
import glob
import os
import re
import shutil
import socket
import subprocess

import pytest

import gates
from content import offered
from linux_agent import FORMATS, check_schema, install_linux_agent
from linux_host import populate, web_host
from source_host import deployed_agent
from test_dumping_status import IN_THROW_AWAY_ROOT, throw_away_root  # noqa: F401  a fixture
from tool import Destination, Running, Session
from world import BINARY, DTM, HOST, PLAIN, ROOT, SELECTED, SESSION, SUDOER, read, write

EXAMPLES = f"{FORMATS}/examples"
# The documents in a session directory, and the schema of each.
DOCUMENTS = {"migration.status": "migration-status", "migration.result": "execution-result",
             "transfer.result": "execution-result", "scout-result.xml": "scout-result",
             "agent-deployment.status": "agent-deployment-status", "dump.xml": "dump",
             "dumping-status.xml": "dumping-status"}
# Files of a session that are not XML documents.
OTHERS = {"migration.log", "dump-name", "migration-result-name"}


def schemas():
    return sorted(os.path.basename(path)[:-len(".xsd")] for path in glob.glob(f"{FORMATS}/*.xsd"))


def examples():
    return sorted(os.path.basename(path)[:-len(".xml")] for path in glob.glob(f"{EXAMPLES}/*.xml"))


def schema_of(example):
    """NAME.xml and NAME.VARIANT.xml are examples of NAME.xsd."""
    return example.partition(".")[0]


def is_valid(text, schema):
    return subprocess.run(["xmllint", "--noout", "--schema", f"{FORMATS}/{schema}.xsd", "-"], input=text,
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False).returncode == 0


# --- the directory ------------------------------------------------------------------------------

def test_every_schema_has_an_example_and_a_line_in_the_list():
    assert set(schemas()) == {schema_of(example) for example in examples()}
    listed = re.findall(r"\]\(([\w.-]+)\.xsd\)", read(f"{FORMATS}/README.md").decode())
    assert sorted(listed) == schemas()


@pytest.mark.parametrize("example", examples())
def test_example_is_as_its_schema_says(example):
    check_schema(read(f"{EXAMPLES}/{example}.xml"), schema_of(example))


@pytest.mark.parametrize("example", examples())
def test_example_is_refused_once_it_is_something_else(example):
    text = read(f"{EXAMPLES}/{example}.xml")
    root = re.search(rb"<([a-z-]+)", text)[1]
    text = re.sub(rb"/>\s*\Z", b"></" + root + b">", text)
    start = text.index(b"<" + root) + 1 + len(root)
    assert not is_valid(text[:start] + b' surplus="1"' + text[start:], schema_of(example))
    assert not is_valid(text.replace(b"<" + root, b"<another", 1).replace(b"</" + root, b"</another"),
                        schema_of(example))
    assert not is_valid(text.replace(b"</" + root, b"<surplus/></" + root, 1), schema_of(example))


# --- what the tool writes --------------------------------------------------------------------

def check_session(unfinished=()):
    """Checks all documents of the session, except unfinished ones, against their schemas; returns their names."""
    session = Session()
    found = {name for name in os.listdir(session.path) if os.path.isfile(session.file(name))}
    assert found <= DOCUMENTS.keys() | OTHERS, found
    for name in found & DOCUMENTS.keys() - set(unfinished):
        check_schema(session.read(name), DOCUMENTS[name])
    return found & DOCUMENTS.keys()


@pytest.fixture
def host():
    """A web host with two sites, a mailbox and a cron table."""
    install_linux_agent()
    with web_host() as found:
        populate(found)
        with found.nginx:
            yield found


def succeed(login, action, *options):
    outcome = Destination(login, agent="linux").run(action, *options)
    assert (outcome.code, outcome.stderr) == (0, b""), (action, outcome)
    return outcome.stdout


@pytest.mark.parametrize("login", [ROOT, PLAIN, SUDOER], ids=["root login", "plain login", "sudo by password"])
def test_every_document_of_a_migration_is_as_its_schema_says(source, host, login):
    base = {"migration.status", "migration.result"}
    assert succeed(login, "send-scout") == b""
    assert check_session() == base | {"scout-result.xml"}
    assert succeed(login, "deploy-agent") == b""
    assert check_session() == base | {"scout-result.xml", "agent-deployment.status"}
    assert succeed(login, "dump-all") == b""
    dumped = base | {"scout-result.xml", "agent-deployment.status", "dump.xml"}
    # This document exists only if the dump took more than five seconds.
    dumped |= check_session() & {"dumping-status.xml"}
    assert check_session() == dumped
    check_schema(succeed(login, "get-dumping-status"), "dumping-status")
    assert check_session() == dumped
    check_schema(content_list(login), "content-list")
    assert succeed(login, "get-content") == b""
    assert check_session() == dumped | {"transfer.result"}
    check_schema(read(f"{SESSION}/archives/dump.xml"), "dump")
    assert succeed(login, "remove-agent") == b""
    assert check_session() == dumped | {"transfer.result"}


def content_list(login):
    """The list that the agent prints when it is asked as the tool asks it."""
    user, group = login.ids if login is PLAIN else (0, 0)
    return subprocess.run(["perl", f"{login.agent_dir}/agent.pl", "--get-content-list"], check=True, cwd="/",
                          stdout=subprocess.PIPE, user=user, group=group, extra_groups=[],
                          env={"PATH": "/usr/bin:/bin"}).stdout


@pytest.mark.parametrize("example", [name for name in examples() if schema_of(name) == "selected-objects"])
def test_example_of_selected_objects_is_what_a_dump_takes(source, example):
    deployed_agent(ROOT, "cat > /dev/null; printf '<dump/>' > \"${0%/*}/dump.xml\"")
    shutil.copy(f"{EXAMPLES}/{example}.xml", SELECTED)
    assert Destination().run("dump-selected", "--selected-objects-file", SELECTED).code == 0
    asked = source.commands()[0]
    assert asked.stdin == b"a.example,b.example\nalice\nbig"
    assert all(word in asked.line for word in ("--only-mail", "--no-compress"))


def test_selected_objects_dumped_by_the_agent_have_the_form_of_a_dump(source, host):
    succeed(ROOT, "deploy-agent")
    write(SELECTED, "<selected-objects><parameters compression-level='do-not-compress'/>"
                    "<domain><name>a.test</name></domain></selected-objects>")
    check_schema(read(SELECTED), "selected-objects")
    succeed(ROOT, "dump-selected", "--selected-objects-file", SELECTED)
    # Fetched while the dump still runs.
    assert check_session() - {"dumping-status.xml"} == {"migration.status", "migration.result",
                                                        "agent-deployment.status", "dump.xml"}


def test_removal_of_the_dumping_status_leaves_documents_of_the_form(throw_away_root):  # noqa: F811
    assert Running(["--remove-dumping-status", "--session-path", SESSION],
                   through=[*IN_THROW_AWAY_ROOT, throw_away_root, BINARY]).finish().code == 0
    assert check_session() == {"migration.status", "migration.result"}


# --- while it runs ---------------------------------------------------------------------------

def anonymous(text):
    """The text without what differs between runs: the process and the host."""
    text = re.sub(r"<pid>\d+</pid>", "<pid>1</pid>", text)
    return re.sub(r"<host>[^<]*</host>", "<host>source.example</host>", text)


def status_is_like(example):
    text = Session().read("migration.status")
    check_schema(text, "migration-status")
    expected = read(f"{EXAMPLES}/migration-status.{example}.xml").decode()
    return anonymous(text.decode()) == anonymous(expected)


def test_status_while_the_scout_and_the_agent_work_is_as_in_the_examples(source):
    os.mkfifo("/mnt/gate")
    write(f"{DTM}/scout.pl", "open my $gate, '<', '/mnt/gate'; <$gate>; print '<scout-result/>';")
    deployed_agent(ROOT, "read -r line < /mnt/gate; echo '<dump/>' > \"${0%/*}/dump.xml\"")
    for action, state in {"send-scout": "agent-deploy", "dump-all": "agent-wait"}.items():
        running = Destination().start(action)
        with open("/mnt/gate", "wb") as gate:  # returns when the scout, or the agent, waits
            assert status_is_like(state)
            gate.write(b"go on\n")
        assert running.finish().code == 0
    assert status_is_like("agent-wait")
    os.unlink("/mnt/gate")


def test_status_while_content_is_fetched_is_as_in_the_examples():
    with gates.gated_host():
        gates.offered_behind_gates({"content/sites/a.example.tar": b"x" * 1000})
        before, amid = gates.Gate("before the list"), gates.Gate("before cat a.example.tar")
        running = Destination().start("get-content")
        before.reached()
        assert status_is_like("transfer-dumpfile")
        before.open()
        amid.reached()
        assert status_is_like("transfer-files-begun")
        amid.open()
        assert running.finish().code == 0
    check_session()
    status = Session().read("migration.status").decode()
    assert re.search(r'<transfer speed="\d+">', status) and ' left="0" ' in status and ' size-left="0"' in status


def test_status_of_an_action_that_has_not_begun_is_as_in_the_example(source):
    deployed_agent(ROOT, "", {"dumping-status.xml": "<dumping-status/>"})
    assert Destination().run("get-dumping-status").code == 0
    assert status_is_like("idle")


# --- when it fails ---------------------------------------------------------------------------

NEEDING_A_HOST = ["send-scout", "deploy-agent", "dump-all", "dump-selected", "get-dumping-status", "get-content"]


@pytest.mark.parametrize("action", NEEDING_A_HOST)
def test_result_of_a_failure_is_as_its_schema_says(action):
    install_linux_agent()
    with socket.socket() as unused:
        unused.bind((HOST, 0))
        outcome = Destination(agent="linux").run(action, "--port", str(unused.getsockname()[1]))
    assert outcome.code == (11 if action in ("send-scout", "deploy-agent") else 2)
    # What the scout and the agent print goes directly into these files: they exist, and are empty.
    check_session(unfinished=["scout-result.xml", "agent-deployment.status"])
    name = "transfer.result" if action == "get-content" else "migration.result"
    assert b' code="ConnectionRefused"' in Session().read(name)


def test_result_with_a_warning_is_as_its_schema_says(source):
    offered(ROOT, ("one", b"1"))
    os.unlink(f"{ROOT.agent_dir}/one")
    os.mkfifo(f"{ROOT.agent_dir}/one")
    running = Destination().start("get-content")
    with open(f"{ROOT.agent_dir}/one", "wb") as pipe:
        # The removal that follows finds a directory where the file was.
        os.unlink(f"{ROOT.agent_dir}/one")
        os.mkdir(f"{ROOT.agent_dir}/one")
        pipe.write(b"1")
    assert running.finish().code == 0
    assert [message[0] for message in Session().messages("transfer.result")] == ["UnableToRemoveRemoteFile"]
    check_session()


def test_deployment_status_that_another_agent_may_print_is_stored_all_the_same(source):
    """The schemas describe what the agents of this project print; the tool itself demands less."""
    deployed_agent(ROOT, "printf '<agentstatus><statusfile>x</statusfile><more/></agentstatus>'")
    assert Destination().run("deploy-agent").code == 0
    assert b"<more/>" in Session().read("agent-deployment.status")
    assert not is_valid(Session().read("agent-deployment.status"), "agent-deployment-status")
