"""--deploy-agent."""
import os
import subprocess

import pytest

from source_host import (SPEC, RemoteCommand, SourceHost, install_agent, install_sample_agent, root_command, sh_quote,
                         sudo_check, user_line)
from tool import Destination, Session
from world import AGENTS, HOST, PLAIN, ROOT, SUDOER, files_below, owner_and_mode, write

SCRIPT = "echo \"$1 as $(id -un)\"\n"


def quoted(words):
    return " ".join(map(sh_quote, words))


def walk(login, local, remote, top):
    """The RemoteCommands that copy one local tree, in the order of the directory listings."""
    if not os.path.isdir(local):
        content = open(local, "rb").read() if os.path.exists(local) else b""
        return [user_line(login, f"cat > {sh_quote(remote)}", content)]
    if os.path.dirname(local) == top and os.path.basename(local) == "control":
        return []
    commands = [root_command(login, quoted(["mkdir", "-p", remote])),
                root_command(login, quoted(["chown", login.name, remote]))]
    for name in os.listdir(local):
        commands += walk(login, f"{local}/{name}", f"{remote}/{name}", top)
    return commands


def deployment(login, agent="sample", entry="agent", interpreter="sh"):
    """All RemoteCommands of a successful deployment."""
    remote = login.agent_dir
    script = f"cd {remote} && {interpreter} {remote}/{entry} --get-status"
    commands = [command for directory in ("shared", agent)
                for command in walk(login, f"{AGENTS}/{directory}", remote, f"{AGENTS}/{directory}")]
    return sudo_check(login) + commands + [root_command(login, f"sh -c {sh_quote(script)}")]


def test_merges_the_shared_files_and_those_of_the_agent(source, login):
    install_agent(SCRIPT)
    for path, content in {"shared/shared": "1", "shared/both": "shared", "shared/sub/deep/file": "2",
                          "shared/control/hidden": "3", "sample/both": "agent's", "sample/sub/other": bytes(range(256)),
                          "sample/sub/control/kept": "4", "sample/empty": ""}.items():
        write(f"{AGENTS}/{path}", content)
    outcome = Destination(login).run("deploy-agent")
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")
    assert files_below(login.agent_dir) == {
        b"agent": SCRIPT.encode(), b"shared": b"1", b"both": b"agent's", b"sub/deep/file": b"2",
        b"sub/other": bytes(range(256)), b"sub/control/kept": b"4", b"empty": b""}
    for parent, directories, names in os.walk(login.agent_dir):
        for name in directories + names:
            assert owner_and_mode(f"{parent}/{name}")[0] == login.ids[0], name
    assert source.commands() == deployment(login)
    runs_as = "root" if login.sudo_password is not None else login.name
    assert Session().read("agent-deployment.status") == f"--get-status as {runs_as}\n".encode()
    assert owner_and_mode(Session().file("agent-deployment.status"))[:2] == (20000, 20000)
    assert Session().result() == ("execution-result", [("status", "success")], "", [])
    assert Session().status() == ("migration-status", [], "", [("idle", [], "", [])])


@pytest.mark.parametrize("name, wanted", [
    ("n" * 300, ("NoAgentDirectory", f"Directory for agent '{AGENTS}/{'n' * 300}' does not exist")),
    ("loop", ("NoAgentDirectory", f"Directory for agent '{AGENTS}/loop' does not exist")),
], ids=["too long", "a link to itself"])
def test_name_that_no_directory_can_have_is_reported(source, name, wanted):
    install_agent(SCRIPT)
    os.symlink("loop", f"{AGENTS}/loop")
    outcome = Destination(PLAIN, agent=name).run("deploy-agent")
    assert (outcome.code, outcome.stderr.decode()) == (2, wanted[1])
    assert [message[0] for message in Session().messages()] == [wanted[0]]


@pytest.mark.parametrize("action", ["dump-all", "get-content"])
def test_name_that_no_directory_can_have_is_reported_by_other_actions(action):
    install_agent(SCRIPT)
    assert Destination(PLAIN, agent="n" * 300).run(action).code == 2
    result = "transfer.result" if action == "get-content" else "migration.result"
    assert [message[0] for message in Session().messages(result)[0][3]] == ["AgentNotFound"]


