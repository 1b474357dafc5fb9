"""--dump-all and --dump-selected: running the agent and fetching the dump."""
import os

import pytest

from source_host import (RemoteCommand, deployed_agent, install_agent, install_sample_agent, root_command, sudo_check,
                         user_line)
from tool import Destination, Session
from world import PLAIN, ROOT, SOURCE_TREE, SUDOER, owner_and_mode, read, tree, wait_until, write

WAITING = ("migration-status", [], "", [("agent", [("action", "wait")], "", [("host", [], "127.0.0.1", [])])])


def test_dumps_the_source_with_the_sample_agent(source, login):
    install_sample_agent()
    write(f"{SOURCE_TREE}/domains/a.test/it's \"odd\" \u00e4", "content")
    write(f"{SOURCE_TREE}/clients/jo/mail/1", "letter")
    destination = Destination(login)
    assert destination.run("deploy-agent").code == 0
    deployed = len(source.commands())
    outcome = destination.run("dump-all")
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")
    agent = f"perl {login.agent_dir}/sample-agent.pl --migration-mode --dump-all"
    dump = f"{login.agent_dir}/dump.xml"
    expected = sudo_check(login) + [root_command(login, agent)]
    if login.sudo_password is not None:
        expected.append(root_command(login, f"chown {login.name} {dump}"))
    expected.append(user_line(login, f"cat {dump}"))
    assert source.commands()[deployed:] == expected
    assert Session().read("dump.xml") == read(dump)
    assert tree(read(dump))[3] == [
        ("option", [], "--migration-mode", []), ("option", [], "--dump-all", []),
        ("domain", [("name", "a.test")], "", [
            ("file", [("size", "7")], "content/domains/a.test/it's \"odd\" \u00e4", [])]),
        ("client", [("name", "jo")], "", [("file", [("size", "6")], "content/clients/jo/mail/1", [])])]
    assert Session().read("dump-name") == b"/mnt/session/dump.xml"
    assert Session().status() == WAITING
    assert Session().result() == ("execution-result", [("status", "success")], "", [])
    assert owner_and_mode(Session().file("dump.xml")) == (0, 0, 0o644)


def test_dumps_what_was_selected_with_the_sample_agent(source, login):
    install_sample_agent()
    for path in ("domains/a/x", "domains/b/x", "clients/c/mail/x", "clients/c/web", "resellers/r/x"):
        write(f"{SOURCE_TREE}/{path}", path)
    destination = Destination(login)
    assert destination.run("deploy-agent").code == 0
    outcome = destination.run("dump-selected", "--domains=-", "--clients=c", "--only-mail",
                              "--content-transport=rsync", stdin=b"b\n")
    assert (outcome.code, outcome.stderr) == (0, b"")
    assert [node for node in Session().tree("dump.xml")[3] if node[0] != "option"] == [
        ("transport", [("name", "rsync"), ("host", "127.0.0.1"), ("login", login.name), ("port", "0")], "", []),
        ("domain", [("name", "b")], "", []),
        ("client", [("name", "c")], "", [("file", [("size", "16")], "content/clients/c/mail/x", [])])]


def test_asks_the_agent_for_increments_only_where_they_are_wanted(source):
    for asked, expected in (("yes", " --migration-mode --increments --dump-all"), ("no", " --migration-mode --dump-all")):
        deployed_agent(PLAIN, "echo \"$*\" > \"${0%/*}/asked\"; echo '<dump/>' > \"${0%/*}/dump.xml\"")
        assert Destination(PLAIN).run("dump-all", environment={"SONDREL_DUMP_INCREMENTS": asked}).code == 0
        assert " " + read(f"{PLAIN.agent_dir}/asked").decode().strip() == expected


def test_sends_these_very_lines_through_sudo(source):
    deployed_agent(SUDOER, "echo '<dump/>' > \"${0%/*}/dump.xml\"")
    assert Destination(SUDOER).run("dump-all").code == 0
    sudo = r"sh -c cd\ /mnt/home/sudoer/agent\;\ sudo\ -k\;\ sudo\ -S\ -p\ \'\ \'\ "
    assert source.commands() == [
        RemoteCommand("sudoer", "sudo -V", b""),
        RemoteCommand("sudoer", "sudo -k; sudo -S -p ' ' true", b"root-passphrase"),
        RemoteCommand("sudoer", sudo + r"sh\ /mnt/home/sudoer/agent/agent\ --migration-mode\ --dump-all",
                      b"root-passphrase\n"),
        RemoteCommand("sudoer", sudo + r"chown\ sudoer\ /mnt/home/sudoer/agent/dump.xml", b"root-passphrase\n"),
        RemoteCommand("sudoer", "cat /mnt/home/sudoer/agent/dump.xml", b"")]


