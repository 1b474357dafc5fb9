"""sondrel-migrate and the real sondrel: a whole migration by one command."""
import os
import re
import shutil
import signal

import pytest

from gates import CAT, PROGRAMS, WAIT, Gate, gated_host
from linux_agent import check_schema
from migrating import MIGRATE, STEPS, State, in_place, migrate, progress_of, sample_source, start, status
from tool import Destination, Running, Session
from world import (DTM, HOST, PLAIN, RECORDS, ROOT, SESSION, SOURCE_TREE, SUDOER, files_below, kill_together, owner_and_mode,
                   read, wait_until, write)

FILES = {"domains/a.test/web/index": b"page", "domains/a.test/mail/1": b"letter", "clients/jo/web/x": b"x"}
PAGES = {os.fsencode(f"content/{path}"): content for path, content in FILES.items()}


def archives():
    found = files_below(f"{SESSION}/archives")
    found.pop(b"dump.xml", None)
    return found


def gated_source():
    """A source host whose `cat` waits at gates when it reads a file; uploads do not wait."""
    host = gated_host()
    interpreter, rest = CAT.split("\n", 1)
    write(f"{PROGRAMS}/cat", f"{interpreter}\n[ $# -gt 0 ] || exec /bin/cat\n{rest}", mode=0o755)
    return host


def status_field(pid, name):
    """A line of /proc/PID/status."""
    return re.search(rf"^{name}:\s*(\S+)$", read(f"/proc/{pid}/status").decode(), re.MULTILINE)[1]


def child_of(running):
    return int(read(f"/proc/{running.pid}/task/{running.pid}/children"))


def send_through(running, number):
    """Sends a signal, and waits until sondrel has received it."""
    waits = int(status_field(running.pid, "voluntary_ctxt_switches"))
    running.send(number)
    # When it waits again, it has passed the signal on.
    wait_until(lambda: int(status_field(running.pid, "voluntary_ctxt_switches")) > waits, "the signal to be passed on")
    pending = 1 << (number - 1)
    wait_until(lambda: not int(status_field(child_of(running), "ShdPnd"), 16) & pending, "sondrel to take the signal")


def agent_directories(login):
    return [name for name in os.listdir(login.home) if name.startswith("sondrel-agent-")]


@pytest.fixture(autouse=True)
def readable_source():
    """Source files that each login may read."""
    sample_source(FILES)


def test_moves_everything_by_each_kind_of_login(source, login):
    outcome = migrate(*in_place(login, "--dump-all"), login=login)
    assert (outcome.code, outcome.stderr) == (0, b""), outcome
    assert archives() == PAGES
    assert agent_directories(login) == []
    assert State().progress() == progress_of(*["done"] * 5)
    assert Session().read("scout-result.xml") == b"<scout/>"


def test_an_agent_s_name_may_end_as_a_shell_completes_it(source):
    install = Destination(agent="sample/")
    assert install.run("deploy-agent").code == 0
    assert (install.run("dump-all").code, install.run("get-content").code) == (0, 0)
    assert archives() == PAGES


def test_says_what_it_does(source):
    lines = migrate(*in_place(ROOT, "--dump-all")).stdout.decode().splitlines()
    directory = f"{ROOT.home}/{State().agent_directory}"
    began = [line for line in lines if " done in 0:0" not in line]
    assert began == [f"Migration from {HOST}, session {SESSION}", f"scout: asking {HOST} what it is",
                     f"deploy: copying the agent sample to {directory}", "dump: dumping everything",
                     f"content: fetching files into {SESSION}/archives", f"remove: removing {directory}",
                     f"Finished. Dump: {SESSION}/dump.xml, content: {SESSION}/archives"]
    assert [line.partition(":")[0] for line in lines if " done in 0:0" in line] == STEPS


def test_dumps_what_a_settings_file_selects(source):
    write("/mnt/settings", "\n".join([
        "# a migration", "", f"host = {HOST}", "login=root", "agent-name = sample", f"agent-parent = {ROOT.home}",
        "domains = a.test", "only-mail", "keep-agent = yes", "dumps-dir = relative/directory"]))
    os.makedirs("/mnt/relative/directory")
    outcome = migrate("--settings=/mnt/settings", f"--session-path={SESSION}", directory="/mnt")
    assert (outcome.code, outcome.stderr) == (0, b""), outcome
    assert set(files_below("/mnt/relative/directory")) == {b"content/domains/a.test/mail/1", b"dump.xml"}
    assert agent_directories(ROOT) == [State().agent_directory]
    assert State().progress() == progress_of(*["done"] * 4)
    shutil.rmtree("/mnt/relative")