def test_spec_that_is_a_link_to_itself_is_no_spec(source):
    install_agent(SCRIPT, spec=None)
    os.makedirs(f"{AGENTS}/sample/control", exist_ok=True)
    os.symlink("spec", f"{AGENTS}/sample/control/spec")
    outcome = Destination(PLAIN).run("deploy-agent")
    assert outcome.code == 2 and [message[0] for message in Session().messages()] == ["AgentNotFound"]


def test_link_that_leads_back_is_left_out(source):
    install_agent(SCRIPT)
    write(f"{AGENTS}/sample/d/file", "1")
    os.symlink(".", f"{AGENTS}/sample/d/again")
    os.symlink("..", f"{AGENTS}/sample/d/up")
    os.symlink("itself", f"{AGENTS}/sample/itself")
    assert Destination(PLAIN).run("deploy-agent").code == 0
    assert files_below(PLAIN.agent_dir) == {b"agent": SCRIPT.encode(), b"d/file": b"1", b"itself": b""}
    assert sorted(os.listdir(f"{PLAIN.agent_dir}/d")) == ["file"]
    for name in ("again", "up"):
        assert f"{AGENTS}/sample/d/{name} leads back to a directory above it and is left out\n" in Session().log()


def test_sends_these_very_lines(source):
    install_agent(SCRIPT)
    os.unlink(f"{AGENTS}/sample/agent")
    write(f"{AGENTS}/sample/it's", "x")
    assert Destination(PLAIN).run("deploy-agent").code == 2  # the entry point is not there
    assert source.lines() == [
        r"sh -c cd\ /mnt/home/plain/agent\;\ mkdir\ -p\ /mnt/home/plain/agent",
        r"sh -c cd\ /mnt/home/plain/agent\;\ chown\ plain\ /mnt/home/plain/agent",
        r"sh -c cd\ /mnt/home/plain/agent\;\ mkdir\ -p\ /mnt/home/plain/agent",
        r"sh -c cd\ /mnt/home/plain/agent\;\ chown\ plain\ /mnt/home/plain/agent",
        r"cat > /mnt/home/plain/agent/it\'s",
        r"sh -c cd\ /mnt/home/plain/agent\;\ sh\ -c\ cd\\\ /mnt/home/plain/agent\\\ \\\&\\\&\\\ sh\\\ "
        r"/mnt/home/plain/agent/agent\\\ --get-status"]


def test_sends_these_very_lines_through_sudo(source):
    install_agent(SCRIPT)
    assert Destination(SUDOER).run("deploy-agent").code == 0
    assert source.commands()[:3] == [
        RemoteCommand("sudoer", "sudo -V", b""),
        RemoteCommand("sudoer", "sudo -k; sudo -S -p ' ' true", b"root-passphrase"),
        RemoteCommand("sudoer", r"sh -c cd\ /mnt/home/sudoer/agent\;\ sudo\ -k\;\ sudo\ -S\ -p\ \'\ \'\ "
                                r"mkdir\ -p\ /mnt/home/sudoer/agent", b"root-passphrase\n")]


def test_brings_the_sample_agent_to_life(source, login):
    install_sample_agent()
    assert Destination(login).run("deploy-agent").code == 0
    assert Session().tree("agent-deployment.status") == (
        "agentstatus", [], "", [("statusfile", [], "dumping-status.xml", [])])
    assert source.commands() == deployment(login, entry="sample-agent.pl", interpreter="perl")


@pytest.mark.parametrize("name", ["with blanks", "it's \"quoted\"", "a\nline", "ärger", os.fsdecode(b"latin\xe4"),
                                  os.fsdecode(b"ctl\1"), "*?[a]~", "$(id)`id`", "a;b&c|d<e>f", "-rf", "%1%"],
                         ids=["blanks", "quotes", "newline", "UTF-8", "Latin-1", "control character", "patterns",
                              "substitutions", "operators", "dash", "percent signs"])
def test_carries_odd_names_over(source, name):
    install_agent(SCRIPT)
    write(f"{AGENTS}/sample/{name}/{name}", "content")
    assert Destination(SUDOER).run("deploy-agent").code == 0
    assert files_below(SUDOER.agent_dir) == {
        b"agent": SCRIPT.encode(), os.fsencode(f"{name}/{name}"): b"content"}


