"""What becomes of a run when the destination's own disk, directories or accounts fail it."""
import dataclasses
import os
import resource
import shutil
import signal
import stat
import subprocess
import typing

import pytest

from content import left, offered
from invariants import ARCHIVES, EXIT_CODES, check, check_documents, complete, temporaries
from source_host import SourceHost, deployed_agent, install_agent
from system_faults import Fault, preload  # a fixture  # noqa: F401  # pylint: disable=unused-import
from tool import Destination, Session, sondrel
from world import BINARY, DTM, ROOT, SESSION, owner_and_mode, read, wait_until, write

pytestmark = pytest.mark.matrix("local")

DUMPS = "/mnt/dumps"
PAGE = resource.getpagesize()
# More than two pages, and no whole number of them.
TEXT = b"0123456789abcde\n" * (5 * PAGE // 16 + 5)
ENTRIES = {"first": TEXT, "sub/second": b"22", "third": b""}
STATUS = "dumping-status.xml"


@pytest.fixture(autouse=True)
def source():
    with SourceHost(recording=False) as host:
        yield host


@pytest.fixture(autouse=True)
def no_mounts():
    yield
    for folder in (SESSION, DUMPS):
        subprocess.run(["umount", "-q", folder], check=False, stderr=subprocess.DEVNULL)
        shutil.rmtree(folder, ignore_errors=True)


def mount(folder, options):
    os.makedirs(folder, exist_ok=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"mode=750,{options}", "small", folder], check=True)


def remount(folder, options):
    subprocess.run(["mount", "-o", f"remount,{options}", folder], check=True)


# --- the runs --------------------------------------------------------------------------------

def scout():
    write(f"{DTM}/scout.pl", b"print <DATA>;\n__END__\n" + TEXT)


def agent():
    deployed_agent(ROOT, 'cat "${0%/*}/report"\n', {"report": TEXT, "dump.xml": TEXT, STATUS: TEXT})


def agent_to_deploy():
    install_agent(b"cat <<'END'\n" + TEXT + b"END\n")


def content():
    offered(ROOT, *ENTRIES.items())


@dataclasses.dataclass
class Job:
    """A run of one action; `documents` is what a run that ends well has made."""
    action: str
    prepare: typing.Callable
    documents: dict
    options: tuple = ()
    result: str = "migration.result"

    def run(self, **how):
        """A run on a source host that has everything."""
        shutil.rmtree(ROOT.agent_dir, ignore_errors=True)
        self.prepare()
        return self.start(**how).finish(20)

    def start(self, **how):
        return Destination(ROOT).start(self.action, *self.options, **how)

    def check(self, outcome, leaves=0):
        """Holds whatever became of the run; the result log may be what could not be saved."""
        saved = os.path.isfile(Session().file(self.result))
        if self.action == "get-content":
            check(outcome, ENTRIES, leaves=leaves, result_saved=saved)
            return
        assert outcome.code in EXIT_CODES, outcome
        check_documents(Session())
        assert len(temporaries(SESSION)) == leaves
        if saved:
            assert Session().result()[1] == [("status", "error" if outcome.code else "success")]
        if outcome.code == 0:
            self.check_done()
        else:
            assert outcome.stderr
            assert not saved or not Session().exists("dump-name") or innermost() == "FileWrite"

    def check_done(self):
        for name, text in self.documents.items():
            assert Session().read(name) == text, name


DUMP = Job("dump-all", agent, {"dump.xml": TEXT, "dump-name": b"/mnt/session/dump.xml"})
CONTENT = Job("get-content", content, {
    **{f"archives/{name}": text for name, text in ENTRIES.items()},
    "dump-name": b"/mnt/session/archives/dump.xml",
    "migration-result-name": b"/mnt/session/archives/migration.result"}, ("--no-check-space",), "transfer.result")
JOBS = {
    "scout": Job("send-scout", scout, {"scout-result.xml": TEXT}),
    "deployment": Job("deploy-agent", agent_to_deploy, {"agent-deployment.status": TEXT}),
    "dump": DUMP,
    "content": CONTENT,
}


def each_job(test):
    """Content is fetched in both ways; all else has only one."""
    jobs = [pytest.param("unverified", job, id=name) for name, job in JOBS.items()]
    jobs.append(pytest.param("verified", CONTENT, id="verified content"))
    mark = pytest.mark.parametrize("content_verify, job", jobs, indirect=["content_verify"])
    return pytest.mark.usefixtures("content_verify")(mark(test))


def innermost(result="migration.result"):
    """The tag of the error that ended the run."""
    message = Session().messages(result)[-1]
    while message[3]:
        message, = message[3]
    return message[0]


# --- a full disk -----------------------------------------------------------------------------