def test_copies_a_dump_of_any_bytes(source):
    content = bytes(range(256)) * 8192 + b"no line end"
    deployed_agent(ROOT, "", {"dump.xml": content})
    write(Session().file("dump.xml"), content * 2)
    assert Destination().run("dump-all").code == 0
    assert Session().read("dump.xml") == content


def test_copies_an_empty_dump(source):
    deployed_agent(ROOT, "", {"dump.xml": ""})
    assert Destination().run("dump-all").code == 0
    assert Session().read("dump.xml") == b""


def test_replaces_the_name_of_an_earlier_dump(source):
    deployed_agent(ROOT, "", {"dump.xml": ""})
    write(Session().file("dump-name"), "/a/much/longer/name/of/an/earlier/dump.xml\n")
    assert Destination().run("dump-all").code == 0
    assert Session().read("dump-name") == b"/mnt/session/dump.xml"


def test_keeps_both_slashes_of_a_session_path_with_one_behind(source):
    deployed_agent(ROOT, "", {"dump.xml": ""})
    assert Destination(session="/mnt/session/").run("dump-all").code == 0
    assert Session().read("dump-name") == b"/mnt/session//dump.xml"


def failed(outcome, code, text):
    """Checks that the dump failed for this reason, inside the error that wraps all failures."""
    wrapping = "Error during dump retrieval"
    assert (outcome.code, outcome.stdout, outcome.stderr) == (2, b"", wrapping.encode())
    assert Session().messages() == [("CantRetrieveDump", "error", wrapping, [(code, "error", text, [])])]
    assert not Session().exists("dump-name") or os.path.isdir(Session().file("dump-name"))
    return True


AGENT_FAILED = "Error during dump file retrieving. \nRemote agent failed with the following stderr messages: "


@pytest.mark.parametrize("script, text", [
    ("echo ignored; echo one >&2; echo two >&2; exit 7", "one\ntwo\n"), ("exit 1", ""),
], ids=["some lines", "silence"])
def test_fails_with_what_the_agent_complained_about(source, script, text):
    deployed_agent(PLAIN, script, {"dump.xml": "<dump/>"})
    assert failed(Destination(PLAIN).run("dump-all"), "CantRetrieveDumpFile", AGENT_FAILED + text)
    assert not Session().exists("dump.xml")
    assert len(source.commands()) == 1
    assert Session().status() == WAITING


def test_fails_when_a_signal_ended_the_agent(source):
    deployed_agent(PLAIN, "kill -KILL $$", {"dump.xml": "<dump/>"})
    assert Destination(PLAIN).run("dump-all").code == 2
    # The remote shell may or may not add a text about the signal.
    (_, _, _, ((code, _, text, _),)), = Session().messages()
    assert code == "CantRetrieveDumpFile" and text.startswith(AGENT_FAILED)


def test_fails_when_there_is_no_dump(source):
    deployed_agent(PLAIN, "")
    assert failed(Destination(PLAIN).run("dump-all"), "CantRetrieveDumpFile",
                  AGENT_FAILED + "cat: /mnt/home/plain/agent/dump.xml: No such file or directory\n")


def test_fails_when_there_is_no_dump_to_take_over(source):
    deployed_agent(SUDOER, "")
    outcome = Destination(SUDOER).run("dump-all")
    assert outcome.code == 2
    (_, _, _, ((code, _, text, _),)), = Session().messages()
    assert code == "CantTakeFileOwnership"
    assert text.startswith("Cannot take ownership of /mnt/home/sudoer/agent/dump.xml: ")
    assert text.endswith("chown: cannot access '/mnt/home/sudoer/agent/dump.xml': No such file or directory\n")


def test_fails_before_it_connects_when_the_catalogue_has_no_such_agent():
    install_agent()
    assert failed(Destination(agent="absent").run("dump-all"), "AgentNotFound",
                  "Agent absent was not found or does not contain proper spec file")