def test_follows_links_and_sends_a_dangling_one_empty(source):
    install_agent(SCRIPT)
    write("/mnt/elsewhere/inside", "through the link")
    os.symlink("/mnt/elsewhere", f"{AGENTS}/sample/linked")
    os.symlink("/mnt/elsewhere/inside", f"{AGENTS}/sample/file")
    os.symlink("/nowhere", f"{AGENTS}/sample/dangling")
    assert Destination(PLAIN).run("deploy-agent").code == 0
    assert files_below(PLAIN.agent_dir) == {b"agent": SCRIPT.encode(), b"linked/inside": b"through the link",
                                            b"file": b"through the link", b"dangling": b""}


def test_replaces_what_an_earlier_deployment_left(source):
    install_agent(SCRIPT)
    write(f"{PLAIN.agent_dir}/agent", "an older and longer agent, which no longer is wanted\n", owner=PLAIN.ids)
    os.chown(PLAIN.agent_dir, *PLAIN.ids)
    assert Destination(PLAIN).run("deploy-agent").code == 0
    assert files_below(PLAIN.agent_dir) == {b"agent": SCRIPT.encode()}


def test_logs_each_step(source):
    install_agent(SCRIPT)
    assert Destination(PLAIN).run("deploy-agent").code == 0
    lines = [line for line in Session().log().splitlines() if "k.log:" not in line]
    assert [line for line in lines if "k.SendAgentAction" in line] == [
        "NOTICE k.SendAgentAction: Copying agent sample to the remote host.",
        "INFO k.SendAgentAction: remote mkdir /mnt/home/plain/agent",
        "INFO k.SendAgentAction: remote mkdir /mnt/home/plain/agent",
        "INFO k.SendAgentAction: remote <copy /mnt/home/plain/agent/agent (from /mnt/product/DTM/agents/sample/agent)",
        "NOTICE k.SendAgentAction: Getting agent deployment status"]
    assert [line for line in lines if "Agent:" in line or "AgentsFactory:" in line] == [
        "INFO k.AgentsFactory: Parsing sample",
        "INFO k.AgentsFactory: Parsing /mnt/product/DTM/agents/sample",
        "INFO k.Agent: Agent sample",
        "INFO k.Agent: Description: An agent of the tests",
        "INFO k.Agent: EntryPoint: agent",
        "INFO k.Agent: DocumentType: ",
        "INFO k.Agent: Interpreter: sh"]


def test_agent_without_interpreter_is_run_by_perl(source):
    install_agent("print 'perl it is'", spec="EntryPoint: agent\n")
    assert Destination(PLAIN).run("deploy-agent").code == 0
    assert Session().read("agent-deployment.status") == b"perl it is"


def failed(outcome, code, text):
    """Checks that the run failed with exactly this error, on the console and in the result log."""
    assert (outcome.code, outcome.stdout, os.fsdecode(outcome.stderr)) == (2, b"", text)
    assert Session().messages() == [(code, "error", text, [])]
    return True


def test_needs_the_shared_directory(source):
    install_agent(SCRIPT)
    os.rmdir(f"{AGENTS}/shared")
    assert failed(Destination().run("deploy-agent"), "NoSharedAgentsDirectory", "'shared' agents directory not found")
    assert source.commands() == []


def test_needs_the_directory_of_the_agent_after_the_shared_files_are_sent(source):
    install_agent(SCRIPT)
    write(f"{AGENTS}/shared/first", "1")
    assert failed(Destination(agent="absent").run("deploy-agent"), "NoAgentDirectory",
                  f"Directory for agent '{AGENTS}/absent' does not exist")
    assert files_below(ROOT.agent_dir) == {b"first": b"1"}


@pytest.mark.parametrize("spec, warned", [
    (None, f"WARN k.AgentsFactory: {AGENTS}/sample/control/spec is not a regular file"),
    (SPEC + "Colour: red\n",
     f"WARN k.AgentsFactory: %1% is not a valid agent spec file{AGENTS}/sample/control/spec"),
    ("EntryPoint : agent\n",
     f"WARN k.AgentsFactory: %1% is not a valid agent spec file{AGENTS}/sample/control/spec"),
    ("EntryPoint agent\n",
     f"WARN k.AgentsFactory: %1% is not a valid agent spec file{AGENTS}/sample/control/spec"),
], ids=["missing", "with an unknown key", "with a blank before the colon", "without a colon"])
def test_copies_before_it_finds_the_spec_unusable(source, spec, warned):
    install_agent(SCRIPT, spec=spec)
    assert failed(Destination().run("deploy-agent"), "AgentNotFound",
                  "Agent sample was not found or does not contain proper spec file")
    assert files_below(ROOT.agent_dir) == {b"agent": SCRIPT.encode()}
    assert warned in Session().log().splitlines()
    assert not Session().exists("agent-deployment.status")


