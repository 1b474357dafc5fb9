"""Checks that must pass after every run of --get-content, whatever happened to it."""
import os
import re
import stat

from tool import Session
from world import ROOT, read

ARCHIVES = "/mnt/session/archives"
# 0 to 2 and the codes of connection failures. No run ends by itself with another code or a signal.
EXIT_CODES = {0, 1, 2, 11, 12, 13, 14, 15, 16, 17, 18}
TERMINATED = b"Migration has been terminated"
# Temporary names of documents while they are written.
TEMPORARY = re.compile(r"(migration\.status|transfer\.result|migration\.result)\w{6}"
                       r"|dumping-status\.xml\.tmp")
# The documents of a session and the roots that they have.
ROOTS = {"migration.status": "migration-status", "transfer.result": "execution-result",
         "migration.result": "execution-result"}
NAMES = {"dump-name": "dump.xml", "migration-result-name": "migration.result"}


def temporaries(*directories):
    """Paths of the temporary files anywhere below the directories."""
    return sorted(os.path.join(parent, name) for directory in directories for parent, _, names in os.walk(directory)
                  for name in names if TEMPORARY.fullmatch(name))


def check_documents(session):
    """All documents that exist can be parsed and have their root."""
    for name, root in ROOTS.items():
        if session.exists(name) and os.path.isfile(session.file(name)):
            assert session.tree(name)[0] == root, name


def regular_files(directory):
    """{path relative to the directory, as bytes: content}; a fifo or a device would be read for ever."""
    top = os.fsencode(directory)
    paths = [os.path.join(parent, name) for parent, _, names in os.walk(top) for name in names]
    return {os.path.relpath(path, top): read(path) for path in paths if stat.S_ISREG(os.lstat(path).st_mode)}


def complete(entries, target):
    """Names of the entries whose files below the target are as offered."""
    here = regular_files(target)
    return {name for name, content in entries.items() if here.get(os.fsencode(name)) == content}


def check_nothing_lost(entries, target=ARCHIVES, login=ROOT):
    """Every content file ({name: content}) is complete here, or unchanged on the source host, or both."""
    there = regular_files(login.agent_dir)
    lost = [name for name in set(entries) - complete(entries, target)
            if there.get(os.fsencode(name)) != entries[name]]
    assert not lost, f"neither here nor there: {lost}"


def check(outcome, entries, target=ARCHIVES, login=ROOT, session=None, leaves=0, already=(), result_saved=True):
    """All that holds after a run over content files ({name: content}).

    `leaves`: the number of temporary files that must be left, for example after a failed change of owner or rename.
    `already`: names of the files that were complete here before the run, so that it leaves them on the source host.
    `result_saved`: false when the result log itself could not be saved; it is not checked then. A killed run leaves its
    work unfinished.
    """
    session = session or Session()
    killed = outcome.code in (-9, -15)
    assert killed or outcome.code in EXIT_CODES, outcome
    check_nothing_lost(entries, target, login)
    check_documents(session)
    if killed:
        return
    left = temporaries(session.path, target)
    assert len(left) == leaves, left
    terminated = outcome.code == 0 and outcome.stdout == TERMINATED
    assert terminated or outcome.stdout == b"", outcome
    if result_saved:
        check_result(outcome, terminated, session)
    if outcome.code == 0 and not terminated:
        check_work_done(outcome, entries, target, session)
        stayed = set(regular_files(login.agent_dir)) & {os.fsencode(name) for name in set(entries) - set(already)}
        assert not stayed or not result_saved or session.messages("transfer.result"), (
            f"{stayed} stayed on the source host without a word")
    else:
        check_work_not_claimed(outcome, session, result_saved)


def check_result(outcome, terminated, session):
    """The result log agrees with the exit code."""
    (_, status), = session.result("transfer.result")[1]
    assert status == ("success" if outcome.code == 0 else "error")
    if outcome.code not in (0, 1):
        assert outcome.stderr, "nothing was told"
        assert session.messages("transfer.result"), "no message of the failure"
    if terminated:
        assert outcome.stderr == b""


def check_work_done(outcome, entries, target, session):
    """All files and documents are here; files that stayed on the source host are reported."""
    missing = set(entries) - complete(entries, target)
    assert not missing, f"status 0, but not here: {missing}"
    assert outcome.stderr == b""
    for name, document in NAMES.items():
        assert os.fsdecode(session.read(name)) == f"{target}/{document}"


def check_work_not_claimed(outcome, session, result_saved):
    """Only a run that did all its work, or that failed at just these names, leaves the names of documents."""
    there = [name for name in NAMES if session.exists(name)]
    if there and result_saved:
        causes = [cause[0] for message in session.messages("transfer.result")[-1:] for cause in message[3]]
        assert causes == ["FileWrite"], f"{there} in spite of {outcome}"