def test_options_win_over_the_settings_file(source):
    write("/mnt/settings", f"host = 192.0.2.1\nport = 9\nagent-name = sample\nagent-parent = {ROOT.home}\ndump-all\n")
    outcome = migrate("--settings=/mnt/settings", f"--session-path={SESSION}", f"--host={HOST}", "--login=root",
                      "--port=22")
    assert (outcome.code, State().settings["host"], State().settings["port"]) == (0, HOST, "22")


def test_a_finished_migration_is_left_alone_without_a_password(source):
    assert migrate(*in_place(ROOT, "--dump-all")).code == 0
    before, state = len(source.commands()), State().text
    outcome = migrate(*in_place(ROOT, "--dump-all"), password=None)
    assert (outcome.code, outcome.stderr) == (0, b"")
    assert outcome.stdout.startswith(b"Finished already. ")
    assert (len(source.commands()), State().text) == (before, state)


def test_goes_on_at_the_step_that_failed(source):
    script = f"{DTM}/agents/sample/sample-agent.pl"
    whole = read(script)
    write(script, whole.replace(b"sub print_content_list {", b"sub print_content_list { die qq{no list today\n};"))
    outcome = migrate(*in_place(ROOT, "--dump-all"))
    assert outcome.code == 2
    assert outcome.stderr.decode().splitlines() == [
        "Error during dump retrieval", "  because: Error during content list retrieval: no list today", "",
        f"content: failed with exit code 2; {SESSION}/migration.log tells more. Run this again to go on"]
    assert State().progress() == progress_of("done", "done", "done", "failed")
    assert "no list today" in State().steps["content"].text

    write(f"{ROOT.home}/{State().agent_directory}/sample-agent.pl", whole)
    before = len(source.lines())
    again = migrate(f"--session-path={SESSION}")
    assert (again.code, again.stderr) == (0, b""), again
    assert [line for line in again.stdout.decode().splitlines() if line.endswith("done already")] == [
        "scout: done already", "deploy: done already", "dump: done already"]
    assert "--get-content-list" in source.lines()[before]
    assert archives() == PAGES


def test_says_how_an_agent_that_is_gone_is_copied_again(source):
    """For example after a restart of a host where the directory was in memory."""
    assert migrate(*in_place(ROOT, "--dump-all", "--keep-agent")).code == 0
    shutil.rmtree(f"{ROOT.home}/{State().agent_directory}")
    outcome = migrate(f"--session-path={SESSION}", "--from=dump")
    remedy = (f"The agent is no longer in {ROOT.home}/{State().agent_directory} on {HOST}. "
              "Run this again with --from=deploy")
    assert outcome.code == 2 and remedy in outcome.stderr.decode().splitlines(), outcome
    assert migrate(f"--session-path={SESSION}", "--from=deploy").code == 0
    assert archives() == PAGES


FAILURES = {
    "refused": (11, dict(port="9"), {}, "scout"),
    "no such name": (16, dict(host="absent.invalid"), {}, "scout"),
    "wrong password": (17, {}, dict(password="not-the-passphrase"), "scout"),
}


@pytest.mark.parametrize("case", FAILURES)
def test_passes_on_the_exit_code_of_the_step(source, case):
    code, changed, how, step = FAILURES[case]
    port = [f"--port={changed.pop('port')}"] if "port" in changed else []
    outcome = migrate(*in_place(ROOT, "--dump-all", *port, **changed), **how)
    assert outcome.code == code
    assert State().progress() == progress_of("failed")
    assert State().steps[step].get("exit-code") == str(code)
    # A setting of a step that is not done may change.
    again = migrate(*in_place(ROOT, "--dump-all", "--port=22"))
    assert (again.code, archives()) == (0, PAGES)


def test_makes_steps_again_from_the_one_that_is_named(source):
    assert migrate(*in_place(ROOT, "--dump-all")).code == 0
    write(f"{SOURCE_TREE}/domains/new.test/web/index", "new")
    before = len(source.lines())
    # The agent has been removed, and the dump needs it.
    outcome = migrate(f"--session-path={SESSION}", "--from=dump", "--dump-all=no", "--domains=new.test")
    assert (outcome.code, outcome.stderr) == (0, b""), outcome
    assert not any(line.endswith(r"perl") for line in source.lines()[before:])
    assert archives() == {**PAGES, b"content/domains/new.test/web/index": b"new"}


def test_a_clean_stop_is_3_and_the_next_run_goes_on():
    with gated_source():
        gate = Gate("amid cat dump.xml")
        running = start(*in_place(ROOT, "--dump-all"))
        gate.reached()
        send_through(running, signal.SIGUSR1)
        gate.open()
        outcome = running.finish()
        assert outcome.code == 3, outcome
        assert outcome.stdout.decode().splitlines()[-2:] == ["Migration has been terminated",
                                                             "dump: stopped. Run this again to go on"]
        assert State().progress() == progress_of("done", "done", "stopped")
        assert status()["state"] == "stopped at dump"
        again = migrate(f"--session-path={SESSION}")
    assert (again.code, archives()) == (0, PAGES)


