"""What a run does when directories or accounts of the destination itself fail."""
import os
import subprocess

import pytest

from content import left, offered
from invariants import ARCHIVES, check, temporaries
from local_jobs import (CONTENT, DOCUMENTS, DUMP, DUMPS, ENTRIES, JOBS,  # noqa: F401  # pylint: disable=unused-import
                        PAGE, STATUS, TEXT, Job, agent, content, each_job, full_device, innermost, mount, no_mounts,
                        remount, source)
from source_host import deployed_agent
from tool import Destination, Session, sondrel
from world import ROOT, SESSION, owner_and_mode, read, wait_until, write

pytestmark = pytest.mark.matrix("local")


# --- directories ---------------------------------------------------------------------------------

@each_job
def test_session_that_is_read_only_lets_no_work_begin(job):
    mount(SESSION, "size=1m")
    os.makedirs(ARCHIVES)
    remount(SESSION, "ro")
    outcome = job.run()
    assert (outcome.code, outcome.stdout, outcome.stderr) == (
        2, b"", b"Can not create temporary file with the template '/mnt/session/migration.statusXXXXXX': "
                b"Read-only file system.")
    assert os.listdir(SESSION) == ["archives"] and os.listdir(ARCHIVES) == []
    if job.action == "get-content":
        assert left(ROOT) == sorted(ENTRIES)


def test_session_that_is_read_only_and_empty_cannot_be_set_up():
    mount(SESSION, "size=1m,ro")
    outcome = CONTENT.run()
    assert (outcome.code, outcome.stdout) == (1, b"")
    assert b"Unable to create session: Unable to create session archives directory" in outcome.stderr


def test_agent_is_removed_for_a_session_that_is_read_only():
    mount(SESSION, "size=1m")
    os.makedirs(ARCHIVES)
    remount(SESSION, "ro")
    agent()
    assert Destination(ROOT).run("remove-agent").code == 0
    assert not os.path.exists(ROOT.agent_dir)


@pytest.mark.usefixtures("content_verify")
def test_target_that_is_read_only_keeps_the_content_on_the_source_host():
    mount(DUMPS, "size=1m,ro")
    content()
    outcome = Destination(ROOT).run("get-content", "--no-check-space", "--dumps-dir", DUMPS)
    check(outcome, ENTRIES, target=DUMPS)
    (_, _, _, ((code, _, text, _),)), = Session().messages("transfer.result")
    assert (code, text.rpartition(": ")[2]) == ("CantRetrieveContentFile", "Read-only file system")
    assert left(ROOT) == sorted(ENTRIES)


@pytest.mark.usefixtures("content_verify")
def test_disk_that_is_full_for_a_content_file_is_named():
    mount(DUMPS, f"size={2 * PAGE}")
    content()
    outcome = Destination(ROOT).run("get-content", "--no-check-space", "--dumps-dir", DUMPS)
    check(outcome, ENTRIES, target=DUMPS)
    (_, _, _, ((code, _, text, ((cause, _, _, _),)),)), = Session().messages("transfer.result")
    assert (code, cause, text.rpartition(": ")[2]) == (
        "CantRetrieveContentFile", "StreamWrite", "No space left on device")


def test_directory_that_finds_no_inode_is_told_with_the_reason():
    mount(DUMPS, "size=1m,nr_inodes=1")
    entries = {"sub/second": b"22"}
    offered(ROOT, *entries.items())
    outcome = Destination(ROOT).run("get-content", "--no-check-space", "--dumps-dir", DUMPS)
    check(outcome, entries, target=DUMPS)
    (_, _, _, ((code, _, text, _),)), = Session().messages("transfer.result")
    assert (code, text.rpartition(": ")[2]) == ("CantRetrieveContentFile", "No space left on device")


@pytest.mark.usefixtures("content_verify")
@pytest.mark.parametrize("victim", [DUMPS, f"{DUMPS}/sub", f"{DUMPS}/sub/second", SESSION],
                         ids=["target directory", "directory of the file", "file", "session"])