def test_sends_a_plain_file_called_control(source):
    install_agent(SCRIPT, spec=None)
    write(f"{AGENTS}/sample/control", "no directory")
    assert Destination().run("deploy-agent").code == 2
    assert files_below(ROOT.agent_dir)[b"control"] == b"no directory"


def test_fails_when_a_remote_directory_cannot_be_made(source):
    install_agent(SCRIPT)
    write(ROOT.agent_dir, "a file")
    outcome = Destination().run("deploy-agent")
    assert failed(outcome, "CantCreateAgentDirectory",
                  f"Can't create agent directory {ROOT.agent_dir} on the remote host: "
                  f"sh: 1: cd: can't cd to {ROOT.agent_dir}\n"
                  f"mkdir: cannot create directory ‘{ROOT.agent_dir}’: File exists\n".replace("‘", "'")
                  .replace("’", "'"))


def test_fails_when_a_remote_directory_cannot_be_handed_over(source):
    install_agent(SCRIPT)
    os.mkdir(PLAIN.agent_dir)
    assert failed(Destination(PLAIN).run("deploy-agent"), "CantCreateAgentDirectory",
                  f"Can't create agent directory {PLAIN.agent_dir} on the remote host: chown: changing ownership of "
                  f"'{PLAIN.agent_dir}': Operation not permitted\n")


def test_fails_when_a_file_cannot_be_written(source):
    install_agent(SCRIPT)
    os.makedirs(f"{ROOT.agent_dir}/agent")
    assert failed(Destination().run("deploy-agent"), "CantUploadAgentFile",
                  f"Can't upload agent file {ROOT.agent_dir}/agent to the remote host: "
                  f"/bin/sh: 1: cannot create {ROOT.agent_dir}/agent: Is a directory\n")


def test_keeps_the_partial_status_of_an_agent_that_fails(source):
    install_agent("printf half; echo no such thing >&2; exit 4")
    assert failed(Destination(PLAIN).run("deploy-agent"), "CantRequestAgentStatus",
                  "Cannot request remote agent status using command line /mnt/home/plain/agent/agent: no such thing\n")
    assert Session().read("agent-deployment.status") == b"half"


def test_blank_in_the_agent_directory_is_quoted_but_not_for_the_status(source):
    install_agent(SCRIPT)
    directory = f"{ROOT.home}/agent dir"
    outcome = Destination(agent_dir=directory).run("deploy-agent")
    assert outcome.code == 2
    assert Session().messages()[0][0] == "CantRequestAgentStatus"
    assert source.lines()[0] == (r"sh -c cd\ /mnt/home/root/agent\ dir\;\ mkdir\ -p\ /mnt/home/root/agent\\\ dir")
    assert r"cat > /mnt/home/root/agent\ dir/agent" in source.lines()
    assert files_below(directory) == {b"agent": SCRIPT.encode()}


def test_fails_when_sudo_refuses(source):
    install_agent(SCRIPT)
    destination = Destination(SUDOER)
    outcome = destination.run("deploy-agent", sudo_password="wrong-passphrase")
    assert outcome.code == 2
    assert Session().messages()[0][0] == "CantCreateAgentDirectory"
    assert b"incorrect password attempt" in outcome.stderr or b"Sorry, try again" in outcome.stderr
    assert not os.path.exists(SUDOER.agent_dir)


def test_reaches_the_host_by_its_name_too(source):
    install_agent(SCRIPT)
    assert Destination(host="localhost").run("deploy-agent", "--ip", HOST).code == 0


# --- in batches ------------------------------------------------------------------------------

ASKED = {"SONDREL_DEPLOY_BATCH": "yes"}
UNPACKING = ("tar --extract --file=- --directory={} --overwrite --dereference --touch --no-same-owner "
             "--no-same-permissions")