def run_with_more_and_more_room(job, options_for, most):
    """Runs on file systems of growing size, until one will do; returns how many would not."""
    failed = 0
    for amount in range(most):
        mount(SESSION, options_for(amount))
        # What a file takes that is not there for the run.
        write(f"{SESSION}/filler", b"x" * PAGE)
        outcome = job.run()
        job.check(outcome)
        if outcome.code != 0:
            failed += 1
            remount(SESSION, "size=10m,nr_inodes=1000")
            assert job.start().finish(20).code == 0
            job.check_done()
        roomy = outcome.code == 0 and Session().log().endswith("Exit code: 0\n") and Session().exists(job.result)
        subprocess.run(["umount", SESSION], check=True)
        if roomy:
            return failed
    raise AssertionError(f"{most} was not enough")


@each_job
def test_session_on_a_full_disk_fails_until_all_has_room(cases, job):
    failed = run_with_more_and_more_room(job, lambda pages: f"size={(pages + 1) * PAGE}", 30)
    assert failed >= 5
    cases(failed)


@each_job
def test_session_without_inodes_fails_until_all_have_one(cases, job):
    # One is the directory's and one the filler's.
    failed = run_with_more_and_more_room(job, lambda number: f"size=10m,nr_inodes={number + 2}", 20)
    assert failed >= 3
    cases(failed)


@pytest.mark.usefixtures("content_verify")
@pytest.mark.parametrize("pages", [0, 2, 5], ids=["first byte", "byte 8192", "last buffer"])
def test_content_file_that_outgrows_its_disk_stays_on_the_source_host(pages):
    mount(DUMPS, f"size={(pages + 1) * PAGE}")
    write(f"{DUMPS}/filler", b"x" * PAGE)
    content()
    job = dataclasses.replace(CONTENT, options=("--no-check-space", "--dumps-dir", DUMPS))
    outcome = job.start().finish(20)
    check(outcome, ENTRIES, target=DUMPS)
    assert (outcome.code, innermost("transfer.result")) == (2, "StreamWrite")
    assert left(ROOT) == sorted(ENTRIES)
    assert os.path.getsize(f"{DUMPS}/first") == pages * PAGE


# (size of the file, room): large enough that a second thread writes it
LARGE = {"amid the file": (6 << 20, 2 << 20), "last bytes": ((2 << 20) + 1000, 2 << 20)}


