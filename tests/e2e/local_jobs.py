"""Runs of the tool that can fail because of this host."""
import dataclasses
import os
import resource
import shutil
import stat
import subprocess
import typing

import pytest

from content import offered
from invariants import ARCHIVES, EXIT_CODES, check, check_documents, temporaries
from source_host import SourceHost, deployed_agent, install_agent
from tool import Destination, Session
from world import DTM, ROOT, SESSION, write

DUMPS = "/mnt/dumps"
PAGE = resource.getpagesize()
# More than two pages, and not a whole number of them.
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
    for directory in (SESSION, DUMPS):
        subprocess.run(["umount", "-q", directory], check=False, stderr=subprocess.DEVNULL)
        shutil.rmtree(directory, ignore_errors=True)


def mount(directory, options):
    os.makedirs(directory, exist_ok=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"mode=750,{options}", "small", directory], check=True)


def remount(directory, options):
    subprocess.run(["mount", "-o", f"remount,{options}", directory], check=True)


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
    """A run of one action; `documents` are what a successful run makes."""
    action: str
    prepare: typing.Callable
    documents: dict
    options: tuple = ()
    result: str = "migration.result"

    def run(self, **how):
        """Runs it on a source host that has everything it needs."""
        shutil.rmtree(ROOT.agent_dir, ignore_errors=True)
        self.prepare()
        return self.start(**how).finish(20)

    def start(self, **how):
        return Destination(ROOT).start(self.action, *self.options, **how)

    def check(self, outcome, leaves=0):
        """Checks what must be true after every run. The result log may be missing if it could not be saved."""
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
    """Content is fetched in both ways; other actions have only one."""
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
    # The run does all its work without these two.
    "result log": (DUMP, "migration.result", 50, None),
    "debug log": (CONTENT, "migration.log", 100, None),
}


def full_device(name):
    """Puts a device that is always full into the session."""
    os.makedirs(os.path.dirname(Session().file(name)), exist_ok=True)
    os.mknod(Session().file(name), 0o666 | stat.S_IFCHR, os.makedev(1, 7))