def install_tree():
    """Installs an agent with file names of all kinds; returns what must be on the source host."""
    install_agent(SCRIPT)
    deep = "/".join(["d" * 200] * 3)
    for path, content in {"shared/both": "shared", "shared/control/hidden": "3", "sample/both": "agent's",
                          "sample/sub dir/it's\nback\\slash": bytes(range(256)), "sample/sub dir/-rf": "",
                          f"sample/{deep}/file": "deep"}.items():
        write(f"{AGENTS}/{path}", content, mode=0o750)
    os.symlink("nothing", f"{AGENTS}/sample/dangling")
    return {b"agent": SCRIPT.encode(), b"both": b"agent's", b"sub dir/it's\nback\\slash": bytes(range(256)),
            b"sub dir/-rf": b"", f"{deep}/file".encode(): b"deep", b"dangling": b""}


def owners_and_modes(directory):
    return {os.path.relpath(f"{parent}/{name}", directory): owner_and_mode(f"{parent}/{name}")
            for parent, directories, names in os.walk(directory) for name in [*directories, *names]}


def test_one_archive_brings_what_single_files_would(source, login):
    expected = install_tree()
    assert Destination(login).run("deploy-agent").code == 0
    assert files_below(login.agent_dir) == expected
    by_single_files = owners_and_modes(login.agent_dir)
    lines = len(source.lines())
    # Once over existing files, and once into an empty directory.
    for fresh in (False, True):
        if fresh:
            subprocess.run(["rm", "-r", login.agent_dir], check=True)
        outcome = Destination(login).run("deploy-agent", environment=ASKED)
        assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")
        assert files_below(login.agent_dir) == expected
        assert owners_and_modes(login.agent_dir) == by_single_files
    sent = source.lines()[lines:]
    script = f"cd {login.agent_dir} && sh {login.agent_dir}/agent --get-status"
    for line in (UNPACKING.format(login.agent_dir), root_command(login, f"sh -c {sh_quote(script)}").line):
        assert sent.count(line) == 2
    # A dangling link is sent by itself, and arrives as an empty file.
    assert [line for line in sent if line.startswith("cat ")] == 2 * [f"cat > {login.agent_dir}/dangling"]
    assert len(sent) == 2 * (5 + len(sudo_check(login)))
    assert b" as " in Session().read("agent-deployment.status")


def test_many_and_large_files_go_in_several_archives(source):
    install_agent(SCRIPT)
    content = {f"file-{number}": bytes([number]) * (1 << 20) for number in range(8)} | {"large": b"l" * (3 << 20)}
    for name, text in content.items():
        write(f"{AGENTS}/sample/{name}", text)
    assert Destination(PLAIN).run("deploy-agent", environment=ASKED).code == 0
    assert files_below(PLAIN.agent_dir) == {b"agent": SCRIPT.encode(),
                                            **{name.encode(): text for name, text in content.items()}}
    assert source.lines().count(UNPACKING.format(PLAIN.agent_dir)) == 2
    assert f"cat > {PLAIN.agent_dir}/large" in source.lines()


@pytest.mark.parametrize("script", ["exit 127", "cat > /dev/null; echo no such option >&2; exit 1"],
                         ids=["missing", "of another kind"])
def test_host_without_such_a_tar_is_sent_single_files(script):
    expected = install_tree()
    write("/mnt/bin/tar", f"#!/bin/sh\n{script}\n", mode=0o755)
    with SourceHost(options=["SetEnv PATH=/mnt/bin:/usr/bin:/bin"], recording=False):
        assert Destination(PLAIN).run("deploy-agent", environment=ASKED).code == 0
    assert files_below(PLAIN.agent_dir) == expected


def test_file_that_cannot_be_written_is_told_by_name(source):
    install_tree()
    os.makedirs(f"{PLAIN.agent_dir}/both")
    os.chown(PLAIN.agent_dir, *PLAIN.ids)
    outcome = Destination(PLAIN).run("deploy-agent", environment=ASKED)
    assert outcome.code == 2
    (code, _, text, _), = Session().messages()
    assert code == "CantUploadAgentFile"
    assert text.startswith(f"Can't upload agent file {PLAIN.agent_dir}/both to the remote host: ")
    assert "Is a directory" in text


def test_directory_that_cannot_be_made_is_told_by_name(source):
    install_tree()
    write(f"{PLAIN.agent_dir}/sub dir", "a file", owner=PLAIN.ids)
    os.chown(PLAIN.agent_dir, *PLAIN.ids)
    outcome = Destination(PLAIN).run("deploy-agent", environment=ASKED)
    assert outcome.code == 2
    (code, _, text, _), = Session().messages()
    assert code == "CantCreateAgentDirectory"
    assert f"{PLAIN.agent_dir}/sub dir" in text and "File exists" in text