@pytest.mark.parametrize("number", [signal.SIGHUP, signal.SIGINT, signal.SIGQUIT, signal.SIGTERM],
                         ids=["SIGHUP", "SIGINT", "SIGQUIT", "SIGTERM"])
def test_passes_a_signal_on_to_sondrel_and_says_by_its_status_which(number):
    with gated_source() as host:
        gate = Gate("amid cat dump.xml")
        running = start(*in_place(ROOT, "--dump-all"))
        gate.reached()
        child = child_of(running)
        running.send(number)
        assert running.finish().code == 128 + number
        assert not os.path.exists(f"/proc/{child}")
        assert State().progress() == progress_of("done", "done", "stopped")
        gate.open()
        host.wait_until_idle()
        again = migrate(f"--session-path={SESSION}")
    assert (again.code, archives()) == (0, PAGES)


def test_a_second_run_leaves_the_first_alone():
    with gated_source():
        gate = Gate("amid cat dump.xml")
        running = start(*in_place(ROOT, "--dump-all"))
        gate.reached()
        state = State().text
        outcome = migrate(f"--session-path={SESSION}")
        assert (outcome.code, outcome.stdout) == (4, b"")
        assert outcome.stderr.decode() == (f"sondrel-migrate: Another run is at work on {SESSION} (process "
                                           f'{running.pid}). "sondrel-migrate status {SESSION}" shows how far it is\n')
        assert State().text == state
        assert status()["state"] == f"running, process {running.pid}"
        gate.open()
        assert running.finish().code == 0
    assert status()["state"] == "finished"


def test_sondrel_does_not_outlive_it_and_the_next_run_goes_on():
    with gated_source() as host:
        gate = Gate("amid cat dump.xml")
        running = start(*in_place(ROOT, "--dump-all"))
        gate.reached()
        child = child_of(running)
        running.kill()
        wait_until(lambda: b"\nState:\tZ" in read(f"/proc/{child}/status") if os.path.exists(f"/proc/{child}")
                   else True, "sondrel to end")
        assert State().progress() == progress_of("done", "done", "running")
        assert status()["state"] == "cut short at dump"
        gate.open()
        host.wait_until_idle()
        again = migrate(f"--session-path={SESSION}")
    assert (again.code, archives()) == (0, PAGES)


# Where each step is interrupted: the gate, or the place in the agent's own script.
INTERRUPTED = {"scout": "scout", "deploy": "upload", "dump": "dumping", "content": "amid cat index",
               "remove": "before rm -rf"}


def interrupted_source():
    """A source host and an agent on which every step reaches a gate of its own."""
    host = gated_host()
    wait = write("/mnt/bin/wait-at", f'#!/bin/sh\n{WAIT}\ngate "$1"\n', mode=0o755)
    cat = read(f"{PROGRAMS}/cat").decode().split("\n", 1)[1]
    write(f"{PROGRAMS}/cat", f"#!/bin/sh\n[ $# -gt 0 ] || {{ {wait} upload; exec /bin/cat; }}\n{cat}", mode=0o755)
    write(f"{DTM}/scout.pl", f"system '{wait}', 'scout'; print qq{{<scout/>}};")
    script = f"{DTM}/agents/sample/sample-agent.pl"
    write(script, read(script).replace(b"remove_tree(\"$here/content\");",
                                       f"system '{wait}', 'dumping'; remove_tree(\"$here/content\");".encode()))
    return host


def end_connections(host):
    """Kills the server's processes for connections, as when the machine loses its network."""
    kill_together(host.connections())


# The gates are in the commands for single files.
SINGLE_FILES = {"SONDREL_CONTENT_BATCH": "no", "SONDREL_DEPLOY_BATCH": "no"}

INTERRUPTIONS = {
    "Ctrl-C": (lambda running, host: running.send(signal.SIGINT), {128 + signal.SIGINT}, "stopped"),
    "SIGTERM": (lambda running, host: running.send(signal.SIGTERM), {128 + signal.SIGTERM}, "stopped"),
    "kill": (lambda running, host: running.send(signal.SIGKILL), {-signal.SIGKILL}, "running"),
    # Which part of the connection is lost first decides between these two.
    "connection": (lambda running, host: end_connections(host), {2, 18}, "failed"),
}