def test_directory_that_is_removed_under_way_keeps_the_content_on_the_source_host(victim):
    entries = [("first", b"1"), ("sub/second", None, {"size": 2000, "md5sum": ""}), ("third", b"3")]
    offered(ROOT, *entries)
    os.makedirs(f"{ROOT.agent_dir}/sub")
    os.mkfifo(f"{ROOT.agent_dir}/sub/second")
    os.makedirs(DUMPS)
    running = Destination(ROOT).start("get-content", "--dumps-dir", DUMPS)
    with open(f"{ROOT.agent_dir}/sub/second", "wb") as pipe:
        pipe.write(b"x" * 1000)
        pipe.flush()
        wait_until(lambda: os.path.exists(f"{DUMPS}/sub/second") and os.path.getsize(f"{DUMPS}/sub/second") == 1000,
                   "the first half")
        subprocess.run(["rm", "-r", victim], check=True)
        pipe.write(b"y" * 1000)
    outcome = running.finish(20)
    assert (outcome.code, outcome.stderr) == (2, b"Error during dump retrieval")
    assert left(ROOT) == ["sub/second", "third"]
    if victim != SESSION:
        assert innermost("transfer.result") == "CantRetrieveContentFile"
        assert not Session().exists("dump-name")


# --- a directory in a document's place ----------------------------------------------------------

@pytest.mark.parametrize("job", [*JOBS.values(), Job("get-dumping-status", agent, {}),
                                 Job("remove-dumping-status", lambda: None, {})], ids=lambda job: job.action)
def test_status_that_cannot_be_moved_into_its_place_ends_the_run(job):
    os.makedirs(Session().file("migration.status"))
    job.prepare()
    if job.action == "remove-dumping-status":
        outcome = sondrel("--remove-dumping-status", "--session-path", SESSION)
    else:
        outcome = job.start().finish(20)
    left_over, = temporaries(SESSION)
    # The temporary file is complete, and belongs to the service account.
    assert owner_and_mode(left_over) == (20000, 20000, 0o600)
    text = f"Cannot rename {left_over} to /mnt/session/migration.status: Is a directory"
    assert (outcome.code, outcome.stderr) == (2, text.encode())
    assert [message[:3] for message in Session().messages(job.result)] == [("CantRenameFile", "error", text)]
    assert os.listdir(Session().file("migration.status")) == []
    assert job is not CONTENT or left(ROOT) == sorted(ENTRIES)


@each_job
def test_result_log_that_cannot_be_moved_into_its_place_is_told_to_the_debug_log(job):
    os.makedirs(Session().file(job.result))
    outcome = job.run()
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")
    job.check_done()
    left_over, = temporaries(SESSION)
    assert f"Cannot rename {left_over} to /mnt/session/{job.result}: Is a directory" in Session().log()
    assert b'status="success"' in read(left_over)


@pytest.mark.parametrize("document", ["scout result", "deployment status"])
def test_directory_in_the_place_of_a_document_is_no_success(document):
    job, name, _, told = DOCUMENTS[document]
    os.makedirs(Session().file(name))
    outcome = job.run()
    assert (outcome.code, innermost()) == (2, told)
    assert temporaries(SESSION) == []


@pytest.mark.parametrize("put_obstacle", [lambda: os.makedirs(Session().file(STATUS)),
                                          lambda: full_device(f"{STATUS}.tmp")],
                         ids=["directory in its place", "full device"])
def test_refresh_that_fails_here_is_the_last_and_leaves_no_temporary_file(put_obstacle):
    pipes = [f"{ROOT.agent_dir}/go-on", f"{ROOT.agent_dir}/{STATUS}"]
    deployed_agent(ROOT, f"read line < {pipes[0]}; :\n", {"dump.xml": TEXT})
    for pipe in pipes:
        os.mkfifo(pipe)
    put_obstacle()
    running = DUMP.start()
    with open(pipes[1], "wb") as status:  # returns when it is refreshed
        status.write(b"<status/>")
    with open(pipes[0], "wb"):
        pass
    outcome = running.finish(20)
    DUMP.check(outcome)
    assert outcome.code == 0
    assert not os.path.isfile(Session().file(STATUS))


# --- accounts --------------------------------------------------------------------------------

@pytest.fixture
def no_service_account():
    files = ["/etc/passwd", "/etc/group", "/etc/shadow"]
    kept = {path: read(path) for path in files}
    for path, text in kept.items():
        write(path, b"".join(line for line in text.splitlines(True) if not line.startswith(b"qrvadm:")))
    yield
    for path, text in kept.items():
        write(path, text, mode=0o600 if path == "/etc/shadow" else 0o644)


@pytest.mark.usefixtures("no_service_account")
@each_job
def test_service_account_that_is_not_there_leaves_all_to_root(system_log, job):
    outcome = job.run()
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")
    job.check(outcome)
    for parent, directories, names in os.walk(SESSION):
        for name in directories + names:
            assert owner_and_mode(f"{parent}/{name}")[:2] == (0, 0), name
    assert "Unable to find uid for user qrvadm: no such account" in system_log.text()