def test_fails_before_it_connects_when_the_spec_is_unusable():
    install_agent(spec="Colour: red\n")
    assert failed(Destination().run("dump-all"), "AgentNotFound",
                  "Agent sample was not found or does not contain proper spec file")


@pytest.mark.matrix("local")
def test_fails_when_the_name_of_the_dump_cannot_be_written(source):
    deployed_agent(ROOT, "", {"dump.xml": ""})
    os.makedirs(Session().file("dump-name"))
    assert failed(Destination().run("dump-all"), "FileWrite",
                  "Error during /mnt/session/dump-name write: Is a directory")


@pytest.mark.matrix("local")
def test_fails_at_the_first_chunk_when_the_dump_cannot_be_written(source):
    deployed_agent(ROOT, "", {"dump.xml": "<dump/>"})
    os.makedirs(Session().file("dump.xml"))
    assert failed(Destination().run("dump-all"), "StreamWrite", "Cannot write data to the stream")


def test_fails_when_sudo_refuses(source):
    deployed_agent(SUDOER, "", {"dump.xml": ""})
    outcome = Destination(SUDOER).run("dump-all", sudo_password="wrong-passphrase")
    assert outcome.code == 2
    (_, _, _, ((code, _, text, _),)), = Session().messages()
    assert code == "CantRetrieveDumpFile" and text.startswith(AGENT_FAILED)
    assert "incorrect password attempt" in text or "no password was provided" in text
    assert not Session().exists("dump.xml")


STATUS = "dumping-status.xml"


def go_on(name):
    """The file for which an agent script waits: see waiting()."""
    write(f"/mnt/{name}")


def waiting(name):
    return f"until [ -e /mnt/{name} ]; do sleep 0.01; done\n"


@pytest.fixture(autouse=True)
def no_signs():
    yield
    for name in os.listdir("/mnt"):
        if name.startswith("sign-"):
            os.unlink(f"/mnt/{name}")


@pytest.mark.slow
def test_refreshes_the_dumping_status_while_the_agent_works(source, login):
    deployed_agent(login, f"cd \"${{0%/*}}\"; printf first > {STATUS}; {waiting('sign-1')}"
                          f"printf second > {STATUS}; {waiting('sign-2')} : > dump.xml")
    write(Session().file(STATUS), "of an earlier run")
    running = Destination(login).start("dump-all")
    try:
        wait_until(lambda: Session().read(STATUS) == b"first", "the first refresh")
        go_on("sign-1")
        wait_until(lambda: Session().read(STATUS) == b"second", "the second refresh")
    finally:
        go_on("sign-1")
        go_on("sign-2")
    outcome = running.finish()
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")
    assert not Session().exists(STATUS + ".tmp")
    assert owner_and_mode(Session().file(STATUS)) == (0, 0, 0o644)
    refreshes = [command for command in source.commands() if command.line.endswith(STATUS)]
    assert refreshes[:2] == [user_line(login, f"cat {login.agent_dir}/{STATUS}")] * 2
    assert Session().read("dump-name") == b"/mnt/session/dump.xml"


@pytest.mark.slow
def test_failed_refresh_is_the_last_and_leaves_the_old_status(source):
    deployed_agent(PLAIN, f"cd \"${{0%/*}}\"; {waiting('sign-1')} printf new > {STATUS}; sleep 6; : > dump.xml")
    write(Session().file(STATUS), "of an earlier run")
    running = Destination(PLAIN).start("dump-all")
    line = f"cat {PLAIN.agent_dir}/{STATUS}"
    try:
        wait_until(lambda: line in source.lines(), "the refresh that finds no status")
        # The command is recorded before it runs; its temporary file is removed after it failed.
        wait_until(lambda: not Session().exists(STATUS + ".tmp"), "the end of that refresh")
    finally:
        go_on("sign-1")
    # The agent now goes on for longer than the time between two refreshes.
    assert running.finish().code == 0
    assert source.lines().count(line) == 1
    assert Session().read(STATUS) == b"of an earlier run"
    assert not Session().exists(STATUS + ".tmp")


def test_quick_agent_leaves_no_dumping_status(source):
    deployed_agent(ROOT, "", {"dump.xml": "", STATUS: "never fetched"})
    assert Destination().run("dump-all").code == 0
    assert not Session().exists(STATUS)