@pytest.mark.slow
@pytest.mark.parametrize("step", INTERRUPTED)
def test_the_same_command_goes_on_after_every_interruption(step, cases):
    """The command on the source host still runs there when the second run begins."""
    with interrupted_source() as host:
        for name, (interrupt, codes, state) in INTERRUPTIONS.items():
            shutil.rmtree(SESSION, ignore_errors=True)
            gate = Gate(INTERRUPTED[step])
            command = in_place(ROOT, "--dump-all")
            running = start(*command, environment=SINGLE_FILES)
            gate.reached()
            interrupt(running, host)
            code = running.finish().code
            assert code in codes, (name, code)
            assert State().progress()[step] == state
            gate.forget()
            again = migrate(*command)
            assert (again.code, archives(), agent_directories(ROOT)) == (0, PAGES, []), (name, again)
            assert State().progress() == progress_of(*["done"] * 5)
            gate.end()
    cases(len(INTERRUPTIONS))


def test_status_shows_a_migration_at_work_and_its_end():
    write(f"{SOURCE_TREE}/domains/a.test/web/large", b"x" * 4_000_000)
    with gated_source():
        gate = Gate("amid cat large")
        running = start(*in_place(ROOT, "--dump-all"), environment=SINGLE_FILES)
        gate.reached()
        # Half of it was sent; how much of that has arrived is unknown.
        shown = wait_until(lambda: " of 4.0 MB (" in status()["content"] and status(), "progress to show")
        assert shown["host"] == HOST
        assert shown["agent"] == f"sample in {ROOT.home}/{State().agent_directory}"
        assert shown["dump"].startswith("done, begun 20") and ", took 0:0" in shown["dump"]
        assert shown["content"].startswith("running, begun 20")
        assert "content/domains/a.test/web/large" in shown["content"]
        assert shown["remove"] == "waiting"
        gate.open()
        assert running.finish().code == 0
    assert {name: text.partition(",")[0] for name, text in status().items() if name in STEPS} == dict.fromkeys(
        STEPS, "done")


def test_progress_counts_what_is_listed_and_not_what_it_takes_unpacked():
    write(f"{SOURCE_TREE}/domains/a.test/web/large", b"x" * 4_000_000)
    script = f"{DTM}/agents/sample/sample-agent.pl"
    write(script, read(script).replace(b"unpacked => $total", b"unpacked => 3 * $total"))
    with gated_source():
        gates = [Gate("before cat large"), Gate("before cat dump.xml")]
        running = start(*in_place(ROOT, "--dump-all", "--keep-agent"), environment=SINGLE_FILES)
        gates[1].reached()
        gates[1].open()
        gates[0].reached()
        # The three files before it have arrived.
        assert "2 of 5 files left, 11 B of 4.0 MB (0 %)" in status()["content"]
        last = Gate("before cat dump.xml")
        gates[0].open()
        last.reached()
        assert re.search(r"1 of 5 files left, 4\.0 MB of 4\.0 MB \(99 %\), .*dump\.xml", status()["content"])
        last.open()
        assert running.finish().code == 0
    check_schema(Session().read("migration.status"), "migration-status")
    assert b'listed-left="0"' in Session().read("migration.status")


def test_status_shows_steps_that_another_program_makes(source):
    assert Destination().run("deploy-agent").code == 0
    assert Destination().run("dump-all").code == 0
    assert Destination().run("get-content").code == 0
    assert status()["content"].startswith("0 of 4 files left, ")


def test_status_of_a_directory_without_a_migration_fails():
    os.makedirs(SESSION)
    outcome = Running(["status", SESSION], through=(MIGRATE,)).finish()
    assert (outcome.code, outcome.stdout) == (1, b"")
    assert outcome.stderr.decode() == f"sondrel-migrate: There is no migration in {SESSION}\n"


def test_its_document_follows_the_schema_and_is_for_the_service_account_to_read(source):
    write(f"{DTM}/scout.pl", r'print STDERR "odd \1 bytes \xff"; exit 3;')
    assert migrate(*in_place(ROOT, "--dump-all")).code == 2
    check_schema(State().text, "migrate-state")
    write(f"{DTM}/scout.pl", "print 1;")
    assert migrate(f"--session-path={SESSION}").code == 0
    check_schema(State().text, "migrate-state")
    assert owner_and_mode(State().path) == (0, 20000, 0o640)
    assert owner_and_mode(f"{SESSION}/migrate") == (0, 20000, 0o750)
    assert sorted(os.listdir(f"{SESSION}/migrate")) == ["lock", "state.xml"]


def test_the_passwords_are_nowhere_afterwards(source):
    assert migrate(*in_place(SUDOER, "--dump-all", "--verbose"), login=SUDOER).code == 0
    shutil.rmtree(SESSION)
    wrong = migrate(*in_place(PLAIN, "--dump-all"), password="mistaken-passphrase")
    assert wrong.code == 17
    looked_at = 0
    for top in (SESSION, RECORDS, "/mnt/runs", "/mnt/logs"):
        for path, content in files_below(top).items():
            if top == RECORDS and path.endswith(b".stdin"):
                continue
            looked_at += 1
            assert b"-passphrase" not in content, (top, path)
    assert looked_at > 20