@pytest.mark.usefixtures("content_verify")
@pytest.mark.parametrize("size, room", LARGE.values(), ids=LARGE)
def test_large_content_file_that_outgrows_its_disk_stays_on_the_source_host(size, room):
    entries = {"large": bytes(range(256)) * (size // 256) + b"x" * (size % 256), "next": b"n"}
    mount(DUMPS, f"size={room}")
    offered(ROOT, *entries.items())
    job = dataclasses.replace(CONTENT, options=("--no-check-space", "--dumps-dir", DUMPS))
    outcome = job.start().finish(60)
    check(outcome, entries, target=DUMPS)
    assert (outcome.code, innermost("transfer.result")) == (2, "StreamWrite")
    assert "No space left on device" in Session().read("transfer.result").decode()
    assert left(ROOT) == sorted(entries)
    assert read(f"{DUMPS}/large") == entries["large"][:room]
    remount(DUMPS, f"size={2 * size}")
    assert job.start().finish(60).code == 0
    assert {name: read(f"{DUMPS}/{name}") for name in entries} == entries
    assert left(ROOT) == []


# document: (the run, its path from the start, how many bytes it takes, how the run ends)
DOCUMENTS = {
    "content file": (CONTENT, "archives/first", len(TEXT), "StreamWrite"),
    "dump": (DUMP, "dump.xml", len(TEXT), "StreamWrite"),
    "scout result": (JOBS["scout"], "scout-result.xml", len(TEXT), "StreamWrite"),
    "deployment status": (JOBS["deployment"], "agent-deployment.status", len(TEXT), "StreamWrite"),
    "name of the dump": (DUMP, "dump-name", len("/mnt/session/dump.xml"), "FileWrite"),
    "name of the dump of a content run": (CONTENT, "dump-name", len(f"{ARCHIVES}/dump.xml"), "FileWrite"),
    "name of the result": (CONTENT, "migration-result-name", len(f"{ARCHIVES}/migration.result"), "FileWrite"),
    "status": (CONTENT, "migration.status", 100, "tError_SaveFile"),
    # All the work is done without these two.
    "result log": (DUMP, "migration.result", 50, None),
    "debug log": (CONTENT, "migration.log", 100, None),
}


@pytest.mark.release_only
@pytest.mark.parametrize("document", DOCUMENTS)
def test_document_that_finds_no_room_at_a_byte_is_told(preload, cases, document):
    job, name, size, told = DOCUMENTS[document]
    limits = [limit for limit in (0, 1, 8191, 8192) if limit < size - 1] + [size - 1]
    for limit in limits:
        shutil.rmtree(SESSION, ignore_errors=True)
        fault = Fault(preload, "full", limit, path=Session().file(name))
        outcome = job.run(environment=fault.environment)
        assert fault.struck(), limit
        job.check(outcome)
        assert outcome.code == (2 if told else 0)
        assert not told or innermost(job.result) == told
        if name in job.documents:
            assert Session().read(name) == job.documents[name][:limit]
    cases(len(limits))


def with_full_stream(number):
    """What gives the tool a standard stream into which nothing goes."""
    return ["sh", "-c", f'exec "$@" {number}>/dev/full', "sh", BINARY]


def test_stop_whose_text_cannot_be_written_is_still_a_clean_stop():
    content()
    path = f"{ROOT.agent_dir}/first"
    os.unlink(path)
    os.mkfifo(path)
    running = CONTENT.start(through=with_full_stream(1))
    with open(path, "wb") as pipe:  # returns when it is read
        running.send(signal.SIGUSR1)
        pipe.write(b"x")
    assert running.finish(20).code == 0
    assert Session().result("transfer.result")[1] == [("status", "success")]
    assert "INFO k.log: Migration has been terminated\n" in Session().log()
    assert not Session().exists("dump-name")


@pytest.mark.parametrize("script, code", [("exit 0", 0), ("exit 3", 2)], ids=["success", "failure"])
def test_error_output_that_is_full_changes_no_exit_code(script, code):
    write(f"{DTM}/scout.pl", script)
    # A verbose run writes its log there too.
    assert Destination(ROOT).run("send-scout", "--verbose", through=with_full_stream(2)).code == code
    assert Session().log().endswith(f"Exit code: {code}\n")
    assert Session().result()[1] == [("status", "error" if code else "success")]


def full_device(name):
    """Puts into the session a device on which there is never any room."""
    os.makedirs(os.path.dirname(Session().file(name)), exist_ok=True)
    os.mknod(Session().file(name), 0o666 | stat.S_IFCHR, os.makedev(1, 7))


@pytest.mark.parametrize("document", DOCUMENTS)
def test_document_on_a_full_device_is_told(document):
    job, name, _, told = DOCUMENTS[document]
    full_device(name)
    outcome = job.run()
    # A document that is replaced has nothing to do with what was in its place.
    replaced = name in ("migration.status", "migration.result")
    if replaced or not told:
        assert outcome.code == 0
        job.check_done()
        assert stat.S_ISCHR(os.lstat(Session().file(name)).st_mode) is not replaced
    else:
        # A device is no place for content.
        assert (outcome.code, innermost(job.result)) == (
            2, "CantRetrieveContentFile" if name.startswith("archives") else told)
        assert temporaries(SESSION) == []
        if job is CONTENT:
            assert set(left(ROOT)) | complete(ENTRIES, ARCHIVES) == set(ENTRIES)


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


def test_folder_that_finds_no_inode_is_told_with_the_reason():
    mount(DUMPS, "size=1m,nr_inodes=1")
    entries = {"sub/second": b"22"}
    offered(ROOT, *entries.items())
    outcome = Destination(ROOT).run("get-content", "--no-check-space", "--dumps-dir", DUMPS)
    check(outcome, entries, target=DUMPS)
    (_, _, _, ((code, _, text, _),)), = Session().messages("transfer.result")
    assert (code, text.rpartition(": ")[2]) == ("CantRetrieveContentFile", "No space left on device")


@pytest.mark.usefixtures("content_verify")
@pytest.mark.parametrize("victim", [DUMPS, f"{DUMPS}/sub", f"{DUMPS}/sub/second", SESSION],
                         ids=["target folder", "folder of the file", "file", "session"])
def test_folder_that_is_removed_under_way_keeps_the_content_on_the_source_host(victim):
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
    # What the run had to say is all in it, for the service account.
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
def test_folder_in_the_place_of_a_document_is_no_success(document):
    job, name, _, told = DOCUMENTS[document]
    os.makedirs(Session().file(name))
    outcome = job.run()
    assert (outcome.code, innermost()) == (2, told)
    assert temporaries(SESSION) == []


@pytest.mark.parametrize("put_obstacle", [lambda: os.makedirs(Session().file(STATUS)),
                                          lambda: full_device(f"{STATUS}.tmp")],
                         ids=["folder in its place", "full device"])
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
    for parent, folders, names in os.walk(SESSION):
        for name in folders + names:
            assert owner_and_mode(f"{parent}/{name}")[:2] == (0, 0), name
    assert "Unable to find uid for user qrvadm: no such account" in system_log.text()
